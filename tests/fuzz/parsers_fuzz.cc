// The daemon's small parsers on arbitrary bytes, each held to its promise:
// Base64 decodes what it encoded, a split loses no character and keeps no
// delimiter, a trim leaves none of its set where it promised, the
// queue-record decoders stay within their fields.
// Input: [selector byte: parser and character set][data...].
#include "daemon/queue_consumers.h"
#include "daemon/strutil.h"

#include "support/suite.h"

namespace {

void promise(bool kept, const char* what)
{
    if (!kept) {
        fprintf(stderr, "broken promise: %s\n", what);
        abort();
    }
}

bool in_set(const char* set, char c)
{
    return c != '\0' && strchr(set, c) != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static const char* const kSets[] = {" \n", ",", "=", "\n", " ", ", \n\t", "a", ""};
    if (size == 0)
        return 0;
    const std::string data(reinterpret_cast<const char*>(bytes + 1), size - 1);
    const char* set = kSets[(bytes[0] >> 3) % 8];
    std::string a, b;
    switch (bytes[0] % 5) {
    case 0:
        promise(base64_encode(data, a) == static_cast<int>(a.size()) && a.size() % 4 == 0, "base64_encode length");
        promise(base64_decode(a, b) == static_cast<int>(b.size()) && b == data, "base64 round trip");
        base64_decode(data, b);
        promise(b.size() <= data.size(), "base64_decode grew");
        break;
    case 1: {
        const std::vector<std::string> all = str_split_to_vector(data, set, false);
        const std::vector<std::string> some = str_split_to_vector(data, set, true);
        size_t length = 0;
        for (const std::string& piece : all) {
            length += piece.size();
            promise(!*set || piece.find_first_of(set) == std::string::npos, "split piece holds a delimiter");
        }
        for (char c : data)
            length += in_set(set, c);
        promise(length == data.size(), "split lost characters");
        for (const std::string& piece : some)
            promise(!piece.empty(), "skip_empty kept an empty piece");
        promise(some.size() <= all.size(), "skip_empty gave more pieces");
        break;
    }
    case 2:
        a = b = data;
        trim_char(a, set);
        for (char c : a)
            promise(!in_set(set, c), "trim_char left a character of its set");
        trim_front_and_end(b, set);
        promise(b.empty() || (!in_set(set, b.front()) && !in_set(set, b.back())), "trim_front_and_end left an end");
        promise(data.find(b) != std::string::npos, "trim_front_and_end changed the inside");
        break;
    default:
        notify_record n;
        if (parse_notify_record(data.data(), data.size(), n)) {
            promise(n.fabric_extra_info.size() <= notify_layout::kExtraInfoSize, "notify text beyond its field");
            notify_record_json(n, "00/00/00 00:00:00:000000");
        }
        eventlog_record e;
        if (parse_eventlog_record(data.data(), data.size(), e)) {
            promise(e.user.size() <= EVENTLOG_NAME_SIZE && e.source_ip.size() <= EVENTLOG_NAME_SIZE &&
                        e.source_name.size() <= EVENTLOG_NAME_SIZE && e.content.size() <= EVENTLOG_CONTENT_SIZE,
                    "event text beyond its field");
            eventlog_record_json(e, 7);
            eventlog_command(e);
        }
    }
    return 0;
}
