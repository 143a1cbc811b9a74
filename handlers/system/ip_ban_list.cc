// The web front end's ban list: the app's list of client addresses becomes
// one Apache fragment of deny rules, and the proxy web server and its TLS
// tunnel are told to reload it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

namespace {

// Each piece becomes the rest of one "deny from" line, which the web server
// reads as it likes: a line break starts a directive of the caller's, a
// trailing backslash joins the next line, a word such as "all" denies
// everyone. Only an IPv4 or IPv6 address, or a CIDR range of one, is taken;
// blanks around it are kept as the caller wrote them.
bool is_address_or_range(const std::string& text)
{
    std::string address = text;
    std::string prefix;
    const size_t slash = text.find('/');
    if (slash != std::string::npos) {
        address = text.substr(0, slash);
        prefix = text.substr(slash + 1);
    }
    unsigned char buf[sizeof(in6_addr)];
    int bits;
    if (inet_pton(AF_INET, address.c_str(), buf) == 1)
        bits = 32;
    else if (inet_pton(AF_INET6, address.c_str(), buf) == 1)
        bits = 128;
    else
        return false;
    if (slash == std::string::npos)
        return true;
    if (prefix.empty() || prefix.size() > 3 || prefix.find_first_not_of("0123456789") != std::string::npos)
        return false;
    return std::stoi(prefix) <= bits;
}

bool all_addresses(const std::vector<std::string>& pieces)
{
    for (const std::string& piece : pieces) {
        const size_t first = piece.find_first_not_of(' ');
        const size_t last = piece.find_last_not_of(' ');
        if (first == std::string::npos || !is_address_or_range(piece.substr(first, last - first + 1)))
            return false;
    }
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
    std::lock_guard<std::mutex> one_writer(ban_list_lock);
    const int fd = platform_open(PATH_IP_BAN_LIST, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    FILE* file = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (!file) {
        const int err = errno;
        if (fd >= 0)
            close(fd);
        errno = err;
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
    if (fetch_request_args(io, reply, keys::update_ip_ban_list, {&ip_list})) {
        // Pieces are taken as they are: blanks kept, no de-duplication; an
        // empty list denies nobody.
        std::vector<std::string> addresses = str_split_to_vector(ip_list, ",", true);
        if (!all_addresses(addresses)) {
            DBG("ip_list holds something other than addresses; %s left as it was.", PATH_IP_BAN_LIST);
            set_failure(reply, "nox_update_ip_ban_list_handler fail");
        } else if (!write_ban_list(ban_list_text(addresses))) {
            set_failure(reply, "nox_update_ip_ban_list_handler fail");
        } else {
            // The web server first, then its TLS tunnel. Their
            // statuses are not ours to report: the list is written, and a
            // server that failed to reload picks it up when it next starts.
            run_program(PATH_APACHE_PROXY, {"-k", "graceful", "-f", PATH_APACHE_SYS_PROXY_CONF});
            run_program(PATH_STUNNEL, {"reload"});
            reply["result"] = 0;
        }
    }
    send_reply(io, reply);
}
