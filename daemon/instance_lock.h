// The single-instance test: a lock (flock) on a file of ours under the
// platform root, held for the daemon's whole life. Any user can name a
// process after the daemon; nobody but root can take this lock from it.
#pragma once

#include <sys/types.h>

#include <string>

// Takes the lock on PATH_INSTANCE_LOCK and writes our pid into the file.
// 0 once it is ours (the descriptor stays open, close-on-exec, until exit);
// the pid of the holder when another instance holds it (-1 when that cannot
// be read); -2 when the file cannot be made ours, with why.
pid_t take_instance_lock(std::string& why);

// Writes our pid into the lock file again: after daemon() we are another
// process, and the lock (kept across the fork) is ours.
void write_instance_pid();
