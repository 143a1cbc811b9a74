// The web front end's ban list: the app's list of client addresses becomes
// one Apache fragment of deny rules, and the proxy web server and its TLS
// tunnel are told to reload it.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "daemon/log.h"
#include "daemon/runner.h"
#include "daemon/strutil.h"
#include "handlers/handlers.h"
#include "platform/paths.h"

namespace {

// Each piece becomes the rest of one "deny from" line. A line break inside
// one would start a directive of the caller's choosing.
bool fits_one_line(const std::vector<std::string>& pieces)
{
    for (const std::string& piece : pieces)
        if (piece.find_first_of("\r\n") != std::string::npos)
            return false;
    return true;
}

std::string ban_list_text(const std::vector<std::string>& addresses)
{
    std::string text = "<LocationMatch \"/.*\">\norder allow,deny\n";
    for (const std::string& address : addresses)
        text += "deny from " + address + "\n";
    text += "allow from all\n</LocationMatch>\n";
    return text;
}

// Two requests that truncate and write the same file at once would leave
// the shorter text followed by the tail of the longer one. One writer at a
// time makes the file the last writer's text, whole.
std::mutex ban_list_lock;

// Replaces the file whole. False when it cannot be opened or the text did
// not all reach it; what was written stays.
bool write_ban_list(const std::string& text)
{
    const std::string path = platform_path(PATH_IP_BAN_LIST);
    std::lock_guard<std::mutex> one_writer(ban_list_lock);
    FILE* file = fopen(path.c_str(), "we");
    if (!file) {
        DBG("cannot open %s: %s.", PATH_IP_BAN_LIST, strerror(errno));
        return false;
    }
    size_t written = fwrite(text.data(), 1, text.size(), file);
    // The text is buffered: only fclose shows whether it reached the file.
    bool closed = fclose(file) == 0;
    if (written != text.size() || !closed) {
        DBG("cannot write %s.", PATH_IP_BAN_LIST);
        return false;
    }
    return true;
}

}  // namespace

void nox_update_ip_ban_list_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string ip_list;
    if (fetch_request_args(io, reply, {{"ip_list", &ip_list}})) {
        // Pieces are taken as they are: blanks kept, no address check, no
        // de-duplication; an empty list denies nobody.
        std::vector<std::string> addresses = str_split_to_vector(ip_list, ",", true);
        if (!fits_one_line(addresses)) {
            DBG("ip_list holds a line break; %s left as it was.", PATH_IP_BAN_LIST);
            set_failure(reply, "nox_update_ip_ban_list_handler fail");
        } else if (!write_ban_list(ban_list_text(addresses))) {
            set_failure(reply, "nox_update_ip_ban_list_handler fail");
        } else {
            // The web server first, then its TLS tunnel. Their
            // statuses are not ours to report: the list is written, and a
            // server that failed to reload picks it up when it next starts.
            dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, platform_path(PATH_APACHE_PROXY).c_str(), "-k",
                                   "graceful", "-f", PATH_APACHE_SYS_PROXY_CONF, nullptr);
            dwe_vexprod_tarsk_exec(nullptr, nullptr, nullptr, platform_path(PATH_STUNNEL).c_str(), "reload", nullptr);
            reply["result"] = 0;
        }
    }
    send_reply(io, reply);
}
