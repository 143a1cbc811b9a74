// The simulated platform programs: one multi-call binary that learns which
// program it is from where it was started (its path inside the root).
#pragma once

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace sim {

// One run of a simulated program.
struct Call {
    std::string root;              // host directory of the platform root
    std::string self;              // this program's platform path, e.g. "/sbin/conf_get"
    std::vector<std::string> argv; // as received, argv[0] included
    std::string input;             // standard input, for programs that read it

    // A platform path as this program opens it: inside the root.
    std::string under(const std::string& platform_path) const;
    // A file of the simulated platform's own state ("/var/lib/sim/<name>").
    std::string state(const std::string& name) const;
    std::size_t argc() const { return argv.size(); }
    const std::string& arg(std::size_t i) const;
};

// Standard output and error, written at once and whole.
void out(const std::string& text);
void err(const std::string& text);
// A usage error as the platform's tools report it: message on stderr, status 2.
int usage(const Call& call, const std::string& synopsis);
// Reads "-x value" pairs from argv[from] on into opts. False on an option
// outside allowed, a repeated one or one without its value.
bool option_pairs(const Call& call, std::size_t from, std::initializer_list<const char*> allowed,
                  std::map<std::string, std::string>& opts);
// A short stable token derived from text, for ids and session keys.
std::string token_of(const std::string& text);

struct Tool {
    const char* path;  // platform path, or the tail of one for app scripts
    bool by_suffix;    // path is the tail of an app's Install_Path
    bool reads_stdin;  // the journal records what it read
    int (*run)(const Call&);
};

// Every simulated program, exact paths before tails.
const std::vector<Tool>& tool_table();

// The programs' default behaviours (tools_system.cc, tools_apps.cc).
int run_conf_get(const Call&);
int run_hwd_app(const Call&);
int run_admctl(const Call&);
int run_sendmail(const Call&);
int run_share_lock(const Call&);
int run_smb_update(const Call&);
int run_metrix_tool(const Call&);
int run_apache_proxy(const Call&);
int run_stunnel(const Call&);
int run_getfattr(const Call&);
int run_log_tool(const Call&);
int run_conn_log_tool(const Call&);

int run_daemon_mgr(const Call&);
int run_reverseproxy(const Call&);
int run_vesh(const Call&);
int run_nimbo_device_tool(const Call&);
int run_nimbo_cli(const Call&);
int run_get_nimbo_host(const Call&);
int run_nimbo_auth_tool(const Call&);
int run_app_control(const Call&);
int run_nc_wrapper(const Call&);
int run_notify_script(const Call&);
int run_appcenter_script(const Call&);
int run_cmv_cli(const Call&);

} // namespace sim
