// The caller policy: which users, groups and uids besides root may call which
// commands of which service, and which group may send on the message queues.
// Read from PATH_CALLER_POLICY at start and again on SIGHUP; asked once per
// connection (admission, on the producer's thread) and once per request.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

struct CallerPolicy {
    // One "COMMANDS = CALLER" of a service's section.
    struct Grant {
        std::string service;
        std::string commands;  // a command name or an fnmatch glob
        bool anyone = false;
        std::optional<uid_t> uid;
        std::optional<gid_t> gid;
        std::vector<uid_t> members;  // a group's listed members, resolved at load

        bool matches(uid_t caller_uid, gid_t caller_gid) const;
    };
    std::vector<Grant> grants;
    std::optional<gid_t> sender_group;

    // Some command of service is granted to the caller.
    bool admits(const std::string& service, uid_t uid, gid_t gid) const;
    bool grants_command(const std::string& service, const std::string& command, uid_t uid, gid_t gid) const;
};

// Policy text as the file holds it. Each line that cannot be used (no
// section, no "=", an unknown user or group, a bad caller) is described in
// problems and left out; the rest stands.
CallerPolicy parse_caller_policy(const std::string& text, std::vector<std::string>& problems);

// Reads PATH_CALLER_POLICY (under the platform root) and puts it in force,
// with one log line saying what now holds. A file that is missing,
// unreadable, not a regular file, or that anyone but root (or the daemon's
// own user) owns or could change, grants nothing.
void load_caller_policy();

// Root and the daemon's own user are always let in and granted everything.
bool caller_admitted(const char* service, uid_t uid, gid_t gid);
bool caller_granted(const char* service, const char* command, uid_t uid, gid_t gid);
// The group the policy lets send on the message queues, if any.
std::optional<gid_t> policy_sender_group();

// The services' admission check (a dv_admit_fn): a refusal is audited.
int admit_caller(const char* service, int pid, u_int32_t uid, u_int32_t gid, void* arg);
