// The notification and event-log queue consumers: decode one fixed-layout
// record, build its JSON and call the app's notification service with it.
// A failed call is logged and the record dropped; nothing is retried.
#include "daemon/queue_consumers.h"

#include "daemon/json.h"
#include "daemon/log.h"
#include "dv.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

// Timeout (seconds) and extra descriptor of every call to the service.
constexpr unsigned kCallTimeout = 5;
constexpr int kNoExtraFd = -1;

// State of the event-log time stamps. Used only by get_datetime_count, and
// that only by eventlog_handler on the event-log queue's receiving thread,
// so it needs no lock. The first seconds value ever seen differs from the
// initial one, so even an event at the epoch starts at 0.
int64_t g_last_datetime = INT64_MIN;
int ret_time_count = 0;

// The notification time text. Used only by notify_handler on the
// notification queue's receiving thread, so it needs no lock either.
char g_notify_time[32];

// Records are little-endian, as is every host the daemon runs on; memcpy
// keeps the reads safe at any alignment.
int32_t read_i32(const unsigned char* msg, size_t offset)
{
    int32_t v;
    memcpy(&v, msg + offset, sizeof(v));
    return v;
}

int64_t read_i64(const unsigned char* msg, size_t offset)
{
    int64_t v;
    memcpy(&v, msg + offset, sizeof(v));
    return v;
}

// The text of a NUL-terminated field, never reaching past the field even
// when a sender filled it without a terminator.
std::string read_text(const unsigned char* msg, size_t offset, size_t size)
{
    const char* field = reinterpret_cast<const char*>(msg + offset);
    return std::string(field, strnlen(field, size));
}

// Writes text into a fresh message object and calls the service with it.
// A socket failure, which is also what a call that found no descriptor or
// memory left to be made reports, is logged with errno; the caller logs
// every failure.
bool call_notify_service(const char* command, const std::string& text)
{
    dv_io* io = dv_io_create();
    int status = DV_STATUS_SOCKET;
    if (dv_json_write_io(text.data(), text.size(), io) == 0)
        status = dv_call(NOTIFY_SERVICE_NAME, command, io, kCallTimeout, kNoExtraFd);
    const int error = errno;
    dv_io_free(io);
    if (status == DV_STATUS_SOCKET)
        DBG("%s: client status %d, errno=%d", command, status, error);
    return status == DV_STATUS_OK;
}

const char* make_notify_time()
{
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    // Real clock fields need 24 characters; only nonsense could be cut.
    int n = snprintf(g_notify_time, sizeof(g_notify_time), "%02d/%02d/%02d %02d:%02d:%02d:%06d", local.tm_year % 100,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(tv.tv_usec));
    if (n < 0)
        g_notify_time[0] = '\0';
    return g_notify_time;
}

}  // namespace

bool parse_notify_record(const void* msg, size_t len, notify_record& rec)
{
    if (!msg || len < notify_layout::kTotal)
        return false;
    const unsigned char* m = static_cast<const unsigned char*>(msg);
    rec.fabric_type = read_i32(m, notify_layout::kFabricType);
    rec.fabric_action = read_i32(m, notify_layout::kFabricAction);
    rec.ret_flag = read_i32(m, notify_layout::kRetFlag);
    rec.fabric_extra_info = read_text(m, notify_layout::kExtraInfo, notify_layout::kExtraInfoSize);
    return true;
}

bool parse_eventlog_record(const void* msg, size_t len, eventlog_record& rec)
{
    if (!msg || len < EVENTLOG_TOTAL)
        return false;
    const unsigned char* m = static_cast<const unsigned char*>(msg);
    const long type = static_cast<long>(read_i64(m, 0));
    const eventlog_layout* at;
    if (type == EVENTLOG_TYPE_SYSTEM)
        at = &EVENTLOG_SYSTEM_LAYOUT;
    else if (type == EVENTLOG_TYPE_CONN)
        at = &EVENTLOG_CONN_LAYOUT;
    else
        return false;
    rec.type = type;
    rec.level = read_i32(m, at->level);
    rec.time = read_i64(m, at->time);
    rec.user = read_text(m, at->user, EVENTLOG_NAME_SIZE);
    rec.source_ip = read_text(m, at->source_ip, EVENTLOG_NAME_SIZE);
    rec.source_name = read_text(m, at->source_name, EVENTLOG_NAME_SIZE);
    rec.content = read_text(m, at->content, EVENTLOG_CONTENT_SIZE);
    if (type == EVENTLOG_TYPE_CONN) {
        rec.serv = read_i32(m, EVENTLOG_CONN_SERV);
        rec.action = read_i32(m, EVENTLOG_CONN_ACTION);
    } else {
        rec.serv = 0;
        rec.action = 0;
    }
    return true;
}

Json::Value notify_record_json(const notify_record& rec, const char* fabric_time)
{
    Json::Value root(Json::objectValue);
    root["fabric_time"] = fabric_time;
    root["fabric_type"] = rec.fabric_type;
    root["fabric_action"] = rec.fabric_action;
    root["ret_flag"] = rec.ret_flag == 1;
    root["fabric_extra_info"] = rec.fabric_extra_info;
    root["method"] = "notify";
    return root;
}

Json::Value eventlog_record_json(const eventlog_record& rec, int count)
{
    char when[48];
    snprintf(when, sizeof(when), "%ld%03u", static_cast<long>(rec.time), static_cast<unsigned>(count));

    Json::Value root(Json::objectValue);
    root["level"] = rec.level;
    root["time"] = when;
    root["user"] = rec.user;
    root["source_ip"] = rec.source_ip;
    root["source_name"] = rec.source_name;
    root["nas_ip"] = "---";
    root["nas_name"] = "---";
    root["content"] = rec.content;
    if (rec.type == EVENTLOG_TYPE_CONN) {
        root["serv"] = rec.serv;
        root["action"] = rec.action;
    } else {
        root["method"] = "notify";
    }
    return root;
}

const char* eventlog_command(const eventlog_record& rec)
{
    return rec.type == EVENTLOG_TYPE_CONN ? NOTIFY_CONN_COMMAND : NOTIFY_LOG_COMMAND;
}

int get_datetime_count(long seconds)
{
    if (seconds != g_last_datetime) {
        g_last_datetime = seconds;
        ret_time_count = 0;
    } else {
        ret_time_count = (ret_time_count + 1) % 1000;
    }
    return ret_time_count;
}

void notify_handler(void* msg)
{
    notify_record rec;
    parse_notify_record(msg, notify_layout::kTotal, rec);
    const std::string text = json_write(notify_record_json(rec, make_notify_time()));
    // The text's address cut to an int: a marker that has always been printed.
    fprintf(stderr, "str_publish_buf=[%d]  \n", static_cast<int>(reinterpret_cast<intptr_t>(text.c_str())));
    if (!call_notify_service(NOTIFY_EVENT_COMMAND, text))
        DBG("eventlog_handler fail");
}

void eventlog_handler(void* msg)
{
    eventlog_record rec;
    if (!parse_eventlog_record(msg, EVENTLOG_TOTAL, rec))
        return;
    const int count = get_datetime_count(static_cast<long>(rec.time));
    const std::string text = json_write(eventlog_record_json(rec, count));
    if (!call_notify_service(eventlog_command(rec), text))
        DBG("eventlog_handler fail");
}
