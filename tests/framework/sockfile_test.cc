// Service names to socket paths, through the framework's SHA-1.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "dv.h"
#include "support/env.h"

namespace {

std::string digest_hex(const std::string& text)
{
    SHA1Context c;
    SHA1Reset(&c);
    SHA1Input(&c, reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size()));
    if (!SHA1Result(&c))
        return "failed";
    char out[41];
    for (int i = 0; i < 5; i++)
        snprintf(out + i * 8, 9, "%08x", c.Message_Digest[i]);
    return out;
}

TEST(Sha1, KnownVectors)
{
    EXPECT_EQ(digest_hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(digest_hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    // Two blocks, and the length spilling into the second padding block.
    EXPECT_EQ(digest_hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(digest_hex(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Sha1, InputInPiecesEqualsInputAtOnce)
{
    std::string text(200, 'x');
    SHA1Context c;
    SHA1Reset(&c);
    for (size_t i = 0; i < text.size(); i += 7) {
        size_t n = std::min<size_t>(7, text.size() - i);
        SHA1Input(&c, reinterpret_cast<const unsigned char*>(text.data() + i), static_cast<unsigned>(n));
    }
    ASSERT_TRUE(SHA1Result(&c));
    char first[9];
    snprintf(first, sizeof(first), "%08x", c.Message_Digest[0]);
    EXPECT_EQ(digest_hex(text).substr(0, 8), first);
}

TEST(SocketFile, NamesHashUnderTheSocketDirectory)
{
    char path[64];
    {
        ScopedEnv env("DV_SOCKET_DIR", nullptr);
        ASSERT_EQ(dv_sockfile("VexProServer-vexprod", path, sizeof(path)), 0);
        EXPECT_STREQ(path, "/var/run/dv/5CE64BBA.sock");
        ASSERT_EQ(dv_sockfile("VexProServer_send_mail-vexprod", path, sizeof(path)), 0);
        EXPECT_STREQ(path, "/var/run/dv/24071CEA.sock");
    }
    {
        ScopedEnv env("DV_SOCKET_DIR", "/tmp/sockets");
        ASSERT_EQ(dv_sockfile("VexProServer-vexprod", path, sizeof(path)), 0);
        EXPECT_STREQ(path, "/tmp/sockets/5CE64BBA.sock");
        // A name that is a path ignores the directory.
        ASSERT_EQ(dv_sockfile("@/tmp/x.sock", path, sizeof(path)), 0);
        EXPECT_STREQ(path, "/tmp/x.sock");
    }
    {
        ScopedEnv env("DV_SOCKET_DIR", "");
        ASSERT_EQ(dv_sockfile("VexProServer-vexprod", path, sizeof(path)), 0);
        EXPECT_STREQ(path, "/var/run/dv/5CE64BBA.sock");
    }
}

TEST(SocketFile, LeadingZerosAreNotWritten)
{
    // Find a name whose first digest word is below 0x10000000.
    for (int i = 0; i < 100000; i++) {
        std::string name = "svc" + std::to_string(i);
        SHA1Context c;
        SHA1Reset(&c);
        SHA1Input(&c, reinterpret_cast<const unsigned char*>(name.data()), static_cast<unsigned>(name.size()));
        ASSERT_TRUE(SHA1Result(&c));
        if (c.Message_Digest[0] >= 0x10000000U)
            continue;
        ScopedEnv env("DV_SOCKET_DIR", "/d");
        char path[64];
        ASSERT_EQ(dv_sockfile(name.c_str(), path, sizeof(path)), 0);
        char expected[64];
        snprintf(expected, sizeof(expected), "/d/%X.sock", c.Message_Digest[0]);
        EXPECT_STREQ(path, expected);
        EXPECT_LT(strlen(path), strlen("/d/12345678.sock"));
        return;
    }
    FAIL() << "no short digest found";
}

}  // namespace
