// Looking at the test process's open descriptors, to prove that nothing
// leaks and that children inherit nothing they should not.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// The descriptors listed in /proc/self/fd, without the one used to list them.
std::vector<int> open_fds();
int count_open_fds();

// Those of open_fds() that a child would inherit (no FD_CLOEXEC).
std::vector<int> inheritable_fds();

// The number of descriptors another process has open (its /proc/<pid>/fd).
int count_open_fds_of(pid_t pid);

// One line per open descriptor of this process, "  fd -> target", for
// messages that name what leaked.
std::string describe_open_fds();
