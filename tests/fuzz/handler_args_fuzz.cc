// Fuzzes what a caller may send each command: the input picks a row of
// either command table and gives the request text, and the row's handler
// runs in this process on a simulated root, exactly as a consumer would run
// it but without a socket. Every handler must answer with one compact JSON
// object (the three that may close without answering may also send nothing),
// must not claim success for text that is not JSON, and must leave no
// descriptor behind. The typed argument reader is exercised through them.
//
// Input: [selector byte][request text...]. The selector's low seven bits
// pick the row. A text that begins with the byte 0xff and a count byte n is
// the rest of the input repeated n * 256 times (128 KiB at most): deep
// nesting and requests past the length limit, which the fuzzer would hardly
// grow on its own. Most handlers end up starting a platform program, which
// costs a process: those that read arguments only get there with
// well-formed ones, but those that read none get there every time, so they
// are taken only when the selector's top bit is set too (see pick_row).
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "daemon/command_table.h"
#include "daemon/json.h"
#include "daemon/log.h"
#include "dv.h"
#include "platform/paths.h"
#include "support/debug_log.h"
#include "support/fds.h"
#include "support/raw_client.h"
#include "support/sim_root.h"

namespace {

// Commands that end some requests on purpose without a reply: the caller
// learns of the failure by the connection closing.
const char* const SILENT_ON_FAILURE[] = {"reverse_proxy", "web_booth", "install_app"};

// Commands that read no arguments, so any text is as good as "{}".
const char* const NO_ARGUMENTS[] = {
    "test", "get_tvdeck_status", "system_call_vexpro_disable", "get_vpd_productnamed", "get_vpd_eepkey",
    "get_vpd_channel", "is_generic_model", "get_platform_display_name", "system_call_share_folder_renew",
    "get_sms_config", "get_all_users", "get_all_groups", "is_zel_model", "system_call_cloud_get_device_list",
    "system_call_cloud_get_user_token", "system_call_cloud_get_host_endpoint", "system_call_cloud_get_host_site"};

// The simulated platform is put back to its first state this often, so
// that what the handlers add to it (sessions, rule files, the call journal)
// does not slow later inputs down.
constexpr unsigned long RESET_EVERY = 4000;

struct Row {
    const T_COMMAND_ENTRY* entry;
    bool mail;
};

struct World {
    SimRoot root;
    DebugLogCapture log;
    int baseline_fds = 0;
};

// Handlers load the platform libraries per call and unload them again. The
// fuzzing build instruments those libraries too, and libFuzzer keeps reading
// the coverage counters of an unloaded one; so each library of the current
// root stays loaded for good. (A reset copies them anew, hence per root.)
void pin_platform_libraries(const SimRoot& root)
{
    for (const char* library : {PATH_LIB_NASAUTH, PATH_LIB_NAS, PATH_LIB_CONFIG})
        if (!dlopen(root.abs(library).c_str(), RTLD_NOW | RTLD_NODELETE))
            abort();
}

// Made on the first input, removed (root and log directory) at exit.
std::unique_ptr<World> world;
unsigned long runs = 0;

template <size_t N>
bool listed(const char* const (&list)[N], const char* name)
{
    for (const char* item : list)
        if (strcmp(item, name) == 0)
            return true;
    return false;
}

[[noreturn]] void broken(const Row& row, const std::string& text, const std::string& what)
{
    fprintf(stderr, "%s: %s\nrequest: %s\n", row.entry->name, what.c_str(), text.c_str());
    abort();
}

size_t row_count()
{
    return handler_size + sendmail_handler_size;
}

Row row_at(size_t index)
{
    if (index < handler_size)
        return {&handler[index], false};
    return {&sendmail_handler[index - handler_size], true};
}

// An argument-free row chosen without the top bit falls back to "test",
// which halves those rows' share of the time.
Row pick_row(uint8_t selector)
{
    Row row = row_at((selector & 0x7f) % row_count());
    if (listed(NO_ARGUMENTS, row.entry->name) && !(selector & 0x80))
        row = row_at(0);  // "test": no program, no time
    return row;
}

// Two commands would run whatever the text names: exec_cli runs the program
// its "command" array gives, and nc_notify's value goes through a shell.
// Both are kept inside the simulated root, without changing how the text is
// parsed: only values the handler would act on are replaced.
std::string make_harmless(const Row& row, const std::string& text)
{
    const bool exec_cli = !row.mail && strcmp(row.entry->name, "exec_cli") == 0;
    const bool nc_notify = !row.mail && strcmp(row.entry->name, "system_call_nc_notify") == 0;
    if (!exec_cli && !nc_notify)
        return text;
    // The handlers read the text up to its first NUL byte.
    const std::string seen = text.substr(0, strnlen(text.c_str(), text.size()));
    Json::Value root;
    if (!json_parse(seen, root) || !root.isObject())
        return text;
    if (exec_cli) {
        Json::Value& command = root["command"];
        if (!command.isArray() || command.empty() || !command[0].isString())
            return text;
        command[0] = world->root.abs("/sbin/hwd_app");  // the stub: prints its usage
    } else {
        Json::Value& value = root["nc_notify"];
        if (!value.isString())
            return text;
        std::string words = value.asString();
        for (char& c : words)
            if (!isalnum(static_cast<unsigned char>(c)) && !strchr(" ._-", c))
                c = '_';
        value = words;
    }
    return json_write(root);
}

std::string expand(const std::string& text)
{
    if (text.size() < 3 || static_cast<unsigned char>(text[0]) != 0xff)
        return text;
    const std::string unit = text.substr(2);
    const size_t times = static_cast<unsigned char>(text[1]) * 256u;
    std::string out;
    for (size_t i = 0; i < times && out.size() < (128u << 10); ++i)
        out += unit;
    return out;
}

// A handler's reply as the client would find it: "" with *replied false when
// no reply directive came.
std::string run_handler(const Row& row, const std::string& text, bool* replied)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        abort();
    dv_io* io = dv_io_create();
    if (!text.empty() && dv_io_write(io, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        abort();
    io->sockfd = pair[0];  // dv_io_free closes it
    io->pid = 0;           // counts as a caller that is still there

    row.entry->handler(io, -1);

    // dv_reply sends one directive and shuts the socket down, so the peer
    // reads at most that and then the end of the stream.
    dv_directive d;
    ssize_t n = recv(pair[1], &d, sizeof(d), MSG_DONTWAIT);
    *replied = n == static_cast<ssize_t>(sizeof(d)) && d.type == DV_DIRECTIVE_REPLY;
    if (n > 0 && !*replied)
        broken(row, text, "a stray " + std::to_string(n) + "-byte message on the client socket");
    std::string reply = *replied ? read_fd_text(io->memfd) : "";
    dv_io_free(io);
    close(pair[1]);
    return reply;
}

bool claims_success(const Row& row, const Json::Value& reply)
{
    if (!row.mail && strcmp(row.entry->name, "exec_cli") == 0)
        return reply["error_code"].isInt() && reply["error_code"].asInt() == 0;
    return reply["result"].isInt() && reply["result"].asInt() == 0;
}

void check_reply(const Row& row, const std::string& text, bool replied, const std::string& reply)
{
    if (!replied) {
        if (!listed(SILENT_ON_FAILURE, row.entry->name))
            broken(row, text, "no reply");
        return;
    }
    Json::Value root;
    if (reply.empty() || reply.back() != '\n' || reply.find('\n') != reply.size() - 1)
        broken(row, text, "reply is not one line: " + reply);
    if (!json_parse(reply, root) || !root.isObject() || root.empty())
        broken(row, text, "reply is not a JSON object: " + reply);
    if (json_write(root) != reply)
        broken(row, text, "reply is not as the writer makes it: " + reply);

    const std::string seen = text.substr(0, strnlen(text.c_str(), text.size()));
    Json::Value request;
    if (!listed(NO_ARGUMENTS, row.entry->name) && !json_parse(seen, request) && claims_success(row, root))
        broken(row, text, "success reported for text that is not JSON: " + reply);
    if (root.isMember("error_msg") && root["error_msg"].isString()) {
        const std::string msg = root["error_msg"].asString();
        if ((msg == "input error" || msg == "paser fail") && root["error_code"] != -1)
            broken(row, text, "an input error without error_code -1: " + reply);
    }
}

// The platform's stand-in programs come from the same build, sanitizers and
// all; their leak check at exit costs more than the rest of a call, and
// their leaks are not what is fuzzed here. This process read its own
// options long ago, so only the programs see the change.
void quiet_child_leak_checks()
{
    const char* old = getenv("ASAN_OPTIONS");
    std::string options = old && *old ? std::string(old) + ":detect_leaks=0" : "detect_leaks=0";
    setenv("ASAN_OPTIONS", options.c_str(), 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!world) {
        quiet_child_leak_checks();
        world = std::make_unique<World>();
        world->root.make_current();
        pin_platform_libraries(world->root);
        dbg_printf2("fuzzing");  // the debug log stays open from its first line
        world->baseline_fds = count_open_fds();
    }
    if (size == 0)
        return 0;
    if (++runs % RESET_EVERY == 0) {
        world->root.reset();
        pin_platform_libraries(world->root);
    }

    const Row row = pick_row(data[0]);
    const std::string text =
        make_harmless(row, expand(std::string(reinterpret_cast<const char*>(data + 1), size - 1)));
    bool replied = false;
    const std::string reply = run_handler(row, text, &replied);
    check_reply(row, text, replied, reply);

    // Handlers run to completion on this thread, so anything still open now
    // was left behind by this input.
    if (count_open_fds() != world->baseline_fds) {
        fprintf(stderr, "%s left descriptors open after %lu inputs:\n", row.entry->name, runs);
        fputs(describe_open_fds().c_str(), stderr);
        abort();
    }
    return 0;
}
