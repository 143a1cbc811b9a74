// Misbehaving clients are dropped without harming anyone else, and every
// descriptor they made the service hold is closed again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

#include "dv.h"
#include "support/fds.h"
#include "support/files.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/tempdir.h"
#include "support/test_service.h"

namespace {

using namespace std::chrono_literals;

std::atomic<int> calls{0};

void counting_exec(const char* name, dv_io* io, int fd)
{
    calls++;
    echo_exec(name, io, fd);
}

using Act = std::function<void(RawClient&)>;

Act send(const std::string& bytes)
{
    return [bytes](RawClient& c) { c.send_bytes(bytes.data(), bytes.size()); };
}

// A request directive, then as its memory file what make() returns.
Act request_with(const std::function<int()>& make, uint8_t flags = 0)
{
    return [make, flags](RawClient& c) {
        c.send_directive(DV_DIRECTIVE_REQUEST, flags, "cmd");
        int fd = make();
        ASSERT_GE(fd, 0);
        c.send_fd(fd);
        close(fd);
    };
}

// A good request whose extra descriptor is what make() returns.
Act extra_fd(const std::function<int()>& make)
{
    return [make](RawClient& c) {
        c.send_directive(DV_DIRECTIVE_REQUEST, DV_DIRECTIVE_FLAG_EXTRA_FD, "cmd");
        int memfd = make_request_memfd("{}"), fd = make();
        ASSERT_GE(fd, 0);
        c.send_fd(memfd);
        c.send_fd(fd);
        close(memfd);
        close(fd);
    };
}

TEST(BadClients, AreDroppedWithoutHarmingOthersOrLeaking)
{
    TempDir scratch;
    ASSERT_TRUE(write_text_file(scratch.file("ro"), "{}"));
    dv_directive request = {DV_DIRECTIVE_REQUEST, 0, {'c', 'm', 'd'}}, stop = {DV_DIRECTIVE_STOP, 0, {}};
    auto memfd = [] { return make_request_memfd("{}"); };
    const struct {
        const char* what;
        bool accepted;  // waits for the go-ahead before acting
        Act act;
        bool hangs_up;  // else the service must hang up
    } cases[] = {
        {"hang up before being accepted", false, nullptr, true},
        {"hang up after the accept", true, nullptr, true},
        {"garbage directive", true, send(std::string(DV_DIRECTIVE_SIZE, '\xff')), false},
        {"short directive", true, send(std::string(100, '\x08')), false},
        {"a type clients may not send", true, send(std::string(reinterpret_cast<char*>(&stop), sizeof(stop))), false},
        {"request then hang up before the memory file", true,
         send(std::string(reinterpret_cast<char*>(&request), sizeof(request))), true},
        {"request without a descriptor in the message", true,
         send(std::string(reinterpret_cast<char*>(&request), sizeof(request)) + "x"), false},
        {"flagged extra descriptor that never comes", true, request_with(memfd, DV_DIRECTIVE_FLAG_EXTRA_FD), true},
        {"a pipe instead of a memory file", true, request_with([] {
             int p[2];
             (void)!pipe2(p, O_CLOEXEC);
             close(p[1]);
             return p[0];
         }), false},
        {"a read-only file", true, request_with([&] { return open(scratch.file("ro").c_str(), O_RDONLY | O_CLOEXEC); }),
         false},
        {"a sealed memory file", true, request_with([] {
             int fd = memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING);
             fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK);
             return fd;
         }), false},
        {"an enormous memory file", true, request_with([] {
             int fd = make_request_memfd("");
             (void)!ftruncate(fd, 1LL << 40);
             return fd;
         }), false},
        {"a TCP socket as the extra descriptor", true, extra_fd([] { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }), false},
        {"a read-only extra descriptor", true, extra_fd([&] { return open(scratch.file("ro").c_str(), O_RDONLY | O_CLOEXEC); }),
         false},
        {"two descriptors in one message", true, [](RawClient& c) {
             c.send_directive(DV_DIRECTIVE_REQUEST, 0, "cmd");
             int both[2] = {make_request_memfd("{}"), make_request_memfd("{}")};
             char byte = 0, control[CMSG_SPACE(sizeof(both))] = {};
             struct iovec iov = {&byte, 1};
             struct msghdr msg = {nullptr, 0, &iov, 1, control, CMSG_LEN(sizeof(both)), 0};
             struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
             *cmsg = {CMSG_LEN(sizeof(both)), SOL_SOCKET, SCM_RIGHTS};
             memcpy(CMSG_DATA(cmsg), both, sizeof(both));
             EXPECT_EQ(sendmsg(c.fd(), &msg, MSG_NOSIGNAL), 1);
             close(both[0]);
             close(both[1]);
         }, false},
    };

    TestService svc(counting_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
    ASSERT_TRUE(raw_call(svc.sockfile(), "warm-up", "").has_value());
    for (const auto& m : cases) {
        SCOPED_TRACE(m.what);
        calls = 0;
        int before = settled_fd_count();
        {
            RawClient c;
            ASSERT_TRUE(c.connect_to(svc.sockfile()));
            ASSERT_TRUE(!m.accepted || c.next_type() == DV_DIRECTIVE_ACCEPT);
            if (m.act)
                m.act(c);
            EXPECT_TRUE(m.hangs_up || c.closed_by_peer());
        }
        EXPECT_TRUE(eventually([&] { return count_open_fds() == before; })) << count_open_fds() << " vs " << before;
        EXPECT_EQ(calls.load(), 0);
        for (int i = 0; i < 3; i++)  // both consumers still answer
            ASSERT_TRUE(raw_call(svc.sockfile(), "good", "{}").has_value());
    }

    // A client that was accepted and says nothing holds one consumer, not the service.
    RawClient silent;
    ASSERT_TRUE(silent.connect_to(svc.sockfile()));
    ASSERT_EQ(silent.next_type(), DV_DIRECTIVE_ACCEPT);
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; i++)
        ASSERT_TRUE(raw_call(svc.sockfile(), "good", "{}").has_value());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

}  // namespace
