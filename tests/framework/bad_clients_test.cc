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
#include <thread>

#include "dv.h"
#include "support/fds.h"
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

struct Misbehaviour {
    const char* what;
    std::function<void(RawClient&)> act;
};

// Accepted by a consumer and told to go ahead.
void accepted(RawClient& c)
{
    ASSERT_EQ(c.next_type(), DV_DIRECTIVE_ACCEPT);
}

void send_memfd_with(RawClient& c, const std::function<int()>& make)
{
    accepted(c);
    c.send_directive(DV_DIRECTIVE_REQUEST, 0, "cmd");
    int fd = make();
    ASSERT_GE(fd, 0);
    c.send_fd(fd);
    close(fd);
    EXPECT_TRUE(c.closed_by_peer());
}

TEST(BadClients, AreDroppedWithoutACallAndWithoutLeaks)
{
    TempDir scratch;
    const Misbehaviour cases[] = {
        {"hang up before being accepted", [](RawClient& c) { c.close_now(); }},
        {"hang up after the accept", [](RawClient& c) {
             accepted(c);
             c.close_now();
         }},
        {"garbage directive", [](RawClient& c) {
             accepted(c);
             std::string junk(DV_DIRECTIVE_SIZE, '\xff');
             c.send_bytes(junk.data(), junk.size());
             EXPECT_TRUE(c.closed_by_peer());
         }},
        {"short directive", [](RawClient& c) {
             accepted(c);
             std::string part(100, '\x08');
             c.send_bytes(part.data(), part.size());
             EXPECT_TRUE(c.closed_by_peer());
         }},
        {"a type clients may not send", [](RawClient& c) {
             accepted(c);
             c.send_directive(DV_DIRECTIVE_STOP);
             EXPECT_TRUE(c.closed_by_peer());
         }},
        {"a transfer from a client", [](RawClient& c) {
             accepted(c);
             c.send_directive(DV_DIRECTIVE_TRANSFER);
             EXPECT_TRUE(c.closed_by_peer());
         }},
        {"request then hang up before the memory file", [](RawClient& c) {
             accepted(c);
             c.send_directive(DV_DIRECTIVE_REQUEST, 0, "cmd");
             c.close_now();
         }},
        {"request without a descriptor in the message", [](RawClient& c) {
             accepted(c);
             c.send_directive(DV_DIRECTIVE_REQUEST, 0, "cmd");
             c.send_bytes("x", 1);
             EXPECT_TRUE(c.closed_by_peer());
         }},
        {"flagged extra descriptor that never comes", [](RawClient& c) {
             accepted(c);
             c.send_directive(DV_DIRECTIVE_REQUEST, DV_DIRECTIVE_FLAG_EXTRA_FD, "cmd");
             int memfd = make_request_memfd("{}");
             c.send_fd(memfd);
             close(memfd);
             c.close_now();
         }},
        {"a pipe instead of a memory file", [](RawClient& c) {
             send_memfd_with(c, [] {
                 int p[2];
                 if (pipe2(p, O_CLOEXEC) != 0)
                     return -1;
                 close(p[1]);
                 return p[0];
             });
         }},
        {"a read-only file instead of a memory file", [&](RawClient& c) {
             send_memfd_with(c, [&] { return open(scratch.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
         }},
        {"a sealed memory file", [](RawClient& c) {
             send_memfd_with(c, [] {
                 int fd = memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING);
                 (void)!write(fd, "{}", 2);
                 fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK);
                 return fd;
             });
         }},
        {"an enormous memory file", [](RawClient& c) {
             send_memfd_with(c, [] {
                 int fd = memfd_create("huge", MFD_CLOEXEC);
                 (void)!ftruncate(fd, 1LL << 40);
                 return fd;
             });
         }},
        {"two descriptors in one message", [](RawClient& c) {
             accepted(c);
             c.send_directive(DV_DIRECTIVE_REQUEST, 0, "cmd");
             int a = make_request_memfd("{}"), b = make_request_memfd("{}");
             int both[2] = {a, b};
             char byte = 0;
             struct iovec iov = {&byte, 1};
             char control[CMSG_SPACE(sizeof(both))] = {};
             struct msghdr msg = {};
             msg.msg_iov = &iov;
             msg.msg_iovlen = 1;
             msg.msg_control = control;
             msg.msg_controllen = CMSG_LEN(sizeof(both));
             struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
             cmsg->cmsg_level = SOL_SOCKET;
             cmsg->cmsg_type = SCM_RIGHTS;
             cmsg->cmsg_len = CMSG_LEN(sizeof(both));
             memcpy(CMSG_DATA(cmsg), both, sizeof(both));
             EXPECT_EQ(sendmsg(c.fd(), &msg, MSG_NOSIGNAL), 1);
             close(a);
             close(b);
             EXPECT_TRUE(c.closed_by_peer());
         }},
    };

    TestService svc(counting_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
    ASSERT_TRUE(raw_call(svc.sockfile(), "warm-up", "").has_value());
    for (const Misbehaviour& m : cases) {
        SCOPED_TRACE(m.what);
        calls = 0;
        int before = settled_fd_count();
        {
            RawClient c;
            ASSERT_TRUE(c.connect_to(svc.sockfile()));
            m.act(c);
        }
        EXPECT_TRUE(eventually([&] { return count_open_fds() == before; })) << count_open_fds() << " open, " << before << " before";
        EXPECT_EQ(calls.load(), 0);
        // The service is unharmed: both consumers still answer.
        for (int i = 0; i < 3; i++)
            ASSERT_TRUE(raw_call(svc.sockfile(), "good", "{}").has_value());
    }
}

TEST(BadClients, ASilentClientDoesNotDelayOthersOnAnotherConsumer)
{
    TestService svc(counting_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
    RawClient silent;
    ASSERT_TRUE(silent.connect_to(svc.sockfile()));
    ASSERT_EQ(silent.next_type(), DV_DIRECTIVE_ACCEPT);
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; i++)
        ASSERT_TRUE(raw_call(svc.sockfile(), "good", "{}").has_value());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

}  // namespace
