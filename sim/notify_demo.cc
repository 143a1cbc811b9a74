// vexprod-notify-demo: the two ends of the daemon's queue forwarding, for the
// demo and for trying it by hand.
//
//   vexprod-notify-demo listen
//       serves "VexProServer_notify-vexprod" (in $DV_SOCKET_DIR) and prints
//       every command and request text it receives, until SIGINT or SIGTERM;
//   vexprod-notify-demo event LEVEL USER IP NAME CONTENT
//       puts a system event-log record on queue 65522;
//   vexprod-notify-demo notify TYPE ACTION RET_FLAG TEXT
//       puts a notification record on queue 65521.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "daemon/msgq.h"
#include "daemon/queue_consumers.h"
#include "dv.h"

namespace {

volatile sig_atomic_t stopping = 0;

void on_stop(int)
{
    stopping = 1;
}

void print_request(const char* name, dv_io* io, int fd)
{
    size_t size = 0;
    const char* text = dv_io_read(io, &size);
    std::string request(text ? text : "", text ? size : 0);
    while (!request.empty() && request.back() == '\n')
        request.pop_back();
    printf("notification service received %s: %s\n", name, request.c_str());
    fflush(stdout);
    if (fd >= 0)
        close(fd);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "{\"result\":0}\n");
    dv_reply(io);
    dv_io_free(io);
}

int listen_mode()
{
    signal(SIGINT, on_stop);
    signal(SIGTERM, on_stop);
    dv_handle* h = dv_create(NOTIFY_SERVICE_NAME, DV_PTHREAD_MODE | DV_STANDALONE, 1, print_request);
    dv_start(h);
    while (!stopping)
        pause();
    dv_free(h);
    return 0;
}

void put_text(std::vector<char>& msg, size_t offset, size_t size, const char* text)
{
    strncpy(msg.data() + offset, text, size - 1);
}

template <typename T>
void put_int(std::vector<char>& msg, size_t offset, T value)
{
    memcpy(msg.data() + offset, &value, sizeof(value));
}

int send(int key, std::vector<char>& msg)
{
    int rc = T_MSGQ_service::send_msg(key, msg.data(), msg.size() - MSGQ_TYPE_SIZE);
    if (rc != MSGQ_SEND_OK)
        fprintf(stderr, "vexprod-notify-demo: send_msg to queue %d failed with %d\n", key, rc);
    return rc == MSGQ_SEND_OK ? 0 : 1;
}

int event_mode(char** argv)
{
    std::vector<char> msg(EVENTLOG_TOTAL, 0);
    const eventlog_layout& at = EVENTLOG_SYSTEM_LAYOUT;
    put_int<long>(msg, 0, EVENTLOG_TYPE_SYSTEM);
    put_int<int32_t>(msg, at.level, atoi(argv[0]));
    put_int<int64_t>(msg, at.time, static_cast<int64_t>(time(nullptr)));
    put_text(msg, at.user, EVENTLOG_NAME_SIZE, argv[1]);
    put_text(msg, at.source_ip, EVENTLOG_NAME_SIZE, argv[2]);
    put_text(msg, at.source_name, EVENTLOG_NAME_SIZE, argv[3]);
    put_text(msg, at.content, EVENTLOG_CONTENT_SIZE, argv[4]);
    return send(EVENTLOG_MSGQ_KEY, msg);
}

int notify_mode(char** argv)
{
    std::vector<char> msg(notify_layout::kTotal, 0);
    put_int<long>(msg, 0, 1);
    put_int<int32_t>(msg, notify_layout::kFabricType, atoi(argv[0]));
    put_int<int32_t>(msg, notify_layout::kFabricAction, atoi(argv[1]));
    put_int<int32_t>(msg, notify_layout::kRetFlag, atoi(argv[2]));
    put_text(msg, notify_layout::kExtraInfo, notify_layout::kExtraInfoSize, argv[3]);
    return send(NOTIFY_MSGQ_KEY, msg);
}

}  // namespace

int main(int argc, char** argv)
{
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "listen" && argc == 2)
        return listen_mode();
    if (mode == "event" && argc == 7)
        return event_mode(argv + 2);
    if (mode == "notify" && argc == 6)
        return notify_mode(argv + 2);
    fprintf(stderr,
            "usage: vexprod-notify-demo listen | event LEVEL USER IP NAME CONTENT | notify TYPE ACTION RET_FLAG TEXT\n");
    return 7;
}
