// Usage-analysis records through the platform's analytics tool: registering
// the app as a record provider, sending a record, flushing, unregistering.
// The client's "command" is the tool's subcommand, passed through unchecked;
// the daemon only lays out the argument vector.
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

// Flushing and unregistering: the provider and its command alone; the
// failure names the handler.
void run_provider_command(dv_io* io, const char* handler, int line)
{
    Json::Value reply;
    std::string provide_id, command;
    if (fetch_request_args(io, reply, keys::cloud_analysis, {&provide_id, &command}, nullptr, handler, line))
        reply_status(reply, run_program(PATH_METRIX_TOOL, {command, "-p", provide_id}),
                     (std::string(handler) + " fail").c_str());
    send_reply(io, reply);
}

}  // namespace

void nox_system_call_cloud_analysis_register_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string provide_id, command;
    if (fetch_request_args(io, reply, keys::cloud_analysis, {&provide_id, &command}))
        // The data directory is ours to choose, never the caller's.
        reply_status(reply, run_program(PATH_METRIX_TOOL, {command, "-p", provide_id, "-c", PATH_ANALYTIC_DIR}),
                     "nox_system_call_cloud_analysis_register_handler fail");
    send_reply(io, reply);
}

void nox_system_call_cloud_analysis_send_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string provide_id, command, record_type, record_text;
    if (fetch_request_args(io, reply, keys::cloud_analysis_send,
                           {&provide_id, &command, &record_type, &record_text}))
        reply_status(reply,
                     run_program(PATH_METRIX_TOOL, {command, "-p", provide_id, "-r", record_type, "-e", record_text}),
                     "nox_system_call_cloud_analysis_send_handler fail");
    send_reply(io, reply);
}

void nox_system_call_cloud_analysis_flush_handler(dv_io* io, int)
{
    run_provider_command(io, __func__, __LINE__);
}

void nox_system_call_cloud_analysis_unregister_handler(dv_io* io, int)
{
    run_provider_command(io, __func__, __LINE__);
}
