// Entry of the multi-call stub that stands in for every platform program: it
// finds its root and its own platform path, journals the call, applies the
// steering files of the root and otherwise behaves as the program would.
#include "platform/paths.h"
#include "sim/simlib.h"
#include "sim/tools.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <unistd.h>

namespace sim {

std::string Call::under(const std::string& platform_path) const
{
    // Relative paths stay relative, as they would inside a chroot.
    return !platform_path.empty() && platform_path[0] == '/' ? root + platform_path : platform_path;
}

std::string Call::state(const std::string& name) const
{
    return root + STATE_DIR + "/" + name;
}

const std::string& Call::arg(std::size_t i) const
{
    static const std::string none;
    return i < argv.size() ? argv[i] : none;
}

void out(const std::string& text) { sim::write_all(1, text); }
void err(const std::string& text) { sim::write_all(2, text); }

int usage(const Call& call, const std::string& synopsis)
{
    std::string base = call.self.substr(call.self.find_last_of('/') + 1);
    err("Usage: " + base + " " + synopsis + "\n");
    return 2;
}

bool option_pairs(const Call& call, std::size_t from, std::initializer_list<const char*> allowed,
                  std::map<std::string, std::string>& opts)
{
    for (std::size_t i = from; i < call.argc(); i += 2) {
        const std::string& name = call.arg(i);
        bool known = false;
        for (const char* a : allowed)
            known = known || name == a;
        if (!known || i + 1 >= call.argc() || !opts.emplace(name, call.arg(i + 1)).second)
            return false;
    }
    return true;
}

std::string token_of(const std::string& text)
{
    // FNV-1a: stable across runs, so tests can predict it.
    unsigned long long h = 1469598103934665603ULL;
    for (unsigned char c : text) {
        h ^= c;
        h *= 1099511628211ULL;
    }
    static const char hex[] = "0123456789abcdef";
    std::string out(16, '0');
    for (int i = 15; i >= 0; --i, h >>= 4)
        out[i] = hex[h & 15];
    return out;
}

const std::vector<Tool>& tool_table()
{
    static const std::vector<Tool> table = {
        {PATH_CONF_GET, false, false, run_conf_get},
        {PATH_HWD_APP, false, false, run_hwd_app},
        {PATH_ADMCTL, false, false, run_admctl},
        {PATH_SENDMAIL, false, true, run_sendmail},
        {PATH_SHARE_LOCK, false, false, run_share_lock},
        {PATH_SMB_UPDATE, false, false, run_smb_update},
        {PATH_METRIX_TOOL, false, false, run_metrix_tool},
        {PATH_APACHE_PROXY, false, false, run_apache_proxy},
        {PATH_STUNNEL, false, false, run_stunnel},
        {PATH_GETFATTR, false, false, run_getfattr},
        {PATH_DAEMON_MGR, false, false, run_daemon_mgr},
        {PATH_REVERSEPROXY, false, false, run_reverseproxy},
        {PATH_VESH, false, false, run_vesh},
        {PATH_NIMBO_DEVICE_TOOL, false, false, run_nimbo_device_tool},
        {PATH_NIMBO_CLI, false, false, run_nimbo_cli},
        {PATH_GET_NIMBO_HOST, false, false, run_get_nimbo_host},
        {PATH_NIMBO_AUTH_TOOL, false, false, run_nimbo_auth_tool},
        {PATH_LOG_TOOL, false, false, run_log_tool},
        {PATH_CONN_LOG_TOOL, false, false, run_conn_log_tool},
        // The apps' own programs live wherever the package registry says.
        {"/VexProServer.sh", true, false, run_app_control},
        {"/script/nc_wrapper.sh", true, false, run_nc_wrapper},
        {"/vexpro_notify.sh", true, false, run_notify_script},
        {"/script/operate_appboxcenter_app.sh", true, false, run_appcenter_script},
        {"/bin/conf_get", true, false, run_cmv_cli},
    };
    return table;
}

static const Tool* find_tool(const std::string& self)
{
    for (const Tool& t : tool_table()) {
        std::string p = t.path;
        if (t.by_suffix ? self.size() >= p.size() && self.compare(self.size() - p.size(), p.size(), p) == 0
                        : self == p)
            return &t;
    }
    return nullptr;
}

static std::string read_stdin()
{
    std::string text;
    char buf[8192];
    for (;;) {
        ssize_t n = read(0, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return text;
        text.append(buf, n);
    }
}

static int list_tools()
{
    for (const Tool& t : tool_table())
        if (!t.by_suffix)
            out(std::string(t.path) + "\n");
    return 0;
}

static int run(int argc, char** argv)
{
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    Call call;
    call.self = n > 0 ? std::string(exe, n) : std::string();
    // Under its own name the stub tells make-root where it is to be linked.
    if (call.self.substr(call.self.find_last_of('/') + 1) == "vexprod-sim-stub" && argc == 2 &&
        std::string(argv[1]) == "--list-tools")
        return list_tools();
    call.root = find_root(call.self);
    if (call.root.empty()) {
        // Never journal into, or act on, the real system's files.
        err("vexprod-sim-stub: not inside a simulated platform root\n");
        return 127;
    }
    if (call.self.compare(0, call.root.size() + 1, call.root + "/") == 0)
        call.self.erase(0, call.root.size());
    call.argv.assign(argv, argv + argc);

    const Tool* tool = find_tool(call.self);
    if (tool && tool->reads_stdin)
        call.input = read_stdin();
    journal(call.root, call.self, call.argv, tool && tool->reads_stdin ? &call.input : nullptr);

    const std::string steer = call.root + STEER_DIR + call.self;
    std::string text;
    int value = 0;
    if (read_file(steer + ".delay", text) && parse_int(text, value) && value > 0) {
        timespec ts{value / 1000, (value % 1000) * 1000000L};
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
    int status = 0;
    if (read_file(steer + ".out", text))
        out(text);
    else if (tool)
        status = tool->run(call);
    if (read_file(steer + ".err", text))
        err(text);
    if (read_file(steer + ".exit", text) && parse_int(text, value))
        status = value;
    return status;
}

} // namespace sim

int main(int argc, char** argv)
{
    return sim::run(argc, argv);
}
