// docs/commands.md, made from the command tables: what an app developer
// reads instead of the handlers' code.
#pragma once

#include <span>
#include <string>

#include "daemon/command_table.h"

struct ServiceTable {
    const char* service;
    std::span<const T_COMMAND_ENTRY> table;
};

// The whole page, one section per service, commands in table order.
std::string command_reference(std::span<const ServiceTable> services);
