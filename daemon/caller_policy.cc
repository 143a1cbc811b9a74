// The caller policy file, its checks, and the policy in force. Names are
// resolved when the file is read, so that a connection's check is a walk
// over a short list and never waits for the user database.
#include "daemon/caller_policy.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "daemon/audit.h"
#include "daemon/log.h"
#include "daemon/safe_files.h"
#include "daemon/scoped_fd.h"
#include "daemon/strutil.h"
#include "platform/paths.h"

namespace {

// The section that is no service: who may send on the message queues.
constexpr const char kQueueSection[] = "queues";
// A policy is a few lines; anything much bigger is not one.
constexpr size_t kPolicyMax = 64 * 1024;

std::atomic<std::shared_ptr<const CallerPolicy>> g_policy;

std::string trimmed(const std::string& s)
{
    const size_t first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

bool number(const std::string& text, unsigned& out)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9)
        return false;
    out = static_cast<unsigned>(strtoul(text.c_str(), nullptr, 10));
    return true;
}

std::optional<uid_t> user_id(const std::string& name)
{
    struct passwd pw, *found = nullptr;
    std::vector<char> buf(16384);
    if (getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found) != 0 || !found)
        return std::nullopt;
    return found->pw_uid;
}

// The group's id and the uids of its listed members.
std::optional<gid_t> group_id(const std::string& name, std::vector<uid_t>* members)
{
    struct group gr, *found = nullptr;
    std::vector<char> buf(65536);
    if (getgrnam_r(name.c_str(), &gr, buf.data(), buf.size(), &found) != 0 || !found)
        return std::nullopt;
    for (char** m = found->gr_mem; members && m && *m; ++m)
        if (std::optional<uid_t> uid = user_id(*m))
            members->push_back(*uid);
    return found->gr_gid;
}

// One caller of a grant line; false with why.
bool parse_caller(const std::string& word, CallerPolicy::Grant& g, std::string& why)
{
    if (word == "*") {
        g.anyone = true;
        return true;
    }
    const size_t colon = word.find(':');
    const std::string kind = word.substr(0, colon), name = colon == std::string::npos ? "" : word.substr(colon + 1);
    unsigned id = 0;
    if (kind == "uid" && number(name, id)) {
        g.uid = id;
    } else if (kind == "gid" && number(name, id)) {
        g.gid = id;
    } else if (kind == "user" && !name.empty()) {
        g.uid = user_id(name);
        why = "no user " + name;
    } else if (kind == "group" && !name.empty()) {
        g.gid = group_id(name, &g.members);
        why = "no group " + name;
    } else {
        why = "\"" + word + "\" is no caller (user:NAME, group:NAME, uid:N, gid:N or *)";
        return false;
    }
    return g.uid || g.gid;
}

bool privileged(uid_t uid)
{
    return uid == 0 || uid == geteuid();
}

// Every directory from the one holding path up to the platform root (or
// "/"), after links are resolved: nobody but root or us may change them.
bool trusted_dirs(const std::string& real, std::string& why)
{
    char top[PATH_MAX] = "/";
    const std::string root = platform_path("");
    if (!root.empty() && !realpath(root.c_str(), top))
        snprintf(top, sizeof(top), "/");
    std::string dir = real;
    for (;;) {
        const size_t slash = dir.rfind('/');
        dir.resize(slash == 0 ? 1 : slash);
        struct stat st;
        if (stat(dir.c_str(), &st) != 0) {
            why = dir + ": " + strerror(errno);
            return false;
        }
        if (!owned_by_us(st) || (st.st_mode & (S_IWGRP | S_IWOTH))) {
            why = dir + (owned_by_us(st) ? " is writable by group or others" :
                                           " belongs to uid " + std::to_string(st.st_uid));
            return false;
        }
        if (dir == "/" || dir == top)
            return true;
    }
}

// The file's text, when it is one that only root (or we) could have written.
bool read_policy_file(std::string& text, std::string& why)
{
    const std::string path = platform_path(PATH_CALLER_POLICY);
    char real[PATH_MAX];
    if (!realpath(path.c_str(), real)) {
        why = errno == ENOENT ? "is missing" : std::string("cannot be read: ") + strerror(errno);
        return false;
    }
    if (!trusted_dirs(real, why))
        return false;
    ScopedFd fd(open(real, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat st;
    if (!fd.ok() || fstat(fd.get(), &st) != 0) {
        why = std::string("cannot be read: ") + strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode))
        why = "is not a regular file";
    else if (!owned_by_us(st))
        why = "belongs to uid " + std::to_string(st.st_uid);
    else if (st.st_mode & (S_IWGRP | S_IWOTH))
        why = "is writable by group or others";
    else if (st.st_size > static_cast<off_t>(kPolicyMax))
        why = "is larger than " + std::to_string(kPolicyMax) + " bytes";
    if (!why.empty())
        return false;
    text.resize(static_cast<size_t>(st.st_size));
    ssize_t got = pread(fd.get(), text.data(), text.size(), 0);
    if (got < 0) {
        why = std::string("cannot be read: ") + strerror(errno);
        return false;
    }
    text.resize(static_cast<size_t>(got));
    return true;
}

}  // namespace

bool CallerPolicy::Grant::matches(uid_t caller_uid, gid_t caller_gid) const
{
    return anyone || (uid && *uid == caller_uid) || (gid && *gid == caller_gid) ||
           std::find(members.begin(), members.end(), caller_uid) != members.end();
}

bool CallerPolicy::admits(const std::string& service, uid_t uid, gid_t gid) const
{
    for (const Grant& g : grants)
        if (g.service == service && g.matches(uid, gid))
            return true;
    return false;
}

bool CallerPolicy::grants_command(const std::string& service, const std::string& command, uid_t uid,
                                  gid_t gid) const
{
    for (const Grant& g : grants)
        if (g.service == service && g.matches(uid, gid) && fnmatch(g.commands.c_str(), command.c_str(), 0) == 0)
            return true;
    return false;
}

CallerPolicy parse_caller_policy(const std::string& text, std::vector<std::string>& problems)
{
    CallerPolicy policy;
    std::string section;
    const std::vector<std::string> lines = str_split_to_vector(text, "\n", false);
    for (size_t n = 0; n < lines.size(); ++n) {
        const std::string line = trimmed(lines[n]);
        const std::string where = "line " + std::to_string(n + 1) + ": ";
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line.front() == '[' && line.back() == ']') {
            section = trimmed(line.substr(1, line.size() - 2));
            continue;
        }
        const size_t eq = line.find('=');
        const std::string key = eq == std::string::npos ? "" : trimmed(line.substr(0, eq));
        if (section.empty() || key.empty()) {
            problems.push_back(where + (section.empty() ? "outside any [service] section" : "no \"NAME = ...\""));
            continue;
        }
        std::string value = line.substr(eq + 1);
        std::replace(value.begin(), value.end(), ',', ' ');
        const std::vector<std::string> words = str_split_to_vector(value, " \t", true);
        if (section == kQueueSection) {
            std::optional<gid_t> gid;
            if (key != "senders" || words.size() != 1 || !(gid = group_id(words[0], nullptr)))
                problems.push_back(where + "[queues] takes one line \"senders = GROUP\" naming a known group");
            else
                policy.sender_group = gid;
            continue;
        }
        for (const std::string& word : words) {
            CallerPolicy::Grant g;
            g.service = section;
            g.commands = key;
            std::string why;
            if (parse_caller(word, g, why))
                policy.grants.push_back(std::move(g));
            else
                problems.push_back(where + why);
        }
    }
    return policy;
}

void load_caller_policy()
{
    std::string text, why;
    auto policy = std::make_shared<CallerPolicy>();
    if (!read_policy_file(text, why)) {
        g_policy.store(policy);
        DBG("caller policy %s %s: only root may call.", PATH_CALLER_POLICY, why.c_str());
        return;
    }
    std::vector<std::string> problems;
    *policy = parse_caller_policy(text, problems);
    for (const std::string& problem : problems)
        DBG("caller policy %s %s; left out.", PATH_CALLER_POLICY, log_text(problem).c_str());
    const size_t grants = policy->grants.size();
    const bool senders = policy->sender_group.has_value();
    g_policy.store(policy);
    DBG("caller policy %s read: %zu grants%s.", PATH_CALLER_POLICY, grants,
        senders ? ", a group of queue senders" : "");
}

bool caller_admitted(const char* service, uid_t uid, gid_t gid)
{
    if (privileged(uid))
        return true;
    std::shared_ptr<const CallerPolicy> policy = g_policy.load();
    return policy && service && policy->admits(service, uid, gid);
}

bool caller_granted(const char* service, const char* command, uid_t uid, gid_t gid)
{
    if (privileged(uid))
        return true;
    std::shared_ptr<const CallerPolicy> policy = g_policy.load();
    return policy && service && command && policy->grants_command(service, command, uid, gid);
}

std::optional<gid_t> policy_sender_group()
{
    std::shared_ptr<const CallerPolicy> policy = g_policy.load();
    return policy ? policy->sender_group : std::nullopt;
}

int admit_caller(const char* service, int pid, u_int32_t uid, u_int32_t gid, void*)
{
    if (caller_admitted(service, uid, gid))
        return 1;
    audit_refused_connection(service, pid, uid);
    return 0;
}
