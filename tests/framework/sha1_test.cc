// Service names to socket paths, through the framework's SHA-1.
#include "support/suite.h"

namespace {

// Fed whole, and in pieces of 7 bytes across the block boundaries.
TEST(Sha1, KnownVectorsWholeAndInPieces)
{
    const struct {
        std::string text;
        const char* digest;
    } cases[] = {
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto& c : cases)
        for (size_t piece : {std::max<size_t>(c.text.size(), 1), size_t{7}}) {
            SHA1Context ctx;
            SHA1Reset(&ctx);
            for (size_t i = 0; i < c.text.size(); i += piece)
                SHA1Input(&ctx, reinterpret_cast<const unsigned char*>(c.text.data() + i),
                          static_cast<unsigned>(std::min(piece, c.text.size() - i)));
            ASSERT_TRUE(SHA1Result(&ctx));
            char hex[41];
            for (int i = 0; i < 5; i++)
                snprintf(hex + i * 8, 9, "%08x", ctx.Message_Digest[i]);
            EXPECT_STREQ(hex, c.digest) << c.text.substr(0, 20) << " in pieces of " << piece;
        }
}

TEST(Sha1, NamesHashToSocketFilesUnderTheSocketDirectory)
{
    const struct {
        const char* dir;  // DV_SOCKET_DIR, null when unset
        const char* name;
        const char* path;
    } cases[] = {
        {nullptr, "VexProServer-vexprod", "/var/run/dv/5CE64BBA.sock"},
        {"", "VexProServer-vexprod", "/var/run/dv/5CE64BBA.sock"},
        {"/tmp/sockets", "VexProServer-vexprod", "/tmp/sockets/5CE64BBA.sock"},
        {"/d", "svc31", "/d/1615947.sock"},  // digest 01615947...: no leading zero
        {"/tmp/sockets", "@/tmp/x.sock", "/tmp/x.sock"},  // a name that is a path ignores the directory
    };
    for (const auto& c : cases) {
        ScopedEnv env("DV_SOCKET_DIR", c.dir);
        char path[64];
        ASSERT_EQ(dv_sockfile(c.name, path, sizeof(path)), 0);
        EXPECT_STREQ(path, c.path) << c.name;
    }
}

}  // namespace
