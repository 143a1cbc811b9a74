// Creating, starting and stopping a service handle, and every check on the way.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "dv.h"
#include "support/death.h"
#include "support/files.h"
#include "support/tempdir.h"
#include "support/test_service.h"

namespace {

void noop_exec(const char*, dv_io* io, int)
{
    dv_io_free(io);
}

struct AbortCase {
    const char* what;
    std::function<void()> run;
    std::string line;
};

void expect_aborts(const AbortCase* cases, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        SCOPED_TRACE(cases[i].what);
        EXPECT_EXIT(cases[i].run(), testing::KilledBySignal(SIGABRT), "^" + literal_regex(cases[i].line) + "\n$");
    }
}

TEST(DvCreateDeathTest, EachCheckAbortsWithItsLine)
{
    std::string long_name(65, 'n');
    const std::string mode_cond =
        "(mode | DV_PROCESS_MODE) == DV_PROCESS_MODE || (mode | DV_PROCESS_MODE) == (DV_STANDALONE | DV_PROCESS_MODE) "
        "|| (mode | DV_PTHREAD_MODE) == DV_PTHREAD_MODE || (mode | DV_PTHREAD_MODE) == (DV_STANDALONE | "
        "DV_PTHREAD_MODE)";
    const AbortCase cases[] = {
        {"null name", [] { dv_create(nullptr, 4, 1, noop_exec); },
         "[ABORT] @dv_create() name cannot be NULL and maximum characters is 64: `name && strlen(name) <= "
         "MAXIMUM_NAME_SIZE'"},
        {"65 characters", [&] { dv_create(long_name.c_str(), 4, 1, noop_exec); },
         "[ABORT] @dv_create() name cannot be NULL and maximum characters is 64: `name && strlen(name) <= "
         "MAXIMUM_NAME_SIZE'"},
        {"mode 0", [] { dv_create("svc", 0, 1, noop_exec); },
         "[ABORT] @dv_create() mode miss DV_PROCESS_MODE or DV_PTHREAD_MODE: `(mode | DV_STANDALONE) != "
         "DV_STANDALONE'"},
        {"mode 1", [] { dv_create("svc", 1, 1, noop_exec); },
         "[ABORT] @dv_create() mode miss DV_PROCESS_MODE or DV_PTHREAD_MODE: `(mode | DV_STANDALONE) != "
         "DV_STANDALONE'"},
        {"mode 6", [] { dv_create("svc", 6, 1, noop_exec); },
         "[ABORT] @dv_create() mode only work DV_PROCESS_MODE or DV_PTHREAD_MODE: `" + mode_cond + "'"},
        {"mode 7", [] { dv_create("svc", 7, 1, noop_exec); },
         "[ABORT] @dv_create() mode only work DV_PROCESS_MODE or DV_PTHREAD_MODE: `" + mode_cond + "'"},
        {"no workers", [] { dv_create("svc", 4, 0, noop_exec); },
         "[ABORT] @dv_create() workers option cannot be zero: `workers > 0'"},
        {"no exec", [] { dv_create("svc", 4, 1, nullptr); },
         "[ABORT] @dv_create() exec must be callable function pointer: `exec'"},
        {"relative path", [] { dv_create("@tmp", 4, 1, noop_exec); },
         "[ABORT] @dv_create() name must be absolute file path: `(name[0] == '@' && name[1] == '/')'"},
    };
    expect_aborts(cases, sizeof(cases) / sizeof(cases[0]));
}

TEST(DvCreate, ValidatesAndFillsTheHandle)
{
    std::string name64(64, 'n');
    dv_handle* h = dv_create(name64.c_str(), DV_PTHREAD_MODE, 3, noop_exec);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->magic, DV_HANDLE_MAGIC);
    EXPECT_EQ(std::string(h->name), name64.substr(0, 63));  // the 64-byte field keeps 63
    EXPECT_EQ(h->service_size, 3u);
    EXPECT_EQ(h->mode, DV_PTHREAD_MODE);
    EXPECT_EQ(h->worker, nullptr);
    EXPECT_EQ(h->paused, 0);
    EXPECT_EQ(h->stopping, 0);
    dv_stop(h);  // before dv_start: nothing to do
    dv_free(h);

    for (u_int32_t mode : {2u, 3u, 4u, 5u}) {
        dv_handle* ok = dv_create("@/tmp/x.sock", mode, 1, noop_exec);
        EXPECT_STREQ(ok->sockfile, "/tmp/x.sock");
        dv_free(ok);
    }
}

TEST(DvHandleDeathTest, StartStopAndHooksCheckTheHandle)
{
    static u_int32_t bogus[64] = {1};
    dv_handle* bad = reinterpret_cast<dv_handle*>(bogus);
    const std::string cond = "service_handle && (*(u_int32_t*) service_handle == DV_HANDLE_MAGIC)";
    auto line = [&](const char* fn, const char* verb) {
        return format_text("[ABORT] @%s() cannot %s incorrect dv_handle %p: `%s'", fn, verb, static_cast<void*>(bad),
                           cond.c_str());
    };
    const AbortCase cases[] = {
        {"start", [&] { dv_start(bad); }, line("dv_start", "start")},
        {"stop", [&] { dv_stop(bad); }, line("dv_stop", "stop")},
        {"pause", [&] { dv_pause(bad); }, line("dv_pause", "pause")},
        {"resume", [&] { dv_resume(bad); }, line("dv_resume", "resume")},
        {"free", [&] { dv_free(bad); }, line("dv_stop", "stop")},
        {"worker init", [&] { dv_worker_init(bad, nullptr, nullptr); }, line("dv_worker_init", "start")},
        {"worker fini", [&] { dv_worker_fini(bad, nullptr, nullptr); }, line("dv_worker_fini", "start")},
    };
    expect_aborts(cases, sizeof(cases) / sizeof(cases[0]));
}

TEST(DvStartDeathTest, RefusesARegularFileAndASecondStart)
{
    TempDir dir;
    std::string path = dir.file("taken.sock");
    ASSERT_TRUE(write_text_file(path, "not a socket"));
    std::string name = "@" + path;
    EXPECT_EXIT(
        {
            dv_handle* h = dv_create(name.c_str(), DV_PTHREAD_MODE | DV_STANDALONE, 1, noop_exec);
            dv_start(h);
        },
        testing::KilledBySignal(SIGABRT),
        "^" + literal_regex("[ABORT] @dv_producer_worker_init() " + path + " is not a sock file: `S_ISSOCK(st.st_mode)'") +
            "\n$");

    EXPECT_EXIT(
        {
            TestService svc(noop_exec);
            dv_start(svc.handle());
        },
        testing::KilledBySignal(SIGABRT),
        "^" + literal_regex("[ABORT] @dv_start() cannot start service twice: `service_handle->worker == NULL'") + "\n$");
}

TEST(DvStart, CreatesTheSocketDirectoryAndAWorldConnectableSocket)
{
    TempDir dir;
    std::string path = dir.file("sub/svc.sock");
    std::string name = "@" + path;
    dv_handle* h = dv_create(name.c_str(), DV_PTHREAD_MODE | DV_STANDALONE, 1, noop_exec);
    dv_start(h);
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0777u);
    dv_free(h);
    EXPECT_NE(lstat(path.c_str(), &st), 0) << "dv_stop removes the socket file";
}

}  // namespace
