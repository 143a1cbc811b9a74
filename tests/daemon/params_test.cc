// The typed argument reader every handler uses: what each type word accepts,
// what a refusal logs, and that one error flag gathers a series of reads.
#include "daemon/reply.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "daemon/json.h"
#include "support/death.h"
#include "support/debug_log.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

Json::Value parse(const std::string& text)
{
    Json::Value root;
    EXPECT_TRUE(json_parse(text, root)) << text;
    return root;
}

// The one line a type mismatch logs, with the reader's name and line number.
testing::Matcher<std::string> type_fail(const std::string& key, const std::string& actual)
{
    return MatchesRegex(R"(\[parser_param_from_json_str\]\[[0-9]+\] )" +
                        literal_regex(key + " Type fail, this input value type is " + actual + "."));
}

TEST(TypedReader, AcceptedValuesAreStoredAtTheirWidth)
{
    const struct {
        const char *request, *type;
        int64_t number;    // for int, long and bool
        const char* text;  // for string
    } cases[] = {
        {R"({"k": ""})", "string", 0, ""},
        {R"({"k": -2147483648})", "int", std::numeric_limits<int32_t>::min(), nullptr},
        {R"({"k": 3.0})", "int", 3, nullptr},  // a whole real is an int to jsoncpp
        {R"({"k": 2147483648})", "long", 2147483648LL, nullptr},
        {R"({"k": -9223372036854775808})", "long", std::numeric_limits<int64_t>::min(), nullptr},
        {R"({"k": true})", "bool", 1, nullptr},
        {R"({"k": false})", "bool", 0, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.request);
        DebugLogCapture log;
        bool error = false;
        const std::string type = c.type;
        // The word after the output shows that nothing is written beyond
        // the type's width ("bool" fills all 32 bits, not one byte).
        struct {
            union {
                int32_t i32;
                int64_t i64;
            };
            uint32_t fence;
        } out;
        out.i64 = 0x5555555555555555LL;
        out.fence = 0xA5A5A5A5U;
        std::string text = "untouched";
        parser_param_from_json_str(parse(c.request), "k", type == "string" ? static_cast<void*>(&text) : &out, c.type,
                                   &error);
        EXPECT_FALSE(error);
        EXPECT_TRUE(log.messages().empty());
        EXPECT_EQ(out.fence, 0xA5A5A5A5U);
        if (type == "string") {
            EXPECT_EQ(text, c.text);
        } else if (type == "long") {
            EXPECT_EQ(out.i64, c.number);
        } else {
            EXPECT_EQ(out.i32, c.number);
            EXPECT_EQ(static_cast<uint64_t>(out.i64) >> 32, 0x55555555U) << "the upper half stays";
        }
    }
}

TEST(TypedReader, RefusalsSetTheFlagLeaveTheOutputAndLogOnlyTypeMismatches)
{
    const struct {
        const char *request, *type;
        const char* logged;  // the actual type named in the log, or null for silence
    } cases[] = {
        {R"({"other": 1})", "int", nullptr},    // missing key
        {R"({"k": null})", "string", nullptr},  // explicit null counts as missing
        {R"({"k": 1})", "float", nullptr},      // unknown type word
        {R"([1, 2])", "int", nullptr},          // not an object: no members at all
        {R"({"k": 2147483648})", "int", "long"},  // beyond 32 bits
        {R"({"k": "true"})", "bool", "string"},   // only JSON booleans
        {R"({"k": 1})", "bool", "int"},
        {R"({"k": 5})", "string", "int"},
        {R"({"k": 1.5})", "long", "double"},
        {R"({"k": true})", "int", "bool"},
        {R"({"k": [1]})", "string", "Others"},
        {R"({"k": "7"})", "long", "string"},
        // Integral but beyond any signed 64-bit value: refused, not thrown.
        {R"({"k": 18446744073709551615})", "long", "long"},
        {R"({"k": 1e19})", "long", "long"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.request);
        DebugLogCapture log;
        bool error = false;
        int64_t number = 0x1234;
        std::string text = "untouched";
        parser_param_from_json_str(parse(c.request), "k",
                                   std::string(c.type) == "string" ? static_cast<void*>(&text) : &number, c.type,
                                   &error);
        EXPECT_TRUE(error);
        EXPECT_EQ(number, 0x1234);
        EXPECT_EQ(text, "untouched");
        if (c.logged)
            EXPECT_THAT(log.messages(), ElementsAre(type_fail("k", c.logged)));
        else
            EXPECT_THAT(log.messages(), testing::IsEmpty());
    }
}

TEST(TypedReader, OneFlagGathersASeriesAndIsNeverCleared)
{
    DebugLogCapture log;
    const Json::Value root = parse(R"({"name": "cam", "port": "80", "id": 3})");
    bool error = false;
    std::string name;
    int port = -1, id = -1, missing = -1;
    parser_param_from_json_str(root, "name", &name, "string", &error);
    EXPECT_FALSE(error);
    parser_param_from_json_str(root, "port", &port, "int", &error);
    EXPECT_TRUE(error);
    // A later good read still stores its value but leaves the flag set.
    parser_param_from_json_str(root, "id", &id, "int", &error);
    parser_param_from_json_str(root, "gone", &missing, "int", &error);
    EXPECT_TRUE(error);
    EXPECT_EQ(name, "cam");
    EXPECT_EQ(port, -1);
    EXPECT_EQ(id, 3);
    EXPECT_EQ(missing, -1);
    EXPECT_THAT(log.messages(), ElementsAre(type_fail("port", "string")));
}

}  // namespace
