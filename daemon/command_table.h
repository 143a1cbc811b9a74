// The command vocabulary of the two services: which name runs which handler.
// These tables are the one place that maps a command name to its code.
#pragma once

#include <cstddef>

#include "dv.h"

using command_handler_fn = void (*)(dv_io* io, int fd);

// One row of a dispatch table. A null handler is a known name that nothing
// serves yet; callers see it exactly as an unknown name.
struct T_COMMAND_ENTRY {
    const char* name;
    command_handler_fn handler;
};

// "VexProServer-vexprod": searched in this order, first match wins. The row
// order is part of the contract with existing callers; keep it.
extern const T_COMMAND_ENTRY handler[];
extern const size_t handler_size;

// "VexProServer_send_mail-vexprod": "test" and "sendmail", in that order.
extern const T_COMMAND_ENTRY sendmail_handler[];
extern const size_t sendmail_handler_size;
