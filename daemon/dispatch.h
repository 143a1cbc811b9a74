// The exec callbacks of the two services: look the command up in its table
// and run the handler on the calling worker's thread, with the client's extra
// descriptor (when it sent one) as the process's standard output.
#pragma once

#include <cstddef>

#include "daemon/command_table.h"
#include "dv.h"

// What the handler receives; lives on the dispatcher's stack.
struct T_THREAD_ARGS {
    int fd;
    dv_io* io;
    const char* name;  // the table's own copy of the command name
    command_handler_fn handler;
};

inline constexpr const char DV_SERVICE_NAME[] = "VexProServer-vexprod";
inline constexpr const char DV_SEND_MAIL_SERVICE_NAME[] = "VexProServer_send_mail-vexprod";

// A service's exec callback over its table: the caller's grant for the
// command (caller_policy.h), then dispatch_command, then one audit line
// (audit.h). Takes ownership of io and of fd.
void serve_granted(const char* service, const T_COMMAND_ENTRY* table, size_t size, const char* name, dv_io* io,
                   int fd);

// Thread entry: runs the record's handler, then ends the thread.
void* pthread_callback_function(void* arg);

// What both services do, over any table (tests use tables of their own).
// Takes ownership of io and of fd.
void dispatch_command(const T_COMMAND_ENTRY* table, size_t size, const char* name, dv_io* io, int fd);
