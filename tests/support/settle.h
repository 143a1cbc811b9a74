// Waiting for asynchronous effects in tests: a service closes descriptors on
// its own threads a moment after the client has its answer.
#pragma once

#include <sys/types.h>

#include <functional>

// Polls cond every few milliseconds until it holds or timeout_ms passes.
bool eventually(const std::function<bool()>& cond, int timeout_ms = 2000);

// The number of open descriptors once it has stopped changing: ours, or
// another process's (ten equal counts in a row 10 ms apart; after five
// seconds the count is returned as it is, for the comparison to show).
int settled_fd_count();
int settled_fd_count(pid_t pid);
