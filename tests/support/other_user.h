// Acting as another, unprivileged user from a test: a forked child that
// drops to that user before it does anything, for tests of what the daemon
// refuses to callers that are not root.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

// The spare account the tests act as ("nobody" on most systems).
inline constexpr uid_t kSpareUid = 65534;
inline constexpr gid_t kSpareGid = 65534;

// Whether this test process may become another user (it runs as root).
bool can_switch_user();

// Runs body in a forked child that has dropped to uid/gid (no supplementary
// groups) and hands back the text it returned. Nothing when the child could
// not drop, died, or took longer than timeout_ms (it is killed then). Fork
// only while the test runs a single thread.
std::optional<std::string> run_as(uid_t uid, gid_t gid, const std::function<std::string()>& body,
                                  int timeout_ms = 30000);

// Starts body in a forked child that has dropped to uid/gid as run_as does;
// the child's exit code is what body returns (111 when it could not drop).
// Fork only while the test runs a single thread.
pid_t start_as(uid_t uid, gid_t gid, const std::function<int()>& body);
// Waits up to timeout_ms for a child of ours: its exit code, or -1 when it
// died by a signal or had to be killed at the deadline.
int wait_child(pid_t pid, int timeout_ms);

// Lets everyone search (not list) directory path, so another user can reach
// a socket or file inside it that is open to them. False on failure.
bool allow_search(const std::string& path);
