// The message object: memory file life cycle, mapping, liveness, misuse.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "dv.h"
#include "support/death.h"
#include "support/raw_client.h"

namespace {

std::string mapped(dv_io* io)
{
    size_t size = 0;
    char* data = dv_io_read(io, &size);
    return data ? std::string(data, size) : std::string();
}

// One object through its whole life: no file until the first write, appends,
// resizes that leave the offset at the end, descriptor forms of the file,
// and liveness.
TEST(DvIo, LifeCycleOfTheFileAndLiveness)
{
    dv_io* io = dv_io_create();
    size_t size = 123;
    EXPECT_EQ(dv_io_read(io, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(io->memfd, -1);  // reading does not create the file
    EXPECT_EQ(dv_io_size(io), 0u);
    EXPECT_EQ(io->sockfd, -1);
    EXPECT_EQ(io->fd, -1);
    EXPECT_EQ(dv_io_alive(io), 1);  // pid 0: the socket is not even looked at

    EXPECT_EQ(dv_io_write(io, "0123456789", 10), 10);
    EXPECT_EQ(mapped(io), "0123456789");
    EXPECT_EQ(io->shared_size, 10u);
    // The read left the offset at the end: a second write appends.
    EXPECT_EQ(dv_io_write(io, "abc", 3), 3);
    dv_io_printf(io, "-%d-", 42);
    EXPECT_EQ(mapped(io), "0123456789abc-42-");
    EXPECT_EQ(dv_io_size(io), 17u);

    char* p = static_cast<char*>(dv_io_realloc(io, 4));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p, 4), "0123");
    memcpy(p, "new ", 4);
    dv_io_write(io, "tail", 4);
    EXPECT_EQ(mapped(io), "new tail");
    EXPECT_EQ(dv_io_realloc(io, 0), nullptr);
    EXPECT_EQ(io->shared_data, nullptr);
    EXPECT_EQ(io->shared_size, 0u);
    EXPECT_EQ(dv_io_size(io), 0u);
    dv_io_printf(io, "%s", "reply");
    EXPECT_EQ(mapped(io), "reply");

    int fd = dv_io_dup(io);
    EXPECT_EQ(read_fd_text(fd), "reply");
    close(fd);
    char buf[16] = {};
    FILE* f = dv_io_fopen(io, "r");
    ASSERT_NE(f, nullptr);
    EXPECT_NE(fgets(buf, sizeof(buf), f), nullptr);
    EXPECT_STREQ(buf, "reply");
    fclose(f);
    EXPECT_EQ(dv_io_fileno(io), io->memfd);

    // With a peer, liveness is whether the client hung up.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    io->sockfd = sv[0];
    io->pid = getpid();
    EXPECT_EQ(dv_io_alive(io), 1);
    close(sv[1]);
    EXPECT_EQ(dv_io_alive(io), 0);
    dv_io_free(io);  // closes sv[0]
}

TEST(DvIoDeathTest, MisuseAbortsWithItsLine)
{
    const char* cond = "io && (*(u_int32_t*) io == DV_IO_MAGIC)";
    static u_int32_t bogus[128] = {0xdeadbeef};
    dv_io* bad = reinterpret_cast<dv_io*>(bogus);
    std::string p = format_text("%p", static_cast<void*>(bad));
    size_t size;
    const struct {
        const char* what;
        std::function<void()> run;
        std::string line;
    } cases[] = {
        {"free null", [] { dv_io_free(nullptr); },
         format_text("[ABORT] @dv_io_free() cannot free incorrect dv_io %p: `%s'", nullptr, cond)},
        {"realloc", [&] { dv_io_realloc(bad, 1); }, "[ABORT] @dv_io_realloc() cannot alloc incorrect dv_io " + p},
        {"read", [&] { dv_io_read(bad, &size); }, "[ABORT] @dv_io_read() cannot read incorrect dv_io " + p},
        {"write", [&] { dv_io_write(bad, "x", 1); }, "[ABORT] @dv_io_write() cannot read incorrect dv_io " + p},
        {"splice", [&] { dv_io_splice(bad, 0, 1); }, "[ABORT] @dv_io_splice() cannot read incorrect dv_io " + p},
        {"printf", [&] { dv_io_printf(bad, "x"); }, "[ABORT] @dv_io_printf() cannot printf incorrect dv_io " + p},
        {"pid", [&] { dv_io_pid(bad); }, "[ABORT] @dv_io_pid() cannot fetch incorrect dv_io " + p + " pid"},
        {"uid", [&] { dv_io_uid(bad); }, "[ABORT] @dv_io_uid() cannot fetch incorrect dv_io " + p + " uid"},
        {"gid", [&] { dv_io_gid(bad); }, "[ABORT] @dv_io_gid() cannot fetch incorrect dv_io " + p + " gid"},
        {"set", [&] { dv_io_set(bad, nullptr); }, "[ABORT] @dv_io_set() cannot attach incorrect dv_io " + p},
        {"get", [&] { dv_io_get(bad); }, "[ABORT] @dv_io_get() cannot detach incorrect dv_io " + p},
        {"alive", [&] { dv_io_alive(bad); }, "[ABORT] @dv_io_alive() cannot check incorrect dv_io " + p + " alive"},
        {"reply", [&] { dv_reply(bad); }, "[ABORT] @dv_reply() cannot response incorrect dv_io " + p},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string full = c.line.find(cond) == std::string::npos ? c.line + ": `" + cond + "'" : c.line;
        EXPECT_EXIT(c.run(), testing::KilledBySignal(SIGABRT), "^" + literal_regex(full) + "\n$");
    }
}

}  // namespace
