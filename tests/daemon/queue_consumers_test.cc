// The queue consumers: records laid out byte by byte at their wire offsets,
// decoded into the notification service's JSON, and carried end to end from
// a queue to a stand-in service, including while that service is away.
#include "daemon/queue_consumers.h"

#include "daemon/json.h"
#include "daemon/log.h"
#include "daemon/msgq.h"

#include "support/files.h"
#include "support/notify_service.h"
#include "support/settle.h"
#include "support/sysv_queue.h"
#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <cctype>
#include <cstring>
#include <ctime>

namespace {

using Bytes = std::vector<unsigned char>;

// Offsets below are written out as the wire format has them, not taken from
// the code under test.
void put(Bytes& m, size_t offset, const void* p, size_t n)
{
    ASSERT_LE(offset + n, m.size());
    memcpy(m.data() + offset, p, n);
}
void put_i32(Bytes& m, size_t offset, int32_t v) { put(m, offset, &v, sizeof(v)); }
void put_i64(Bytes& m, size_t offset, int64_t v) { put(m, offset, &v, sizeof(v)); }
void put_text(Bytes& m, size_t offset, const std::string& s) { put(m, offset, s.data(), s.size()); }

Bytes notify_message(int32_t fabric_type, int32_t fabric_action, int32_t ret_flag, const std::string& info)
{
    Bytes m(8 + 144, 0);
    put_i64(m, 0, 1);
    put_i32(m, 8, fabric_type);
    put_i32(m, 12, fabric_action);
    put_i32(m, 16, ret_flag);
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
// from a reserved area shows up as garbage.
Bytes eventlog_message(const Event& e)
{
    Bytes m(8 + 2488, 0xEE);
    put_i64(m, 0, e.type);
    const size_t base = e.type == 2 ? 1252 - 12 : 0;
    put_i32(m, base + 12, e.level);
    put_i64(m, base + 16, e.time);
    auto text = [&](size_t offset, size_t size, const std::string& s) {
        std::string field = s;
        field.resize(size, '\0');  // a field filled to its last byte keeps no terminator
        put_text(m, base + offset, field);
    };
    text(24, 65, e.user);
    text(89, 65, e.source_ip);
    text(154, 65, e.source_name);
    text(219, 1025, e.content);
    if (e.type == 2) {
        put_i32(m, 2484, e.serv);
        put_i32(m, 2488, e.action);
    }
    return m;
}

std::set<std::string> keys_of(const Json::Value& v)
{
    std::vector<std::string> names = v.getMemberNames();
    return {names.begin(), names.end()};
}

// Whether text has shape, where '9' stands for any digit.
bool has_shape(const std::string& text, const std::string& shape)
{
    if (text.size() != shape.size())
        return false;
    for (size_t i = 0; i < text.size(); i++)
        if (shape[i] == '9' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i])
            return false;
    return true;
}

// Whether a debug-log line ends in "[fn][<line>] eventlog_handler fail".
bool is_fail_line(const std::string& line, const std::string& fn)
{
    const std::string head = "] [" + fn + "][", tail = "] eventlog_handler fail";
    const size_t at = line.find(head);
    if (at == std::string::npos || line.size() < at + head.size() + tail.size() + 1 ||
        line.compare(line.size() - tail.size(), tail.size(), tail) != 0)
        return false;
    const std::string number = line.substr(at + head.size(), line.size() - tail.size() - at - head.size());
    return number.find_first_not_of("0123456789") == std::string::npos;
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
    struct Case {
        int32_t ret_flag;
        bool flag;
        std::string info;
    } cases[] = {
        {1, true, "disk 3 rebuilt"},
        {0, false, ""},
        {2, false, std::string(131, 'i')},
        {-1, false, std::string(132, 'u')},
    };
    for (const Case& c : cases) {
        Bytes m = notify_message(-7, 0x01020304, c.ret_flag, c.info);
        notify_record rec;
        ASSERT_TRUE(parse_notify_record(m.data(), m.size(), rec));
        Json::Value v = notify_record_json(rec, "25/01/02 03:04:05:000006");
        SCOPED_TRACE(c.info.size());
        EXPECT_EQ(keys_of(v), (std::set<std::string>{"fabric_time", "fabric_type", "fabric_action", "ret_flag",
                                                     "fabric_extra_info", "method"}));
        EXPECT_EQ(v["fabric_time"], "25/01/02 03:04:05:000006");
        EXPECT_EQ(v["fabric_type"], -7);
        EXPECT_EQ(v["fabric_action"], 0x01020304);
        EXPECT_EQ(v["ret_flag"], Json::Value(c.flag));
        EXPECT_EQ(v["fabric_extra_info"], c.info);
        EXPECT_EQ(v["method"], "notify");
    }
}

TEST(QueueRecords, EventLogFieldsAtTheirOffsetsByType)
{
    const std::string full_user(65, 'U'), full_content(1025, 'c');
    Event system{1, 4, 1700000000, "admin", "10.0.0.7", "cam-1", "motion detected"};
    Event conn{2, -2, 1700000123, full_user, "fe80::1", std::string(65, 'n'), full_content, 5, 0x7fffffff};

    // Unaligned on purpose: the record may sit anywhere in a buffer.
    for (const Event& e : {system, conn}) {
        Bytes m = eventlog_message(e);
        Bytes shifted(m.size() + 1);
        memcpy(shifted.data() + 1, m.data(), m.size());
        eventlog_record rec;
        ASSERT_TRUE(parse_eventlog_record(shifted.data() + 1, m.size(), rec));
        Json::Value v = eventlog_record_json(rec, 7);
        SCOPED_TRACE(e.type);
        std::set<std::string> keys{"level", "time", "user", "source_ip", "source_name", "nas_ip", "nas_name",
                                   "content"};
        if (e.type == 1)
            keys.insert("method");
        else
            keys.insert({"serv", "action"});
        EXPECT_EQ(keys_of(v), keys);
        EXPECT_EQ(v["level"], e.level);
        EXPECT_EQ(v["time"], std::to_string(e.time) + "007");
        EXPECT_EQ(v["user"], e.user);
        EXPECT_EQ(v["source_ip"], e.source_ip);
        EXPECT_EQ(v["source_name"], e.source_name);
        EXPECT_EQ(v["content"], e.content);
        EXPECT_EQ(v["nas_ip"], "---");
        EXPECT_EQ(v["nas_name"], "---");
        if (e.type == 1) {
            EXPECT_EQ(v["method"], "notify");
            EXPECT_STREQ(eventlog_command(rec), "notify_log");
        } else {
            EXPECT_EQ(v["serv"], e.serv);
            EXPECT_EQ(v["action"], e.action);
            EXPECT_STREQ(eventlog_command(rec), "notify_conn");
        }
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
    for (long type : {0L, 3L, -1L, 0x100000001L}) {
        put_i64(e, 0, type);
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
        log_set_dir(dir_.file("log").c_str());
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
        cLogDirPath[0] = '\0';
        cLogFilePath[0] = '\0';
    }

    void send_notify(const Bytes& m) { ASSERT_EQ(send(notify_key_.key(), m), MSGQ_SEND_OK); }
    void send_event(const Event& e) { ASSERT_EQ(send(eventlog_key_.key(), eventlog_message(e)), MSGQ_SEND_OK); }
    static int send(int key, Bytes m) { return T_MSGQ_service::send_msg(key, m.data(), m.size() - 8); }

    std::vector<std::string> log_lines() const
    {
        std::vector<std::string> out;
        std::istringstream in(read_text_file(dir_.file("log") + "/.dwe_dv_vexprod.log"));
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }

    TempDir dir_;
    FakeNotifyService service_;  // outlives the queues' threads
    TestQueueKey notify_key_{0};
    TestQueueKey eventlog_key_{1};
    T_MSGQ_service* notify_ = nullptr;
    T_MSGQ_service* eventlog_ = nullptr;
    int threads_before_ = 0;
};

TEST_F(QueueConsumersTest, NotificationsReachTheServiceInQueueOrder)
{
    const int fds_before = settled_fd_count();
    const time_t before = time(nullptr);
    const std::string long_info(131, 'L');
    send_notify(notify_message(3, 11, 1, "first"));
    send_notify(notify_message(4, 12, 0, long_info));
    send_notify(notify_message(5, 13, 1, "third"));
    ASSERT_TRUE(service_.wait_calls(3));
    const time_t after = time(nullptr);

    std::vector<NotifyCall> calls = service_.calls();
    ASSERT_EQ(calls.size(), 3U);
    const std::string infos[] = {"first", long_info, "third"};
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(calls[i].command, "notify_event");
        Json::Value v = parsed(calls[i].text);
        EXPECT_EQ(v["fabric_type"], 3 + i);
        EXPECT_EQ(v["ret_flag"], Json::Value(i != 1));
        EXPECT_EQ(v["fabric_extra_info"], infos[i]);

        // "yy/mm/dd hh:mm:ss:uuuuuu" of the local time of the call.
        const std::string when = v["fabric_time"].asString();
        ASSERT_TRUE(has_shape(when, "99/99/99 99:99:99:999999")) << when;
        struct tm tm {};
        ASSERT_TRUE(strptime(when.c_str(), "%y/%m/%d %H:%M:%S", &tm)) << when;
        tm.tm_isdst = -1;
        const time_t at = mktime(&tm);
        EXPECT_GE(at, before - 1) << when;
        EXPECT_LE(at, after + 1) << when;
    }
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(settled_fd_count(), fds_before);
}

TEST_F(QueueConsumersTest, EventLogRecordsByTypeAndTheirTimeNumbers)
{
    const int64_t second = 1600000000 + getpid();  // a second no other test uses
    send_event({1, 2, second, "admin", "192.168.1.9", "nas", "login"});
    send_event({2, 3, second, "guest", "192.168.1.10", "pc", "smb open", 4, 1});
    send_event({3, 9, second, "ignored", "", "", "dropped"});
    send_event({1, 1, second, "admin", "", "", std::string(1025, 'z')});
    ASSERT_TRUE(service_.wait_calls(3));

    std::vector<NotifyCall> calls = service_.calls();
    ASSERT_EQ(calls.size(), 3U);
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
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(QueueConsumersTest, RecordsAreDroppedWhileTheServiceIsAwayAndFlowAgainAfter)
{
    const int fds_before = settled_fd_count();
    service_.stop();
    send_notify(notify_message(1, 1, 1, "lost"));
    send_event({1, 1, 1, "u", "", "", "lost too"});
    ASSERT_TRUE(eventually([&] { return log_lines().size() == 2; }));
    std::vector<std::string> lines = log_lines();
    std::sort(lines.begin(), lines.end(), [](const std::string& a, const std::string& b) {
        return a.find("[notify_handler]") != std::string::npos && b.find("[notify_handler]") == std::string::npos;
    });
    EXPECT_TRUE(is_fail_line(lines[0], "notify_handler")) << lines[0];
    EXPECT_TRUE(is_fail_line(lines[1], "eventlog_handler")) << lines[1];

    service_.start();
    send_notify(notify_message(1, 1, 1, "delivered"));
    send_event({2, 1, 2, "u", "", "", "delivered too"});
    ASSERT_TRUE(service_.wait_calls(2));
    // The two queues run side by side, so either may come first; nothing
    // that failed was kept back and retried.
    std::set<std::string> got;
    for (const NotifyCall& call : service_.calls()) {
        Json::Value v = parsed(call.text);
        got.insert(call.command + ":" + v.get("fabric_extra_info", v["content"]).asString());
    }
    EXPECT_EQ(got, (std::set<std::string>{"notify_event:delivered", "notify_conn:delivered too"}));
    EXPECT_EQ(log_lines().size(), 2U);
    EXPECT_EQ(settled_fd_count(), fds_before);
}

}  // namespace
