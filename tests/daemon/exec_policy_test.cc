// Which programs a caller may have run, with the reason for each refusal:
// names like a shell's that are not one, links, what others could swap.
// Shells and interpreters by name are refused end to end (security.cases).
#include "daemon/exec_policy.h"

#include "support/suite.h"

namespace fs = std::filesystem;

namespace {

// A tree nobody but root or us can write all the way up: beside the build
// outputs, or in /run when the build tree sits under /tmp. Each row loosens
// one thing, and /tmp is writable by everyone.
TEST(ExecPolicy, ProgramsAndScriptsOthersCouldChangeAreRefusedWithTheReason)
{
    std::string dir, echo, why;
    for (const std::string& base : {binary_dir() + "/tests", std::string("/run")}) {
        dir = base + "/exec-policy-" + std::to_string(getpid()), echo = dir + "/echo";
        fs::remove_all(dir);
        if (mkdir(dir.c_str(), 0755) == 0 && chmod(dir.c_str(), 0755) == 0 && fs::copy_file("/bin/echo", echo) &&
            exec_program_allowed(echo, why))
            break;
        fs::remove_all(dir);
        dir.clear();
    }
    if (dir.empty())
        GTEST_SKIP() << "no directory here is trusted (" << why << ")";
    fs::create_symlink("echo", dir + "/echo-link");
    fs::create_symlink("a", dir + "/b");
    fs::create_symlink("b", dir + "/a");
    fs::copy_file("/lib64/ld-linux-x86-64.so.2", dir + "/loader");
    ASSERT_TRUE(write_text_file(dir + "/tool", "#!/bin/sh\necho\n"));
    TempDir tmp;
    fs::create_symlink("/bin/bash", tmp.file("calc"));
    fs::create_symlink("/bin/echo", tmp.file("echo"));
    const std::string self = "/proc/" + std::to_string(getpid()) + "/exe";
    const struct {
        std::string program, why = "";  // why: empty when allowed
        std::string loosen = "";        // made writable by others for the row
        uid_t owner = 0;
    } cases[] = {
        {"/bin/echo"}, {"/usr/bin/shred"}, {"/bin/bashful"}, {"/usr/bin/phpx"}, {"/opt/sh/tool"}, {""},
        {"/no/such/program"}, {dir + "/../" + fs::path(dir).filename().string() + "/echo-link"},
        {"/usr/bin/python3.11", "a shell, an interpreter or a launcher of other programs"},
        {tmp.file("calc"), "leads to /usr/bin/bash, a shell, an interpreter or a launcher of other programs"},
        {"/usr/bin/env", "a shell, an interpreter or a launcher of other programs"},
        {tmp.file("echo"), "/tmp is writable by group or others"},
        {self, self + " is a link of /proc"},
        {echo, echo + " is writable by group or others", echo},
        {dir + "/echo-link", dir + " is writable by group or others", dir},
        {dir + "/a", dir + "/a: too many levels of symbolic links"},
        {dir + "/loader", "the program loader or a shared library"},
        {dir + "/tool", "a script with an interpreter line"},
        {dir + "/echo-link", echo + " belongs to uid 65534", "", kSpareUid},
    };
    EXPECT_FALSE(dv_blocked_program(nullptr));
    for (const auto& c : cases) {
        if (c.owner && !can_switch_user())
            continue;
        if (!c.loosen.empty())
            chmod(c.loosen.c_str(), 0777);
        ASSERT_TRUE(!can_switch_user() || chown(echo.c_str(), c.owner, c.owner) == 0);
        std::string why;
        EXPECT_EQ(exec_program_allowed(c.program, why), c.why.empty()) << c.program;
        EXPECT_EQ(why, c.why) << c.program;
        if (!c.loosen.empty())
            chmod(c.loosen.c_str(), 0755);
    }
    fs::remove_all(dir);
}

}  // namespace
