// Replays a fuzz target's corpus without libFuzzer, so that every ordinary
// build (and ctest) runs each committed input through the target.
//   <target> FILE_OR_DIRECTORY...
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

namespace {

void collect(const std::string& path, std::vector<std::string>& files)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return;
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return;
    }
    if (DIR* dir = opendir(path.c_str())) {
        while (struct dirent* e = readdir(dir))
            if (e->d_name[0] != '.')
                collect(path + "/" + e->d_name, files);
        closedir(dir);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++)
        collect(argv[i], files);
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
