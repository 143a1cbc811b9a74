// The test process's open descriptors, to prove that nothing leaks and that
// children inherit nothing they should not.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

std::vector<int> open_fds();
int count_open_fds();
// Those a child would inherit (no FD_CLOEXEC).
std::vector<int> inheritable_fds();
int count_open_fds_of(pid_t pid);
// "  fd -> target" a line, for messages that name what leaked.
std::string describe_open_fds();
