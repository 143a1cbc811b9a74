#include "daemon/program.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "daemon/log.h"
#include "daemon/runner.h"
#include "platform/paths.h"

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


// The vector as the runner takes it: pointers into argv, a null at the end.
std::vector<const char*> pointers(const std::vector<std::string>& argv)
{
    std::vector<const char*> ptrs;
    ptrs.reserve(argv.size() + 1);
    for (const std::string& arg : argv)
        ptrs.push_back(arg.c_str());
    ptrs.push_back(nullptr);
    return ptrs;
}

// An argument as the debug log shows it: "KEY=value" with a KEY that names
// a token, password or secret keeps only "KEY=***". The program still gets
// the whole argument.
std::string masked(const std::string& arg)
{
    const size_t eq = arg.find('=');
    if (eq == std::string::npos)
        return arg;
    std::string key = arg.substr(0, eq);
    std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const char* secret : {"token", "pw", "pass", "secret"})
        if (key.find(secret) != std::string::npos)
            return arg.substr(0, eq + 1) + "***";
    return arg;
}

void log_argv(const std::vector<const char*>& ptrs, ArgvLog log, const char* handler, int line)
{
    for (size_t i = 0; log != ArgvLog::none && i < ptrs.size(); ++i) {
        const std::string shown = ptrs[i] ? masked(ptrs[i]) : "(null)";
        if (log == ArgvLog::elements_and_end)
            dbg_printf2("[%s][%d] argv[%d] = [%s] ", handler, line, static_cast<int>(i), shown.c_str());
        else if (ptrs[i])
            dbg_printf2("[%s][%d] argv[%d] = [%s]", handler, line, static_cast<int>(i), shown.c_str());
    }
}

}  // namespace

std::vector<std::string> tool_argv(std::string_view program, const std::vector<std::string>& args)
{
    std::vector<std::string> argv;
    argv.reserve(args.size() + 1);
    size_t slash = program.rfind('/');
    argv.emplace_back(slash == std::string_view::npos ? program : program.substr(slash + 1));
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

int run_program(std::string_view program, const std::vector<std::string>& args, ArgvLog log, const char* handler,
                int line)
{
    const std::vector<std::string> argv = tool_argv(program, args);
    const std::vector<const char*> ptrs = pointers(argv);
    log_argv(ptrs, log, handler, line);
    const std::string path = platform_path(std::string(program));
    return dwe_vexprod_tarsk_exec_v(nullptr, nullptr, nullptr, path.c_str(), ptrs.data());
}

int run_program(std::string_view program, const std::vector<std::string>& args, std::string& output, ArgvLog log,
                const char* handler, int line)
{
    const std::vector<std::string> argv = tool_argv(program, args);
    const std::vector<const char*> ptrs = pointers(argv);
    log_argv(ptrs, log, handler, line);
    const std::string path = platform_path(std::string(program));
    CapturedRun run;
    if (!run_captured(path.c_str(), ptrs.data(), run))
        return -1;
    output = std::move(run.output);
    return run.exec_status;
}

int run_program_through(std::string_view program, const std::vector<std::string>& args, int in_fd, int out_fd)
{
    const std::vector<std::string> argv = tool_argv(program, args);
    const std::vector<const char*> ptrs = pointers(argv);
    if (lseek(in_fd, 0, SEEK_SET) < 0 || ftruncate(out_fd, 0) != 0 || lseek(out_fd, 0, SEEK_SET) < 0)
        return -1;
    const std::string path = platform_path(std::string(program));
    return runner_exec_through(in_fd, out_fd, path.c_str(), ptrs.data());
}

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
