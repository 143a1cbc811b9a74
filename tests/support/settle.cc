#include "support/settle.h"

#include <chrono>
#include <thread>

#include "support/fds.h"

bool eventually(const std::function<bool()>& cond, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int settled_fd_count()
{
    int last = count_open_fds(), same = 0;
    while (same < 5) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        int now = count_open_fds();
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

int settled_fd_count(pid_t pid)
{
    int last = count_open_fds_of(pid);
    for (int same = 0, rounds = 0; same < 10 && rounds < 500; ++rounds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        int now = count_open_fds_of(pid);
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}
