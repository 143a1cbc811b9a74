// The daemon's small parsers: trims, splits, Base64, conf_get's first line,
// and the typed argument reader every handler uses.
#include "daemon/ini.h"
#include "daemon/json.h"
#include "daemon/request.h"
#include "daemon/strutil.h"
#include "platform/paths.h"

#include "support/suite.h"

namespace {

using Pieces = std::vector<std::string>;

TEST(Parsers, TrimSplitAndBase64)
{
    const struct {
        std::string in;
        const char* set;
        std::string everywhere, ends;
    } trims[] = {
        {"\n\n  value with  inner  \n", " \n", "valuewithinner", "value with  inner"},
        {" \n \n", " \n", "", ""},
        {"abcba", "ab", "c", "c"},
    };
    for (const auto& c : trims) {
        std::string everywhere = c.in, ends = c.in;
        trim_char(everywhere, c.set);
        trim_front_and_end(ends, c.set);
        EXPECT_EQ(everywhere, c.everywhere) << c.in;
        EXPECT_EQ(ends, c.ends) << c.in;
    }
    const struct {
        std::string in;
        const char* delimiters;
        Pieces kept, skipped;
    } splits[] = {
        {",1.2.3.4,,5.6.7.8,", ",", {"", "1.2.3.4", "", "5.6.7.8", ""}, {"1.2.3.4", "5.6.7.8"}},
        {"", ",", {""}, {}},
        {"sid line\nsecond 1\n", "\n ", {"sid", "line", "second", "1", ""}, {"sid", "line", "second", "1"}},
    };
    for (const auto& c : splits) {
        EXPECT_EQ(str_split_to_vector(c.in, c.delimiters, false), c.kept) << c.in;
        EXPECT_EQ(str_split_to_vector(c.in, c.delimiters, true), c.skipped) << c.in;
    }
    // Encoding both ways; decoding stops silently where the alphabet ends.
    const struct {
        std::string plain, encoded;
        bool both_ways;
    } base64[] = {
        {"", "", true}, {"f", "Zg==", true}, {"fo", "Zm8=", true}, {"foobar", "Zm9vYmFy", true},
        {"\xfb\xff", "+/8=", true}, {"a", "YW=j", false}, {"abc", "YWJj\nYWJj", false},
        {"abcd", "YWJjZA", false}, {"abcde", "YWJjZGU", false}, {"abc", "YWJjZ", false}, {"", "*YWJj", false},
    };
    for (const auto& c : base64) {
        std::string out = "previous content";
        if (c.both_ways) {
            EXPECT_EQ(base64_encode(c.plain, out), static_cast<int>(c.encoded.size()));
            EXPECT_EQ(out, c.encoded);
        }
        EXPECT_EQ(base64_decode(c.encoded, out), static_cast<int>(c.plain.size())) << c.encoded;
        EXPECT_EQ(out, c.plain) << c.encoded;
    }
}

// conf_get's first line, cut to 127 characters, unless it is the default
// marker; without a file there is no -f, without a section no call.
TEST(Parsers, IniTakesConfGetsFirstLineUnlessItIsTheDefaultMarker)
{
    SimRoot root;
    root.make_current();
    const struct {
        std::string printed;
        int found;
        std::string value;
    } cases[] = {
        {std::string(200, 'v') + "\n", 1, std::string(127, 'v')},
        {"\nsecond line\n", 1, ""},
        {"", 0, "stale"},
        {"CONF_GET_FAILDx\n", 0, "stale"},  // the default marker, even as a prefix
    };
    for (const auto& c : cases) {
        root.set_output(PATH_CONF_GET, c.printed);
        std::string value = "stale";
        EXPECT_EQ(dv_get_ini_info(nullptr, "MISC", "DISPLAY_NAME", value), c.found) << c.printed;
        EXPECT_EQ(value, c.value) << c.printed;
        EXPECT_EQ(dv_get_ini_info("/etc/platform.conf", nullptr, "DISPLAY_NAME", value), 0);
    }
    EXPECT_EQ(root.calls().back(),
              (SimCall{PATH_CONF_GET, {"conf_get", "MISC", "DISPLAY_NAME", "-c", "-d", "CONF_GET_FAILD"}, std::nullopt}));
    EXPECT_EQ(root.calls().size(), std::size(cases));
}

// Each row reads "k" as type; accepted values are stored at their width
// only, refusals set the flag, leave the output and log only type mismatches
// (missing keys and the commonest mismatches: queries.cases, shares.cases).
TEST(Parsers, TypedReaderStoresAtTheTypesWidthOrRefuses)
{
    const struct {
        const char *request, *type;
        bool ok;
        int64_t number;      // stored, for int, long and bool
        const char* logged;  // refused: the type the log names, null for silence
    } cases[] = {
        {R"({"k": -2147483648})", "int", true, std::numeric_limits<int32_t>::min(), nullptr},
        {R"({"k": 3.0})", "int", true, 3, nullptr},
        {R"({"k": -9223372036854775808})", "long", true, std::numeric_limits<int64_t>::min(), nullptr},
        {R"({"k": true})", "bool", true, 1, nullptr},
        {R"({"k": false})", "bool", true, 0, nullptr},
        {R"({"k": "x"})", "string", true, 0, nullptr},
        {R"({"k": null})", "string", false, 0, nullptr},
        {R"({"k": 1})", "float", false, 0, nullptr},
        {R"({"k": "true"})", "bool", false, 0, "string"},
        {R"({"k": 1})", "bool", false, 0, "int"},
        {R"({"k": 1.5})", "long", false, 0, "double"},
        {R"({"k": true})", "int", false, 0, "bool"},
        {R"({"k": [1]})", "string", false, 0, "Others"},
        {R"({"k": 18446744073709551615})", "long", false, 0, "long"},
        {R"({"k": 1e19})", "long", false, 0, "long"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.request);
        DebugLogCapture log;
        Json::Value root;
        ASSERT_TRUE(json_parse(c.request, root));
        const bool text = std::string(c.type) == "string";
        // The last word is a fence: nothing is written past the type's width.
        std::vector<uint32_t> out = {0x55555555U, 0x55555555U, 0xA5A5A5A5U}, want = out;
        if (c.ok && !text)
            memcpy(want.data(), &c.number, std::string(c.type) == "long" ? 8 : 4);  // the low half first
        std::string str = "untouched";
        bool error = false;
        parser_param_from_json_str(root, "k", text ? static_cast<void*>(&str) : out.data(), c.type, &error);
        EXPECT_EQ(error, !c.ok);
        EXPECT_EQ(out, want);
        EXPECT_EQ(str, c.ok && text ? "x" : "untouched");
        if (c.logged)
            EXPECT_THAT(log.messages(), testing::ElementsAre(testing::MatchesRegex(
                                            R"(\[parser_param_from_json_str\]\[[0-9]+\] )" +
                                            literal_regex(std::string("k Type fail, this input value type is ") +
                                                          c.logged + "."))));
        else
            EXPECT_THAT(log.messages(), testing::IsEmpty());
    }
}

}  // namespace
