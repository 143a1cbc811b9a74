// The debug log: line format, rotation, the missing-directory notice, and
// lines of many threads kept whole.
#include "daemon/log.h"

#include "support/files.h"
#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// Points the log at a fresh directory for one test and forgets it afterwards,
// so no test depends on another having set it.
class LogTest : public testing::Test {
protected:
    void SetUp() override
    {
        log_set_dir(dir_.file("log").c_str());
        log_ = dir_.file("log") + "/.dwe_dv_vexprod.log";
    }
    void TearDown() override
    {
        cLogDirPath[0] = '\0';
        cLogFilePath[0] = '\0';
    }

    std::vector<std::string> lines() const
    {
        std::vector<std::string> out;
        std::istringstream in(read_text_file(log_));
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }

    TempDir dir_;
    std::string log_;
};

// Splits "[pid] [time] message"; false when the line has another shape.
bool split_line(const std::string& line, std::string& pid, std::string& when, std::string& message)
{
    const size_t pid_end = line.find("] [");
    if (line.empty() || line[0] != '[' || pid_end == std::string::npos)
        return false;
    pid = line.substr(1, pid_end - 1);
    const size_t when_at = pid_end + 3;
    if (pid.size() < 5 || pid.find_first_not_of("0123456789") != std::string::npos ||
        line.size() < when_at + 22 || line.compare(when_at + 20, 2, "] ") != 0)
        return false;
    when = line.substr(when_at, 20);
    message = line.substr(when_at + 22);
    return true;
}

bool starts_with(const std::string& s, const std::string& prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

bool ends_with(const std::string& s, const std::string& suffix)
{
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string time_field(time_t when)
{
    char buf[32];
    ctime_r(&when, buf);
    return std::string(buf, 20);
}

}  // namespace

TEST_F(LogTest, LineCarriesPidTimeWithoutYearAndMessage)
{
    struct stat st;
    ASSERT_EQ(0, stat(cLogDirPath, &st)) << "log_set_dir creates the directory";
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(log_, cLogFilePath);

    const time_t before = time(nullptr);
    DBG("value=%d name=%s", 42, "x");
    const time_t after = time(nullptr);

    const std::string text = read_text_file(log_);
    ASSERT_EQ('\n', text.back());
    std::string pid, when, message;
    ASSERT_TRUE(split_line(text.substr(0, text.size() - 1), pid, when, message)) << text;
    char want_pid[16];
    snprintf(want_pid, sizeof(want_pid), "%05d", static_cast<int>(getpid()));
    EXPECT_EQ(want_pid, pid);
    // ctime's first 20 characters: the trailing blank stays, the year goes.
    EXPECT_TRUE(when == time_field(before) || when == time_field(after)) << when;
    EXPECT_EQ(' ', when.back());
    EXPECT_TRUE(starts_with(message, "[TestBody][")) << message;
    EXPECT_TRUE(ends_with(message, "] value=42 name=x")) << message;

    // dbg_printf writes the same line to a file of the caller's choosing.
    const std::string other = dir_.file("other.log");
    EXPECT_EQ(0, dbg_printf(other.c_str(), "[%s][%d] plain", "f", 7));
    EXPECT_NE(std::string::npos, read_text_file(other).find("] [f][7] plain\n"));
    EXPECT_EQ(0, dbg_printf(dir_.file("no/such/dir/x.log").c_str(), "lost"));
}

TEST_F(LogTest, OverlongLinesAreCut)
{
    const std::string message(3000, 'm');
    dbg_printf2("%s", message.c_str());
    const std::string text = read_text_file(log_);
    EXPECT_EQ(2047u, text.size());
    EXPECT_EQ(std::string::npos, text.find('\n')) << "the cut takes the newline too";

    // At the limit: a line of exactly 2,047 characters keeps its newline,
    // one character more loses it.
    const std::string pid = std::to_string(getpid());
    const size_t prefix = 1 + std::max<size_t>(pid.size(), 5) + 3 + 20 + 2;
    for (size_t extra : {0, 1}) {
        SCOPED_TRACE(extra);
        ASSERT_EQ(0, unlink(log_.c_str()));
        dbg_printf2("%s", std::string(2047 - prefix - 1 + extra, 'f').c_str());
        const std::string line = read_text_file(log_);
        EXPECT_EQ(2047u, line.size());
        EXPECT_EQ(extra ? 'f' : '\n', line.back());
    }
}

TEST_F(LogTest, FullFileMovesToBakBeforeTheNextLine)
{
    const std::string bak = log_ + ".bak";
    struct Case {
        size_t size;
        bool rotated;
    } cases[] = {{0x80000 - 1, false}, {0x80000, true}, {0x80000 + 100, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        ASSERT_TRUE(write_text_file(log_, std::string(c.size, 'o')));
        ASSERT_TRUE(write_text_file(bak, "an older generation\n"));
        struct stat before;
        ASSERT_EQ(0, stat(log_.c_str(), &before));

        DBG("next line");

        struct stat moved;
        ASSERT_EQ(0, stat(bak.c_str(), &moved));
        if (c.rotated) {
            EXPECT_EQ(before.st_ino, moved.st_ino) << "moved, not copied";
            EXPECT_EQ(static_cast<off_t>(c.size), moved.st_size);
            ASSERT_EQ(1u, lines().size());
            EXPECT_NE(std::string::npos, lines()[0].find("next line"));
        } else {
            EXPECT_EQ("an older generation\n", read_text_file(bak));
            const std::string text = read_text_file(log_);
            EXPECT_EQ(std::string(c.size, 'o'), text.substr(0, c.size));
            EXPECT_NE(std::string::npos, text.find("next line", c.size));
        }
    }
}

TEST_F(LogTest, NoDirectorySetGivesOneNoticeOnStderr)
{
    cLogFilePath[0] = '\0';
    testing::internal::CaptureStderr();
    DBG("dropped %d", 1);
    EXPECT_EQ("Log file path not set. Please call log_set_dir() first.\n",
              testing::internal::GetCapturedStderr());
    EXPECT_FALSE(file_exists(log_));
}

TEST_F(LogTest, DirectoryThatCannotBeCreatedStillBecomesThePath)
{
    const std::string dir = dir_.file("missing/parent");
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, log_set_dir(dir.c_str()));
    fflush(stdout);
    EXPECT_EQ("Error mkdir [" + dir + "] failed ret=-1\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(dir, cLogDirPath);
    EXPECT_EQ(dir + "/.dwe_dv_vexprod.log", cLogFilePath);
    DBG("silently lost");
    EXPECT_FALSE(file_exists(cLogFilePath));
}

TEST_F(LogTest, ConcurrentLinesStayWhole)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    const std::string payload(200, 'p');  // 1,600 lines stay under the rotation size
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i)
                DBG("t%d i%d %s", t, i, payload.c_str());
        });
    for (std::thread& t : threads)
        t.join();

    const std::vector<std::string> got = lines();
    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), got.size());
    for (const std::string& line : got) {
        std::string pid, when, message;
        ASSERT_TRUE(split_line(line, pid, when, message)) << line.substr(0, 80);
        ASSERT_TRUE(starts_with(message, "[operator()][")) << message.substr(0, 80);
        ASSERT_TRUE(ends_with(message, " " + payload)) << message.substr(0, 80);
        ASSERT_EQ(std::string::npos, message.find('[', 2 + message.find("]["))) << "lines mixed";
    }
}

TEST_F(LogTest, BacktraceDumpEndsWithProgramName)
{
    vexprod_debug_backtrace_dump();
    const std::vector<std::string> got = lines();
    ASSERT_GE(got.size(), 4u);
    EXPECT_NE(std::string::npos, got[0].find("[vexprod_debug_backtrace_dump]["));
    EXPECT_NE(std::string::npos, got[got.size() - 2].find("]=========================="));
    const std::string tail = std::string("]") + program_invocation_name;
    EXPECT_EQ(tail, got.back().substr(got.back().size() - tail.size()));
}
