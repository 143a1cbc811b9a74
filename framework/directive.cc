// The wire: fixed-size directives and single-descriptor messages.
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"

static_assert(sizeof(dv_directive) == DV_DIRECTIVE_SIZE, "the directive is 259 bytes on the wire");

bool dv_send_directive(int sockfd, const dv_directive* directive)
{
    ssize_t n;
    do {
        n = send(sockfd, directive, sizeof(*directive), MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof(*directive));
}

bool dv_send_directive_type(int sockfd, uint8_t type)
{
    dv_directive directive;
    memset(&directive, 0, sizeof(directive));
    directive.type = type;
    return dv_send_directive(sockfd, &directive);
}

bool dv_read_directive(int sockfd, dv_directive* directive)
{
    ssize_t n;
    do {
        n = read(sockfd, directive, sizeof(*directive));
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof(*directive));
}

bool dv_send_fd(int sockfd, int fd)
{
    char byte = 0;
    struct iovec iov = {&byte, 1};
    union {
        char buf[CMSG_SPACE(sizeof(int))];
        struct cmsghdr align;
    } control;
    memset(&control, 0, sizeof(control));
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.buf;
    msg.msg_controllen = CMSG_LEN(sizeof(int));  // 20: one descriptor
    struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
    ssize_t n;
    do {
        n = sendmsg(sockfd, &msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == 1;
}

namespace {

int recv_one_fd(int sockfd, int flags, bool* would_block)
{
    char byte;
    struct iovec iov = {&byte, 1};
    // Room for exactly one descriptor; a sender that attaches more gets
    // MSG_CTRUNC (or a longer control message) and is refused below.
    union {
        char buf[CMSG_SPACE(sizeof(int))];  // 24 bytes
        struct cmsghdr align;
    } control;
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.buf;
    msg.msg_controllen = sizeof(control.buf);
    ssize_t n;
    do {
        n = recvmsg(sockfd, &msg, MSG_CMSG_CLOEXEC | flags);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (would_block)
            *would_block = errno == EAGAIN || errno == EWOULDBLOCK;
        return -1;
    }

    int fd = -1;
    bool good = n >= 1 && msg.msg_controllen >= sizeof(struct cmsghdr) && !(msg.msg_flags & MSG_CTRUNC);
    for (struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) {
            good = false;
            continue;
        }
        size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; i++) {
            int received;
            memcpy(&received, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
            if (fd == -1 && count == 1 && received >= 0)
                fd = received;
            else if (received >= 0) {
                close(received);
                good = false;
            }
        }
    }
    if (!good && fd >= 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

}  // namespace

int dv_recv_fd(int sockfd)
{
    return recv_one_fd(sockfd, 0, nullptr);
}

int dv_recv_fd_now(int sockfd, bool* would_block)
{
    *would_block = false;
    return recv_one_fd(sockfd, MSG_DONTWAIT, would_block);
}
