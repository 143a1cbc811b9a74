// The message-queue service: send_msg's results, whole messages in queue
// order, and a stop that removes the queue and joins the receiver promptly in
// every state (waiting, spinning on errors, no queue at all).
#include "daemon/msgq.h"

#include "support/death.h"
#include "support/files.h"
#include "support/settle.h"
#include "support/sysv_queue.h"
#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

constexpr unsigned long kTextSize = 64;

// What the handler has seen: a copy of every whole buffer, type included.
std::mutex g_mutex;
std::vector<Bytes> g_received;

void recording_handler(void* msg)
{
    const unsigned char* p = static_cast<const unsigned char*>(msg);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_received.emplace_back(p, p + MSGQ_TYPE_SIZE + kTextSize);
}

size_t received_count()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_received.size();
}

// A message as send_msg takes it: the type, then the text.
Bytes message(long type, const std::string& text)
{
    Bytes m(MSGQ_TYPE_SIZE + text.size());
    memcpy(m.data(), &type, sizeof(type));
    memcpy(m.data() + MSGQ_TYPE_SIZE, text.data(), text.size());
    return m;
}

int send(int key, long type, const std::string& text)
{
    Bytes m = message(type, text);
    return T_MSGQ_service::send_msg(key, m.data(), text.size());
}

long long ms_since(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// The receiver's error line for errno e on queue id.
std::string msgrcv_error(int e, int id)
{
    return "msgrcv Error：" + std::string(strerror(e)) + "(" + std::to_string(e) + "), msgid:" + std::to_string(id);
}

// Standard error into a file for a scope, for the receiver's error lines.
class CapturedStderr {
public:
    CapturedStderr() : saved_(fcntl(2, F_DUPFD_CLOEXEC, 3))
    {
        fflush(stderr);
        int fd = open(dir_.file("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(fd, 2);
        close(fd);
    }
    ~CapturedStderr() { restore(); }
    void restore()
    {
        if (saved_ < 0)
            return;
        fflush(stderr);
        dup2(saved_, 2);
        close(std::exchange(saved_, -1));
    }
    std::string first_line() const
    {
        std::string text = read_text_file(dir_.file("stderr"));
        return text.substr(0, text.find('\n'));
    }

private:
    TempDir dir_;
    int saved_;
};

// A service under test on a test-only key; stopped and its queue removed
// whatever the test's outcome.
class MsgqTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_received.clear();
        threads_before_ = thread_count();
    }
    void TearDown() override
    {
        if (service_) {
            service_->server_stop();
            EXPECT_FALSE(key_.exists()) << "a queue was left behind";
            delete service_;
        }
        EXPECT_EQ(thread_count(), threads_before_) << "a receiving thread was left behind";
    }
    T_MSGQ_service& start()
    {
        service_ = new T_MSGQ_service(key_.key(), recording_handler, kTextSize);
        EXPECT_NE(service_->msqid, -1);
        EXPECT_EQ(service_->server_start(), 0);
        return *service_;
    }

    TestQueueKey key_;
    T_MSGQ_service* service_ = nullptr;
    int threads_before_ = 0;
};

TEST_F(MsgqTest, SendMsgResults)
{
    EXPECT_EQ(send(key_.key(), 1, "x"), MSGQ_SEND_NO_QUEUE);

    // Owned but not started: nothing takes messages off, so they pile up.
    service_ = new T_MSGQ_service(key_.key(), recording_handler, kTextSize);
    ASSERT_TRUE(key_.exists());
    EXPECT_EQ(send(key_.key(), 7, "hello"), MSGQ_SEND_OK);  // its bytes: see the delivery test

    // A type must be positive: msgsnd refuses, and says so without blocking.
    EXPECT_EQ(send(key_.key(), 0, "x"), MSGQ_SEND_FAILED);

    // A full queue answers at once instead of blocking the sender.
    const std::string big(1000, 'b');
    auto begin = Clock::now();
    int result = MSGQ_SEND_OK;
    for (int i = 0; i < 1000 && result == MSGQ_SEND_OK; i++)
        result = send(key_.key(), 1, big);
    EXPECT_EQ(result, MSGQ_SEND_FAILED);
    EXPECT_LT(ms_since(begin), 1000);

    // IPC_PRIVATE would make a fresh queue per message and leave it behind.
    EXPECT_EQ(send(IPC_PRIVATE, 1, "x"), MSGQ_SEND_LOOKUP_FAILED);
}

TEST_F(MsgqTest, DeliversWholeMessagesInQueueOrder)
{
    start();
    std::string full(kTextSize, '\0');
    for (size_t i = 0; i < full.size(); i++)
        full[i] = static_cast<char>('A' + i % 26);
    ASSERT_EQ(send(key_.key(), 3, full), MSGQ_SEND_OK);
    for (int i = 0; i < 20; i++)
        ASSERT_EQ(send(key_.key(), 100 + i, "n" + std::to_string(i)), MSGQ_SEND_OK);
    ASSERT_TRUE(eventually([] { return received_count() == 21; }, 5000)) << received_count();

    std::lock_guard<std::mutex> lock(g_mutex);
    // The message of exactly the text size whole, after its type; the short
    // ones after it their bytes, and zeros where the longer one was.
    EXPECT_EQ(g_received[0], message(3, full));
    for (int i = 0; i < 20; i++) {
        std::string text = "n" + std::to_string(i);
        text.resize(kTextSize, '\0');
        EXPECT_EQ(g_received[1 + i], message(100 + i, text)) << "message " << i;
    }
}

// Stopped by us, or the queue removed by someone else: the receiver ends
// promptly, and the removal is taken as the end, not as an error.
TEST_F(MsgqTest, StopOrRemovalEndsTheReceiverPromptly)
{
    for (bool by_stop : {true, false}) {
        SCOPED_TRACE(by_stop ? "server_stop" : "removed by another");
        g_received.clear();  // no receiver runs between the rounds
        CapturedStderr err;
        T_MSGQ_service& service = start();
        EXPECT_EQ(thread_count(), threads_before_ + 1);
        ASSERT_EQ(send(key_.key(), 1, "one"), MSGQ_SEND_OK);
        ASSERT_TRUE(eventually([] { return received_count() == 1; }));
        ASSERT_TRUE(eventually(thread_in_msgrcv));

        auto begin = Clock::now();
        if (by_stop) {
            EXPECT_EQ(service.server_stop(), 0);
            EXPECT_LT(ms_since(begin), 500);
            EXPECT_EQ(thread_count(), threads_before_);
        } else {
            key_.remove();
            EXPECT_TRUE(eventually([&] { return thread_count() == threads_before_; })) << "the receiver kept running";
        }
        EXPECT_FALSE(key_.exists());
        EXPECT_EQ(send(key_.key(), 1, "late"), MSGQ_SEND_NO_QUEUE);
        // Stopping (again, as a shutdown path may) is harmless.
        EXPECT_EQ(service.server_stop(), 0);
        err.restore();
        EXPECT_EQ(err.first_line(), "");
        delete std::exchange(service_, nullptr);
    }
}

TEST_F(MsgqTest, StopEndsAReceiverStuckOnAnOversizedMessage)
{
    CapturedStderr err;
    T_MSGQ_service& service = start();
    ASSERT_EQ(send(key_.key(), 1, std::string(kTextSize + 1, 'x')), MSGQ_SEND_OK);
    // The receiver fails on it, reports it and tries again.
    ASSERT_TRUE(eventually([&] { return !err.first_line().empty(); }));
    auto begin = Clock::now();
    service.server_stop();
    EXPECT_LT(ms_since(begin), 500);
    err.restore();
    EXPECT_EQ(err.first_line(), msgrcv_error(E2BIG, service.msqid));
}

// A queue this object may not use (here ours with mode 0, which an
// unprivileged user cannot open): msqid is -1, every msgrcv fails at once,
// and stopping must still end the receiver. The queue stays: removing it is
// its owner's business (here the fixture's).
[[noreturn]] void run_without_queue(int key)
{
    if (getuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
        _exit(10);
    const int threads_before = thread_count();
    T_MSGQ_service service(key, recording_handler, kTextSize);
    if (service.msqid != -1)
        _exit(11);
    if (service.server_start() != 0 || thread_count() != threads_before + 1)
        _exit(12);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    auto begin = Clock::now();
    service.server_stop();
    _exit(ms_since(begin) > 500 ? 13 : thread_count() != threads_before ? 14 : 0);
}

TEST_F(MsgqTest, StopJoinsWhenTheQueueWasNeverHad)
{
    ASSERT_NE(msgget(key_.key(), IPC_CREAT | IPC_EXCL | 0000), -1) << strerror(errno);
    EXPECT_EXIT(run_without_queue(key_.key()), testing::ExitedWithCode(0),
                "^" + literal_regex(msgrcv_error(EINVAL, -1)) + "\n");
    EXPECT_TRUE(key_.exists());
}

}  // namespace
