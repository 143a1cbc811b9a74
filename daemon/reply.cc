// dv_reply_json and the typed argument reader.
#include "daemon/reply.h"

#include <cstdint>
#include <cstring>

#include "daemon/audit.h"
#include "daemon/log.h"

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

void dv_reply_json(std::string reply, dv_io* io)
{
    if (!io || !dv_io_alive(io))
        return;
    audit_reply(io, reply);
    dv_io_realloc(io, 0);
    dv_io_printf(io, "%s", reply.c_str());
    dv_reply(io);
}

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
