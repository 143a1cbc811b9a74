// Fuzzes what a client may send a consumer worker: the input is cut into
// chunks of at most 143 bytes (so directives arrive in pieces), each sent on
// its own and some carrying a descriptor of some kind (memory files good and
// bad, sealed or sealable; pipes of either end, local and TCP sockets,
// devices, regular files, directories, O_PATH, eventfd; several at once), as
// request file or as the extra descriptor. The service
// must survive every input, keep answering well-formed requests, and end up
// holding no descriptor it did not hold before.
//
// Input format, repeated: [size byte][attachment byte][payload...]; a chunk
// is 1 + size % 143 payload bytes (fewer at the end of the input).
#include <fcntl.h>
#include <poll.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dv.h"
#include "support/fds.h"
#include "support/raw_client.h"
#include "support/settle.h"
#include "support/test_service.h"

namespace {

constexpr size_t CHUNK_MAX = 143;

TestService* service = nullptr;
int baseline_fds = -1;
unsigned long runs = 0;

void reply_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    size_t size = 0;
    (void)dv_io_read(io, &size);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "{\"result\":0}\n");
    dv_reply(io);
    dv_io_free(io);
}

int memfd_with(const char* text, unsigned flags = 0)
{
    int fd = memfd_create("fuzz", MFD_CLOEXEC | flags);
    if (fd >= 0 && text && write(fd, text, strlen(text)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A TCP connection to a listener of ours that never accepts, set to linger:
// the kind of socket the service must neither take nor wait for on close.
// (The listener is made before the descriptor count is first taken; what
// it queued is let go of on each call.)
int tcp_listener = -1;
struct sockaddr_in tcp_addr;

void make_tcp_listener()
{
    tcp_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    tcp_addr = {};
    tcp_addr.sin_family = AF_INET;
    tcp_addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(tcp_addr);
    if (bind(tcp_listener, reinterpret_cast<sockaddr*>(&tcp_addr), len) != 0 || listen(tcp_listener, 64) != 0 ||
        getsockname(tcp_listener, reinterpret_cast<sockaddr*>(&tcp_addr), &len) != 0)
        abort();
}

int lingering_tcp()
{
    for (int queued; (queued = accept4(tcp_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
        close(queued);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct linger on = {1, 30};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &on, sizeof(on));
    if (connect(fd, reinterpret_cast<sockaddr*>(&tcp_addr), sizeof(tcp_addr)) != 0) {
        close(fd);
        return -1;
    }
    (void)!write(fd, "unsent", 6);
    return fd;
}

int sealed_memfd(unsigned seals)
{
    int fd = memfd_with("{}", MFD_ALLOW_SEALING);
    fcntl(fd, F_ADD_SEALS, seals);
    return fd;
}

// Descriptors to attach for one attachment kind (the caller closes them).
std::vector<int> make_attachment(uint8_t kind)
{
    std::vector<int> fds;
    int p[2];
    switch (kind % 32) {
    case 8:
        fds.push_back(memfd_with("{\"a\":1}"));
        break;
    case 9:
        fds.push_back(memfd_with(nullptr));  // empty
        break;
    case 10:
        if (pipe2(p, O_CLOEXEC) == 0) {
            fds.push_back(p[0]);
            close(p[1]);
        }
        break;
    case 11:
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, p) == 0) {
            fds.push_back(p[0]);
            close(p[1]);
        }
        break;
    case 12:
        fds.push_back(open("/dev/null", O_RDWR | O_CLOEXEC));
        break;
    case 13:
        fds.push_back(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        break;
    case 14: {
        int fd = memfd_with("{}", MFD_ALLOW_SEALING);
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW);
        fds.push_back(fd);
        break;
    }
    case 15:
        fds.push_back(memfd_with("{}"));
        fds.push_back(memfd_with("{}"));
        break;
    case 16:
        fds.push_back(lingering_tcp());
        break;
    case 17:
        if (pipe2(p, O_CLOEXEC) == 0) {  // the end a caller's output goes in
            fds.push_back(p[1]);
            close(p[0]);
        }
        break;
    case 18:
        fds.push_back(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
        break;
    case 19:
        fds.push_back(open("/etc/passwd", O_PATH | O_CLOEXEC));
        break;
    case 20:
        fds.push_back(eventfd(0, EFD_CLOEXEC));
        break;
    case 21:
        fds.push_back(sealed_memfd(F_SEAL_SHRINK));
        break;
    case 22:
        fds.push_back(sealed_memfd(F_SEAL_SEAL));  // frozen, nothing forbidden: a good request file
        break;
    case 23:
        fds.push_back(sealed_memfd(F_SEAL_FUTURE_WRITE));
        break;
    default:
        break;  // 0-7: no descriptor
    }
    return fds;
}

bool send_chunk(int sock, const uint8_t* data, size_t size, const std::vector<int>& fds)
{
    struct iovec iov = {const_cast<uint8_t*>(data), size};
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    std::vector<char> control;
    if (!fds.empty()) {
        control.resize(CMSG_SPACE(fds.size() * sizeof(int)));
        msg.msg_control = control.data();
        msg.msg_controllen = control.size();
        struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
        memcpy(CMSG_DATA(cmsg), fds.data(), fds.size() * sizeof(int));
    }
    return sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

// Waits for the service to let go of the connection (or reply and close).
void drain_until_closed(int sock)
{
    char buf[1024];
    for (int spins = 0; spins < 200; spins++) {
        struct pollfd p = {sock, POLLIN, 0};
        if (poll(&p, 1, 10) == 1) {
            ssize_t n = read(sock, buf, sizeof(buf));
            if (n <= 0)
                return;
        }
    }
}

void check_service_alive()
{
    auto reply = raw_call(service->sockfile(), "probe", "{}");
    if (!reply || *reply != "{\"result\":0}\n") {
        fprintf(stderr, "the service stopped answering after %lu inputs\n", runs);
        abort();
    }
}

void check_no_leak()
{
    // On a loaded machine a worker may be kept from closing the last
    // client's descriptors for longer than the count takes to settle; a
    // leak is what stays.
    int now = baseline_fds;
    if (!eventually([&] { return (now = settled_fd_count()) == baseline_fds; }, 3000)) {
        fprintf(stderr, "descriptor count %d after %lu inputs, %d at the start:\n", now, runs, baseline_fds);
        fputs(describe_open_fds().c_str(), stderr);
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!service) {
        make_tcp_listener();
        service = new TestService(reply_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
        check_service_alive();
        baseline_fds = settled_fd_count();
    }
    runs++;

    RawClient client;
    if (!client.connect_to(service->sockfile()))
        abort();
    size_t at = 0;
    while (at + 2 <= size) {
        size_t chunk = 1 + data[at] % CHUNK_MAX;
        uint8_t kind = data[at + 1];
        at += 2;
        if (chunk > size - at)
            chunk = size - at;
        if (chunk == 0)
            break;
        std::vector<int> fds = make_attachment(kind);
        bool sent = send_chunk(client.fd(), data + at, chunk, fds);
        for (int fd : fds)
            if (fd >= 0)
                close(fd);
        if (!sent)
            break;
        at += chunk;
    }
    shutdown(client.fd(), SHUT_WR);
    drain_until_closed(client.fd());
    client.close_now();

    if (runs % 64 == 0) {
        check_service_alive();
        check_no_leak();
    }
    return 0;
}
