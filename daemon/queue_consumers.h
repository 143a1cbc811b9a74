// The two queue consumers: notification records (key 65521) and event-log
// records (key 65522) become JSON calls to the app's notification service.
// Decoding is kept in pure functions (whole message in, JSON out) so that it
// can be tested and fuzzed without a queue or a service.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "daemon/msgq.h"

inline constexpr int NOTIFY_MSGQ_KEY = 65521;
inline constexpr int EVENTLOG_MSGQ_KEY = 65522;
// Text bytes of one record, after the 8-byte message type.
inline constexpr unsigned long NOTIFY_MSG_SIZE = 144;
inline constexpr unsigned long EVENTLOG_MSG_SIZE = 2488;

inline constexpr const char NOTIFY_SERVICE_NAME[] = "VexProServer_notify-vexprod";
inline constexpr const char NOTIFY_EVENT_COMMAND[] = "notify_event";
inline constexpr const char NOTIFY_LOG_COMMAND[] = "notify_log";
inline constexpr const char NOTIFY_CONN_COMMAND[] = "notify_conn";

// Message types of the event-log queue; any other type is dropped.
inline constexpr long EVENTLOG_TYPE_SYSTEM = 1;
inline constexpr long EVENTLOG_TYPE_CONN = 2;

// Layout of a notification message, offsets from the start of the message
// (type included), integers little-endian.
namespace notify_layout {
inline constexpr size_t kFabricType = 8;
inline constexpr size_t kFabricAction = 12;
inline constexpr size_t kRetFlag = 16;
inline constexpr size_t kExtraInfo = 20;
inline constexpr size_t kExtraInfoSize = 132;
inline constexpr size_t kTotal = MSGQ_TYPE_SIZE + NOTIFY_MSG_SIZE;
}  // namespace notify_layout

// Layout of an event-log message: the same fields at two places, by type.
struct eventlog_layout {
    size_t level;
    size_t time;
    size_t user;
    size_t source_ip;
    size_t source_name;
    size_t content;
};
inline constexpr eventlog_layout EVENTLOG_SYSTEM_LAYOUT = {12, 16, 24, 89, 154, 219};
inline constexpr eventlog_layout EVENTLOG_CONN_LAYOUT = {1252, 1256, 1264, 1329, 1394, 1459};
inline constexpr size_t EVENTLOG_NAME_SIZE = 65;       // user, source_ip, source_name
inline constexpr size_t EVENTLOG_CONTENT_SIZE = 1025;
inline constexpr size_t EVENTLOG_CONN_SERV = 2484;     // connection events only
inline constexpr size_t EVENTLOG_CONN_ACTION = 2488;
inline constexpr size_t EVENTLOG_TOTAL = MSGQ_TYPE_SIZE + EVENTLOG_MSG_SIZE;

struct notify_record {
    int32_t fabric_type = 0;
    int32_t fabric_action = 0;
    int32_t ret_flag = 0;
    std::string fabric_extra_info;
};

struct eventlog_record {
    long type = 0;
    int32_t level = 0;
    int64_t time = 0;
    std::string user;
    std::string source_ip;
    std::string source_name;
    std::string content;
    int32_t serv = 0;  // connection events only
    int32_t action = 0;
};

// Decodes a whole message of len bytes; false when it is shorter than a record.
bool parse_notify_record(const void* msg, size_t len, notify_record& rec);
// False as well for types other than system and connection events.
bool parse_eventlog_record(const void* msg, size_t len, eventlog_record& rec);

// The request texts' objects. fabric_time is the notification's time text;
// count is the event's number within its second (0-999).
Json::Value notify_record_json(const notify_record& rec, const char* fabric_time);
Json::Value eventlog_record_json(const eventlog_record& rec, int count);
// "notify_log" or "notify_conn" for a decoded record's type.
const char* eventlog_command(const eventlog_record& rec);

// Numbers the events of one second: 0 for the first event of a new seconds
// value, then one more per event of the same second, modulo 1000.
// Process-wide and unlocked: only eventlog_handler calls it, on its one thread.
int get_datetime_count(long seconds);

// Queue handlers of T_MSGQ_service; msg is the received message, type first.
void notify_handler(void* msg);
void eventlog_handler(void* msg);
