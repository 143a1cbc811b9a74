// The command reference page (docs/commands.md) as Markdown.
#include "daemon/command_reference.h"

namespace {

const char kIntro[] =
    "# Commands\n"
    "\n"
    "Made from the command tables (handlers/registry.cc) by `cmake --build build --target docs`;\n"
    "edit the tables, not this page. A running service prints the same with\n"
    "`dv-call --list SERVICE` and `dv-call --describe SERVICE COMMAND`.\n"
    "\n"
    "Every reply is one compact JSON object. What all commands share:\n"
    "\n"
    "- A command that reads a JSON request answers `{\"error_code\":-1,\"error_msg\":\"input error\"}`\n"
    "  when there is no request text, and `{\"error_code\":-1,\"error_msg\":\"paser fail\"}` (spelled so)\n"
    "  when the text is not JSON or a key is missing or of another type (a \"strict\" request). A\n"
    "  \"lenient\" request reads a missing key as \"\", 0, false or [] and answers \"input error\" for\n"
    "  text that is not a JSON object or a key of another type.\n"
    "- Types: \"string\" a JSON string, \"int\" a 32-bit integer, \"long\" a 64-bit integer, \"bool\"\n"
    "  a JSON true/false (not the text \"true\"), \"array\" a list of objects with the keys given.\n"
    "- A caller the caller policy does not grant the command gets\n"
    "  `{\"error_msg\":\"permission denied\",\"result\":-1}`.\n"
    "- A name the service does not know closes the connection without a reply (dv-call exit 5).\n";

std::string quoted_keys(T_ARG_POLICY keys)
{
    std::string out;
    for (const T_REQUEST_KEY& k : keys)
        out += std::string(out.empty() ? "" : ", ") + "`\"" + k.key + "\"` " + k.type;
    return out;
}

std::string request_line(const T_COMMAND_ENTRY& row)
{
    switch (row.reading) {
    case ArgReading::none:
        return "none (any text will do)";
    case ArgReading::text:
        return "the request text itself, not JSON";
    case ArgReading::strict:
    case ArgReading::lenient:
        break;
    }
    std::string out = std::string(reading_word(row.reading)) + ": " + quoted_keys(row.args);
    if (!row.items.empty())
        out += "; each entry of the list: " + quoted_keys(row.items);
    return out;
}

std::string command_section(const T_COMMAND_ENTRY& row)
{
    std::string out = std::string("### `") + row.name + "`\n\n" + row.summary + "\n\n";
    out += "- request: " + request_line(row) + "\n";
    out += std::string("- reply: ") + row.reply + "\n";
    if (*row.failures)
        out += std::string("- failures: ") + row.failures + "\n";
    if (*row.note)
        out += std::string("- note: ") + row.note + "\n";
    return out + "\n";
}

}  // namespace

std::string command_reference(std::span<const ServiceTable> services)
{
    std::string out = kIntro;
    for (const ServiceTable& s : services) {
        out += std::string("\n## ") + s.service + "\n\n";
        for (const T_COMMAND_ENTRY& row : s.table)
            if (row.handler)
                out += std::string("- [`") + row.name + "`](#" + row.name + "): " + row.summary + "\n";
        out += "\n";
        for (const T_COMMAND_ENTRY& row : s.table)
            if (row.handler)
                out += command_section(row);
    }
    // One newline at the end, as editors leave it.
    while (out.size() > 1 && out[out.size() - 1] == '\n' && out[out.size() - 2] == '\n')
        out.pop_back();
    return out;
}
