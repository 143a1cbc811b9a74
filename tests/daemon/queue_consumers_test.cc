// The queue consumers: records laid out byte by byte at their wire offsets,
// decoded into the notification service's JSON, and carried end to end from
// a queue to a stand-in service.
#include "daemon/queue_consumers.h"

#include "daemon/json.h"
#include "daemon/msgq.h"

#include "support/debug_log.h"
#include "support/notify_service.h"
#include "support/settle.h"
#include "support/sysv_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using testing::MatchesRegex;

// Offsets below are written out as the wire format has them, not taken from
// the code under test.
template <class T>
void put(Bytes& m, size_t offset, T v)
{
    memcpy(m.data() + offset, &v, sizeof(v));
}
void put_text(Bytes& m, size_t offset, const std::string& s) { memcpy(m.data() + offset, s.data(), s.size()); }

Bytes notify_message(int32_t fabric_type, int32_t fabric_action, int32_t ret_flag, const std::string& info)
{
    Bytes m(8 + 144, 0);
    put<int64_t>(m, 0, 1);
    put(m, 8, fabric_type);
    put(m, 12, fabric_action);
    put(m, 16, ret_flag);
    put_text(m, 20, info);
    return m;
}

struct Event {
    long type;
    int32_t level;
    int64_t time;
    std::string user, source_ip, source_name, content;
    int32_t serv = 0, action = 0;
};

// Every byte not written by a field is 0xEE, so a field read past its end or
// from a reserved area shows up as garbage. A field filled to its last byte
// keeps no terminator.
Bytes eventlog_message(const Event& e)
{
    Bytes m(8 + 2488, 0xEE);
    put<int64_t>(m, 0, e.type);
    const size_t base = e.type == 2 ? 1252 - 12 : 0;
    put(m, base + 12, e.level);
    put(m, base + 16, e.time);
    put_text(m, base + 24, (e.user + std::string(65, '\0')).substr(0, 65));
    put_text(m, base + 89, (e.source_ip + std::string(65, '\0')).substr(0, 65));
    put_text(m, base + 154, (e.source_name + std::string(65, '\0')).substr(0, 65));
    put_text(m, base + 219, (e.content + std::string(1025, '\0')).substr(0, 1025));
    if (e.type == 2) {
        put(m, 2484, e.serv);
        put(m, 2488, e.action);
    }
    return m;
}

Json::Value parsed(const std::string& text)
{
    Json::Value v;
    EXPECT_TRUE(json_parse(text, v)) << text;
    return v;
}

TEST(QueueRecords, NotifyFieldsAtTheirOffsets)
{
    // ret_flag is a bool that only 1 makes true; the text is cut at its
    // field even when a sender left no terminator.
    const struct {
        int32_t ret_flag;
        const char* flag;
        std::string info;
    } cases[] = {{0, "false", ""}, {1, "true", std::string(131, 'i')}, {-1, "false", std::string(132, 'u')}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ret_flag);
        Bytes m = notify_message(-7, 0x01020304, c.ret_flag, c.info);
        notify_record rec;
        ASSERT_TRUE(parse_notify_record(m.data(), m.size(), rec));
        EXPECT_EQ(notify_record_json(rec, "25/01/02 03:04:05:000006"),
                  parsed(R"({"fabric_time": "25/01/02 03:04:05:000006", "fabric_type": -7, "fabric_action": 16909060,
                            "ret_flag": )" + std::string(c.flag) + R"(, "fabric_extra_info": ")" + c.info +
                         R"(", "method": "notify"})"));
    }
}

TEST(QueueRecords, EventLogFieldsAtTheirOffsetsByType)
{
    const Event system{1, 4, 1700000000, "admin", "10.0.0.7", "cam-1", "motion detected"};
    const Event conn{2, -2, 1700000123, std::string(65, 'U'), "fe80::1", std::string(65, 'n'), std::string(1025, 'c'),
                     5, 0x7fffffff};
    for (const Event& e : {system, conn}) {
        SCOPED_TRACE(e.type);
        // Unaligned on purpose: the record may sit anywhere in a buffer.
        Bytes m = eventlog_message(e);
        m.insert(m.begin(), 0);
        eventlog_record rec;
        ASSERT_TRUE(parse_eventlog_record(m.data() + 1, m.size() - 1, rec));
        Json::Value want;
        want["level"] = e.level;
        want["time"] = std::to_string(e.time) + "007";
        want["user"] = e.user;
        want["source_ip"] = e.source_ip;
        want["source_name"] = e.source_name;
        want["nas_ip"] = want["nas_name"] = "---";
        want["content"] = e.content;
        if (e.type == 1) {
            want["method"] = "notify";
        } else {
            want["serv"] = e.serv;
            want["action"] = e.action;
        }
        EXPECT_EQ(eventlog_record_json(rec, 7), want);
        EXPECT_STREQ(eventlog_command(rec), e.type == 1 ? "notify_log" : "notify_conn");
    }
}

TEST(QueueRecords, RefusesShortBuffersAndUnknownTypes)
{
    Bytes n = notify_message(1, 1, 1, "x");
    notify_record nrec;
    EXPECT_FALSE(parse_notify_record(n.data(), n.size() - 1, nrec));
    EXPECT_FALSE(parse_notify_record(nullptr, n.size(), nrec));

    Bytes e = eventlog_message({1, 1, 1, "u", "i", "n", "c"});
    eventlog_record erec;
    EXPECT_FALSE(parse_eventlog_record(e.data(), e.size() - 1, erec));
    for (long type : {0L, 3L, 0x100000001L}) {
        put(e, 0, type);
        EXPECT_FALSE(parse_eventlog_record(e.data(), e.size(), erec)) << type;
    }
}

TEST(QueueRecords, TimeCounterNumbersEventsWithinASecond)
{
    // Seconds values of their own, so earlier calls cannot matter.
    EXPECT_EQ(get_datetime_count(1000), 0);
    EXPECT_EQ(get_datetime_count(1000), 1);
    EXPECT_EQ(get_datetime_count(1000), 2);
    EXPECT_EQ(get_datetime_count(1001), 0);
    EXPECT_EQ(get_datetime_count(1000), 0);  // only the last second is remembered
    for (int i = 1; i < 1000; i++)
        ASSERT_EQ(get_datetime_count(1000), i);
    EXPECT_EQ(get_datetime_count(1000), 0);  // the 1001st wraps
    EXPECT_EQ(get_datetime_count(1000), 1);
}

// Both consumers on test-only keys with the real handlers and record sizes,
// a stand-in notification service and a debug log in a private directory.
class QueueConsumersTest : public testing::Test {
protected:
    void SetUp() override
    {
        threads_before_ = thread_count();
        notify_ = new T_MSGQ_service(notify_key_.key(), notify_handler, NOTIFY_MSG_SIZE);
        eventlog_ = new T_MSGQ_service(eventlog_key_.key(), eventlog_handler, EVENTLOG_MSG_SIZE);
        ASSERT_EQ(notify_->server_start(), 0);
        ASSERT_EQ(eventlog_->server_start(), 0);
    }
    void TearDown() override
    {
        for (T_MSGQ_service* q : {notify_, eventlog_}) {
            if (q)
                q->server_stop();
            delete q;
        }
        EXPECT_FALSE(notify_key_.exists());
        EXPECT_FALSE(eventlog_key_.exists());
        EXPECT_EQ(thread_count(), threads_before_) << "a receiving thread was left behind";
    }

    static int send(int key, Bytes m) { return T_MSGQ_service::send_msg(key, m.data(), m.size() - 8); }
    void send_notify(const Bytes& m) { ASSERT_EQ(send(notify_key_.key(), m), MSGQ_SEND_OK); }
    void send_event(const Event& e) { ASSERT_EQ(send(eventlog_key_.key(), eventlog_message(e)), MSGQ_SEND_OK); }

    DebugLogCapture log_;        // these two outlive the queues' threads
    FakeNotifyService service_;
    TestQueueKey notify_key_{0};
    TestQueueKey eventlog_key_{1};
    T_MSGQ_service* notify_ = nullptr;
    T_MSGQ_service* eventlog_ = nullptr;
    int threads_before_ = 0;
};

TEST_F(QueueConsumersTest, RecordsReachTheServiceInQueueOrder)
{
    const int fds_before = settled_fd_count();
    const time_t before = time(nullptr);
    const std::string infos[] = {"first", std::string(131, 'L'), "third"};
    for (int i = 0; i < 3; i++)
        send_notify(notify_message(3 + i, 11 + i, i != 1, infos[i]));
    ASSERT_TRUE(service_.wait_calls(3));
    const time_t after = time(nullptr);

    std::vector<NotifyCall> calls = service_.calls();
    ASSERT_EQ(calls.size(), 3U);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(calls[i].command, "notify_event");
        Json::Value v = parsed(calls[i].text);
        EXPECT_EQ(v["fabric_type"], 3 + i);
        EXPECT_EQ(v["ret_flag"], Json::Value(i != 1));
        EXPECT_EQ(v["fabric_extra_info"], infos[i]);

        // "yy/mm/dd hh:mm:ss:uuuuuu" of the local time of the call.
        const std::string when = v["fabric_time"].asString();
        ASSERT_THAT(when, MatchesRegex("[0-9]{2}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{6}"));
        struct tm tm {};
        ASSERT_TRUE(strptime(when.c_str(), "%y/%m/%d %H:%M:%S", &tm)) << when;
        tm.tm_isdst = -1;
        const time_t at = mktime(&tm);
        EXPECT_GE(at, before - 1) << when;
        EXPECT_LE(at, after + 1) << when;
    }

    // Event-log records by type, with their time numbers.
    const int64_t second = 1600000000 + getpid();  // a second no other test uses
    send_event({1, 2, second, "admin", "192.168.1.9", "nas", "login"});
    send_event({2, 3, second, "guest", "192.168.1.10", "pc", "smb open", 4, 1});
    send_event({3, 9, second, "ignored", "", "", "dropped"});
    send_event({1, 1, second, "admin", "", "", std::string(1025, 'z')});
    ASSERT_TRUE(service_.wait_calls(6));
    calls = service_.calls();
    ASSERT_EQ(calls.size(), 6U);
    calls.erase(calls.begin(), calls.begin() + 3);
    EXPECT_EQ(calls[0].command, "notify_log");
    EXPECT_EQ(calls[1].command, "notify_conn");
    EXPECT_EQ(calls[2].command, "notify_log");
    Json::Value first = parsed(calls[0].text), conn = parsed(calls[1].text), last = parsed(calls[2].text);
    EXPECT_EQ(first["time"], std::to_string(second) + "000");
    EXPECT_EQ(first["method"], "notify");
    EXPECT_EQ(conn["time"], std::to_string(second) + "001");
    EXPECT_EQ(conn["serv"], 4);
    EXPECT_FALSE(conn.isMember("method"));
    // The type-3 record took no number, made no call and logged nothing.
    EXPECT_EQ(last["time"], std::to_string(second) + "002");
    EXPECT_EQ(last["content"], std::string(1025, 'z'));
    EXPECT_TRUE(log_.messages().empty());
    EXPECT_EQ(settled_fd_count(), fds_before);
}

}  // namespace
