// Simulated system programs: the configuration reader, the hardware and login
// tools, the mailer, share and search-index tools, the analytics tool, the web
// front end's reloads, the attribute reader and the event-log writers.
#include "platform/paths.h"
#include "sim/fields.h"
#include "sim/simlib.h"
#include "sim/tools.h"

namespace sim {

int run_conf_get(const Call& c)
{
    static const char synopsis[] = "SECTION KEY [-c] [-d DEFAULT] [-f FILE]";
    if (c.argc() < 3)
        return usage(c, synopsis);
    std::string file = PATH_APPBOX_CONF;
    std::string fallback;
    bool has_fallback = false;
    for (std::size_t i = 3; i < c.argc(); ++i) {
        const std::string& a = c.arg(i);
        if (a == "-c")
            continue;
        if (a == "-d" && i + 1 < c.argc()) {
            fallback = c.arg(++i);
            has_fallback = true;
        } else if (a == "-f" && i + 1 < c.argc()) {
            file = c.arg(++i);
        } else {
            return usage(c, synopsis);
        }
    }
    std::string text, value;
    if (read_file(c.under(file), text) && ini_value(text, c.arg(1), c.arg(2), value)) {
        out(value + "\n");
        return 0;
    }
    if (has_fallback) {
        out(fallback + "\n");
        return 0;
    }
    return 1;
}

// The product data lives in /var/lib/sim/vpd.conf: [field] maps an object
// index such as 0:7 to its value, [ext_area] data holds the extended area.
int run_hwd_app(const Call& c)
{
    static const char synopsis[] =
        "--vpd_get_field enc_sys_id=root,obj_index=N:M | --vpd_get_ext_area offset=N,length=M";
    if (c.argc() != 3)
        return usage(c, synopsis);
    std::string vpd;
    read_file(c.state("vpd.conf"), vpd);
    const std::string& selector = c.arg(2);
    if (c.arg(1) == "--vpd_get_field") {
        static const std::string prefix = "enc_sys_id=root,obj_index=";
        if (selector.compare(0, prefix.size(), prefix) != 0)
            return usage(c, synopsis);
        std::string index = selector.substr(prefix.size()), value;
        if (!ini_value(vpd, "field", index, value)) {
            err("hwd_app: vpd field " + index + " not found\n");
            return 1;
        }
        out("VPD field " + index + " = " + value + "\n");
        return 0;
    }
    if (c.arg(1) == "--vpd_get_ext_area") {
        std::vector<std::string> parts = split(selector, ',');
        int offset = 0, length = 0;
        if (parts.size() != 2 || parts[0].compare(0, 7, "offset=") != 0 ||
            parts[1].compare(0, 7, "length=") != 0 || !parse_int(parts[0].substr(7), offset) ||
            !parse_int(parts[1].substr(7), length) || offset < 0 || length < 0)
            return usage(c, synopsis);
        std::string area;
        ini_value(vpd, "ext_area", "data", area);
        out((static_cast<std::size_t>(offset) < area.size() ? area.substr(offset, length) : "") + "\n");
        return 0;
    }
    return usage(c, synopsis);
}

static bool is_local_user(const Call& c, const std::string& user)
{
    std::string passwd;
    read_file(c.under("/etc/passwd"), passwd);
    for (const std::string& line : split_lines(passwd))
        if (!user.empty() && split(line, ':')[0] == user)
            return true;
    return false;
}

// Logs a user of the root's /etc/passwd in with any non-empty password.
int run_admctl(const Call& c)
{
    static const char synopsis[] = "-l user=NAME pw=PASSWORD";
    if (c.argc() != 4 || c.arg(1) != "-l" || c.arg(2).compare(0, 5, "user=") != 0 ||
        c.arg(3).compare(0, 3, "pw=") != 0)
        return usage(c, synopsis);
    std::string user = c.arg(2).substr(5), pw = c.arg(3).substr(3);
    if (!is_local_user(c, user) || pw.empty()) {
        out("Login failed: invalid user name or password.\n");
        return 1;
    }
    out("Login " + user + " OK.\nSession id: " + token_of(user + ":" + pw) + "\n");
    return 0;
}

// Reads the mail on standard input (already journaled) and sends it nowhere.
int run_sendmail(const Call& c)
{
    static const char synopsis[] = "[-auUSER -auPASSWORD] -C CONFIG -t";
    std::string config;
    bool to_from_headers = false;
    for (std::size_t i = 1; i < c.argc(); ++i) {
        const std::string& a = c.arg(i);
        if (a.compare(0, 3, "-au") == 0)
            continue;
        if (a == "-t")
            to_from_headers = true;
        else if (a == "-C" && i + 1 < c.argc())
            config = c.arg(++i);
        else
            return usage(c, synopsis);
    }
    if (!to_from_headers || config.empty())
        return usage(c, synopsis);
    if (!file_exists(c.under(config))) {
        err("sendmail: cannot read configuration file " + config + "\n");
        return 78; // EX_CONFIG
    }
    return 0;
}

int run_share_lock(const Call& c)
{
    if ((c.argc() == 4 && c.arg(1) == "add") || (c.argc() == 3 && c.arg(1) == "remove"))
        return 0;
    return usage(c, "add SHARE OWNER | remove SHARE");
}

int run_smb_update(const Call& c)
{
    return c.argc() == 4 ? 0 : usage(c, "COMMAND SHARE PRIVILEGE");
}

int run_metrix_tool(const Call& c)
{
    std::map<std::string, std::string> opts;
    if (c.argc() < 2 || !option_pairs(c, 2, {"-p", "-c", "-r", "-e"}, opts) || !opts.count("-p"))
        return usage(c, "COMMAND -p PROVIDER [-c DIR] [-r TYPE -e TEXT]");
    return 0;
}

// Apache refuses to do anything without its configuration file.
static bool config_present(const Call& c, const std::string& file)
{
    if (file_exists(c.under(file)))
        return true;
    std::string base = c.self.substr(c.self.find_last_of('/') + 1);
    err(base + ": Could not open configuration file " + file + ": No such file or directory\n");
    return false;
}

int run_apache_proxy(const Call& c)
{
    std::map<std::string, std::string> opts;
    if (!option_pairs(c, 1, {"-k", "-f"}, opts) || !opts.count("-k") || !opts.count("-f"))
        return usage(c, "-k start|stop|graceful -f CONFIG");
    return config_present(c, opts["-f"]) ? 0 : 1;
}

int run_stunnel(const Call& c)
{
    const std::string& a = c.arg(1);
    if (c.argc() != 2 || (a != "start" && a != "stop" && a != "restart" && a != "reload"))
        return usage(c, "{start|stop|restart|reload}");
    out("stunnel: " + a + " done.\n");
    return 0;
}

// Extended attributes come from /var/lib/sim/xattrs, records of path, name
// and value; the path must exist in the root.
int run_getfattr(const Call& c)
{
    bool only_values = false;
    std::string name, path;
    for (std::size_t i = 1; i < c.argc(); ++i) {
        const std::string& a = c.arg(i);
        if (a == "--only-values")
            only_values = true;
        else if (a == "--absolute-names")
            continue;
        else if (a == "-n" && i + 1 < c.argc())
            name = c.arg(++i);
        else if (a.empty() || a[0] != '-')
            path = a;
        else
            return usage(c, "[--only-values] [--absolute-names] -n NAME PATH");
    }
    if (name.empty() || path.empty())
        return usage(c, "[--only-values] [--absolute-names] -n NAME PATH");
    if (!file_exists(c.under(path))) {
        err("getfattr: " + path + ": No such file or directory\n");
        return 1;
    }
    std::string table;
    read_file(c.state("xattrs"), table);
    std::vector<std::string> f;
    for (const std::string& line : split_lines(table)) {
        if (!split_fields(line, f) || f.size() != 3 || f[0] != path || f[1] != name)
            continue;
        // The value is printed as stored, without a newline, like the real tool.
        out(only_values ? f[2] : "# file: " + path + "\n" + name + "=\"" + f[2] + "\"\n\n");
        return 0;
    }
    err(path + ": " + name + ": No such attribute\n");
    return 1;
}

int run_log_tool(const Call& c)
{
    std::map<std::string, std::string> opts;
    int type = 0;
    if (!option_pairs(c, 1, {"-t", "-a"}, opts) || opts.size() != 2 || !parse_int(opts["-t"], type))
        return usage(c, "-t TYPE -a MESSAGE");
    return 0;
}

int run_conn_log_tool(const Call& c)
{
    std::map<std::string, std::string> opts;
    int n = 0;
    if (!option_pairs(c, 1, {"-t", "-i", "-n", "-a", "-u", "-p", "-m"}, opts) || opts.size() != 7 ||
        !parse_int(opts["-t"], n) || !parse_int(opts["-i"], n) || !parse_int(opts["-n"], n))
        return usage(c, "-t TYPE -i SERVICE -n ACTION -a MESSAGE -u USER -p IP -m COMPUTER");
    return 0;
}

} // namespace sim
