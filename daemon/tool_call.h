// Lenient request reading for the app-side commands: a request whose
// missing keys read as JSON defaults.
#pragma once

#include <json/json.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/command_table.h"
#include "dv.h"

// Sets reply to "input error", "error_code" -1, after logging
// "parse strInputArg failed, error=[why]" under the handler's name and line.
void reject_request(Json::Value& reply, const std::string& why, const char* handler = __builtin_FUNCTION(),
                    int line = __builtin_LINE());

// Reads and parses the request text into root: a JSON object, or null for
// the text "null", which reads as an object without members. Otherwise
// (no text, not JSON, JSON of another kind) reply holds the input error,
// logged with the parser's message, and the result is false.
bool parse_request_object(dv_io* io, Json::Value& root, Json::Value& reply, const char* handler = __builtin_FUNCTION(),
                          int line = __builtin_LINE());

// Reads members of one JSON object as these commands always have: a missing
// member is "", 0, false or an empty list, and a present one converts as
// jsoncpp's asString, asInt and asBool do (a number where text belongs is
// its decimal text). What those would refuse with an exception (text where
// a number belongs, an object where text belongs, a number beyond 32 bits)
// reads as the default instead and makes ok() false; error() then names the
// first such member. A list that is present but not an array is such an
// error too: walking it would quietly see no entries, and a caller who sent
// one rule as a bare object or text would get "done" with nothing done. A
// value that is neither an object nor null has no members and is an error
// itself.
//
// Read through a command's keys (handlers/registry.h), the next_ members
// take those keys one after the other, in the row's order; one whose type
// does not fit the key read is a fault of the handler and an error too.
class JsonFields {
public:
    // object must outlive the reader; where names it in error().
    explicit JsonFields(const Json::Value& object, std::string where = "");
    JsonFields(const Json::Value& object, T_ARG_POLICY keys, std::string where = "");

    std::string next_text(const char* missing = "") { return text(next_key("string"), missing); }
    int next_number() { return number(next_key("int")); }
    bool next_flag() { return flag(next_key("bool")); }
    const Json::Value& next_list() { return list(next_key("array")); }

    std::string text(const char* key, const char* missing = "");
    int number(const char* key);
    bool flag(const char* key);
    // An array member; a missing or null one reads as an empty array.
    const Json::Value& list(const char* key);

    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }

private:
    const Json::Value* member(const char* key, Json::ValueType want, const char* type_name);
    // The next of keys_ when it has this type; otherwise an error, and a
    // key no request holds.
    const char* next_key(const char* type);

    const Json::Value& object_;
    T_ARG_POLICY keys_;
    size_t next_ = 0;
    std::string where_;
    std::string error_;
};
