// System V message queues in tests: keys of the test's own (derived from its
// pid, so tests running side by side never meet) whose queue is removed on
// the way in and on the way out, even when the test fails.
#pragma once

class TestQueueKey {
public:
    // slot (0-3) gives one test several keys.
    explicit TestQueueKey(int slot = 0);
    ~TestQueueKey();
    TestQueueKey(const TestQueueKey&) = delete;
    TestQueueKey& operator=(const TestQueueKey&) = delete;

    int key() const { return key_; }
    // Whether a queue exists at the key.
    bool exists() const;
    // Removes the queue at the key, if any.
    void remove() const;

private:
    int key_;
};

// The threads of this process (entries of /proc/self/task).
int thread_count();

// Whether a thread of this process is blocked in msgrcv right now (from
// /proc/self/task/*/syscall), so a test can act on a receiver that waits.
bool thread_in_msgrcv();
