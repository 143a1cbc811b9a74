// Without libFuzzer, a fuzz target runs each file of the corpus directories it
// is given once, in name order: every ordinary build replays the corpora.
#include "support/suite.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; i++)
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        const std::string data = read_text_file(file);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return files.empty();
}
