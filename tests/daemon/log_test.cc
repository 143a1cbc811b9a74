// The debug log: the line, its length limit, rotation, and lines of many
// threads kept whole.
#include "daemon/log.h"

#include "support/suite.h"

namespace {

// "[pid] [ctime's first 20 characters: the year goes] [function][line] message".
TEST(Log, LinesAreWholeCutAt2047AndRotatedAtHalfAMebibyte)
{
    DebugLogCapture capture;
    const std::string log = cLogFilePath, bak = log + ".bak";
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                DBG("t%d i%d %s", t, i, std::string(200, 'p').c_str());
        });
    for (std::thread& t : threads)
        t.join();
    std::istringstream lines(read_text_file(log));
    int count = 0;
    for (std::string line; std::getline(lines, line); count++)
        ASSERT_THAT(line, testing::MatchesRegex(R"(\[[0-9]{5,}\] \[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} \] )"
                                                R"(\[operator\(\)\]\[[0-9]+\] t[0-7] i[0-9]+ p{200})"));
    EXPECT_EQ(count, 1600);

    const size_t prefix = 1 + std::max<size_t>(std::to_string(getpid()).size(), 5) + 3 + 20 + 2;
    for (size_t extra : {0, 1, 1000}) {  // exactly 2,047 keeps its newline; longer lines lose it
        ASSERT_EQ(unlink(log.c_str()), 0);
        dbg_printf2("%s", std::string(2047 - prefix - 1 + extra, 'f').c_str());
        const std::string line = read_text_file(log);
        EXPECT_EQ(line.size(), 2047u) << extra;
        EXPECT_EQ(line.back(), extra ? 'f' : '\n') << extra;
    }
    for (off_t size : {LOG_ROTATE_SIZE - 1, LOG_ROTATE_SIZE}) {
        ASSERT_TRUE(write_text_file(log, std::string(size, 'o')));
        ASSERT_TRUE(write_text_file(bak, "an older generation\n"));
        struct stat before, moved;
        ASSERT_EQ(stat(log.c_str(), &before), 0);
        DBG("next line");
        ASSERT_EQ(stat(bak.c_str(), &moved), 0);
        const std::string now = read_text_file(log);
        if (size == LOG_ROTATE_SIZE) {
            EXPECT_EQ(before.st_ino, moved.st_ino) << "moved, not copied";
            EXPECT_EQ(moved.st_size, size);
            EXPECT_THAT(now, testing::MatchesRegex(R"(\[[^]]*\] \[[^]]*\] \[TestBody\]\[[0-9]+\] next line.)"));
        } else {
            EXPECT_EQ(read_text_file(bak), "an older generation\n");
            EXPECT_EQ(now.substr(0, size), std::string(size, 'o'));
            EXPECT_NE(now.find("next line", size), std::string::npos);
        }
    }
}

}  // namespace
