// The command tables are the one place a command's keys are written: every
// row is complete, no handler spells a request key, and docs/commands.md is
// what the tables make of themselves today.
#include "daemon/command_reference.h"
#include "daemon/dispatch.h"
#include "handlers/registry.h"

#include "support/suite.h"

namespace {

const ServiceTable kServices[] = {{DV_SERVICE_NAME, {handler, handler_size}},
                                  {DV_SEND_MAIL_SERVICE_NAME, {sendmail_handler, sendmail_handler_size}}};

TEST(CommandRegistry, EveryRowSaysWhatItReadsAndAnswers)
{
    const std::set<std::string> types = {"string", "int", "long", "bool", "array"};
    for (const ServiceTable& s : kServices)
        for (const T_COMMAND_ENTRY& row : s.table) {
            SCOPED_TRACE(row.name);
            EXPECT_STRNE(row.summary, "");
            EXPECT_STRNE(row.reply, "");
            // Keys exactly when the request is a JSON object.
            const bool object = row.reading == ArgReading::strict || row.reading == ArgReading::lenient;
            EXPECT_EQ(row.args.empty(), !object);
            bool has_list = false;
            for (const T_REQUEST_KEY& k : row.args) {
                EXPECT_TRUE(types.count(k.type)) << k.key;
                has_list |= std::string(k.type) == "array";
            }
            EXPECT_EQ(has_list, !row.items.empty());
        }
    // Handlers take their keys from the rows: none reads one by its own
    // spelling, as a literal among a reader's arguments or a field's name.
    auto spells_a_key = [](const std::string& code) {
        for (const char* call : {"fetch_request_args(", "parse_request_args(", "parser_param_from_json_str("})
            for (size_t at = code.find(call); at != std::string::npos; at = code.find(call, at + 1))
                if (code.find('"', at) < code.find_first_of(";)", at))
                    return true;
        for (const char* field : {".text(\"", ".number(\"", ".flag(\"", ".list(\""})
            if (code.find(field) != std::string::npos)
                return true;
        return false;
    };
    for (const auto& f : std::filesystem::recursive_directory_iterator(source_dir() + "/handlers"))
        EXPECT_FALSE(f.path().extension() == ".cc" && f.path().filename() != "registry.cc" &&
                     spells_a_key(read_text_file(f.path())))
            << f.path();
}

TEST(CommandRegistry, TheCommittedReferenceIsCurrent)
{
    EXPECT_TRUE(read_text_file(source_dir() + "/docs/commands.md") == command_reference(kServices))
        << "docs/commands.md is out of date: run make docs and commit it";
}

}  // namespace
