#include "daemon/capture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

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

// A file in $TMPDIR whose name is gone before anyone could use it.
int unnamed_tmp_file()
{
    const char* dir = getenv("TMPDIR");
    if (!dir || !*dir)
        dir = "/tmp";
    std::string name = std::string(dir) + "/vexprod-capture.XXXXXX";
    int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd >= 0)
        unlink(name.c_str());
    return fd;
}

// The capture, kept above the standard streams as the runner wants.
int capture_fd(CaptureIn where)
{
    int fd = where == CaptureIn::memory ? memfd_create("vexprod-capture", MFD_CLOEXEC) : unnamed_tmp_file();
    if (fd >= 0 && fd < 3) {
        int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        close(fd);
        fd = high;
    }
    return fd;
}

}  // namespace

bool run_captured(const char* path, const char* const argv[], CapturedRun& run, size_t max_output, bool own_group,
                  CaptureIn where)
{
    int fd = capture_fd(where);
    if (fd < 0)
        return false;
    run.exec_status = runner_exec_into(fd, path, argv, own_group);
    read_back(fd, run, max_output);
    return true;
}
