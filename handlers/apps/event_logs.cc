// Entries in the NAS's system event log and connection log, which only root
// may write: the platform's log_tool and conn_log_tool, run for the app.
#include <cstdint>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

// One connection-log entry as the app sends it. The numeric types mean
// something to conn_log_tool only; we pass them through unchanged.
struct T_CONN_LOG_TOOL {
    int32_t log_type = 0;
    int32_t service_type = 0;
    int32_t action_type = 0;
    std::string log_mseg;
    std::string user_name;
    std::string ip;
    std::string computer_name;
};

void nox_system_call_log_tool_handler(dv_io* io, int)
{
    Json::Value reply;
    int32_t log_type = 0;
    std::string log_mseg;
    if (fetch_request_args(io, reply, keys::system_call_log_tool, {&log_type, &log_mseg})) {
        const std::vector<std::string> args = {"-t", std::to_string(log_type), "-a", log_mseg};
        const std::vector<std::string> argv = tool_argv(PATH_LOG_TOOL, args);
        for (size_t i = 0; i < argv.size(); i++)
            DBG("argv:%d , index:%s .", static_cast<int>(i), argv[i].c_str());
        if (run_program(PATH_LOG_TOOL, args) == 0) {
            reply["result"] = 0;
        } else {
            // Callers of the system log look for "error_code", not "result".
            reply["error_msg"] = "nox_system_call_log_tool_handler fail";
            reply["error_code"] = -1;
        }
    }
    send_reply(io, reply);
}

void nox_system_conn_log_tool_handler(dv_io* io, int)
{
    Json::Value reply;
    T_CONN_LOG_TOOL entry;
    if (fetch_request_args(io, reply, keys::system_conn_log_tool,
                           {&entry.log_type, &entry.service_type, &entry.action_type, &entry.log_mseg,
                            &entry.user_name, &entry.ip, &entry.computer_name})) {
        // An empty value is still its own argument, so the options keep
        // their places.
        const std::vector<std::string> args = {"-t", std::to_string(entry.log_type),
                                               "-i", std::to_string(entry.service_type),
                                               "-n", std::to_string(entry.action_type),
                                               "-a", entry.log_mseg,
                                               "-u", entry.user_name,
                                               "-p", entry.ip,
                                               "-m", entry.computer_name};
        DBG("LogType:%d , ServiceType:%d, ActionType:%d, LogMsg:%s, UserName:%s, IP:%s, ComputerName:%s .",
            entry.log_type, entry.service_type, entry.action_type, entry.log_mseg.c_str(), entry.user_name.c_str(),
            entry.ip.c_str(), entry.computer_name.c_str());
        if (run_program(PATH_CONN_LOG_TOOL, args) == 0) {
            reply["result"] = 0;
        } else {
            DBG("fail .");
            // The same text as the system log's, which callers already match.
            set_failure(reply, "nox_system_call_log_tool_handler fail");
        }
    }
    send_reply(io, reply);
}
