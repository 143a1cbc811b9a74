#include "daemon/request.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "daemon/json.h"
#include "daemon/log.h"
#include "daemon/reply.h"

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

void reject_request(Json::Value& reply, const std::string& why, const char* handler, int line)
{
    dbg_printf2("[%s][%d] parse strInputArg failed, error=[%s]", handler, line, why.c_str());
    set_input_error(reply);
}

bool parse_request_object(dv_io* io, Json::Value& root, const char* handler, int line)
{
    std::string text, why = "no request text";
    Json::Value parsed;
    if (read_request_text(io, text) && json_parse(text, parsed, &why)) {
        if (parsed.isObject() || parsed.isNull()) {
            root = std::move(parsed);
            return true;
        }
        // Members of anything else cannot be looked up at all.
        why = "the request is not a JSON object";
    }
    Json::Value reply;
    reject_request(reply, why, handler, line);
    send_reply(io, reply);
    return false;
}

JsonFields::JsonFields(const Json::Value& object, std::string where) : object_(object), where_(std::move(where))
{
    if (!object_.isObject() && !object_.isNull())
        error_ = (where_.empty() ? std::string("value") : where_) + " is not an object";
}

JsonFields::JsonFields(const Json::Value& object, T_ARG_POLICY keys, std::string where)
    : JsonFields(object, std::move(where))
{
    keys_ = keys;
}

const char* JsonFields::next_key(const char* type)
{
    if (next_ < keys_.size() && strcmp(keys_[next_].type, type) == 0)
        return keys_[next_++].key;
    if (error_.empty())
        error_ = std::string("the handler reads a ") + type + " where its command has none";
    next_ = keys_.size();
    return "";
}

const Json::Value* JsonFields::member(const char* key, Json::ValueType want, const char* type_name)
{
    if (!object_.isObject())
        return nullptr;
    const Json::Value& value = object_[key];
    if (value.isNull())
        return nullptr;
    if (!value.isConvertibleTo(want)) {
        if (error_.empty())
            error_ = (where_.empty() ? "" : where_ + ".") + key + " is not " + type_name;
        return nullptr;
    }
    return &value;
}

std::string JsonFields::text(const char* key, const char* missing)
{
    const Json::Value* value = member(key, Json::stringValue, "text");
    return value ? value->asString() : missing;
}

int JsonFields::number(const char* key)
{
    const Json::Value* value = member(key, Json::intValue, "a 32-bit integer");
    return value ? value->asInt() : 0;
}

bool JsonFields::flag(const char* key)
{
    const Json::Value* value = member(key, Json::booleanValue, "a boolean");
    return value ? value->asBool() : false;
}

const Json::Value& JsonFields::list(const char* key)
{
    static const Json::Value empty(Json::arrayValue);
    if (!object_.isObject())
        return empty;
    const Json::Value& value = object_[key];
    if (value.isArray())
        return value;
    if (!value.isNull() && error_.empty())
        error_ = (where_.empty() ? "" : where_ + ".") + key + " is not an array";
    return empty;
}

namespace {

// A request may parse as an array or a number; jsoncpp throws when such a
// value is indexed by name, which would take the whole daemon down. Such a
// request simply has no members.
const Json::Value* member(const Json::Value& root, const char* key)
{
    if (!key || !root.isObject())
        return nullptr;
    return root.find(key, key + strlen(key));
}

}  // namespace

void get_json_type(Json::Value root, const char* key, std::string* type_name)
{
    if (!type_name)
        return;
    const Json::Value* value = member(root, key);
    if (!value)
        *type_name = "Others";
    else if (value->isString())
        *type_name = "string";
    else if (value->isInt())
        *type_name = "int";
    else if (value->isIntegral())
        *type_name = "long";
    else if (value->isBool())
        *type_name = "bool";
    else if (value->isDouble())
        *type_name = "double";
    else
        *type_name = "Others";
}

void parser_param_from_json_str(Json::Value root, const char* key, void* out, const char* type, bool* error)
{
    bool discarded = false;
    if (!error)
        error = &discarded;
    const Json::Value* value = member(root, key);
    if (!value || value->isNull() || !out || !type) {
        *error = true;
        return;
    }

    bool type_ok = false;
    if (strcmp(type, "string") == 0) {
        type_ok = value->isString();
        if (type_ok)
            *static_cast<std::string*>(out) = value->asString();
    } else if (strcmp(type, "int") == 0) {
        type_ok = value->isInt();
        if (type_ok)
            *static_cast<int32_t*>(out) = value->asInt();
    } else if (strcmp(type, "long") == 0) {
        // isIntegral also holds for unsigned values and whole reals beyond
        // the signed 64-bit range, which asInt64 refuses by throwing.
        type_ok = value->isIntegral() && value->isInt64();
        if (type_ok)
            *static_cast<int64_t*>(out) = value->asInt64();
    } else if (strcmp(type, "bool") == 0) {
        type_ok = value->isBool();
        if (type_ok) {
            const std::string text = value->asString();
            if (text == "TRUE" || text == "true" || text == "True")
                *static_cast<int32_t*>(out) = 1;
            else if (text == "FALSE" || text == "false" || text == "False")
                *static_cast<int32_t*>(out) = 0;
            else
                *error = true;
        }
    } else {
        *error = true;
        return;
    }

    if (!type_ok) {
        *error = true;
        std::string actual;
        get_json_type(root, key, &actual);
        DBG("%s Type fail, this input value type is %s.", key, actual.c_str());
    }
}
