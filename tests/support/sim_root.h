// SimRoot: a fresh simulated platform root for one test (platform/sim/make-root
// in a unique temporary directory, removed again at the end), with readers for
// the call journal and setters for the stubs' steering files.
#pragma once

#include "support/env.h"
#include "support/files.h"
#include "support/tempdir.h"

#include <optional>
#include <string>
#include <vector>

// One journaled call of a platform program or library function.
struct SimCall {
    std::string who;                  // platform path of the program or library
    std::vector<std::string> argv;    // argv[0] included; for a library the function name first
    std::optional<std::string> input; // standard input, for programs that read it

    bool operator==(const SimCall&) const = default;
};

class SimRoot {
public:
    // Throws std::runtime_error when the root cannot be made.
    SimRoot();
    ~SimRoot();
    SimRoot(const SimRoot&) = delete;
    SimRoot& operator=(const SimRoot&) = delete;

    // The root on the host, without a trailing slash.
    const std::string& path() const { return root_; }
    // Where a platform path ("/sbin/conf_get") lives on the host.
    std::string abs(const std::string& platform_path) const { return root_ + platform_path; }
    // Points VEXPROD_PLATFORM_ROOT at this root until the destructor puts the
    // previous value back, for tests that run handlers in this process.
    void make_current();
    // Runs make-root again: back to the initial state, journal empty.
    void reset() { make(); }

    // Every call in journal order, or only those of one program or library.
    std::vector<SimCall> calls() const;
    std::vector<SimCall> calls(const std::string& who) const;
    void clear_calls();

    // Steering of one program (by platform path): what it prints instead of
    // its default behaviour, what it adds on stderr, its exit status, and a
    // delay before it answers.
    void set_output(const std::string& program, const std::string& text);
    void set_stderr(const std::string& program, const std::string& text);
    void set_exit(const std::string& program, int status);
    void set_delay_ms(const std::string& program, int ms);
    // Makes the stub play one more program, e.g. an app moved to another
    // Install_Path.
    void add_program(const std::string& platform_path);
    // A caller policy that grants every command of both services to anyone:
    // attacks then come from a caller the policy lets through, the worst case.
    void grant_everyone();

    // Files inside the root by platform path; write_file creates the
    // directories, read_file throws when the file is missing.
    void write_file(const std::string& platform_path, const std::string& text);
    std::string read_file(const std::string& platform_path) const;
    bool exists(const std::string& platform_path) const { return file_exists(abs(platform_path)); }
    void remove(const std::string& platform_path);

private:
    void make();

    TempDir dir_;
    std::string root_;
    std::optional<ScopedEnv> env_;
};
