// Waiting for asynchronous effects: a service closes descriptors on its own
// threads a moment after the client has its answer.
#pragma once

#include <sys/types.h>

#include <functional>

bool eventually(const std::function<bool()>& cond, int timeout_ms = 2000);

// Our open descriptors, or another process's, once the count stops changing
// (after five seconds as it is, for the comparison to show).
int settled_fd_count();
int settled_fd_count(pid_t pid);
