#include "daemon/json.h"

bool json_parse(const char* begin, const char* end, Json::Value& root)
{
    Json::Reader reader;
    return reader.parse(begin, end, root, true);
}

bool json_parse(const std::string& text, Json::Value& root)
{
    return json_parse(text.data(), text.data() + text.size(), root);
}

std::string json_write(const Json::Value& root)
{
    Json::FastWriter writer;
    return writer.write(root);
}
