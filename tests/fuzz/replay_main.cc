// Replays a fuzz target's corpus without libFuzzer, so that every ordinary
// build (and ctest) runs each committed input through the target:
//   <target> DIRECTORY...
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++)
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i]))
            if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
                files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
