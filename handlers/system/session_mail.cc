// Acting with a user's credentials: logging a platform user in through admctl
// for a session id, and sending one mail that the app prepared in the spool
// through the system's sendmail.
//
// The mail's files live under /tmp, where everybody may create entries: the
// spool directory is the app's drop box (root's, which anyone may write into,
// or the calling app's own) and the log directory is ours. Nothing there is
// used through a link or a file that someone else planted, and a directory
// someone else made first under either name is moved aside rather than
// allowed to stop all mail. What stays open to a race is noted where it
// happens.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "daemon/mail_dirs.h"
#include "daemon/safe_files.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

// admctl prints "Login <user> OK." and then "Session id: <sid>"; anything
// else is a failed login, whatever the tool says about it.
bool admctl_session_id(const std::string& user, const std::string& pwd, std::string& sid)
{
    char user_arg[32], pw_arg[32];
    snprintf(user_arg, sizeof(user_arg), "user=%s", user.c_str());
    snprintf(pw_arg, sizeof(pw_arg), "pw=%s", pwd.c_str());
    std::string output;
    if (run_program(PATH_ADMCTL, {"-l", user_arg, pw_arg}, output) == -1)
        return false;
    std::vector<std::string> lines = str_split_to_vector(output, "\n", true);
    if (lines.size() != 2)
        return false;
    std::vector<std::string> words = str_split_to_vector(lines[1], " ", true);
    if (words.size() != 3)
        return false;
    sid = words[2];
    return true;
}

// The app names its spool files; it never gets to point us elsewhere.
bool is_file_name(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// "<spool>/<name>" as sendmail is told it, cut to 255 characters as the app
// has always had it.
std::string spool_path(const std::string& name)
{
    char path[256];
    snprintf(path, sizeof(path), "%s/%s", PATH_SENDMAIL_SPOOL_DIR, name.c_str());
    return path;
}

const char* base_name(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// One mail: what sendmail is told and the files we checked for it.
struct MailJob {
    std::string user, pwd;
    std::string conf_path, content_path;  // as sendmail sees them
    std::string conf_name, content_name;  // the same files as entries of the spool
    bool authenticated = false;
    uid_t caller = 0;

    ScopedFd spool, log_dir;  // the two directories, checked
    ScopedFd conf, content;   // the spool files; closed when missing
    ScopedFd log;             // sendmail.log, when sendmail is to run

    MailJob(const std::string& u, const std::string& p, const std::string& conf_file, const std::string& content_file)
        : user(u), pwd(p), conf_path(spool_path(conf_file)), content_path(spool_path(content_file)),
          conf_name(conf_path.substr(sizeof(PATH_SENDMAIL_SPOOL_DIR))),
          content_name(content_path.substr(sizeof(PATH_SENDMAIL_SPOOL_DIR))), authenticated(!u.empty() && !p.empty())
    {
    }
    // The file that becomes sendmail's standard input: the configuration
    // when the mail goes out authenticated, the content otherwise.
    const ScopedFd& input() const { return authenticated ? conf : content; }
    // sendmail opens its configuration ("-C") itself, by name: a missing one
    // could be made by anybody between our look and its open, so without
    // one it is not run at all, as without an input.
    bool sendable() const { return conf.ok() && input().ok(); }
};

bool refuse(const std::string& what, const std::string& why)
{
    DBG("%s %s; mail refused.", what.c_str(), why.c_str());
    return false;
}

// A spool file, opened for what it is now. Missing is no reason to refuse:
// the reply tells the app, as it always has. One of another user than the
// caller (or root) is not the app's mail.
bool open_spool_file(const MailJob& job, const std::string& name, const std::string& path, ScopedFd& file)
{
    std::string why;
    ScopedFd fd(open_regular_file(job.spool.get(), name.c_str(), why));
    if (!fd.ok() && errno != ENOENT)
        return refuse(path, why);
    struct stat st;
    if (fd.ok() && fstat(fd.get(), &st) != 0)
        return refuse(path, std::string("cannot stat it: ") + strerror(errno));
    if (fd.ok() && !owned_by_us(st) && st.st_uid != job.caller)
        return refuse(path, "belongs to uid " + std::to_string(st.st_uid));
    file.reset(fd.release());
    return true;
}

// Opens and checks everything the mail touches before anything runs or
// moves. False (logged) when the mail must not be sent at all.
bool open_mail_files(MailJob& job)
{
    std::string why;
    // The app may have made the spool itself; a directory of any other user
    // (squatted in /tmp before the app made its own) is theirs to swap
    // entries in, and is moved aside.
    job.spool.reset(open_mail_dir(PATH_SENDMAIL_SPOOL_DIR, true, false, job.caller, why));
    if (!job.spool.ok())
        return refuse(PATH_SENDMAIL_SPOOL_DIR, why);
    if (!open_spool_file(job, job.conf_name, job.conf_path, job.conf) ||
        !open_spool_file(job, job.content_name, job.content_path, job.content))
        return false;

    // 0755 and no more: /tmp is everyone's, and in a directory that others
    // could write into they could plant a link or a file of their own just
    // where root is about to write.
    job.log_dir.reset(open_mail_dir(PATH_SENDMAIL_LOG_DIR, false, true, std::nullopt, why));
    if (!job.log_dir.ok())
        return refuse(PATH_SENDMAIL_LOG_DIR, why);
    // The two copies of the last mail are only ever replaced by rename, which
    // acts on the entry, never on what it leads to; they are the app's files
    // (it wrote them into the spool), so they are not ours to expect.
    for (const char* path : {PATH_SENDMAIL_LOG, PATH_SENDMAIL_DBG})
        if (!entry_absent_or_own(job.log_dir.get(), base_name(path), why))
            return refuse(path, why);

    if (job.sendable()) {
        // Made here, not by the runner (which would make it 0774): in /tmp
        // nobody but us should be able to write into root's mail log.
        job.log.reset(open_own_file(job.log_dir.get(), base_name(PATH_SENDMAIL_LOG), O_WRONLY | O_CREAT, 0644, why));
        if (!job.log.ok())
            return refuse(PATH_SENDMAIL_LOG, why);
    }
    return true;
}

// The raw wait status of sendmail, or -1 when it could not be started.
int run_sendmail(const MailJob& job)
{
    if (!job.sendable()) {
        // What the runner does with an input it cannot open: nothing starts,
        // and no log of this call is left behind.
        if (!job.conf.ok())
            DBG("%s is missing; sendmail not run.", job.conf_path.c_str());
        unlinkat(job.log_dir.get(), base_name(PATH_SENDMAIL_LOG), 0);
        return -1;
    }
    // The input and the log go to sendmail as the descriptors checked above,
    // whatever happens to the spool entries meanwhile.
    // sendmail opens its configuration ("-C") itself, by its spool name. The
    // entry it reaches is the file checked above: the spool is nobody else's
    // to write into, or sticky, so no other user can replace the caller's
    // file, and the caller could as well have written another one.
    if (job.authenticated) {
        char user_opt[64], pwd_opt[64];
        snprintf(user_opt, sizeof(user_opt), "-au%s", job.user.c_str());
        // Deliberately the same "-au" form as the user, not an option of
        // its own.
        snprintf(pwd_opt, sizeof(pwd_opt), "-au%s", job.pwd.c_str());
        return run_program_through(PATH_SENDMAIL, {user_opt, pwd_opt, "-C", job.conf_path, "-t"}, job.input().get(),
                                   job.log.get());
    }
    return run_program_through(PATH_SENDMAIL, {"-C", job.conf_path, "-t"}, job.input().get(), job.log.get());
}

// Moves one spool file to target in the log directory, replacing the last
// mail's. It goes first to a name of this request's own (the descriptor's
// number is unique among the files open at once), where only we can touch
// it, so that we can see whether it is still the file we checked: someone
// may have swapped the spool entry since. Errors are ignored, as always.
void move_spool_file(const MailJob& job, const ScopedFd& file, const std::string& name, const char* target)
{
    if (!file.ok())
        return;  // missing: nothing to move
    const std::string staging = std::string(".") + base_name(target) + "." + std::to_string(file.get());
    if (renameat(job.spool.get(), name.c_str(), job.log_dir.get(), staging.c_str()) != 0)
        return;
    if (entry_is_file(job.log_dir.get(), staging.c_str(), file.get())) {
        if (renameat(job.log_dir.get(), staging.c_str(), job.log_dir.get(), base_name(target)) != 0)
            unlinkat(job.log_dir.get(), staging.c_str(), 0);
        return;
    }
    // Not the mail's file: it goes back where it came from.
    DBG("%s/%s changed while the mail was sent; left in the spool.", PATH_SENDMAIL_SPOOL_DIR, name.c_str());
    if (renameat(job.log_dir.get(), staging.c_str(), job.spool.get(), name.c_str()) != 0 &&
        unlinkat(job.log_dir.get(), staging.c_str(), 0) != 0)
        unlinkat(job.log_dir.get(), staging.c_str(), AT_REMOVEDIR);
}

// sendmail.dbg, the trace of the last call. It holds the password in clear,
// so only its owner may read it.
void write_mail_trace(const MailJob& job, int ret)
{
    std::string why;
    ScopedFd fd(open_own_file(job.log_dir.get(), base_name(PATH_SENDMAIL_DBG), O_WRONLY | O_CREAT, 0600, why));
    if (!fd.ok() || ftruncate(fd.get(), 0) != 0 || fchmod(fd.get(), 0600) != 0) {
        DBG("%s %s; not written.", PATH_SENDMAIL_DBG, fd.ok() ? strerror(errno) : why.c_str());
        return;
    }
    FILE* trace = fdopen(fd.get(), "w");
    if (!trace)
        return;
    fd.release();
    // The two command fields have always been written empty.
    fprintf(trace, "str_usr=[%s]\n", job.user.c_str());
    fprintf(trace, "str_pwd=[%s]\n", job.pwd.c_str());
    fprintf(trace, "str_conf_path=[%s]\n", job.conf_path.c_str());
    fprintf(trace, "str_content_path=[%s]\n", job.content_path.c_str());
    fprintf(trace, "str_cmd_sendmail=[%s]\n", "");
    fprintf(trace, "str_cmd_rm=[%s]\n", "");
    fprintf(trace, "ret_val=[%d]\n", ret);
    fclose(trace);
}

}  // namespace

void reclaim_mail_dirs()
{
    std::string why;
    for (bool spool : {false, true}) {
        const char* dir = spool ? PATH_SENDMAIL_SPOOL_DIR : PATH_SENDMAIL_LOG_DIR;
        ScopedFd fd(open_mail_dir(dir, spool, true, std::nullopt, why));
        if (!fd.ok())
            DBG("%s %s; mail will try again.", dir, why.c_str());
    }
}

void nox_get_sess_id_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string user, pwd;
    if (fetch_request_args(io, reply, keys::get_sess_id, {&user, &pwd})) {
        std::string sid;
        if (admctl_session_id(user, pwd, sid)) {
            reply["sid"] = sid;
            reply["error_code"] = 0;
        } else {
            reply["error_msg"] = "get_sess_id fail";
            reply["error_code"] = -2;
        }
    }
    send_reply(io, reply);
}

void nox_sendmail_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string user, pwd, config_file, content_file;
    if (fetch_request_args(io, reply, keys::sendmail, {&user, &pwd, &config_file, &content_file})) {
        MailJob job(user, pwd, config_file, content_file);
        job.caller = static_cast<uid_t>(dv_io_uid(io));
        DBG("exec sendmail start.");
        if (!is_file_name(config_file) || !is_file_name(content_file)) {
            DBG("config_file [%s] or content_file [%s] is not a file name; mail refused.", config_file.c_str(),
                content_file.c_str());
            reply["result"] = -1;
        } else if (!open_mail_files(job)) {
            reply["result"] = -1;
        } else {
            int ret = run_sendmail(job);
            move_spool_file(job, job.conf, job.conf_name, PATH_SENDMAIL_CONF_COPY);
            move_spool_file(job, job.content, job.content_name, PATH_SENDMAIL_CONTENT_COPY);
            write_mail_trace(job, ret);
            DBG("str_conf_path=[%s].", job.conf_path.c_str());
            DBG("str_content_path=[%s].", job.content_path.c_str());
            DBG("str_cmd_sendmail=[%s].", "");
            DBG("ret_val=[%d].\n", ret);
            // The raw wait status, never mapped to -1: exit code 1 is 256.
            reply["result"] = ret;
        }
    }
    send_reply(io, reply);
}
