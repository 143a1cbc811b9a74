// The readable forms of a service's description for dv-call --list and
// --describe.
#include "dv-call-describe.h"

namespace {

std::string text_of(const Json::Value& object, const char* key)
{
    const Json::Value& v = object[key];
    return v.isString() ? v.asString() : "";
}

// {"key": type, ...}; an "array" key shows its entries' keys inside [ ].
std::string shape(const Json::Value& command)
{
    const std::string reading = text_of(command, "reading");
    if (reading == "text")
        return "TEXT (the request text itself, not JSON)";
    const Json::Value& args = command["args"];
    if (!args.isArray() || args.empty())
        return "";
    const char* optional = reading == "lenient" ? "?" : "";
    std::string out = "{";
    for (Json::ArrayIndex i = 0; i < args.size(); ++i) {
        const std::string type = text_of(args[i], "type");
        out += (i ? ", \"" : "\"") + text_of(args[i], "key") + "\"" + optional + ": ";
        if (type == "array" && command["items"].isArray()) {
            Json::Value entry = command;
            entry["args"] = command["items"];
            entry.removeMember("items");
            out += "[" + shape(entry) + "]";
        } else {
            out += type;
        }
    }
    return out + "}";
}

std::string key_lines(const Json::Value& keys, const char* indent)
{
    std::string out;
    for (const Json::Value& k : keys)
        out += indent + ("\"" + text_of(k, "key") + "\"  " + text_of(k, "type")) + "\n";
    return out;
}

}  // namespace

std::string list_commands(const Json::Value& description)
{
    std::string out;
    for (const Json::Value& c : description["commands"]) {
        const std::string args = shape(c);
        out += text_of(c, "name") + (args.empty() ? "" : " " + args) + "\n";
    }
    return out;
}

const Json::Value* find_command(const Json::Value& description, const std::string& name)
{
    for (const Json::Value& c : description["commands"])
        if (c.isObject() && text_of(c, "name") == name)
            return &c;
    return nullptr;
}

std::string describe_command(const Json::Value& c)
{
    std::string out = text_of(c, "name") + ": " + text_of(c, "summary") + "\n";
    const std::string reading = text_of(c, "reading");
    if (reading == "text") {
        out += "request: the request text itself, not JSON\n";
    } else if (reading == "strict" || reading == "lenient") {
        out += reading == "strict"
                   ? "request: a JSON object; a missing or mistyped key is \"paser fail\"\n"
                   : "request: a JSON object; a missing key reads as \"\", 0, false or [], a mistyped one is "
                     "\"input error\"\n";
        out += key_lines(c["args"], "  ");
        if (c["items"].isArray())
            out += "  each entry of the list:\n" + key_lines(c["items"], "    ");
    } else {
        out += "request: none (any text will do)\n";
    }
    for (const char* key : {"reply", "failures", "note"})
        if (!text_of(c, key).empty())
            out += std::string(key) + ": " + text_of(c, key) + "\n";
    return out;
}
