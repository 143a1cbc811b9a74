// The message queues: send_msg's results, whole messages in queue order, a
// stop that ends the receiver promptly in every state; the records' bytes
// at their wire offsets and what reaches the notification service.
#include "daemon/msgq.h"
#include "daemon/json.h"
#include "daemon/queue_consumers.h"

#include "support/suite.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr unsigned long kTextSize = 64;

// Every whole buffer the queue handler saw (type included), and every call
// the notification service took ("command request").
std::mutex received_lock;
std::vector<std::string> received;

void record(std::string what)
{
    std::lock_guard<std::mutex> lock(received_lock);
    received.push_back(std::move(what));
}

std::vector<std::string> received_now()
{
    std::lock_guard<std::mutex> lock(received_lock);
    return received;
}

void recording_handler(void* msg)
{
    record(std::string(static_cast<const char*>(msg), MSGQ_TYPE_SIZE + kTextSize));
}

// The app's notification service as the consumers reach it: its real name in
// a private socket directory; answers {"result":0}.
void notify_service_exec(const char* name, dv_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    record(std::string(name) + " " + request_text(io));
    reply_text(io, "{\"result\":0}");
}

std::string message(long type, const std::string& text, size_t size = 0)
{
    std::string m(MSGQ_TYPE_SIZE + std::max(size, text.size()), '\0');
    memcpy(m.data(), &type, sizeof(type));
    memcpy(m.data() + MSGQ_TYPE_SIZE, text.data(), text.size());
    return m;
}

int send(int key, long type, const std::string& text)
{
    return T_MSGQ_service::send_msg(key, message(type, text).data(), text.size());
}

std::string msgrcv_error(int e, int id)
{
    return "msgrcv Error：" + std::string(strerror(e)) + "(" + std::to_string(e) + "), msgid:" + std::to_string(id) +
           "\n";
}

TEST(Msgq, SendResults)
{
    TestQueueKey key;
    EXPECT_EQ(send(key.key(), 1, "x"), MSGQ_SEND_NO_QUEUE);
    T_MSGQ_service owned(key.key(), recording_handler, kTextSize);  // not started: messages pile up
    EXPECT_EQ(send(key.key(), 7, "hello"), MSGQ_SEND_OK);
    EXPECT_EQ(send(key.key(), 0, "x"), MSGQ_SEND_FAILED);  // a type must be positive
    const auto begin = Clock::now();
    int result = MSGQ_SEND_OK;
    for (int i = 0; i < 1000 && result == MSGQ_SEND_OK; i++)
        result = send(key.key(), 1, std::string(1000, 'b'));
    EXPECT_EQ(result, MSGQ_SEND_FAILED);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1)) << "a full queue blocked the sender";
    EXPECT_EQ(send(IPC_PRIVATE, 1, "x"), MSGQ_SEND_LOOKUP_FAILED);
    owned.server_stop();
    EXPECT_FALSE(key.exists());
}

// Whole messages in order (short ones zero-filled); then each way the
// receiver ends: stopped while it waits, its queue removed by another, stuck
// on an oversized message. Each ends promptly, with only the error it should
// print, and leaves no thread.
TEST(Msgq, DeliversWholeMessagesInOrderAndEveryStopEndsTheReceiverPromptly)
{
    enum End { Stop, Removed, Oversized };
    for (End end : {Stop, Removed, Oversized}) {
        SCOPED_TRACE(end);
        TestQueueKey key;
        received.clear();
        const int threads = thread_count();
        T_MSGQ_service service(key.key(), recording_handler, kTextSize);
        ASSERT_EQ(service.server_start(), 0);
        EXPECT_EQ(thread_count(), threads + 1);
        const std::string full = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";  // kTextSize
        ASSERT_EQ(send(key.key(), 3, full), MSGQ_SEND_OK);
        ASSERT_EQ(send(key.key(), 100, "n"), MSGQ_SEND_OK);
        ASSERT_TRUE(eventually([] { return received_now().size() == 2; }, 5000)) << received_now().size();
        EXPECT_EQ(received[0], message(3, full));
        EXPECT_EQ(received[1], message(100, "n", kTextSize));
        ASSERT_TRUE(eventually(thread_in_msgrcv));

        testing::internal::CaptureStderr();
        if (end == Oversized) {
            ASSERT_EQ(send(key.key(), 1, std::string(kTextSize + 1, 'x')), MSGQ_SEND_OK);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        const auto begin = Clock::now();
        if (end == Removed)
            key.remove();
        else
            EXPECT_EQ(service.server_stop(), 0);
        EXPECT_TRUE(eventually([&] { return thread_count() == threads; }, 500)) << "the receiver kept running";
        EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(500));
        EXPECT_EQ(service.server_stop(), 0);  // again, as a shutdown path may
        EXPECT_FALSE(key.exists());
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.substr(0, err.find('\n') + 1), end == Oversized ? msgrcv_error(E2BIG, service.msqid) : "");
    }
}

// Each receiver frees its buffer: thirty of 1 MiB cost no address space.
TEST(Msgq, ReceiversGiveTheirBuffersBack)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "freed memory waits in the sanitizer's quarantine; its leak check stands in";
#endif
    auto vm_kib = [] {
        const std::string status = read_text_file("/proc/self/status");
        return atol(status.c_str() + status.find("VmSize:") + 7);
    };
    long before = 0;
    for (int i = 0; i <= 30; i++) {
        before = i == 1 ? vm_kib() : before;  // after the first: a thread stack is kept for reuse
        TestQueueKey key;
        T_MSGQ_service service(key.key(), recording_handler, 1 << 20);
        ASSERT_EQ(service.server_start(), 0);
        ASSERT_TRUE(eventually(thread_in_msgrcv));
        service.server_stop();
    }
    EXPECT_LT(vm_kib() - before, 10 * 1024);
}

// A queue this object may not use (ours with mode 0, as an unprivileged
// user): msqid is -1, every msgrcv fails at once, and a stop still ends the
// receiver. The queue is its owner's to remove.
TEST(Msgq, StopJoinsWhenTheQueueWasNeverHad)
{
    TestQueueKey key;
    ASSERT_NE(msgget(key.key(), IPC_CREAT | IPC_EXCL | 0000), -1) << strerror(errno);
    thread_count();  // its first call starts and joins a thread, which may linger a moment: not in the child
    const auto stopped = run_as(kSpareUid, kSpareGid, [&] {
        testing::internal::CaptureStderr();
        const int threads = thread_count();
        T_MSGQ_service service(key.key(), recording_handler, kTextSize);
        const bool started = service.msqid == -1 && service.server_start() == 0 && thread_count() == threads + 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const auto begin = Clock::now();
        service.server_stop();
        const bool ended = Clock::now() - begin < std::chrono::milliseconds(500) &&
                           eventually([&] { return thread_count() == threads; }, 500);  // a joined thread may linger
        const std::string err = testing::internal::GetCapturedStderr();
        return std::to_string(started) + std::to_string(ended) + " " + err.substr(0, err.find('\n') + 1);
    });
    EXPECT_EQ(stopped, "11 " + msgrcv_error(EINVAL, -1));
    EXPECT_TRUE(key.exists());
}

// Offsets are written out as the wire format has them, not taken from the
// code under test. Every byte no field covers is 0xEE, so a field read past
// its end shows up; a field filled to its last byte keeps no terminator.
template <class T>
void put(std::string& m, size_t offset, const T& v)
{
    memcpy(m.data() + offset, &v, sizeof(v));
}

void put_text(std::string& m, size_t offset, const std::string& s, size_t field)
{
    memcpy(m.data() + offset, (s + std::string(field, '\0')).data(), field);
}

// Each record decoded, and what its consumer sends the notification service.
TEST(QueueRecords, FieldsAtTheirOffsetsReachTheServiceAndWhatIsRefused)
{
    DebugLogCapture log;
    TempDir sockets;
    ScopedEnv env("DV_SOCKET_DIR", sockets.path().c_str());
    const std::unique_ptr<dv_handle, void (*)(dv_handle*)> service(
        dv_create("VexProServer_notify-vexprod", DV_PTHREAD_MODE | DV_STANDALONE, 1, notify_service_exec), dv_free);
    dv_start(service.get());
    received.clear();
    auto notify = [](const char* flag, char fill) {
        return R"({"fabric_time": "T", "fabric_type": -7, "fabric_action": 16909060, "ret_flag": )" +
               std::string(flag) + R"(, "fabric_extra_info": ")" + std::string(fill == 'i' ? 131 : 132, fill) +
               R"(", "method": "notify"})";
    };
    const struct {
        long type;  // 0: a notification record
        int32_t ret_flag_or_level;
        std::string text, command, json;  // extra info or content; the call, none when refused
    } cases[] = {
        {0, 1, std::string(131, 'i'), "notify_event", notify("true", 'i')},
        {0, -1, std::string(140, 'u'), "notify_event", notify("false", 'u')},  // only 1 is true; the field ends the text
        {1, 4, "motion detected", "notify_log",
         R"({"level": 4, "time": "1700000000000", "user": "admin", "source_ip": "10.0.0.7", "source_name": "cam-1",
             "nas_ip": "---", "nas_name": "---", "content": "motion detected", "method": "notify"})"},
        {2, -2, std::string(1025, 'c'), "notify_conn",
         R"({"level": -2, "time": "1700000000001", "source_ip": "fe80::1", "nas_ip": "---", "nas_name": "---",
             "serv": 5, "action": 2147483647})"},
        {3, 1, "unknown type", "", ""},
        {0x100000001L, 1, "type beyond 32 bits", "", ""},
    };
    size_t sent = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        Json::Value want, got;
        ASSERT_TRUE(c.json.empty() || json_parse(c.json, want));
        std::string m(1 + EVENTLOG_TOTAL, '\xEE');  // one byte ahead: the record may sit anywhere in a buffer
        const time_t before = time(nullptr);
        if (c.type == 0) {
            put<int64_t>(m, 1, 1);
            put<int32_t>(m, 1 + 8, -7);
            put<int32_t>(m, 1 + 12, 0x01020304);
            put(m, 1 + 16, c.ret_flag_or_level);
            put_text(m, 1 + 20, c.text.substr(0, 132), 132);
            notify_record rec;
            EXPECT_FALSE(parse_notify_record(m.data() + 1, notify_layout::kTotal - 1, rec));
            notify_handler(m.data() + 1);
        } else {
            put<int64_t>(m, 1, c.type);
            const size_t base = 1 + (c.type == 2 ? 1252 - 12 : 0);
            put(m, base + 12, c.ret_flag_or_level);
            put<int64_t>(m, base + 16, 1700000000);
            put_text(m, base + 24, c.type == 2 ? std::string(65, 'U') : "admin", 65);
            put_text(m, base + 89, c.type == 2 ? "fe80::1" : "10.0.0.7", 65);
            put_text(m, base + 154, c.type == 2 ? std::string(65, 'n') : "cam-1", 65);
            put_text(m, base + 219, c.text, 1025);
            put<int32_t>(m, 1 + 2484, 5);
            put<int32_t>(m, 1 + 2488, 0x7fffffff);
            eventlog_record rec;
            EXPECT_FALSE(parse_eventlog_record(m.data() + 1, m.size() - 2, rec));
            EXPECT_EQ(parse_eventlog_record(m.data() + 1, m.size() - 1, rec), !c.json.empty());
            eventlog_handler(m.data() + 1);
        }
        if (c.json.empty())
            continue;
        ASSERT_TRUE(eventually([&] { return received_now().size() > sent; }, 5000));
        const time_t after = time(nullptr);
        const std::string call = received_now()[sent++];
        EXPECT_EQ(call.substr(0, call.find(' ')), c.command);
        ASSERT_TRUE(json_parse(call.substr(call.find(' ') + 1), got));
        if (c.type == 0) {  // stamped "yy/mm/dd hh:mm:ss:uuuuuu" in local time
            const std::string when = got["fabric_time"].asString();
            char low[32], high[32];
            struct tm tm;
            strftime(low, sizeof(low), "%y/%m/%d %H:%M:%S", localtime_r(&before, &tm));
            strftime(high, sizeof(high), "%y/%m/%d %H:%M:%S", localtime_r(&after, &tm));
            EXPECT_TRUE(when.substr(0, 17) >= low && when.substr(0, 17) <= high) << when;
            EXPECT_THAT(when, testing::MatchesRegex("[0-9/]{8} [0-9:]{8}:[0-9]{6}"));
            got["fabric_time"] = "T";
        } else if (c.type == 2) {
            want["user"] = std::string(65, 'U');
            want["source_name"] = std::string(65, 'n');
            want["content"] = c.text;
        }
        EXPECT_EQ(got, want);
    }
    EXPECT_EQ(received_now().size(), sent);
    // Events are numbered within their second; only the last second is kept, the 1001st wraps.
    EXPECT_EQ(get_datetime_count(1001), 0);
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(get_datetime_count(1000), i);
    EXPECT_EQ(get_datetime_count(1000), 0);
}

}  // namespace
