// System V message queues in tests: keys derived from the test's pid, so
// tests side by side never meet, whose queue is removed on the way in and
// out, even when the test fails.
#pragma once

class TestQueueKey {
public:
    explicit TestQueueKey(int slot = 0);  // slot 0-3: several keys for one test
    ~TestQueueKey() { remove(); }
    TestQueueKey(const TestQueueKey&) = delete;
    TestQueueKey& operator=(const TestQueueKey&) = delete;

    int key() const { return key_; }
    bool exists() const;
    void remove() const;

private:
    int key_;
};

// The threads of this process, and whether one of them waits in msgrcv now.
int thread_count();
bool thread_in_msgrcv();
