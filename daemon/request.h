// Reading a request: its text out of the message object, and the readers
// over the one parser (daemon/json.h): the strict one that fetches a
// command's keys (fetch_request_args) and the lenient one of the app-side
// commands, whose missing keys read as JSON defaults (JsonFields).
//
//     Json::Value reply;
//     int offset = 0, length = 0;
//     if (fetch_request_args(io, reply, keys::get_vpd_ext_area, {&offset, &length})) {
//         ... work, then reply["result"] = 0 or set_failure(reply, "... fail") ...
//     }
//     send_reply(io, reply);
#pragma once

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "daemon/command_table.h"
#include "dv.h"

// Requests longer than this are refused as "input error"; no command needs
// more than a few kilobytes, and every byte of a request may cost the
// parser a hundred of memory.
inline constexpr size_t REQUEST_TEXT_MAX = 64 << 10;

// The request text: a copy of the memory file up to its first NUL byte. The
// file is read with pread rather than through the shared mapping, because
// the client may shrink its file under us and a mapping would then fault.
// False when there is no text to read: no or an empty memory file, text
// longer than REQUEST_TEXT_MAX, or a read error.
bool read_request_text(dv_io* io, std::string& text);

// Where one argument's value goes, in the order of the row's keys. The
// output's type must fit the key's: std::string "string", int32_t "int" or
// "bool" (a JSON true/false stored as 1/0), int64_t "long".
struct ArgOut {
    const char* type;  // the widest key type the output takes
    void* out;

    ArgOut(std::string* o) : type("string"), out(o) {}
    ArgOut(int32_t* o) : type("int"), out(o) {}
    ArgOut(int64_t* o) : type("long"), out(o) {}
};

// Reads the request text, parses it and fetches every key of keys into the
// output at its place (all of them, so the log names every bad one). True
// when all went well. Otherwise reply already holds the input error and
// nothing must run: no text gives "input error" (logged as "dv_io input
// fail." under the handler's name and line, which default to the caller's);
// text that is not JSON, a missing or mistyped argument, or outputs that do
// not fit the keys give "paser fail"; both with "error_code" -1. root, when
// given, receives the parsed request.
bool fetch_request_args(dv_io* io, Json::Value& reply, T_ARG_POLICY keys, std::initializer_list<ArgOut> outs,
                        Json::Value* root = nullptr, const char* handler = __builtin_FUNCTION(),
                        int line = __builtin_LINE());

// The same, for a handler that has read the request text itself.
bool parse_request_args(const std::string& text, T_ARG_POLICY keys, std::initializer_list<ArgOut> outs,
                        Json::Value* root = nullptr, const char* handler = __builtin_FUNCTION(),
                        int line = __builtin_LINE());

// The two input errors, for handlers that read their request another way.
void set_input_error(Json::Value& reply);  // "input error", "error_code" -1
void set_parse_error(Json::Value& reply);  // "paser fail", "error_code" -1

// Sets reply to "input error", "error_code" -1, after logging
// "parse strInputArg failed, error=[why]" under the handler's name and line.
void reject_request(Json::Value& reply, const std::string& why, const char* handler = __builtin_FUNCTION(),
                    int line = __builtin_LINE());

// Reads and parses the request text into root: a JSON object, or null for
// the text "null", which reads as an object without members. Otherwise
// (no text, not JSON, JSON of another kind) the input error, logged with the
// parser's message, has been sent as the reply, and the result is false.
bool parse_request_object(dv_io* io, Json::Value& root, const char* handler = __builtin_FUNCTION(),
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

// Copies member key of root into out, by type:
//   "string" -> std::string, "int" -> int32_t, "long" -> int64_t,
//   "bool"   -> int32_t 1 or 0 (a JSON true/false only, never the text "true").
// Sets *error when the member is missing or null (silently), of another type
// (one "Type fail" log line naming the member's real type), or when type is
// none of the above. *error is never cleared, so one flag can gather the
// failures of several calls; out is left alone on every failure.
void parser_param_from_json_str(Json::Value root, const char* key, void* out, const char* type, bool* error);

// Names the JSON type of member key: "string", "int", "long" (an integer
// beyond 32 bits), "bool", "double" or "Others" (null, array, object, or no
// such member).
void get_json_type(Json::Value root, const char* key, std::string* type_name);
