#include "support/sysv_queue.h"

#include <sys/msg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "support/files.h"

TestQueueKey::TestQueueKey(int slot)
    : key_(static_cast<int>(0x5E000000U | ((static_cast<unsigned>(getpid()) & 0x3FFFFFU) << 2) |
                            (static_cast<unsigned>(slot) & 3U)))
{
    remove();
}

bool TestQueueKey::exists() const
{
    return msgget(key_, 0) != -1;
}

void TestQueueKey::remove() const
{
    if (int id = msgget(key_, 0); id != -1)
        msgctl(id, IPC_RMID, nullptr);
}

int thread_count()
{
    // A sanitizer runtime may add a thread of its own at the process's first
    // pthread_create; that happens before anything is counted.
    static const bool warmed_up = (std::thread([] {}).join(), true);
    (void)warmed_up;
    std::error_code ec;
    int n = 0;
    for (auto it = std::filesystem::directory_iterator("/proc/self/task", ec); !ec && it != decltype(it)();
         it.increment(ec))
        ++n;
    return n;
}

bool thread_in_msgrcv()
{
    const std::string wanted = std::to_string(SYS_msgrcv) + " ";
    std::error_code ec;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ec))
        if (read_text_file(task.path().string() + "/syscall").rfind(wanted, 0) == 0)
            return true;
    return false;
}
