#include "daemon/json.h"

#include <exception>
#include <memory>

namespace {

Json::CharReaderBuilder bounded_builder()
{
    Json::CharReaderBuilder builder;
    // What the classic reader accepted (comments, any value at the root,
    // text after the value ignored, no byte-order mark), with a depth limit
    // of our own.
    builder["allowComments"] = true;
    builder["collectComments"] = false;
    builder["strictRoot"] = false;
    builder["failIfExtra"] = false;
    builder["skipBom"] = false;
    builder["stackLimit"] = static_cast<Json::UInt>(JSON_DEPTH_MAX);
    return builder;
}

// A reader holds the state of one parse: one per call. The settings are
// only read, so all threads share them.
std::unique_ptr<Json::CharReader> bounded_reader()
{
    static const Json::CharReaderBuilder builder = bounded_builder();
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

}  // namespace

bool json_parse(const char* begin, const char* end, Json::Value& root, std::string* why)
{
    std::string discarded;
    if (!why)
        why = &discarded;
    try {
        Json::Value parsed;
        if (!bounded_reader()->parse(begin, end, &parsed, why))
            return false;
        root = std::move(parsed);
        return true;
    } catch (const std::exception& e) {
        // The depth limit and running out of memory both arrive as
        // exceptions; either way this text is not served.
        try {
            *why = e.what();
        } catch (...) {
        }
        return false;
    }
}

bool json_parse(const std::string& text, Json::Value& root, std::string* why)
{
    return json_parse(text.data(), text.data() + text.size(), root, why);
}

std::string json_write(const Json::Value& root)
{
    Json::FastWriter writer;
    return writer.write(root);
}
