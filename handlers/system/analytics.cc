// Usage-analysis records through the platform's analytics tool: registering
// the app as a record provider, sending a record, flushing, unregistering.
// The client's "command" is the tool's subcommand, passed through unchecked;
// the daemon only lays out the argument vector.
#include <initializer_list>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "daemon/runner.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

// Runs metrix_tool with args and sets "result" 0 when it exits 0, the
// failure reply otherwise.
void run_metrix_tool(Json::Value& reply, std::initializer_list<const char*> args, const char* failure)
{
    std::vector<const char*> argv = {"metrix_tool"};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back(nullptr);
    int status = dwe_vexprod_tarsk_exec_v(nullptr, nullptr, nullptr, platform_path(PATH_METRIX_TOOL).c_str(),
                                          argv.data());
    if (status == 0)
        reply["result"] = 0;
    else
        set_failure(reply, failure);
}

}  // namespace

void nox_system_call_cloud_analysis_register_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string provide_id, command;
    if (fetch_request_args(io, reply, keys::cloud_analysis, {&provide_id, &command}))
        // The data directory is ours to choose, never the caller's.
        run_metrix_tool(reply, {command.c_str(), "-p", provide_id.c_str(), "-c", PATH_ANALYTIC_DIR},
                        "nox_system_call_cloud_analysis_register_handler fail");
    send_reply(io, reply);
}

void nox_system_call_cloud_analysis_send_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string provide_id, command, record_type, record_text;
    if (fetch_request_args(io, reply, keys::cloud_analysis_send,
                           {&provide_id, &command, &record_type, &record_text}))
        run_metrix_tool(reply,
                        {command.c_str(), "-p", provide_id.c_str(), "-r", record_type.c_str(), "-e",
                         record_text.c_str()},
                        "nox_system_call_cloud_analysis_send_handler fail");
    send_reply(io, reply);
}

void nox_system_call_cloud_analysis_flush_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string provide_id, command;
    if (fetch_request_args(io, reply, keys::cloud_analysis, {&provide_id, &command}))
        run_metrix_tool(reply, {command.c_str(), "-p", provide_id.c_str()},
                        "nox_system_call_cloud_analysis_flush_handler fail");
    send_reply(io, reply);
}

void nox_system_call_cloud_analysis_unregister_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string provide_id, command;
    if (fetch_request_args(io, reply, keys::cloud_analysis, {&provide_id, &command}))
        run_metrix_tool(reply, {command.c_str(), "-p", provide_id.c_str()},
                        "nox_system_call_cloud_analysis_unregister_handler fail");
    send_reply(io, reply);
}
