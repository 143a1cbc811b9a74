// Acting as another, unprivileged user: a forked child that drops to that
// user (no groups, no way back) before it does anything. Fork only while the
// test runs a single thread.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

// The spare account the tests act as ("nobody" on most systems).
inline constexpr uid_t kSpareUid = 65534;
inline constexpr gid_t kSpareGid = 65534;

bool can_switch_user();

// The text body returned in the child; nothing when the child could not
// drop, died, or took longer than timeout_ms (it is killed then).
std::optional<std::string> run_as(uid_t uid, gid_t gid, const std::function<std::string()>& body,
                                  int timeout_ms = 30000);

// The child's exit code is what body returns (111 when it could not drop).
pid_t start_as(uid_t uid, gid_t gid, const std::function<int()>& body);
// Its exit code, or -1 when it died by a signal or was killed at the deadline.
int wait_child(pid_t pid, int timeout_ms);

// Lets everyone search (not list) directory path, so another user can reach
// a socket or file inside it that is open to them.
bool allow_search(const std::string& path);
