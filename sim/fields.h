// Escaped, tab-separated fields: the one line format of the simulated platform's
// journal and state files. Header-only so the test support can read what the
// stubs write without linking them.
//
// A field escapes backslash, tab, newline and carriage return as \\ \t \n \r and
// every other control byte as \xHH, so a field never holds a raw tab or newline
// and any byte string survives a round trip.
#pragma once

#include <string>
#include <vector>

namespace sim {

inline std::string escape_field(const std::string& in)
{
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(in.size());
    for (unsigned char c : in) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        default:
            if (c < 0x20 || c == 0x7f) {
                out += "\\x";
                out += hex[c >> 4];
                out += hex[c & 15];
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out;
}

// Reverses escape_field. False on a malformed escape.
inline bool unescape_field(const std::string& in, std::string& out)
{
    auto hexval = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    out.clear();
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '\\') {
            out += in[i];
            continue;
        }
        if (++i == in.size())
            return false;
        switch (in[i]) {
        case '\\': out += '\\'; break;
        case 't': out += '\t'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 'x': {
            if (i + 2 >= in.size())
                return false;
            int hi = hexval(in[i + 1]);
            int lo = hexval(in[i + 2]);
            if (hi < 0 || lo < 0)
                return false;
            out += static_cast<char>(hi * 16 + lo);
            i += 2;
            break;
        }
        default: return false;
        }
    }
    return true;
}

// One record: the escaped fields joined by tabs, ending with a newline.
inline std::string join_fields(const std::vector<std::string>& fields)
{
    std::string line;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i)
            line += '\t';
        line += escape_field(fields[i]);
    }
    line += '\n';
    return line;
}

// Splits one record (without its newline) back into fields. False when a
// field is malformed.
inline bool split_fields(const std::string& line, std::vector<std::string>& fields)
{
    fields.clear();
    std::size_t start = 0;
    for (;;) {
        std::size_t tab = line.find('\t', start);
        std::string field;
        if (!unescape_field(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start), field))
            return false;
        fields.push_back(std::move(field));
        if (tab == std::string::npos)
            return true;
        start = tab + 1;
    }
}

} // namespace sim
