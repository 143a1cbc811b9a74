#include "support/suite.h"

void RawClient::close_now()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

bool RawClient::connect_to(const std::string& sockfile)
{
    close_now();
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sockfile.c_str());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return fd_ >= 0 && connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0;
}

int RawClient::next_type(int timeout_ms)
{
    dv_directive d;
    char* p = reinterpret_cast<char*>(&d);
    for (size_t got = 0; got < sizeof(d);) {
        struct pollfd pfd = {fd_, POLLIN, 0};
        ssize_t n = poll(&pfd, 1, timeout_ms) == 1 ? read(fd_, p + got, sizeof(d) - got) : -1;
        if (n <= 0)
            return -1;
        got += static_cast<size_t>(n);
    }
    return d.type;
}

bool RawClient::send_directive(uint8_t type, uint8_t flags, const std::string& data)
{
    dv_directive d = {.type = type, .flags = flags, .data = {}};
    memcpy(d.data, data.data(), std::min(data.size(), sizeof(d.data)));
    return send_bytes(&d, sizeof(d));
}

bool RawClient::send_bytes(const void* data, size_t len)
{
    return send(fd_, data, len, MSG_NOSIGNAL) == static_cast<ssize_t>(len);
}

bool RawClient::send_fd(int fd)
{
    char byte = 0;
    struct iovec iov = {&byte, 1};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr msg = {.msg_name = nullptr, .msg_namelen = 0, .msg_iov = &iov, .msg_iovlen = 1,
                         .msg_control = control, .msg_controllen = CMSG_LEN(sizeof(int)), .msg_flags = 0};
    struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    *cmsg = {.cmsg_len = CMSG_LEN(sizeof(int)), .cmsg_level = SOL_SOCKET, .cmsg_type = SCM_RIGHTS};
    memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
    return sendmsg(fd_, &msg, MSG_NOSIGNAL) == 1;
}

bool RawClient::closed_by_peer(int timeout_ms)
{
    char buf[512];
    for (;;) {
        struct pollfd pfd = {fd_, POLLIN, 0};
        if (poll(&pfd, 1, timeout_ms) != 1)
            return false;
        ssize_t n = read(fd_, buf, sizeof(buf));
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN))
            return true;
    }
}

int make_request_memfd(const std::string& text)
{
    int fd = memfd_create("request", MFD_CLOEXEC);
    if (fd >= 0 && !text.empty() && write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string read_fd_text(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return "";
    std::string out(static_cast<size_t>(st.st_size), '\0');
    ssize_t n = pread(fd, out.data(), out.size(), 0);
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

std::optional<std::string> raw_call(const std::string& sockfile, const std::string& name, const std::string& request,
                                    int extra_fd)
{
    RawClient c;
    std::optional<std::string> reply;
    if (c.connect_to(sockfile) && c.next_type(10000) == DV_DIRECTIVE_ACCEPT) {
        int memfd = make_request_memfd(request);
        if (c.send_directive(DV_DIRECTIVE_REQUEST, extra_fd >= 0 ? DV_DIRECTIVE_FLAG_EXTRA_FD : 0, name) &&
            c.send_fd(memfd) && (extra_fd < 0 || c.send_fd(extra_fd)) && c.next_type(10000) == DV_DIRECTIVE_REPLY)
            reply = read_fd_text(memfd);
        close(memfd);
    }
    return reply;
}
