// What an unprivileged caller may make us run: the program check of exec_cli
// (no shells or interpreters, nothing that someone else could swap in on the
// way) and the ownership walk for scripts whose folder a request names.
#pragma once

#include <string>

// Whether a caller that is not root may have program run. Refused, with why
// set, when the path as given or the file it reaches through symbolic links
// matches the blocked-program list (shells, busybox, php, python) or our
// longer list of interpreters and programs that start others (env, perl,
// awk, find, xargs, the program loader, ...); when any directory or link met
// on the way to it, or the file itself, could be changed by a user other
// than root or us; or when the file is a script with an interpreter line,
// or an ELF object without an interpreter that is no static program (the
// loader, a shared library). A path that reaches nothing is
// allowed: it cannot run, and nobody but root or us could create it there.
bool exec_program_allowed(const std::string& program, std::string& why);

// Whether the file at path (an absolute path on the appliance, below the
// platform root) may be run for a request: the platform root and every
// directory below it down to the file, and the file itself, belong to root
// or to us and are writable by neither group nor others. No symbolic link is
// followed below the platform root, and ".." is refused. False with why.
bool trusted_script(const std::string& path, std::string& why);
