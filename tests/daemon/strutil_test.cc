// String, Base64 and VPD helpers, and reading INI values through conf_get.
#include "daemon/ini.h"
#include "daemon/strutil.h"

#include "platform/paths.h"
#include "support/sim_root.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Pieces = std::vector<std::string>;

TEST(Strutil, TrimAndSplit)
{
    const struct {
        std::string in;
        const char* set;
        std::string everywhere, ends;
    } trims[] = {
        {"\n\n  value with  inner  \n", " \n", "valuewithinner", "value with  inner"},
        {" \n \n", " \n", "", ""},
        {"", " \n", "", ""},
        {"abcba", "ab", "c", "c"},
    };
    for (const auto& c : trims) {
        std::string everywhere = c.in, ends = c.in;
        trim_char(everywhere, c.set);
        trim_front_and_end(ends, c.set);
        EXPECT_EQ(c.everywhere, everywhere) << c.in;
        EXPECT_EQ(c.ends, ends) << c.in;
    }

    const struct {
        std::string in;
        const char* delimiters;
        Pieces kept, skipped;
    } splits[] = {
        {"a,,b", ",", {"a", "", "b"}, {"a", "b"}},
        {",1.2.3.4,5.6.7.8,", ",", {"", "1.2.3.4", "5.6.7.8", ""}, {"1.2.3.4", "5.6.7.8"}},
        {"", ",", {""}, {}},
        {"sid line\nsecond 1\n", "\n ", {"sid", "line", "second", "1", ""}, {"sid", "line", "second", "1"}},
    };
    for (const auto& c : splits) {
        EXPECT_EQ(c.kept, str_split_to_vector(c.in, c.delimiters, false)) << c.in;
        EXPECT_EQ(c.skipped, str_split_to_vector(c.in, c.delimiters, true)) << c.in;
    }
}

TEST(Strutil, Base64FollowsRfc4648AndDecodingStopsSilently)
{
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff", "+/8="},
    };
    for (const auto& [plain, encoded] : vectors) {
        std::string out = "previous content";
        EXPECT_EQ(static_cast<int>(encoded.size()), base64_encode(plain, out));
        EXPECT_EQ(encoded, out);
        EXPECT_EQ(static_cast<int>(plain.size()), base64_decode(encoded, out));
        EXPECT_EQ(plain, out);
    }
    std::string every_byte, encoded, decoded;
    for (int b = 0; b < 256; ++b)
        every_byte += static_cast<char>(b);
    base64_encode(every_byte, encoded);
    base64_decode(encoded, decoded);
    EXPECT_EQ(every_byte, decoded);

    const std::pair<std::string, std::string> stops[] = {
        {"YW=j", "a"},          // "=" ends the data
        {"YWJj\nYWJj", "abc"},  // so does any character outside the alphabet
        {"YWJjZA", "abcd"},     // unpadded tails of 2 and 3
        {"YWJjZGU", "abcde"},
        {"YWJjZ", "abc"},       // a lone character carries nothing
        {"*YWJj", ""},
    };
    for (const auto& [in, want] : stops) {
        std::string out;
        EXPECT_EQ(static_cast<int>(want.size()), base64_decode(in, out)) << in;
        EXPECT_EQ(want, out) << in;
    }
}

TEST(Strutil, VpdValuesAreCutAtTheirFixedOffsets)
{
    const struct {
        std::string text, serial, system_id;
    } cases[] = {
        {"enc_sys_id = ABC123,SN = Q1234567\n", "Q1234567", "ABC123"},
        {"SN = XY99\nenc_sys_id = 77,\n", "XY99\nenc_sys_id = 77,", "77"},
        {"nothing here\n", "", ""},
        {"enc_sys_id = ABC\n", "", ""},  // no comma
        {"enc_sys_id,SN = 1\n", "1", ""},  // comma too early
        {"SN", "", ""},                  // the serial would run past the end
        {"SN = \n", "", ""},             // just fits
    };
    for (const auto& c : cases) {
        std::string serial = "stale", system_id = "stale";
        parser_VPD_SN_from_str(c.text, &serial, &system_id);
        EXPECT_EQ(c.serial, serial) << c.text;
        EXPECT_EQ(c.system_id, system_id) << c.text;
    }
    std::string value = "stale";
    parser_VPD_ext_area_from_str(" ext area\n text \n", &value);
    EXPECT_EQ("extareatext", value);
    parser_VPD_ext_area_from_str(nullptr, &value);
    EXPECT_EQ("", value);
}

// conf_get on a simulated root: steered to print what a case needs, with
// its argument vectors journaled.
TEST(Ini, PassesTheFixedArgumentsAndTakesTheFirstLine)
{
    SimRoot root;
    root.make_current();
    std::string value = "stale";
    // Unsteered, the stand-in prints the -d default for a key it lacks, as conf_get does.
    EXPECT_EQ(0, dv_get_ini_info("/etc/platform.conf", "MISC", "NO_SUCH_KEY", value));
    EXPECT_EQ("stale", value);

    root.set_output(PATH_CONF_GET, "/share/VexProServer\nsecond line\n");
    root.clear_calls();
    EXPECT_EQ(1, dv_get_ini_info("/etc/config/appbox.conf", "VexProServer", "Install_Path", value));
    EXPECT_EQ("/share/VexProServer", value);
    // The file argument is the tool's business: it is passed as given.
    EXPECT_EQ(1, dv_get_ini_info(nullptr, "MISC", "DISPLAY_NAME", value));
    const std::vector<SimCall> want = {
        {PATH_CONF_GET, {"conf_get", "VexProServer", "Install_Path", "-c", "-d", "CONF_GET_FAILD", "-f",
                         "/etc/config/appbox.conf"}, std::nullopt},
        {PATH_CONF_GET, {"conf_get", "MISC", "DISPLAY_NAME", "-c", "-d", "CONF_GET_FAILD"}, std::nullopt},
    };
    EXPECT_EQ(root.calls(), want);

    const struct {
        std::string printed;
        int found;
        std::string value;
    } cases[] = {
        {"1", 1, "1"},
        {"a b \n", 1, "a b "},
        {std::string(200, 'v') + "\n", 1, std::string(127, 'v')},
        {"\n", 1, ""},
        {"", 0, "stale"},
        {"CONF_GET_FAILDx\n", 0, "stale"},  // the default marker, even as a prefix
    };
    for (const auto& c : cases) {
        root.set_output(PATH_CONF_GET, c.printed);
        value = "stale";
        EXPECT_EQ(c.found, dv_get_ini_info("/etc/platform.conf", "S", "K", value)) << c.printed;
        EXPECT_EQ(c.value, value) << c.printed;
    }

    root.remove(PATH_CONF_GET);
    EXPECT_EQ(0, dv_get_ini_info("/etc/platform.conf", "MISC", "DISPLAY_NAME", value));
    EXPECT_EQ(0, dv_get_ini_info("/etc/platform.conf", nullptr, "DISPLAY_NAME", value));
    EXPECT_EQ("stale", value);
}
