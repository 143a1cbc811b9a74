// The reverse proxy in front of the server: one virtual-host file per rule
// under the proxy's extra/ directory, then a start or graceful reload of the
// proxy, replying with what the control command printed.
#include "handlers/apps/reverse_proxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <initializer_list>
#include <string>

#include "daemon/handler_kit.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"

int get_ssl_cipher(std::string* cipher)
{
    *cipher = "EECDH+CHACHA20:EECDH+AES";
    return 0;
}

int get_ssl_protocol(std::string* protocol)
{
    *protocol = "All -SSLv2 -SSLv3 -TLSv1 -TLSv1.1";
    return 0;
}

bool get_uca_file_exist()
{
    return platform_has(PATH_UCA_PEM);
}

namespace {

struct ProxyRule {
    std::string guid;
    int port = 0;
    int des_port = 0;
    std::string protocol;
    std::string des_protocol;
    bool hsts = false;
    std::string host_name;
};

// The TLS pieces, looked up once per request.
struct TlsSettings {
    std::string cipher;
    std::string protocol;
    bool chain_file = false;
};

// The GUID names a file in extra/: anything that could name another place
// (a '/', "." or "..") or break a log or configuration line is refused.
bool is_plain_file_name(const std::string& guid)
{
    if (guid.empty() || guid == "." || guid == "..")
        return false;
    for (unsigned char ch : guid)
        if (ch == '/' || ch < 0x20 || ch == 0x7f)
            return false;
    return true;
}

bool one_of(const std::string& value, std::initializer_list<const char*> allowed)
{
    for (const char* one : allowed)
        if (value == one)
            return true;
    return false;
}

// Labels of letters, digits and inner hyphens, joined by dots.
bool is_host_name(const std::string& host)
{
    if (host.empty() || host.size() > 253)
        return false;
    size_t start = 0;
    while (true) {
        size_t dot = host.find('.', start);
        const std::string label = host.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-')
            return false;
        for (unsigned char ch : label)
            if (!isalnum(ch) && ch != '-')
                return false;
        if (dot == std::string::npos)
            return true;
        start = dot + 1;
    }
}

// The host as it stands in a URL: a host name, an IPv4 address, or an IPv6
// address in brackets.
bool is_url_host(const std::string& host)
{
    unsigned char buf[sizeof(in6_addr)];
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), buf) == 1;
    return is_host_name(host);
}

// The fields are written into the proxy's configuration, where a blank, a
// quote, a tab or a "|" would add options, targets or directives of the
// caller's own (a back end behind a local socket, say). Each holds exactly
// one of the values it can mean, or the rule is not written; why names the
// first field that does not.
bool rule_is_plain(const ProxyRule& rule, std::string& why)
{
    if (!one_of(rule.protocol, {"http", "https"}))
        why = "protocol";
    else if (!one_of(rule.des_protocol, {"http", "https", "ws", "wss"}))
        why = "des_protocol";
    else if (!is_url_host(rule.host_name))
        why = "host_name";
    else if (rule.port < 1 || rule.port > 65535)
        why = "port";
    else if (rule.des_port < 1 || rule.des_port > 65535)
        why = "des_port";
    else
        return true;
    return false;
}

std::string rule_file(const std::string& guid)
{
    return std::string(PATH_REVERSEPROXY_EXTRA_DIR) + guid + ".conf";
}

std::string virtual_host_text(const ProxyRule& rule, const TlsSettings& tls)
{
    const std::string port = std::to_string(rule.port);
    const std::string target = rule.des_protocol + "://" + rule.host_name + ":" + std::to_string(rule.des_port) + "/";
    std::string text = "Listen " + port + "\n";
    text += "<VirtualHost *:" + port + ">\n";
    if (rule.protocol == "https") {
        text += "\tSSLEngine on\n";
        text += "\tSSLCipherSuite " + tls.cipher + "\n";
        // The protocol string stands alone on its line, without a directive
        // in front of it: the proxy's configuration has always read so.
        text += "\t" + tls.protocol + "\n";
        text += "\tSSLCertificateFile \"/etc/stunnel/stunnel.pem\"\n";
        if (tls.chain_file)
            text += "\tSSLCertificateChainFile \"/etc/stunnel/uca.pem\"\n";
        // Written when the flag is off and left out when it is on: callers
        // depend on this sense of "hsts".
        if (!rule.hsts)
            text += "\tHeader set Strict-Transport-Security \"max-age=63072000\"\n";
    }
    if (rule.des_protocol == "https" || rule.des_protocol == "wss")
        text += "\tSSLProxyEngine on\n\tSSLProxyVerify none\n\tSSLProxyCheckPeerCN off\n"
                "\tSSLProxyCheckPeerName off\n\tSSLProxyCheckPeerExpire off\n";
    text += "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n";
    text += "\tProxyPreserveHost on\n";
    text += "\tProxyPass / " + target + " connectiontimeout=60 timeout=60\n";
    text += "\tProxyPassReverse / " + target + "\n";
    text += "</VirtualHost>\n";
    return text;
}

// Replaces the rule's file. Whatever stands at the name is unlinked first and
// the file is then created exclusively, so a symbolic link planted there is
// removed or refused, never followed. A file that cannot be created is left
// out without a word, as the proxy has always treated it.
void write_rule_file(const std::string& path, const std::string& text)
{
    platform_unlink(path);
    int fd = platform_open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    // Half a virtual host would stop the proxy from loading at all.
    if (done < text.size()) {
        DBG("write %s failed, errno=%d", path.c_str(), errno);
        platform_unlink(path);
    }
}

// The per-rule messages carry the handler's name (handler), as all its
// messages do.
void add_rules(const Json::Value& rules, const char* handler)
{
    TlsSettings tls;
    get_ssl_cipher(&tls.cipher);
    get_ssl_protocol(&tls.protocol);
    tls.chain_file = get_uca_file_exist();

    for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
        const int index = static_cast<int>(i);
        JsonFields fields(rules[i], keys::reverse_proxy_rule, "jRuleList[" + std::to_string(index) + "]");
        ProxyRule rule;
        rule.guid = fields.next_text();
        rule.port = fields.next_number();
        rule.des_port = fields.next_number();
        rule.protocol = fields.next_text();
        rule.des_protocol = fields.next_text();
        rule.hsts = fields.next_flag();
        rule.host_name = fields.next_text();
        // "proxy_timeout" is not read: the time-outs in the file are fixed.
        if (!fields.ok()) {
            dbg_printf2("[%s][%d] %s, skipped", handler, __LINE__, fields.error().c_str());
            continue;
        }
        if (!is_plain_file_name(rule.guid)) {
            dbg_printf2("[%s][%d] get jRuleList[%d] strGUID failed", handler, __LINE__, index);
            continue;
        }
        std::string field;
        if (!rule_is_plain(rule, field)) {
            dbg_printf2("[%s][%d] get jRuleList[%d] %s failed", handler, __LINE__, index, field.c_str());
            continue;
        }
        write_rule_file(rule_file(rule.guid), virtual_host_text(rule, tls));
    }
}

void delete_rules(const Json::Value& rules, const char* handler)
{
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
        const int index = static_cast<int>(i);
        JsonFields fields(rules[i], keys::reverse_proxy_rule, "jRuleList[" + std::to_string(index) + "]");
        std::string guid = fields.next_text();
        if (!fields.ok()) {
            dbg_printf2("[%s][%d] %s, skipped", handler, __LINE__, fields.error().c_str());
            continue;
        }
        if (!is_plain_file_name(guid)) {
            dbg_printf2("[%s][%d] get jRuleList[%d] strGUID failed", handler, __LINE__, index);
            continue;
        }
        // A rule that has no file any more is already gone.
        platform_unlink(rule_file(guid));
    }
}

}  // namespace

void nox_reverse_proxy_handler(dv_io* io, int)
{
    Json::Value root, reply;
    if (!parse_request_object(io, root))
        return;
    JsonFields request(root, keys::reverse_proxy);
    const std::string action = request.next_text();
    if (!request.ok()) {
        reject_request(reply, request.error());
        send_reply(io, reply);
        return;
    }
    if (action != "add" && action != "delete") {
        // The caller learns of it by the connection closing without a reply.
        DBG("unknown action = %s", action.c_str());
        return;
    }
    const Json::Value& rules = request.next_list();
    if (!request.ok()) {
        reject_request(reply, request.error());
        send_reply(io, reply);
        return;
    }

    if (action == "add")
        add_rules(rules, __func__);
    else
        delete_rules(rules, __func__);

    const bool start = action == "add" && !platform_has(PATH_REVERSEPROXY_PID);

    // Not running yet: the daemon manager starts it with the whole command
    // line as one quoted argument. Running: a graceful reload picks the
    // changed files up without dropping connections.
    std::string program;
    std::vector<std::string> args;
    if (start) {
        const std::string proxy_cmd =
            std::string("\"") + PATH_REVERSEPROXY + " -k start -f " + PATH_REVERSEPROXY_CONF + "\"";
        DBG("proxy_cmd = %s", proxy_cmd.c_str());
        program = PATH_DAEMON_MGR;
        args = {"reverseproxy_vexpro", "start", proxy_cmd};
    } else {
        program = PATH_REVERSEPROXY;
        args = {"-k", "graceful", "-f", PATH_REVERSEPROXY_CONF};
    }

    std::string output;
    int ret = run_program(program, args, output, ArgvLog::elements_and_end);
    if (ret != 0) {
        DBG("exec %s failed, ret=[%d]", program.c_str(), ret);
        return;
    }
    DBG("exec %s succ, ret_out=[%s]", program.c_str(), output.c_str());
    // "cli_ret" has always said whether the capture file could be removed,
    // not the program's status; the capture has no name to remove now.
    reply_tool_output(io, output, 0);
}
