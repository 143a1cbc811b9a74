// The shared handler steps: request text, argument fetching, the input-error
// and failure replies, and the app's registry values.
#include "daemon/handler_kit.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "daemon/ini.h"
#include "daemon/json.h"
#include "daemon/log.h"
#include "daemon/reply.h"
#include "daemon/runner.h"
#include "platform/paths.h"

bool read_request_text(dv_io* io, std::string& text)
{
    if (!io || io->memfd < 0)
        return false;
    struct stat st;
    if (fstat(io->memfd, &st) != 0 || st.st_size <= 0)
        return false;
    // One byte past the limit tells a text that is too long from one that
    // ends within it, whatever size the client gave its file.
    const size_t want = std::min(static_cast<unsigned long long>(st.st_size),
                                 static_cast<unsigned long long>(REQUEST_TEXT_MAX) + 1);
    std::string buf(want, '\0');
    size_t got = 0;
    while (got < buf.size()) {
        ssize_t n = pread(io->memfd, buf.data() + got, buf.size() - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)  // the client shrank its file meanwhile: take what there was
            break;
        got += static_cast<size_t>(n);
    }
    if (got == 0)
        return false;
    buf.resize(strnlen(buf.data(), got));
    if (buf.size() > REQUEST_TEXT_MAX)
        return false;
    text = std::move(buf);
    return true;
}

void set_input_error(Json::Value& reply)
{
    reply["error_msg"] = "input error";
    reply["error_code"] = -1;
}

void set_parse_error(Json::Value& reply)
{
    reply["error_msg"] = "paser fail";
    reply["error_code"] = -1;
}

void set_failure(Json::Value& reply, const char* text)
{
    reply["error_msg"] = text;
    reply["result"] = -1;
}

namespace {

// Whether an output can hold what a key of this type reads into.
bool output_fits(const char* key_type, const char* out_type)
{
    if (strcmp(key_type, "bool") == 0)
        return strcmp(out_type, "int") == 0;
    return strcmp(key_type, out_type) == 0;
}

}  // namespace

bool parse_request_args(const std::string& text, T_ARG_POLICY keys, std::initializer_list<ArgOut> outs,
                        Json::Value* root, const char* handler, int line)
{
    // A handler whose outputs do not match its row would store a value
    // into the wrong kind of variable: refuse the request instead.
    bool fits = keys.size() == outs.size();
    for (size_t i = 0; fits && i < keys.size(); ++i)
        fits = output_fits(keys[i].type, outs.begin()[i].type);
    if (!fits) {
        dbg_printf2("[%s][%d] the outputs do not fit the command's keys.", handler, line);
        return false;
    }
    Json::Value parsed;
    bool error = !json_parse(text, parsed);
    if (!error)
        for (size_t i = 0; i < keys.size(); ++i)
            parser_param_from_json_str(parsed, keys[i].key, outs.begin()[i].out, keys[i].type, &error);
    // Text arguments end up as C strings (program arguments, library calls,
    // file names): one holding a NUL byte would be cut short there and mean
    // something else than what was checked, so it is refused.
    for (size_t i = 0; i < keys.size(); ++i) {
        if (!error && strcmp(keys[i].type, "string") == 0 &&
            static_cast<std::string*>(outs.begin()[i].out)->find('\0') != std::string::npos) {
            dbg_printf2("[%s][%d] %s holds a NUL byte.", handler, line, keys[i].key);
            error = true;
        }
    }
    if (error)
        return false;
    if (root)
        *root = std::move(parsed);
    return true;
}

bool fetch_request_args(dv_io* io, Json::Value& reply, T_ARG_POLICY keys, std::initializer_list<ArgOut> outs,
                        Json::Value* root, const char* handler, int line)
{
    std::string text;
    if (!read_request_text(io, text)) {
        dbg_printf2("[%s][%d] dv_io input fail.", handler, line);
        set_input_error(reply);
        return false;
    }
    if (!parse_request_args(text, keys, outs, root, handler, line)) {
        set_parse_error(reply);
        return false;
    }
    return true;
}

void send_reply(dv_io* io, const Json::Value& reply)
{
    dv_reply_json(json_write(reply), io);
}

bool read_app_value(const char* key, std::string& value)
{
    std::string found;
    if (!dv_get_ini_info(PATH_APPBOX_CONF, "VexProServer", key, found) || found.empty())
        return false;
    value = std::move(found);
    return true;
}

bool app_control_script(std::string& path)
{
    std::string script;
    if (!read_app_value("Shell", script) || script[0] != '/')
        return false;
    path = std::move(script);
    return true;
}
