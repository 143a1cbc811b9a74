// What a client may send a consumer: the input, cut into chunks of at most
// 143 bytes (directives arrive in pieces), each sent on its own, some with
// descriptors of some kind (memory files good, empty or sealed; pipe ends,
// local and TCP sockets, devices, files, directories, O_PATH, eventfd;
// several at once) as request file or extra descriptor. The service must
// survive, keep answering and hold no descriptor it did not hold before.
// Input, repeated: [size byte][attachment byte][1 + size % 143 payload bytes].
#include "support/suite.h"

namespace {

TestService* service = nullptr;
int baseline_fds = -1;
unsigned long runs = 0;
int tcp_listener = -1;  // made before the first descriptor count
struct sockaddr_in tcp_addr = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};

void reply_exec(const char*, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    reply_text(io, "{\"result\":0}\n");
}

int memfd_with(const std::string& text, unsigned seals = 0)
{
    int fd = memfd_create("fuzz", MFD_CLOEXEC | (seals ? MFD_ALLOW_SEALING : 0));
    (void)!write(fd, text.data(), text.size());
    fcntl(fd, F_ADD_SEALS, seals);
    return fd;
}

// One end of a pipe or socket pair, the other closed.
int one_end(bool socket_pair, int end)
{
    int p[2] = {-1, -1};
    if (socket_pair ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, p) : pipe2(p, O_CLOEXEC))
        return -1;
    close(p[1 - end]);
    return p[end];
}

// A TCP connection to our listener, which never accepts, set to linger: a
// socket the service must neither take nor wait for on close.
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

// Attachment kinds 8-23 (the rest: none), each one descriptor but 15.
const std::function<int()> kAttachments[] = {
    [] { return memfd_with("{\"a\":1}"); },
    [] { return memfd_with(""); },
    [] { return one_end(false, 0); },
    [] { return one_end(true, 0); },
    [] { return open("/dev/null", O_RDWR | O_CLOEXEC); },
    [] { return open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC); },
    [] { return memfd_with("{}", F_SEAL_SHRINK | F_SEAL_GROW); },
    [] { return memfd_with("{}"); },  // and another: two in one message
    lingering_tcp,
    [] { return one_end(false, 1); },  // the end a caller's output goes in
    [] { return open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); },
    [] { return open("/etc/passwd", O_PATH | O_CLOEXEC); },
    [] { return eventfd(0, EFD_CLOEXEC); },
    [] { return memfd_with("{}", F_SEAL_SHRINK); },
    [] { return memfd_with("{}", F_SEAL_SEAL); },  // frozen, nothing forbidden: a good request file
    [] { return memfd_with("{}", F_SEAL_FUTURE_WRITE); },
};

bool send_chunk(int sock, const uint8_t* data, size_t size, uint8_t kind)
{
    std::vector<int> fds;
    if (kind % 32 >= 8 && kind % 32 < 24) {
        fds.push_back(kAttachments[kind % 32 - 8]());
        if (kind % 32 == 15)
            fds.push_back(kAttachments[7]());
    }
    struct iovec iov = {const_cast<uint8_t*>(data), size};
    std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
    struct msghdr msg = {nullptr, 0, &iov, 1, fds.empty() ? nullptr : control.data(), fds.empty() ? 0 : control.size(), 0};
    if (!fds.empty()) {
        struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        *cmsg = {CMSG_LEN(fds.size() * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
        memcpy(CMSG_DATA(cmsg), fds.data(), fds.size() * sizeof(int));
    }
    const bool sent = sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
    return sent;
}

// On a loaded machine a worker may close the last client's descriptors late;
// a leak is what stays.
void check_service()
{
    const char* broken = nullptr;
    if (raw_call(service->sockfile(), "probe", "{}") != "{\"result\":0}\n")
        broken = "the service stopped answering";
    else if (baseline_fds >= 0 && !eventually([] { return settled_fd_count() == baseline_fds; }, 3000))
        broken = "descriptors left open";
    if (broken) {
        fprintf(stderr, "%s after %lu inputs\n%s", broken, runs, describe_open_fds().c_str());
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!service) {
        tcp_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        socklen_t len = sizeof(tcp_addr);
        if (bind(tcp_listener, reinterpret_cast<sockaddr*>(&tcp_addr), len) != 0 || listen(tcp_listener, 64) != 0 ||
            getsockname(tcp_listener, reinterpret_cast<sockaddr*>(&tcp_addr), &len) != 0)
            abort();
        service = new TestService(reply_exec, DV_PTHREAD_MODE | DV_STANDALONE, 2);
        check_service();
        baseline_fds = settled_fd_count();
    }
    runs++;
    RawClient client;
    if (!client.connect_to(service->sockfile()))
        abort();
    for (size_t at = 0; at + 2 < size;) {
        const size_t chunk = std::min<size_t>(1 + data[at] % 143, size - at - 2);
        if (!send_chunk(client.fd(), data + at + 2, chunk, data[at + 1]))
            break;
        at += 2 + chunk;
    }
    shutdown(client.fd(), SHUT_WR);
    client.closed_by_peer(2000);  // until the service lets go of the connection, or replies and closes
    client.close_now();
    if (runs % 64 == 0 || runs < 64)  // every input of a corpus replay, then now and then
        check_service();
    return 0;
}
