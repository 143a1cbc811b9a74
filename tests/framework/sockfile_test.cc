// Service names to socket paths, through the framework's SHA-1.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "dv.h"
#include "support/env.h"

namespace {

// The digest of text fed in pieces of at most piece bytes.
SHA1Context digest(const std::string& text, size_t piece)
{
    SHA1Context c;
    SHA1Reset(&c);
    for (size_t i = 0; i < text.size(); i += piece)
        SHA1Input(&c, reinterpret_cast<const unsigned char*>(text.data() + i),
                  static_cast<unsigned>(std::min(piece, text.size() - i)));
    EXPECT_TRUE(SHA1Result(&c));
    return c;
}

std::string hex(const SHA1Context& c)
{
    char out[41];
    for (int i = 0; i < 5; i++)
        snprintf(out + i * 8, 9, "%08x", c.Message_Digest[i]);
    return out;
}

TEST(Sha1, KnownVectorsWholeAndInPieces)
{
    const struct {
        std::string text;
        const char* digest;
    } cases[] = {
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        // Two blocks, and the length spilling into the second padding block.
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 20));
        EXPECT_EQ(hex(digest(c.text, std::max<size_t>(c.text.size(), 1))), c.digest);
        EXPECT_EQ(hex(digest(c.text, 7)), c.digest);
    }
}

TEST(SocketFile, NamesHashUnderTheSocketDirectory)
{
    const struct {
        const char* dir;  // DV_SOCKET_DIR, null when unset
        const char* name;
        const char* path;
    } cases[] = {
        {nullptr, "VexProServer-vexprod", "/var/run/dv/5CE64BBA.sock"},
        {nullptr, "VexProServer_send_mail-vexprod", "/var/run/dv/24071CEA.sock"},
        {"", "VexProServer-vexprod", "/var/run/dv/5CE64BBA.sock"},
        {"/tmp/sockets", "VexProServer-vexprod", "/tmp/sockets/5CE64BBA.sock"},
        {"/tmp/sockets", "@/tmp/x.sock", "/tmp/x.sock"},  // a name that is a path ignores the directory
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScopedEnv env("DV_SOCKET_DIR", c.dir);
        char path[64];
        ASSERT_EQ(dv_sockfile(c.name, path, sizeof(path)), 0);
        EXPECT_STREQ(path, c.path);
    }
}

TEST(SocketFile, LeadingZerosAreNotWritten)
{
    ScopedEnv env("DV_SOCKET_DIR", "/d");
    for (int i = 0; i < 100000; i++) {
        std::string name = "svc" + std::to_string(i);
        SHA1Context c = digest(name, name.size());
        if (c.Message_Digest[0] >= 0x10000000U)
            continue;
        char path[64], expected[64];
        ASSERT_EQ(dv_sockfile(name.c_str(), path, sizeof(path)), 0);
        snprintf(expected, sizeof(expected), "/d/%X.sock", c.Message_Digest[0]);
        EXPECT_STREQ(path, expected);
        EXPECT_LT(strlen(path), strlen("/d/12345678.sock"));
        return;
    }
    FAIL() << "no short digest found";
}

}  // namespace
