// Installing an app package file through the app-centre script that comes
// with the server app.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/exec_policy.h"
#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

// The app centre refuses an install it did not start itself unless the
// environment allows it. The entry stays for the daemon's lifetime and is
// added once only, so that later requests never rebuild the environment
// while another thread is copying it for a child.
void allow_foreign_install()
{
    const char* allow = getenv("APPBOXD");
    if (!allow || strcmp(allow, "ALLOW") != 0)
        setenv("APPBOXD", "ALLOW", 1);
}

}  // namespace

void nox_install_app_handler(dv_io* io, int)
{
    Json::Value root, reply;
    if (!parse_request_object(io, root))
        return;
    JsonFields request(root, keys::install_app);
    const std::string folder = request.next_text();
    const std::string package = request.next_text();
    // "install_volume" is not read: the script chooses the volume itself.
    if (!request.ok()) {
        reject_request(reply, request.error());
        send_reply(io, reply);
        return;
    }

    allow_foreign_install();

    char script[1024];
    int length = snprintf(script, sizeof(script), "%s/%s", folder.c_str(), PATH_APP_APPCENTER_SCRIPT);
    // A relative folder would name a script relative to wherever the daemon
    // happens to run, and a cut-off one some other file: neither is run.
    if (script[0] != '/' || length < 0 || static_cast<size_t>(length) >= sizeof(script)) {
        reject_request(reply, "sys_install_folder is not a usable absolute path");
        send_reply(io, reply);
        return;
    }

    // The folder is the caller's choice, so the script is only run when
    // nobody but root could have put it, or anything on its way, there. A
    // refusal ends the request as a failed run does: without a reply.
    std::string why;
    if (!trusted_script(script, why)) {
        DBG("not running %s for pid %d uid %d: %s", script, dv_io_pid(io), dv_io_uid(io), why.c_str());
        return;
    }

    std::string output;
    int ret = run_program(script, {"install", package}, output, ArgvLog::elements);
    if (ret != 0) {
        // The caller learns of it by the connection closing without a reply.
        DBG("exec %s failed, ret_out=[%s]", script, output.c_str());
        return;
    }
    DBG("exec %s succ, ret_out=[%s]", script, output.c_str());
    reply_tool_output(io, output, 0);
}
