// Fuzzes the daemon's small parsers with arbitrary bytes: Base64 both ways,
// splitting, both trims, the VPD cutters and the two queue-record decoders.
// Besides not crashing, each must keep its promise: decoding what was
// encoded gives the input back, a split rejoined gives the text back, a trim
// leaves none of its characters where it promised, the decoders stay within
// their fields.
//
// Input: [selector byte][data...]; the selector picks the parser and, where
// one is needed, the character set.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/queue_consumers.h"
#include "daemon/strutil.h"

namespace {

[[noreturn]] void broken(const char* what)
{
    fprintf(stderr, "broken promise: %s\n", what);
    abort();
}

const char* const SETS[] = {" \n", ",", "=", "\n", " ", ", \n\t", "a", ""};

// c is one of set's characters (strchr alone would also find the terminator).
bool in_set(const char* set, char c)
{
    return c != '\0' && strchr(set, c) != nullptr;
}

void check_base64(const std::string& data)
{
    std::string encoded, decoded;
    if (base64_encode(data, encoded) != static_cast<int>(encoded.size()) || encoded.size() % 4 != 0)
        broken("base64_encode length");
    if (base64_decode(encoded, decoded) != static_cast<int>(decoded.size()) || decoded != data)
        broken("base64 round trip");
    std::string any;
    base64_decode(data, any);  // arbitrary text: stops where the alphabet ends
    if (any.size() > data.size())
        broken("base64_decode grew");
}

void check_split(const std::string& data, const char* set)
{
    std::vector<std::string> all = str_split_to_vector(data, set, false);
    std::vector<std::string> some = str_split_to_vector(data, set, true);
    size_t delimiters = 0;
    for (char c : data)
        delimiters += in_set(set, c);
    // Without skipping, the pieces are the text cut at every delimiter; an
    // empty last piece is kept as the text has it.
    size_t length = 0;
    for (const std::string& piece : all) {
        length += piece.size();
        if (piece.find_first_of(set) != std::string::npos && *set)
            broken("split piece holds a delimiter");
    }
    if (length + delimiters != data.size())
        broken("split lost characters");
    for (const std::string& piece : some)
        if (piece.empty())
            broken("skip_empty kept an empty piece");
    if (some.size() > all.size())
        broken("skip_empty gave more pieces");
}

void check_trims(const std::string& data, const char* set)
{
    std::string every = data;
    trim_char(every, set);
    for (char c : every)
        if (in_set(set, c))
            broken("trim_char left a character of its set");
    std::string ends = data;
    trim_front_and_end(ends, set);
    if (!ends.empty() && (in_set(set, ends.front()) || in_set(set, ends.back())))
        broken("trim_front_and_end left one at an end");
    if (ends.size() > data.size() || data.find(ends) == std::string::npos)
        broken("trim_front_and_end changed the inside");
}

void check_vpd(const std::string& data)
{
    std::string serial, system_id, area;
    parser_VPD_SN_from_str(data, &serial, &system_id);
    if (serial.size() > data.size() || system_id.size() > data.size())
        broken("VPD value longer than its text");
    parser_VPD_ext_area_from_str(data.c_str(), &area);
}

void check_records(const std::string& data)
{
    notify_record n;
    if (parse_notify_record(data.data(), data.size(), n)) {
        if (n.fabric_extra_info.size() > notify_layout::kExtraInfoSize)
            broken("notify text beyond its field");
        notify_record_json(n, "00/00/00 00:00:00:000000");
    }
    eventlog_record e;
    if (parse_eventlog_record(data.data(), data.size(), e)) {
        if (e.user.size() > EVENTLOG_NAME_SIZE || e.source_ip.size() > EVENTLOG_NAME_SIZE ||
            e.source_name.size() > EVENTLOG_NAME_SIZE || e.content.size() > EVENTLOG_CONTENT_SIZE)
            broken("event text beyond its field");
        eventlog_record_json(e, 7);
        eventlog_command(e);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    if (size == 0)
        return 0;
    uint8_t selector = bytes[0];
    std::string data(reinterpret_cast<const char*>(bytes + 1), size - 1);
    const char* set = SETS[(selector >> 3) % (sizeof(SETS) / sizeof(SETS[0]))];
    switch (selector % 5) {
    case 0:
        check_base64(data);
        break;
    case 1:
        check_split(data, set);
        break;
    case 2:
        check_trims(data, set);
        break;
    case 3:
        check_vpd(data);
        break;
    default:
        check_records(data);
        break;
    }
    return 0;
}
