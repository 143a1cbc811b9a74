// Every misuse the framework checks aborts with its own one line on stderr.
#include "support/suite.h"

namespace {

TEST(AbortDeathTest, EachMisuseAbortsWithItsLine)
{
    static u_int32_t bogus[128] = {0xdeadbeef};
    dv_handle* bad = reinterpret_cast<dv_handle*>(bogus);
    dv_io* io = reinterpret_cast<dv_io*>(bogus);
    const std::string p = format_text("%p", static_cast<void*>(bogus));
    const std::string name = "@dv_create() name cannot be NULL and maximum characters is 64: `name && strlen(name) "
                             "<= MAXIMUM_NAME_SIZE'";
    const std::string mode = "@dv_create() mode only work DV_PROCESS_MODE or DV_PTHREAD_MODE: `(mode | "
                             "DV_PROCESS_MODE) == DV_PROCESS_MODE || (mode | DV_PROCESS_MODE) == (DV_STANDALONE | "
                             "DV_PROCESS_MODE) || (mode | DV_PTHREAD_MODE) == DV_PTHREAD_MODE || (mode | "
                             "DV_PTHREAD_MODE) == (DV_STANDALONE | DV_PTHREAD_MODE)'";
    auto handle = [&](const char* fn, const char* verb) {
        return "@" + std::string(fn) + "() cannot " + verb + " incorrect dv_handle " + p +
               ": `service_handle && (*(u_int32_t*) service_handle == DV_HANDLE_MAGIC)'";
    };
    const std::string io_cond = ": `io && (*(u_int32_t*) io == DV_IO_MAGIC)'";
    auto bad_io = [&](const char* fn, const char* verb, const char* tail = "") {
        return "@" + std::string(fn) + "() cannot " + verb + " incorrect dv_io " + p + tail + io_cond;
    };
    const std::string ep = ": `epoll && (*(u_int32_t*) epoll == DV_EPOLL_MAGIC)'";
    size_t size;
    const dv_signal_fn no_signal = [](int, siginfo_t*, void*) {};
    const struct {
        std::function<void()> run;
        std::string line;
    } cases[] = {
        {[] { dv_create(nullptr, 4, 1, echo_exec); }, name},
        {[] { dv_create(std::string(65, 'n').c_str(), 4, 1, echo_exec); }, name},
        {[] { dv_create("svc", 1, 1, echo_exec); },
         "@dv_create() mode miss DV_PROCESS_MODE or DV_PTHREAD_MODE: `(mode | DV_STANDALONE) != DV_STANDALONE'"},
        {[] { dv_create("svc", 6, 1, echo_exec); }, mode},
        {[] { dv_create("svc", 4, 0, echo_exec); }, "@dv_create() workers option cannot be zero: `workers > 0'"},
        {[] { dv_create("svc", 4, 1, nullptr); }, "@dv_create() exec must be callable function pointer: `exec'"},
        {[] { dv_create("@tmp", 4, 1, echo_exec); },
         "@dv_create() name must be absolute file path: `(name[0] == '@' && name[1] == '/')'"},
        {[&] { dv_start(bad); }, handle("dv_start", "start")},
        {[&] { dv_stop(bad); }, handle("dv_stop", "stop")},
        {[&] { dv_pause(bad); }, handle("dv_pause", "pause")},
        {[&] { dv_resume(bad); }, handle("dv_resume", "resume")},
        {[&] { dv_free(bad); }, handle("dv_stop", "stop")},
        {[&] { dv_worker_init(bad, nullptr, nullptr); }, handle("dv_worker_init", "start")},
        {[&] { dv_worker_fini(bad, nullptr, nullptr); }, handle("dv_worker_fini", "start")},
        {[] {
             TestService svc(echo_exec);
             dv_start(svc.handle());
         },
         "@dv_start() cannot start service twice: `service_handle->worker == NULL'"},
        {[] { dv_io_free(nullptr); }, "@dv_io_free() cannot free incorrect dv_io (nil)" + io_cond},
        {[&] { dv_io_realloc(io, 1); }, bad_io("dv_io_realloc", "alloc")},
        {[&] { dv_io_read(io, &size); }, bad_io("dv_io_read", "read")},
        {[&] { dv_io_write(io, "x", 1); }, bad_io("dv_io_write", "read")},
        {[&] { dv_io_splice(io, 0, 1); }, bad_io("dv_io_splice", "read")},
        {[&] { dv_io_printf(io, "x"); }, bad_io("dv_io_printf", "printf")},
        {[&] { dv_io_pid(io); }, bad_io("dv_io_pid", "fetch", " pid")},
        {[&] { dv_io_uid(io); }, bad_io("dv_io_uid", "fetch", " uid")},
        {[&] { dv_io_gid(io); }, bad_io("dv_io_gid", "fetch", " gid")},
        {[&] { dv_io_set(io, nullptr); }, bad_io("dv_io_set", "attach")},
        {[&] { dv_io_get(io); }, bad_io("dv_io_get", "detach")},
        {[&] { dv_io_alive(io); }, bad_io("dv_io_alive", "check", " alive")},
        {[&] { dv_reply(io); }, bad_io("dv_reply", "response")},
        {[] { dv_epoll_call(nullptr, "svc", "cmd", dv_io_create(), -1); },
         "@dv_epoll_call() cannot call incorrect dv_epoll (nil)" + ep},
        {[] { dv_epoll_perform(nullptr, 0, nullptr); }, "@dv_epoll_perform() cannot perform incorrect dv_epoll (nil)" + ep},
        {[] { dv_epoll_cancel(nullptr, dv_io_create()); }, "@dv_epoll_cancel() cannot cancel incorrect dv_epoll (nil)" + ep},
        {[] { dv_epoll_free(nullptr); }, "@dv_epoll_free() cannot free incorrect dv_epoll (nil)" + ep},
        {[] { dv_epoll_call(dv_epoll_create(), "svc", "cmd", nullptr, -1); },
         "@dv_epoll_call() cannot make incorrect dv_io (nil) request" + io_cond},
        {[] { dv_epoll_cancel(dv_epoll_create(), nullptr); },
         "@dv_epoll_cancel() cannot cancel incorrect dv_io (nil)" + io_cond},
        {[] { dv_ez_call("svc", "cmd", nullptr, 3, nullptr, nullptr, 5, -1); },
         "@dv_ez_call() data memory access violation with size (3): `data != NULL || (data == NULL && dsize == 0U)'"},
        {[] {
             void* not_null = &not_null;
             dv_ez_call("svc", "cmd", nullptr, 0, &not_null, nullptr, 5, -1);
         },
         "@dv_ez_call() recv memory access violation: `(recv == NULL || *recv == NULL)'"},
        {[&] { dv_signal(0, no_signal); },
         "@dv_signal() cannot handle signal number 0: `signum > 0 && signum < MAX_SIGNAL_SIZE'"},
        {[&] { dv_signal(32, no_signal); },
         "@dv_signal() cannot handle signal number 32: `signum > 0 && signum < MAX_SIGNAL_SIZE'"},
    };
    for (const auto& c : cases)
        EXPECT_EXIT(c.run(), testing::KilledBySignal(SIGABRT), "^" + literal_regex("[ABORT] " + c.line) + "\n$");
}

}  // namespace
