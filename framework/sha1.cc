// SHA-1 (FIPS 180-1) with the context interface that names socket files.
#include <cstdint>

#include "dv.h"

namespace {

inline unsigned rotl(unsigned word, int bits)
{
    return ((word << bits) | (word >> (32 - bits))) & 0xFFFFFFFFU;
}

void process_block(SHA1Context* c)
{
    static const unsigned K[4] = {0x5A827999U, 0x6ED9EBA1U, 0x8F1BBCDCU, 0xCA62C1D6U};
    unsigned W[80];
    for (int t = 0; t < 16; t++) {
        W[t] = static_cast<unsigned>(c->Message_Block[t * 4]) << 24;
        W[t] |= static_cast<unsigned>(c->Message_Block[t * 4 + 1]) << 16;
        W[t] |= static_cast<unsigned>(c->Message_Block[t * 4 + 2]) << 8;
        W[t] |= static_cast<unsigned>(c->Message_Block[t * 4 + 3]);
    }
    for (int t = 16; t < 80; t++)
        W[t] = rotl(W[t - 3] ^ W[t - 8] ^ W[t - 14] ^ W[t - 16], 1);

    unsigned A = c->Message_Digest[0], B = c->Message_Digest[1], C = c->Message_Digest[2];
    unsigned D = c->Message_Digest[3], E = c->Message_Digest[4];
    for (int t = 0; t < 80; t++) {
        unsigned f;
        if (t < 20)
            f = (B & C) | ((~B) & D);
        else if (t < 40 || t >= 60)
            f = B ^ C ^ D;
        else
            f = (B & C) | (B & D) | (C & D);
        unsigned temp = (rotl(A, 5) + f + E + W[t] + K[t / 20]) & 0xFFFFFFFFU;
        E = D;
        D = C;
        C = rotl(B, 30);
        B = A;
        A = temp;
    }
    c->Message_Digest[0] = (c->Message_Digest[0] + A) & 0xFFFFFFFFU;
    c->Message_Digest[1] = (c->Message_Digest[1] + B) & 0xFFFFFFFFU;
    c->Message_Digest[2] = (c->Message_Digest[2] + C) & 0xFFFFFFFFU;
    c->Message_Digest[3] = (c->Message_Digest[3] + D) & 0xFFFFFFFFU;
    c->Message_Digest[4] = (c->Message_Digest[4] + E) & 0xFFFFFFFFU;
    c->Message_Block_Index = 0;
}

void pad_message(SHA1Context* c)
{
    // 0x80, zeros, then the 64-bit bit length, spilling into a second block
    // when fewer than 8 bytes are left.
    if (c->Message_Block_Index > 55) {
        c->Message_Block[c->Message_Block_Index++] = 0x80;
        while (c->Message_Block_Index < 64)
            c->Message_Block[c->Message_Block_Index++] = 0;
        process_block(c);
        while (c->Message_Block_Index < 56)
            c->Message_Block[c->Message_Block_Index++] = 0;
    } else {
        c->Message_Block[c->Message_Block_Index++] = 0x80;
        while (c->Message_Block_Index < 56)
            c->Message_Block[c->Message_Block_Index++] = 0;
    }
    c->Message_Block[56] = static_cast<unsigned char>(c->Length_High >> 24);
    c->Message_Block[57] = static_cast<unsigned char>(c->Length_High >> 16);
    c->Message_Block[58] = static_cast<unsigned char>(c->Length_High >> 8);
    c->Message_Block[59] = static_cast<unsigned char>(c->Length_High);
    c->Message_Block[60] = static_cast<unsigned char>(c->Length_Low >> 24);
    c->Message_Block[61] = static_cast<unsigned char>(c->Length_Low >> 16);
    c->Message_Block[62] = static_cast<unsigned char>(c->Length_Low >> 8);
    c->Message_Block[63] = static_cast<unsigned char>(c->Length_Low);
    process_block(c);
}

}  // namespace

extern "C" {

DV_API void SHA1Reset(SHA1Context* c)
{
    c->Length_Low = 0;
    c->Length_High = 0;
    c->Message_Block_Index = 0;
    c->Message_Digest[0] = 0x67452301U;
    c->Message_Digest[1] = 0xEFCDAB89U;
    c->Message_Digest[2] = 0x98BADCFEU;
    c->Message_Digest[3] = 0x10325476U;
    c->Message_Digest[4] = 0xC3D2E1F0U;
    c->Computed = 0;
    c->Corrupted = 0;
}

DV_API void SHA1Input(SHA1Context* c, const unsigned char* message_array, unsigned length)
{
    if (!length)
        return;
    if (c->Computed || c->Corrupted || !message_array) {
        c->Corrupted = 1;
        return;
    }
    while (length-- && !c->Corrupted) {
        c->Message_Block[c->Message_Block_Index++] = *message_array & 0xFF;
        c->Length_Low = (c->Length_Low + 8) & 0xFFFFFFFFU;
        if (c->Length_Low == 0) {
            c->Length_High = (c->Length_High + 1) & 0xFFFFFFFFU;
            if (c->Length_High == 0)
                c->Corrupted = 1;  // message longer than 2^64 bits
        }
        if (c->Message_Block_Index == 64)
            process_block(c);
        message_array++;
    }
}

DV_API int SHA1Result(SHA1Context* c)
{
    if (c->Corrupted)
        return 0;
    if (!c->Computed) {
        pad_message(c);
        c->Computed = 1;
    }
    return 1;
}

}  // extern "C"
