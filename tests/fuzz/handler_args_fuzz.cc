// What a caller may send each command: the row of either command table the
// input picks runs its handler in this process on a simulated root, as a
// consumer would but without a socket. Every handler answers one compact JSON
// object (the three that may close without answering may send nothing),
// claims no success for text that is not JSON, and leaves no descriptor open.
// Input: [selector byte][request text...]. The low seven bits pick the row;
// rows that read no arguments (and so start a program every time) only with
// the top bit set too, else "test" runs. A text 0xff, n, rest... is rest
// n * 256 times (128 KiB at most): deep nesting, requests past the limit.
#include "daemon/command_table.h"
#include "daemon/json.h"
#include "daemon/log.h"
#include "handlers/registry.h"
#include "platform/paths.h"

#include "support/suite.h"

namespace {

const std::set<std::string> kSilentOnFailure = {"reverse_proxy", "web_booth", "install_app"};

struct World {
    SimRoot root;
    DebugLogCapture log;
    int baseline_fds = 0;
};
std::unique_ptr<World> world;  // made on the first input, removed at exit
unsigned long runs = 0;

// Handlers load the platform libraries per call and unload them; libFuzzer
// would go on reading the coverage counters of an unloaded one, so each
// library of the current root stays loaded for good.
void pin_platform_libraries()
{
    for (const char* library : {PATH_LIB_NASAUTH, PATH_LIB_NAS, PATH_LIB_CONFIG})
        if (!dlopen(world->root.abs(library).c_str(), RTLD_NOW | RTLD_NODELETE))
            abort();
}

const T_COMMAND_ENTRY& row_at(size_t index)
{
    return index < handler_size ? handler[index] : sendmail_handler[index - handler_size];
}

[[noreturn]] void broken(const T_COMMAND_ENTRY& row, const std::string& text, const std::string& what)
{
    fprintf(stderr, "%s: %s\nrequest: %s\n", row.name, what.c_str(), text.c_str());
    abort();
}

// exec_cli runs the program its "command" names and nc_notify's value goes
// through a shell: only the values they would act on are replaced, to keep
// them inside the simulated root; the text parses as before.
std::string make_harmless(const T_COMMAND_ENTRY& row, bool mail, const std::string& text)
{
    const std::string name = row.name;
    Json::Value root;
    if ((name != "exec_cli" && name != "system_call_nc_notify") || mail ||
        !json_parse(text.substr(0, strnlen(text.c_str(), text.size())), root) || !root.isObject())
        return text;
    Json::Value& value = root[name == "exec_cli" ? "command" : "nc_notify"];
    if (name == "exec_cli" && value.isArray() && !value.empty() && value[0].isString()) {
        value[0] = world->root.abs("/sbin/hwd_app");  // the stub: prints its usage
    } else if (name != "exec_cli" && value.isString()) {
        std::string words = value.asString();
        for (char& c : words)
            if (!isalnum(static_cast<unsigned char>(c)) && !strchr(" ._-", c))
                c = '_';
        value = words;
    } else {
        return text;
    }
    return json_write(root);
}

std::string expand(const std::string& text)
{
    if (text.size() < 3 || static_cast<unsigned char>(text[0]) != 0xff)
        return text;
    std::string out;
    for (size_t i = 0; i < static_cast<unsigned char>(text[1]) * 256u && out.size() < (128u << 10); ++i)
        out += text.substr(2);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!world) {
        // The platform's stand-in programs come from the same build, sanitizers
        // and all; their leak checks at exit cost more than the rest of a call
        // and are not what is fuzzed. This process read its options long ago.
        const char* old = getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS", (old && *old ? std::string(old) + ":detect_leaks=0" : "detect_leaks=0").c_str(), 1);
        world = std::make_unique<World>();
        world->root.make_current();
        pin_platform_libraries();
        dbg_printf2("fuzzing");  // the debug log stays open from its first line
        world->baseline_fds = count_open_fds();
    }
    if (size == 0)
        return 0;
    if (++runs % 4000 == 0) {  // what handlers add to the root (sessions, files, the journal) slows them down
        world->root.reset();
        pin_platform_libraries();
    }
    size_t index = (data[0] & 0x7f) % (handler_size + sendmail_handler_size);
    if (row_at(index).reading == ArgReading::none && !(data[0] & 0x80))
        index = 0;  // "test": no program, no time
    const T_COMMAND_ENTRY& row = row_at(index);
    const bool mail = index >= handler_size;
    const std::string text =
        make_harmless(row, mail, expand(std::string(reinterpret_cast<const char*>(data + 1), size - 1)));

    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        abort();
    dv_io* io = dv_io_create();
    if (!text.empty() && dv_io_write(io, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        abort();
    io->sockfd = pair[0];  // dv_io_free closes it
    io->pid = 0;           // a caller that is still there
    row.handler(io, -1);
    // dv_reply sends one directive and shuts the socket down.
    dv_directive d;
    const ssize_t n = recv(pair[1], &d, sizeof(d), MSG_DONTWAIT);
    const bool replied = n == static_cast<ssize_t>(sizeof(d)) && d.type == DV_DIRECTIVE_REPLY;
    if (n > 0 && !replied)
        broken(row, text, "a stray " + std::to_string(n) + "-byte message on the client socket");
    const std::string reply = replied ? read_fd_text(io->memfd) : "";
    dv_io_free(io);
    close(pair[1]);

    Json::Value root, request;
    if (!replied && !kSilentOnFailure.count(row.name))
        broken(row, text, "no reply");
    if (replied && (reply.empty() || reply.find('\n') != reply.size() - 1 || !json_parse(reply, root) ||
                    !root.isObject() || root.empty() || json_write(root) != reply))
        broken(row, text, "reply is not one compact JSON object: " + reply);
    const bool exec_cli = std::string(row.name) == "exec_cli" && !mail;
    const Json::Value& success = root[exec_cli ? "error_code" : "result"];
    if (replied && row.reading != ArgReading::none &&
        !json_parse(text.substr(0, strnlen(text.c_str(), text.size())), request) && success.isInt() &&
        success.asInt() == 0)
        broken(row, text, "success reported for text that is not JSON: " + reply);
    const std::string msg = root.get("error_msg", "").isString() ? root.get("error_msg", "").asString() : "";
    if ((msg == "input error" || msg == "paser fail") && root["error_code"] != -1)
        broken(row, text, "an input error without error_code -1: " + reply);
    // Handlers run to completion on this thread: anything still open was left by this input.
    if (count_open_fds() != world->baseline_fds)
        broken(row, text, "left descriptors open after " + std::to_string(runs) + " inputs:\n" + describe_open_fds());
    return 0;
}
