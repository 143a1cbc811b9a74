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

// Every check of the handle's life cycle aborts with its own line.
TEST(DvHandleDeathTest, EachCheckAbortsWithItsLine)
{
    const std::string name_line =
        "@dv_create() name cannot be NULL and maximum characters is 64: `name && strlen(name) <= MAXIMUM_NAME_SIZE'";
    const std::string mode_line =
        "@dv_create() mode only work DV_PROCESS_MODE or DV_PTHREAD_MODE: `(mode | DV_PROCESS_MODE) == DV_PROCESS_MODE "
        "|| (mode | DV_PROCESS_MODE) == (DV_STANDALONE | DV_PROCESS_MODE) || (mode | DV_PTHREAD_MODE) == "
        "DV_PTHREAD_MODE || (mode | DV_PTHREAD_MODE) == (DV_STANDALONE | DV_PTHREAD_MODE)'";
    static u_int32_t bogus[64] = {1};
    dv_handle* bad = reinterpret_cast<dv_handle*>(bogus);
    auto bad_line = [&](const char* fn, const char* verb) {
        return format_text("@%s() cannot %s incorrect dv_handle %p: `service_handle && (*(u_int32_t*) service_handle "
                           "== DV_HANDLE_MAGIC)'",
                           fn, verb, static_cast<void*>(bad));
    };
    const struct {
        const char* what;
        std::function<void()> run;
        std::string line;
    } cases[] = {
        {"null name", [] { dv_create(nullptr, 4, 1, noop_exec); }, name_line},
        {"65 characters", [] { dv_create(std::string(65, 'n').c_str(), 4, 1, noop_exec); }, name_line},
        {"mode 1", [] { dv_create("svc", 1, 1, noop_exec); },
         "@dv_create() mode miss DV_PROCESS_MODE or DV_PTHREAD_MODE: `(mode | DV_STANDALONE) != DV_STANDALONE'"},
        {"mode 6", [] { dv_create("svc", 6, 1, noop_exec); }, mode_line},
        {"mode 7", [] { dv_create("svc", 7, 1, noop_exec); }, mode_line},
        {"no workers", [] { dv_create("svc", 4, 0, noop_exec); },
         "@dv_create() workers option cannot be zero: `workers > 0'"},
        {"no exec", [] { dv_create("svc", 4, 1, nullptr); },
         "@dv_create() exec must be callable function pointer: `exec'"},
        {"relative path", [] { dv_create("@tmp", 4, 1, noop_exec); },
         "@dv_create() name must be absolute file path: `(name[0] == '@' && name[1] == '/')'"},
        {"start", [&] { dv_start(bad); }, bad_line("dv_start", "start")},
        {"stop", [&] { dv_stop(bad); }, bad_line("dv_stop", "stop")},
        {"pause", [&] { dv_pause(bad); }, bad_line("dv_pause", "pause")},
        {"resume", [&] { dv_resume(bad); }, bad_line("dv_resume", "resume")},
        {"free", [&] { dv_free(bad); }, bad_line("dv_stop", "stop")},
        {"worker init", [&] { dv_worker_init(bad, nullptr, nullptr); }, bad_line("dv_worker_init", "start")},
        {"worker fini", [&] { dv_worker_fini(bad, nullptr, nullptr); }, bad_line("dv_worker_fini", "start")},
        {"second start",
         [] {
             TestService svc(noop_exec);
             dv_start(svc.handle());
         },
         "@dv_start() cannot start service twice: `service_handle->worker == NULL'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EXIT(c.run(), testing::KilledBySignal(SIGABRT), "^" + literal_regex("[ABORT] " + c.line) + "\n$");
    }
}

TEST(DvCreate, AcceptsSixtyFourCharactersEveryValidModeAndStopBeforeStart)
{
    std::string name64(64, 'n');
    dv_handle* h = dv_create(name64.c_str(), DV_PTHREAD_MODE, 3, noop_exec);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(std::string(h->name), name64.substr(0, 63));  // the 64-byte field keeps 63
    dv_stop(h);  // before dv_start: nothing to do
    dv_free(h);
    for (u_int32_t mode : {2u, 3u, 4u, 5u}) {
        dv_handle* ok = dv_create("@/tmp/x.sock", mode, 1, noop_exec);
        EXPECT_STREQ(ok->sockfile, "/tmp/x.sock");
        dv_free(ok);
    }
}

// dv_start makes the socket's directory and a socket anyone may connect to,
// in place of a file planted at its path; dv_free removes it again.
TEST(DvStart, CreatesTheSocketDirectoryAndAWorldConnectableSocket)
{
    TempDir dir;
    for (const bool planted : {false, true}) {
        std::string path = dir.file("sub/svc.sock");
        if (planted) {
            ASSERT_TRUE(write_text_file(path, "not a socket"));
        }
        dv_handle* h = dv_create(("@" + path).c_str(), DV_PTHREAD_MODE | DV_STANDALONE, 1, noop_exec);
        dv_start(h);
        struct stat st;
        ASSERT_EQ(lstat(path.c_str(), &st), 0);
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0777u);
        dv_free(h);
        EXPECT_FALSE(file_exists(path));
    }
}

}  // namespace
