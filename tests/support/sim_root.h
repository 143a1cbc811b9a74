// A fresh simulated platform root for one test (sim/make-root in a
// temporary directory, removed at the end): the stubs' journal of calls,
// their steering files, and files by platform path.
#pragma once

#include "sim/simlib.h"

// One journaled call of a platform program or library function.
struct SimCall {
    std::string who;                   // platform path of the program or library
    std::vector<std::string> argv;     // argv[0] included; for a library the function name first
    std::optional<std::string> input;  // standard input, for programs that read it

    bool operator==(const SimCall&) const = default;
};

class SimRoot : NoCopy {
public:
    SimRoot() : root_(dir_.path()) { make(); }  // throws std::runtime_error when the root cannot be made
    ~SimRoot();

    const std::string& path() const { return root_; }
    // Where a platform path ("/sbin/conf_get") lives on the host.
    std::string abs(const std::string& platform_path) const { return root_ + platform_path; }
    // VEXPROD_PLATFORM_ROOT at this root while the object lives, for
    // handlers run in this process.
    void make_current() { env_.emplace("VEXPROD_PLATFORM_ROOT", root_.c_str()); }
    void reset() { make(); }  // back to the initial state, journal empty

    // Every call in journal order, or those of one program or library.
    std::vector<SimCall> calls() const;
    std::vector<SimCall> calls(const std::string& who) const;
    void clear_calls() { write_file(sim::JOURNAL, ""); }

    // Steering of one program by platform path: what it prints instead of
    // its default behaviour, what it adds on stderr, its exit status, a delay.
    void set_output(const std::string& program, const std::string& text) { steer(program, ".out", text); }
    void set_stderr(const std::string& program, const std::string& text) { steer(program, ".err", text); }
    void set_exit(const std::string& program, int status) { steer(program, ".exit", std::to_string(status) + "\n"); }
    void set_delay_ms(const std::string& program, int ms) { steer(program, ".delay", std::to_string(ms) + "\n"); }
    // The stub plays one more program, e.g. an app moved elsewhere.
    void add_program(const std::string& platform_path);
    // Every command of both services granted to anyone: attacks then come
    // from a caller the policy lets through, the worst case.
    void grant_everyone();

    // write_file creates the directories; read_file throws when the file is missing.
    void write_file(const std::string& platform_path, const std::string& text);
    std::string read_file(const std::string& platform_path) const;
    bool exists(const std::string& platform_path) const { return file_exists(abs(platform_path)); }
    void remove(const std::string& platform_path);

private:
    void make();
    void steer(const std::string& program, const char* what, const std::string& text)
    {
        write_file(sim::STEER_DIR + program + what, text);
    }

    TempDir dir_;
    std::string root_;
    std::optional<ScopedEnv> env_;
};
