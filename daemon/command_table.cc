// A command table turned into the description callers read through the
// framework's introspection (dv-call --list, --describe).
#include "daemon/command_table.h"

#include <json/json.h>

#include "daemon/json.h"

namespace {

Json::Value keys_json(T_ARG_POLICY keys)
{
    Json::Value list(Json::arrayValue);
    for (const T_REQUEST_KEY& k : keys) {
        Json::Value one;
        one["key"] = k.key;
        one["type"] = k.type;
        list.append(one);
    }
    return list;
}

}  // namespace

const char* reading_word(ArgReading reading)
{
    switch (reading) {
    case ArgReading::strict:
        return "strict";
    case ArgReading::lenient:
        return "lenient";
    case ArgReading::text:
        return "text";
    case ArgReading::none:
        break;
    }
    return "none";
}

std::string describe_commands(const char* service, std::span<const T_COMMAND_ENTRY> table)
{
    Json::Value root;
    root["service"] = service;
    Json::Value& commands = root["commands"] = Json::Value(Json::arrayValue);
    for (const T_COMMAND_ENTRY& row : table) {
        if (!row.handler)
            continue;  // callers cannot tell it from an unknown name
        Json::Value c;
        c["name"] = row.name;
        c["summary"] = row.summary;
        c["reading"] = reading_word(row.reading);
        c["args"] = keys_json(row.args);
        if (!row.items.empty())
            c["items"] = keys_json(row.items);
        c["reply"] = row.reply;
        c["failures"] = row.failures;
        c["note"] = row.note;
        commands.append(c);
    }
    return json_write(root);
}
