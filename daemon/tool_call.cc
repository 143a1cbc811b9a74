// Lenient request reading for the app-side commands.
#include "daemon/tool_call.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "daemon/handler_kit.h"
#include "daemon/json.h"
#include "daemon/log.h"
#include "daemon/strutil.h"
#include "platform/paths.h"

void reject_request(Json::Value& reply, const std::string& why, const char* handler, int line)
{
    dbg_printf2("[%s][%d] parse strInputArg failed, error=[%s]", handler, line, why.c_str());
    set_input_error(reply);
}

bool parse_request_object(dv_io* io, Json::Value& root, Json::Value& reply, const char* handler, int line)
{
    std::string text;
    if (!read_request_text(io, text)) {
        reject_request(reply, "no request text", handler, line);
        return false;
    }
    Json::Value parsed;
    std::string why;
    if (!json_parse(text, parsed, &why)) {
        reject_request(reply, why, handler, line);
        return false;
    }
    // Members of anything else cannot be looked up at all.
    if (!parsed.isObject() && !parsed.isNull()) {
        reject_request(reply, "the request is not a JSON object", handler, line);
        return false;
    }
    root = std::move(parsed);
    return true;
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
