#include "daemon/capture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "daemon/runner.h"

namespace {

// At most max_output bytes of fd from its start, then fd is closed.
void read_back(int fd, CapturedRun& run, size_t max_output)
{
    run.output.clear();
    char buf[4096];
    for (off_t at = 0; run.output.size() < max_output;) {
        size_t want = sizeof(buf);
        if (max_output - run.output.size() < want)
            want = max_output - run.output.size();
        ssize_t got = pread(fd, buf, want, at);
        if (got <= 0)
            break;
        run.output.append(buf, static_cast<size_t>(got));
        at += got;
    }
    close(fd);
}

}  // namespace

bool run_captured(const char* path, const char* const argv[], CapturedRun& run, size_t max_output, bool own_group)
{
    const char* dir = getenv("TMPDIR");
    if (!dir || !*dir)
        dir = "/tmp";
    std::string name = std::string(dir) + "/vexprod-capture.XXXXXX";
    int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0)
        return false;

    // The runner opens the file again by name (and truncates it); we read it
    // back through the descriptor that created it.
    run.exec_status = own_group ? dwe_vexprod_tarsk_exec_v_group(name.c_str(), path, argv)
                                : dwe_vexprod_tarsk_exec_v(name.c_str(), nullptr, nullptr, path, argv);
    read_back(fd, run, max_output);
    run.remove_status = remove(name.c_str());
    run.file = name;
    return true;
}

bool run_captured_in_memory(const char* path, const char* const argv[], CapturedRun& run, size_t max_output,
                            bool own_group)
{
    // Kept above the standard streams, as the runner wants.
    int fd = memfd_create("vexprod-capture", MFD_CLOEXEC);
    if (fd >= 0 && fd < 3) {
        int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        close(fd);
        fd = high;
    }
    if (fd < 0)
        return false;
    run.exec_status = runner_exec_into(fd, path, argv, own_group);
    read_back(fd, run, max_output);
    run.remove_status = 0;
    run.file.clear();
    return true;
}
