// Waiting for asynchronous effects in tests: a service closes descriptors on
// its own threads a moment after the client has its answer.
#pragma once

#include <functional>

// Polls cond every few milliseconds until it holds or timeout_ms passes.
bool eventually(const std::function<bool()>& cond, int timeout_ms = 2000);

// The number of open descriptors once it has stopped changing.
int settled_fd_count();
