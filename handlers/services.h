// The two services' command tables and their exec callbacks, which the
// program entry hands to dv_create.
#pragma once

#include <cstddef>

#include "daemon/command_table.h"
#include "dv.h"

// "VexProServer-vexprod": searched in this order, first match wins. The row
// order is part of the contract with existing callers; keep it.
extern const T_COMMAND_ENTRY handler[];
extern const size_t handler_size;

// "VexProServer_send_mail-vexprod": "test" and "sendmail", in that order.
extern const T_COMMAND_ENTRY sendmail_handler[];
extern const size_t sendmail_handler_size;

// "VexProServer-vexprod", over the table `handler`.
void service_handler(const char* name, dv_io* io, int fd);
// "VexProServer_send_mail-vexprod", over the table `sendmail_handler`.
void sendmail_service_handler(const char* name, dv_io* io, int fd);
