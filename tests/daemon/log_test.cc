// The debug log: line format, rotation, the missing-directory notice, and
// lines of many threads kept whole.
#include "daemon/log.h"

#include "support/files.h"
#include "support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::MatchesRegex;

// Points the log at a fresh directory for one test and forgets it afterwards,
// so no test depends on another having set it.
class LogTest : public testing::Test {
protected:
    void SetUp() override { log_set_dir(dir_.file("log").c_str()); }
    void TearDown() override { cLogDirPath[0] = cLogFilePath[0] = '\0'; }

    std::vector<std::string> lines() const
    {
        std::vector<std::string> out;
        std::istringstream in(read_text_file(log_));
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }

    TempDir dir_;
    const std::string log_ = dir_.file("log") + "/.dwe_dv_vexprod.log";
};

std::string time_field(time_t when)
{
    char buf[32];
    return std::string(ctime_r(&when, buf), 20);
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
    char pid[16];
    snprintf(pid, sizeof(pid), "%05d", static_cast<int>(getpid()));
    // ctime's first 20 characters: the trailing blank stays, the year goes.
    std::string prefix = std::string("[") + pid + "] [" + time_field(after) + "] ";
    if (text.rfind(prefix, 0) != 0)
        prefix = std::string("[") + pid + "] [" + time_field(before) + "] ";
    ASSERT_EQ(prefix, text.substr(0, prefix.size()));
    EXPECT_THAT(text.substr(prefix.size()), MatchesRegex(R"(\[TestBody\]\[[0-9]+\] value=42 name=x)" "\n"));

    // dbg_printf writes the same line to a file of the caller's choosing.
    const std::string other = dir_.file("other.log");
    EXPECT_EQ(0, dbg_printf(other.c_str(), "[%s][%d] plain", "f", 7));
    EXPECT_NE(std::string::npos, read_text_file(other).find("] [f][7] plain\n"));
    EXPECT_EQ(0, dbg_printf(dir_.file("no/such/dir/x.log").c_str(), "lost"));
}

TEST_F(LogTest, OverlongLinesAreCut)
{
    dbg_printf2("%s", std::string(3000, 'm').c_str());
    const std::string text = read_text_file(log_);
    EXPECT_EQ(2047u, text.size());
    EXPECT_EQ(std::string::npos, text.find('\n')) << "the cut takes the newline too";

    // At the limit: a line of exactly 2,047 characters keeps its newline,
    // one character more loses it.
    const size_t prefix = 1 + std::max<size_t>(std::to_string(getpid()).size(), 5) + 3 + 20 + 2;
    for (size_t extra : {0, 1}) {
        ASSERT_EQ(0, unlink(log_.c_str()));
        dbg_printf2("%s", std::string(2047 - prefix - 1 + extra, 'f').c_str());
        const std::string line = read_text_file(log_);
        EXPECT_EQ(2047u, line.size()) << extra;
        EXPECT_EQ(extra ? 'f' : '\n', line.back()) << extra;
    }
}

TEST_F(LogTest, FullFileMovesToBakBeforeTheNextLine)
{
    const std::string bak = log_ + ".bak";
    for (size_t size : {0x80000 - 1, 0x80000}) {
        SCOPED_TRACE(size);
        ASSERT_TRUE(write_text_file(log_, std::string(size, 'o')));
        ASSERT_TRUE(write_text_file(bak, "an older generation\n"));
        struct stat before, moved;
        ASSERT_EQ(0, stat(log_.c_str(), &before));
        DBG("next line");
        ASSERT_EQ(0, stat(bak.c_str(), &moved));
        if (size == 0x80000) {
            EXPECT_EQ(before.st_ino, moved.st_ino) << "moved, not copied";
            EXPECT_EQ(static_cast<off_t>(size), moved.st_size);
            ASSERT_EQ(1u, lines().size());
            EXPECT_NE(std::string::npos, lines()[0].find("next line"));
        } else {
            EXPECT_EQ("an older generation\n", read_text_file(bak));
            const std::string text = read_text_file(log_);
            EXPECT_EQ(std::string(size, 'o'), text.substr(0, size));
            EXPECT_NE(std::string::npos, text.find("next line", size));
        }
    }
}

TEST_F(LogTest, NoUsableDirectory)
{
    // None set: one notice on stderr, nothing written.
    cLogFilePath[0] = '\0';
    testing::internal::CaptureStderr();
    DBG("dropped %d", 1);
    EXPECT_EQ("Log file path not set. Please call log_set_dir() first.\n", testing::internal::GetCapturedStderr());
    EXPECT_FALSE(file_exists(log_));

    // One that cannot be made still becomes the path; its lines are lost.
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
    const std::string payload(200, 'p');  // 1,600 lines stay under the rotation size
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i)
                DBG("t%d i%d %s", t, i, payload.c_str());
        });
    for (std::thread& t : threads)
        t.join();

    const std::vector<std::string> got = lines();
    EXPECT_EQ(1600u, got.size());
    const auto whole = MatchesRegex(R"(\[[0-9]{5,}\] \[.{20}\] \[operator\(\)\]\[[0-9]+\] t[0-7] i[0-9]+ p{200})");
    for (const std::string& line : got)
        ASSERT_THAT(line, whole);
}
