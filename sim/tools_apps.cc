// Simulated app-side programs: the daemon manager and the reverse proxy, the
// container shell, the cloud account tools, and the apps' own scripts.
#include "platform/paths.h"
#include "sim/simlib.h"
#include "sim/tools.h"

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace sim {

static std::string json_quote(const std::string& s)
{
    std::string q = "\"";
    for (unsigned char ch : s) {
        if (ch == '"' || ch == '\\') {
            q += '\\';
            q += static_cast<char>(ch);
        } else if (ch < 0x20) {
            static const char hex[] = "0123456789abcdef";
            q += "\\u00";
            q += hex[ch >> 4];
            q += hex[ch & 15];
        } else {
            q += static_cast<char>(ch);
        }
    }
    return q + "\"";
}

// The start command arrives as one argument enclosed in double quotes; the
// manager runs it (inside the root) and reports how it went.
int run_daemon_mgr(const Call& c)
{
    static const char synopsis[] = "NAME start|stop \"COMMAND [ARGS]\"";
    if (c.argc() != 4 || (c.arg(2) != "start" && c.arg(2) != "stop"))
        return usage(c, synopsis);
    std::string line = c.arg(3);
    if (line.size() >= 2 && line.front() == '"' && line.back() == '"')
        line = line.substr(1, line.size() - 2);
    std::vector<std::string> words;
    for (const std::string& w : split(line, ' '))
        if (!w.empty())
            words.push_back(w);
    if (words.empty() || words[0][0] != '/' || access(c.under(words[0]).c_str(), X_OK) != 0) {
        err("daemon_mgr: " + c.arg(1) + ": cannot run " + (words.empty() ? line : words[0]) + "\n");
        return 1;
    }
    std::string program = c.under(words[0]);
    words[0].erase(0, words[0].find_last_of('/') + 1);
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        err("daemon_mgr: " + c.arg(1) + " " + c.arg(2) + " failed\n");
        return 1;
    }
    out("daemon_mgr: " + c.arg(1) + " " + c.arg(2) + " OK\n");
    return 0;
}

// Keeps the pid file as the real server does, so that a start is followed by
// reloads.
int run_reverseproxy(const Call& c)
{
    std::map<std::string, std::string> opts;
    if (!option_pairs(c, 1, {"-k", "-f"}, opts) || !opts.count("-k") || !opts.count("-f"))
        return usage(c, "-k start|stop|graceful|restart -f CONFIG");
    if (!file_exists(c.under(opts["-f"]))) {
        err("reverseproxy_vexpro: Could not open configuration file " + opts["-f"] +
            ": No such file or directory\n");
        return 1;
    }
    const std::string pid_file = c.under(PATH_REVERSEPROXY_PID);
    const std::string& action = opts["-k"];
    std::string pid;
    bool running = read_file(pid_file, pid);
    if (action == "start" || action == "graceful" || action == "restart") {
        if (action == "start" && running) {
            out("httpd (pid " + trim(pid.substr(0, pid.find('\n'))) + ") already running\n");
            return 0;
        }
        if (!running && action != "start")
            out("httpd not running, trying to start\n");
        return write_file(pid_file, std::to_string(getpid()) + "\n") ? 0 : 1;
    }
    if (action == "stop") {
        if (!running)
            out("httpd (no pid file) not running\n");
        unlink(pid_file.c_str());
        return 0;
    }
    return usage(c, "-k start|stop|graceful|restart -f CONFIG");
}

int run_vesh(const Call& c)
{
    std::map<std::string, std::string> kv;
    for (std::size_t i = 2; i < c.argc(); ++i) {
        std::size_t eq = c.arg(i).find('=');
        if (eq == std::string::npos)
            return usage(c, "web-booth.container[.create|.delete] token=T [id=ID] [open_url=URL ...]");
        kv[c.arg(i).substr(0, eq)] = c.arg(i).substr(eq + 1);
    }
    const std::string& cmd = c.arg(1);
    if (kv["token"].empty()) {
        err("vesh: " + cmd + ": token required\n");
        return 1;
    }
    if (cmd == "web-booth.container.create") {
        if (kv["open_url"].empty()) {
            err("vesh: " + cmd + ": open_url required\n");
            return 1;
        }
        out("{\"id\":\"wb-" + token_of(kv["open_url"]).substr(0, 8) + "\",\"status\":\"creating\"}\n");
        return 0;
    }
    if (cmd == "web-booth.container.delete" || cmd == "web-booth.container") {
        if (kv["id"].empty()) {
            err("vesh: " + cmd + ": id required\n");
            return 1;
        }
        const char* status = cmd == "web-booth.container" ? "running" : "deleted";
        out("{\"id\":" + json_quote(kv["id"]) + ",\"status\":\"" + status + "\"}\n");
        return 0;
    }
    err("vesh: unknown command " + cmd + "\n");
    return 1;
}

int run_nimbo_device_tool(const Call& c)
{
    std::map<std::string, std::string> opts;
    if (c.arg(1) != "get_device_list" || !option_pairs(c, 2, {"-d"}, opts) || !opts.count("-d"))
        return usage(c, "get_device_list -d CLIENT_TYPE");
    out("{\"devices\":[{\"name\":\"VX-NAS\",\"model\":\"VX-8\",\"online\":true}]}\n");
    return 0;
}

int run_nimbo_cli(const Call& c)
{
    if (c.argc() != 2 || c.arg(1) != "-t")
        return usage(c, "-t");
    out("nut_" + token_of("user-token") + "\n");
    return 0;
}

int run_get_nimbo_host(const Call& c)
{
    if (c.argc() == 2 && c.arg(1) == "-s") {
        out("eu-central\n");
        return 0;
    }
    if (c.argc() == 3 && c.arg(1) == "-n" && !c.arg(2).empty()) {
        std::string host = c.arg(2);
        for (char& ch : host)
            ch = ch == '_' ? '-' : ch;
        out("https://" + host + ".cloud.nimbo.example\n");
        return 0;
    }
    return usage(c, "-n SERVICE | -s");
}

int run_nimbo_auth_tool(const Call& c)
{
    std::map<std::string, std::string> opts;
    if (c.arg(1) != "signin" || !option_pairs(c, 2, {"-t", "-a", "-i", "-s", "-o"}, opts) || opts.size() != 5 ||
        opts["-t"] != "exchange_token" || opts["-o"] != "json")
        return usage(c, "signin -t exchange_token -a TOKEN -i CLIENT_ID -s CLIENT_SECRET -o json");
    if (opts["-a"].empty() || opts["-i"].empty() || opts["-s"].empty()) {
        out("{\"error\":\"invalid_request\"}\n");
        return 1;
    }
    std::string token = token_of(opts["-a"] + "\n" + opts["-i"] + "\n" + opts["-s"]);
    out("{\"access_token\":\"nat_" + token + "\",\"token_type\":\"Bearer\",\"expires_in\":\"3600\","
        "\"refresh_token\":\"nrt_" + token_of(token) + "\"}\n");
    return 0;
}

// The server app's control script ("Shell" in the package registry).
int run_app_control(const Call& c)
{
    const std::string& a = c.arg(1);
    bool simple = a == "start" || a == "stop" || a == "restart" || a == "force_stop" || a == "share_folder_renew";
    if ((c.argc() == 2 && simple) || (c.argc() == 4 && a == "fabric_tandex_list_add"))
        return 0;
    return usage(c, "{start|stop|restart|force_stop|share_folder_renew|fabric_tandex_list_add NAME PATH}");
}

int run_nc_wrapper(const Call& c)
{
    return c.argc() >= 2 ? 0 : usage(c, "EVENT [ARGS...]");
}

int run_notify_script(const Call& c)
{
    int n = 0;
    if (c.argc() != 4 || c.arg(1) != "NOTIFY_CMD" || !parse_int(c.arg(2), n) || !parse_int(c.arg(3), n))
        return usage(c, "NOTIFY_CMD ACY TYPE");
    return 0;
}

// Installs only when the caller set APPBOXD=ALLOW, as the app centre requires
// of installs that do not come from itself.
int run_appcenter_script(const Call& c)
{
    if (c.argc() != 3 || c.arg(1) != "install")
        return usage(c, "install PACKAGE_FILE");
    const char* allow = getenv("APPBOXD");
    if (!allow || std::string(allow) != "ALLOW") {
        err("operate_appboxcenter_app.sh: install not allowed\n");
        return 1;
    }
    std::string package = c.arg(2);
    if (package.empty() || !file_exists(c.under(package))) {
        err("operate_appboxcenter_app.sh: " + package + ": no such package\n");
        return 1;
    }
    std::string base = package.substr(package.find_last_of('/') + 1);
    out("Installing " + base + " ...\nInstalled " + base + ".\n");
    return 0;
}

// The media viewer's command-line tool.
int run_cmv_cli(const Call& c)
{
    if (c.argc() != 2)
        return usage(c, "COMMAND");
    out("CayinMediaViewer: " + c.arg(1) + ": OK\n");
    return 0;
}

} // namespace sim
