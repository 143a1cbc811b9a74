// step-costs: what the steps every daemon call is built from cost on this
// machine: one system call, one thread created and joined (each request gets
// a handler thread), and one hand-off between two threads over a socket
// (each call crosses between client, producer and consumer five times).
// bench/run prints these beside its table to explain the ratios.
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace {

long long now_ns()
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

void* nothing(void*)
{
    return nullptr;
}

}  // namespace

int main()
{
    constexpr int kRounds = 20000;
    long long start = now_ns();
    for (int i = 0; i < kRounds; i++)
        (void)getppid();
    double syscall_us = (now_ns() - start) / 1000.0 / kRounds;

    start = now_ns();
    for (int i = 0; i < kRounds / 4; i++) {
        pthread_t t;
        if (pthread_create(&t, nullptr, nothing, nullptr) == 0)
            pthread_join(t, nullptr);
    }
    double thread_us = (now_ns() - start) / 1000.0 / (kRounds / 4);

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
        return 1;
    std::thread echo([&] {
        char b;
        for (int i = 0; i < kRounds; i++)
            if (read(sv[1], &b, 1) != 1 || write(sv[1], &b, 1) != 1)
                break;
    });
    char b = 'x';
    start = now_ns();
    for (int i = 0; i < kRounds; i++)
        if (write(sv[0], &b, 1) != 1 || read(sv[0], &b, 1) != 1)
            break;
    double handoff_us = (now_ns() - start) / 1000.0 / kRounds / 2;
    echo.join();
    close(sv[0]);
    close(sv[1]);

    printf("system call %.1f us, thread create+join %.1f us, hand-off between threads %.1f us\n", syscall_us,
           thread_us, handoff_us);
    return 0;
}
