// The program check of exec_cli and the ownership walk for install scripts,
// on trees made for each case: what is refused, and the reason it gives.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "daemon/exec_cli.h"
#include "daemon/exec_policy.h"
#include "support/config.h"
#include "support/env.h"
#include "support/files.h"
#include "support/other_user.h"
#include "support/tempdir.h"

namespace fs = std::filesystem;

namespace {

TEST(ExecCliProgram, IsTheFirstElementOfAUsableCommand)
{
    const std::string long_path = "/" + std::string(300, 'p');
    const std::pair<std::string, std::string> usable[] = {
        {R"({"command":["/bin/sh","-c","id"]})", "/bin/sh"},
        {R"({"command":["sh"], "other": 1})", "sh"},
        {"{\"command\":[\"" + long_path + "\"]}", long_path.substr(0, EXEC_CLI_ARG_MAX)},
    };
    for (const auto& [request, program] : usable) {
        std::string got;
        EXPECT_TRUE(exec_cli_program(request, got)) << request;
        EXPECT_EQ(got, program);
    }
    // exec_cli refuses these itself, before anything runs.
    for (const char* request : {"not json", R"({"command":"/bin/sh"})", R"({"command":[]})", R"({"command":["/bin/sh",2]})"}) {
        std::string got = "untouched";
        EXPECT_FALSE(exec_cli_program(request, got)) << request;
        EXPECT_EQ(got, "untouched");
    }
}

// exec_program_allowed on programs of the system and on what a caller could
// make of them in /tmp, which everyone may write into. Shells, interpreters
// and /proc/self are refused end to end by the security tests; these rows
// pin the reasons given and what only a unit test can set up.
TEST(ExecProgram, RefusesShellsInterpretersAndWhatOthersCouldSwap)
{
    TempDir tmp;
    fs::create_symlink("/bin/bash", tmp.file("calc"));
    fs::create_symlink("/bin/echo", tmp.file("echo"));
    for (const char* program : {"/bin/echo", "/no/such/program", ""}) {
        std::string why;
        EXPECT_TRUE(exec_program_allowed(program, why)) << program << ": " << why;
    }

    const std::pair<std::string, std::string> refused[] = {
        {tmp.file("calc"), "leads to /usr/bin/bash, a shell, an interpreter or a launcher of other programs"},
        {"/usr/bin/env", "a shell, an interpreter or a launcher of other programs"},
        {tmp.file("echo"), "/tmp is writable by group or others"},
        {"/proc/" + std::to_string(getpid()) + "/exe", "/proc/" + std::to_string(getpid()) + "/exe is a link of /proc"},
    };
    for (const auto& [program, reason] : refused) {
        std::string why;
        EXPECT_FALSE(exec_program_allowed(program, why)) << program;
        EXPECT_EQ(why, reason) << program;
    }
}

// A directory that nobody but root or us can write, all the way up, for
// trees the program check should trust: beside the build outputs.
class TrustedTree : public testing::Test {
protected:
    void SetUp() override
    {
        dir_ = binary_dir() + "/tests/exec-policy-" + std::to_string(getpid());
        fs::remove_all(dir_);
        if (mkdir(dir_.c_str(), 0755) != 0)
            GTEST_SKIP() << "cannot make " << dir_ << ": " << strerror(errno);
        ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
        std::string why;
        fs::copy_file("/bin/echo", dir_ + "/echo");
        if (!exec_program_allowed(dir_ + "/echo", why))
            GTEST_SKIP() << "the build tree is not trusted here (" << why << ")";
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string dir_;
};

TEST_F(TrustedTree, AProgramIsTrustedOnlyWhileNobodyElseCanChangeIt)
{
    const std::string echo = dir_ + "/echo";
    fs::create_symlink("echo", dir_ + "/echo-link");
    fs::create_symlink("a", dir_ + "/b");
    fs::create_symlink("b", dir_ + "/a");
    fs::copy_file("/lib64/ld-linux-x86-64.so.2", dir_ + "/loader");
    ASSERT_TRUE(write_text_file(dir_ + "/tool", "#!/bin/sh\necho\n"));
    std::string why;
    EXPECT_TRUE(exec_program_allowed(echo, why)) << why;
    EXPECT_TRUE(exec_program_allowed(dir_ + "/echo-link", why)) << why;
    EXPECT_TRUE(exec_program_allowed(dir_ + "/../" + fs::path(dir_).filename().string() + "/echo", why)) << why;

    const struct {
        std::string loosen;  // made writable by others for the case
        mode_t mode;
        std::string program, why;
    } cases[] = {
        {echo, 0775, echo, echo + " is writable by group or others"},
        {dir_, 0757, dir_ + "/echo-link", dir_ + " is writable by group or others"},
        {dir_, 0755, dir_ + "/a", dir_ + "/a: too many levels of symbolic links"},
        {dir_, 0755, dir_ + "/loader", "the program loader or a shared library"},
        {dir_, 0755, dir_ + "/tool", "a script with an interpreter line"},
    };
    for (const auto& c : cases) {
        chmod(c.loosen.c_str(), c.mode);
        EXPECT_FALSE(exec_program_allowed(c.program, why)) << c.program;
        EXPECT_EQ(why, c.why);
        chmod(c.loosen.c_str(), 0755);
    }
    if (can_switch_user()) {
        ASSERT_EQ(chown(echo.c_str(), kSpareUid, kSpareGid), 0);
        EXPECT_FALSE(exec_program_allowed(dir_ + "/echo-link", why));
        EXPECT_EQ(why, echo + " belongs to uid 65534");
    }
}

// trusted_script below a platform root of our own.
class ScriptTree : public testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(root_.file("opt/app/script"));
        ASSERT_TRUE(write_text_file(root_.file(kScript.substr(1)), "#!/bin/sh\n", 0755));
        for (const char* dir : {"opt", "opt/app", "opt/app/script"})
            ASSERT_EQ(chmod(root_.file(dir).c_str(), 0755), 0);
        ASSERT_EQ(chmod(root_.file(kScript.substr(1)).c_str(), 0755), 0);
    }

    const std::string kScript = "/opt/app/script/run.sh";
    TempDir root_;
    ScopedEnv env_{"VEXPROD_PLATFORM_ROOT", root_.path().c_str()};
};

TEST_F(ScriptTree, RunsOnlyWhatNobodyElseCouldHavePlaced)
{
    std::string why;
    EXPECT_TRUE(trusted_script(kScript, why)) << why;
    EXPECT_TRUE(trusted_script("//opt/./app/script//run.sh", why)) << why;

    // Links, "..", writable levels and other owners below the root are
    // refused end to end by the install tests; these are the walk's edges.
    const std::string top = root_.path();
    const struct {
        std::string path, loosen, why;  // loosen: made writable by others for the case
    } cases[] = {
        {"/opt/app/script/missing.sh", "", top + "/opt/app/script/missing.sh: No such file or directory"},
        {"/opt/app/script", "", top + "/opt/app/script is not a regular file"},
        {"/opt/app/script/run.sh/x", "", top + "/opt/app/script/run.sh is not a directory"},
        {"/", "", "no file named"},
        {kScript, ".", top + " is writable by group or others"},
    };
    for (const auto& c : cases) {
        const std::string loosen = root_.file(c.loosen);
        if (!c.loosen.empty())
            chmod(loosen.c_str(), 0777);
        why.clear();
        EXPECT_FALSE(trusted_script(c.path, why)) << c.path << " " << c.loosen;
        EXPECT_EQ(why, c.why) << c.path << " " << c.loosen;
        if (!c.loosen.empty())
            chmod(loosen.c_str(), c.loosen == "." ? 0700 : 0755);
    }
}

TEST(TrustedScript, OnTheApplianceTheWalkStartsAtTheRealRoot)
{
    ScopedEnv env("VEXPROD_PLATFORM_ROOT", nullptr);
    std::string why;
    EXPECT_TRUE(trusted_script("/usr/bin/env", why)) << why;
    // /bin is a link to usr/bin on merged systems; a plain directory elsewhere.
    struct stat st;
    if (lstat("/bin", &st) == 0 && S_ISLNK(st.st_mode)) {
        EXPECT_FALSE(trusted_script("/bin/echo", why));
        EXPECT_EQ(why, "/bin is a symbolic link");
    }
    EXPECT_FALSE(trusted_script("/tmp/operate_appboxcenter_app.sh", why));
    EXPECT_EQ(why, "/tmp is writable by group or others");
}

}  // namespace
