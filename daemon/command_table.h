// The command vocabulary of the two services: which name runs which handler,
// which request keys it reads, and what it answers. The rows themselves live
// with the handlers (handlers/registry.cc); this is their shape, and what
// the daemon core makes of them (a description for callers to read).
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "dv.h"

using command_handler_fn = void (*)(dv_io* io, int fd);

// One key a command reads from its request, in the order it reads it.
// type is the word the argument reader knows: "string", "int" (32 bits),
// "long" (64 bits), "bool" (a JSON true/false), or "array" (a list whose
// entries are objects with the row's item keys).
struct T_REQUEST_KEY {
    const char* key;
    const char* type;
};

using T_ARG_POLICY = std::span<const T_REQUEST_KEY>;

// How a command takes its request.
enum class ArgReading : unsigned char {
    none,     // reads nothing: any text, or none, will do
    strict,   // a JSON object; a missing or mistyped key is "paser fail"
    lenient,  // a JSON object; a missing key reads as "", 0, false or [],
              // a mistyped one is "input error"
    text,     // the whole request text, not parsed
};

// One row of a dispatch table. A null handler is a known name that nothing
// serves yet; callers see it exactly as an unknown name. Everything after
// the handler is for people and tools that read the table: the reader of
// the request takes the keys from here, the rest goes into the description.
struct T_COMMAND_ENTRY {
    const char* name;
    command_handler_fn handler;
    T_ARG_POLICY args = {};
    ArgReading reading = ArgReading::none;
    T_ARG_POLICY items = {};       // keys of each entry of an "array" key
    const char* summary = "";      // one line: what it does
    const char* reply = "";        // the keys of a successful reply
    const char* failures = "";     // its failure replies, beyond the two input errors
    const char* note = "";         // what a caller would not guess
};

// The table as JSON text for dv_set_description: the service's name and,
// per command in table order, "name", "summary", "reading", "args" (a list
// of {"key", "type"}), "items" when it has any, "reply", "failures", "note".
std::string describe_commands(const char* service, std::span<const T_COMMAND_ENTRY> table);

// The word for a reading in descriptions and the command reference.
const char* reading_word(ArgReading reading);
