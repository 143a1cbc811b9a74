// TestQueueKey, thread_count and thread_in_msgrcv.
#include "support/sysv_queue.h"

#include "support/files.h"

#include <dirent.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

TestQueueKey::TestQueueKey(int slot)
    : key_(static_cast<int>(0x5E000000U | ((static_cast<unsigned>(getpid()) & 0x3FFFFFU) << 2) |
                            (static_cast<unsigned>(slot) & 3U)))
{
    remove();
}

TestQueueKey::~TestQueueKey()
{
    remove();
}

bool TestQueueKey::exists() const
{
    return msgget(key_, 0) != -1;
}

void TestQueueKey::remove() const
{
    int id = msgget(key_, 0);
    if (id != -1)
        msgctl(id, IPC_RMID, nullptr);
}

int thread_count()
{
    // A sanitizer runtime may add a thread of its own at the process's first
    // pthread_create; make that happen before anything is counted.
    static const bool warmed_up = [] {
        std::thread([] {}).join();
        return true;
    }();
    (void)warmed_up;
    DIR* dir = opendir("/proc/self/task");
    if (!dir)
        return -1;
    int n = 0;
    while (struct dirent* e = readdir(dir))
        if (e->d_name[0] != '.')
            n++;
    closedir(dir);
    return n;
}

bool thread_in_msgrcv()
{
    DIR* dir = opendir("/proc/self/task");
    if (!dir)
        return false;
    bool found = false;
    const std::string wanted = std::to_string(SYS_msgrcv) + " ";
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.')
            continue;
        std::string line = read_text_file(std::string("/proc/self/task/") + e->d_name + "/syscall");
        if (line.compare(0, wanted.size(), wanted) == 0)
            found = true;
    }
    closedir(dir);
    return found;
}
