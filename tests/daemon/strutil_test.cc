// String, Base64 and VPD helpers, and reading INI values through conf_get.
#include "daemon/ini.h"
#include "daemon/strutil.h"

#include "support/env.h"
#include "support/files.h"
#include "support/tempdir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

using Pieces = std::vector<std::string>;

TEST(Strutil, TrimRemovesEverywhereOrOnlyAtTheEnds)
{
    struct Case {
        std::string in;
        const char* set;
        std::string everywhere, ends;
    } cases[] = {
        {" a b\n", " \n", "ab", "a b"},
        {"\n\n  value with  inner  \n", " \n", "valuewithinner", "value with  inner"},
        {" \n \n", " \n", "", ""},
        {"", " \n", "", ""},
        {"untouched", " \n", "untouched", "untouched"},
        {"--x-y--", "-", "xy", "x-y"},
        {"abcba", "ab", "c", "c"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.in);
        std::string everywhere = c.in, ends = c.in;
        trim_char(everywhere, c.set);
        trim_front_and_end(ends, c.set);
        EXPECT_EQ(c.everywhere, everywhere);
        EXPECT_EQ(c.ends, ends);
    }
}

TEST(Strutil, SplitKeepsOrSkipsEmptyPieces)
{
    struct Case {
        std::string in;
        const char* delimiters;
        Pieces kept, skipped;
    } cases[] = {
        {"a,,b", ",", {"a", "", "b"}, {"a", "b"}},
        {"1.2.3.4,5.6.7.8,", ",", {"1.2.3.4", "5.6.7.8", ""}, {"1.2.3.4", "5.6.7.8"}},
        {",lead", ",", {"", "lead"}, {"lead"}},
        {"", ",", {""}, {}},
        {"KEY = value\n", "=", {"KEY ", " value\n"}, {"KEY ", " value\n"}},
        {"sid line\nsecond 1 x\n", "\n ", {"sid", "line", "second", "1", "x", ""},
         {"sid", "line", "second", "1", "x"}},
        {"no delimiter", ",", {"no delimiter"}, {"no delimiter"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.in);
        EXPECT_EQ(c.kept, str_split_to_vector(c.in, c.delimiters, false));
        EXPECT_EQ(c.skipped, str_split_to_vector(c.in, c.delimiters, true));
    }
}

TEST(Strutil, Base64FollowsRfc4648)
{
    EXPECT_EQ("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", base64_chars);
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
        {"foo", "Zm9v"},  {"foob", "Zm9vYg=="},  {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"}, {"\xfb\xff", "+/8="},
    };
    for (const auto& [plain, encoded] : vectors) {
        SCOPED_TRACE(encoded);
        std::string out = "previous content";
        EXPECT_EQ(static_cast<int>(encoded.size()), base64_encode(plain, out));
        EXPECT_EQ(encoded, out);
        EXPECT_EQ(static_cast<int>(plain.size()), base64_decode(encoded, out));
        EXPECT_EQ(plain, out);
    }

    std::string every_byte;
    for (int b = 0; b < 256; ++b)
        every_byte += static_cast<char>(b);
    std::string encoded, decoded;
    base64_encode(every_byte, encoded);
    base64_decode(encoded, decoded);
    EXPECT_EQ(every_byte, decoded);
}

TEST(Strutil, Base64DecodingStopsSilently)
{
    const std::pair<std::string, std::string> cases[] = {
        {"YWJj", "abc"},
        {"YW=j", "a"},           // "=" ends the data
        {"YWJj\nYWJj", "abc"},   // so does any character outside the alphabet
        {"YWJjZA", "abcd"},      // unpadded tail of 2
        {"YWJjZGU", "abcde"},    // and of 3
        {"YWJjZ", "abc"},        // a lone character carries nothing
        {"*YWJj", ""},
    };
    for (const auto& [in, want] : cases) {
        SCOPED_TRACE(in);
        std::string out;
        EXPECT_EQ(static_cast<int>(want.size()), base64_decode(in, out));
        EXPECT_EQ(want, out);
    }
}

TEST(Strutil, VpdValuesAreCutAtTheirFixedOffsets)
{
    struct Case {
        const char* what;
        std::string text;
        std::string serial, system_id;
    } cases[] = {
        {"both", "enc_sys_id = ABC123,SN = Q1234567\n", "Q1234567", "ABC123"},
        {"serial first", "SN = XY99\nenc_sys_id = 77,\n", "XY99\nenc_sys_id = 77,", "77"},
        {"no markers", "nothing here\n", "", ""},
        {"no comma", "enc_sys_id = ABC\n", "", ""},
        {"comma too early", "enc_sys_id,SN = 1\n", "1", ""},
        {"serial runs past the end", "SN", "", ""},
        {"serial just fits", "SN = \n", "", ""},
        {"empty", "", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string serial = "stale", system_id = "stale";
        parser_VPD_SN_from_str(c.text, &serial, &system_id);
        EXPECT_EQ(c.serial, serial);
        EXPECT_EQ(c.system_id, system_id);
    }

    std::string value = "stale";
    parser_VPD_ext_area_from_str(" ext area\n text \n", &value);
    EXPECT_EQ("extareatext", value);
    parser_VPD_ext_area_from_str(nullptr, &value);
    EXPECT_EQ("", value);
}

namespace {

// A platform root whose sbin/conf_get records its arguments in args and
// prints the content of reply, or its -d default when there is none.
class IniTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, mkdir(root_.file("sbin").c_str(), 0755));
        ASSERT_TRUE(write_text_file(root_.file("sbin/conf_get"),
                                    "#!/bin/sh\n"
                                    "here=$(dirname \"$0\")/..\n"
                                    "printf '%s\\n' \"$@\" > \"$here/args\"\n"
                                    "if [ -f \"$here/reply\" ]; then cat \"$here/reply\";"
                                    " else printf '%s\\n' \"$5\"; fi\n",
                                    0755));
    }

    std::string args() const { return read_text_file(root_.file("args")); }
    void reply(const std::string& text) { ASSERT_TRUE(write_text_file(root_.file("reply"), text)); }

    TempDir root_;
    ScopedEnv env_{"VEXPROD_PLATFORM_ROOT", root_.path().c_str()};
};

}  // namespace

TEST_F(IniTest, PassesTheFixedArgumentsAndTakesTheFirstLine)
{
    reply("/share/VexProServer\nsecond line\n");
    std::string value;
    EXPECT_EQ(1, dv_get_ini_info("/etc/config/appbox.conf", "VexProServer", "Install_Path", value));
    EXPECT_EQ("/share/VexProServer", value);
    // The file argument is the tool's business: it is passed as given.
    EXPECT_EQ("VexProServer\nInstall_Path\n-c\n-d\nCONF_GET_FAILD\n-f\n/etc/config/appbox.conf\n",
              args());

    EXPECT_EQ(1, dv_get_ini_info(nullptr, "MISC", "DISPLAY_NAME", value));
    EXPECT_EQ("MISC\nDISPLAY_NAME\n-c\n-d\nCONF_GET_FAILD\n", args());
}

TEST_F(IniTest, ValueShapes)
{
    struct Case {
        const char* what;
        std::string printed;
        int found;
        std::string value;
    } cases[] = {
        {"no newline", "1", 1, "1"},
        {"inner blanks kept", "a b \n", 1, "a b "},
        {"long line cut at 127", std::string(200, 'v') + "\n", 1, std::string(127, 'v')},
        {"empty line", "\n", 1, ""},
        {"nothing printed", "", 0, "stale"},
        {"default marker", "CONF_GET_FAILD\n", 0, "stale"},
        {"marker as a prefix", "CONF_GET_FAILDx\n", 0, "stale"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        reply(c.printed);
        std::string value = "stale";
        EXPECT_EQ(c.found, dv_get_ini_info("/etc/platform.conf", "S", "K", value));
        EXPECT_EQ(c.value, value);
    }
}

TEST_F(IniTest, MissingKeyOrToolIsNotFound)
{
    std::string value = "stale";
    // No reply file: the stand-in prints its default, as conf_get does.
    EXPECT_EQ(0, dv_get_ini_info("/etc/platform.conf", "MISC", "NO_SUCH_KEY", value));
    EXPECT_EQ("stale", value);

    ASSERT_EQ(0, unlink(root_.file("sbin/conf_get").c_str()));
    EXPECT_EQ(0, dv_get_ini_info("/etc/platform.conf", "MISC", "DISPLAY_NAME", value));
    EXPECT_EQ(0, dv_get_ini_info("/etc/platform.conf", nullptr, "DISPLAY_NAME", value));
    EXPECT_EQ("stale", value);
}
