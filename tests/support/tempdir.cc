// TempDir: mkdtemp on the way in, a depth-first removal on the way out.
#include "support/tempdir.h"

#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

}  // namespace

TempDir::TempDir()
{
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/vexprod-test.XXXXXX";
    if (!mkdtemp(templ.data())) {
        perror("mkdtemp");
        abort();
    }
    path_ = templ;
}

TempDir::~TempDir()
{
    nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}
