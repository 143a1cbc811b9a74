// String, Base64 and VPD text helpers.
#include "daemon/strutil.h"

#include <algorithm>
#include <cstring>

const std::string base64_chars =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "abcdefghijklmnopqrstuvwxyz"
    "0123456789+/";

namespace {

bool in_set(char c, const char* set)
{
    // strchr would also "find" the terminating NUL.
    return c != '\0' && strchr(set, c) != nullptr;
}

bool is_base64(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           c == '+' || c == '/';
}

unsigned char base64_value(unsigned char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    return c == '+' ? 62 : 63;
}

}  // namespace

void trim_char(std::string& s, const char* set)
{
    if (!set)
        return;
    s.erase(std::remove_if(s.begin(), s.end(), [set](char c) { return in_set(c, set); }),
            s.end());
}

void trim_front_and_end(std::string& s, const char* set)
{
    if (!set)
        return;
    size_t end = s.size();
    while (end > 0 && in_set(s[end - 1], set))
        --end;
    s.erase(end);
    size_t begin = 0;
    while (begin < s.size() && in_set(s[begin], set))
        ++begin;
    s.erase(0, begin);
}

std::vector<std::string> str_split_to_vector(std::string s, const char* delimiters,
                                             bool skip_empty)
{
    std::vector<std::string> pieces;
    std::string piece;
    for (char c : s) {
        if (delimiters && in_set(c, delimiters)) {
            if (!piece.empty() || !skip_empty)
                pieces.push_back(piece);
            piece.clear();
        } else {
            piece += c;
        }
    }
    if (!piece.empty() || !skip_empty)
        pieces.push_back(piece);
    return pieces;
}

int base64_encode(const std::string& in, std::string& out)
{
    out.clear();
    out.reserve((in.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= in.size(); i += 3) {
        unsigned v = static_cast<unsigned char>(in[i]) << 16 |
                     static_cast<unsigned char>(in[i + 1]) << 8 |
                     static_cast<unsigned char>(in[i + 2]);
        out += base64_chars[v >> 18 & 63];
        out += base64_chars[v >> 12 & 63];
        out += base64_chars[v >> 6 & 63];
        out += base64_chars[v & 63];
    }
    size_t rest = in.size() - i;
    if (rest > 0) {
        unsigned v = static_cast<unsigned char>(in[i]) << 16;
        if (rest == 2)
            v |= static_cast<unsigned char>(in[i + 1]) << 8;
        out += base64_chars[v >> 18 & 63];
        out += base64_chars[v >> 12 & 63];
        out += rest == 2 ? base64_chars[v >> 6 & 63] : '=';
        out += '=';
    }
    return static_cast<int>(out.size());
}

int base64_decode(const std::string& in, std::string& out)
{
    out.clear();
    unsigned v = 0;
    int held = 0;
    for (char ch : in) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (!is_base64(c))
            break;  // "=" included: padding ends the data.
        v = v << 6 | base64_value(c);
        if (++held == 4) {
            out += static_cast<char>(v >> 16 & 0xff);
            out += static_cast<char>(v >> 8 & 0xff);
            out += static_cast<char>(v & 0xff);
            v = 0;
            held = 0;
        }
    }
    // A final 2 or 3 characters carry 1 or 2 bytes; a lone one carries none.
    if (held >= 2) {
        v <<= 6 * (4 - held);
        out += static_cast<char>(v >> 16 & 0xff);
        if (held == 3)
            out += static_cast<char>(v >> 8 & 0xff);
    }
    return static_cast<int>(out.size());
}
