// Simulated "/usr/lib/libHalcyon_nasauth.so.1.0.0": login sessions kept in the
// root's /var/lib/sim/sessions, one record of sid, type, user and extra each.
#include "platform/paths.h"
#include "platform/platform_libs.h"
#include "sim/fields.h"
#include "sim/simlib.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>

extern "C" int auth_add_session(const char* sid, const char* user, int type, const char* extra);
extern "C" int auth_get_session(const char* sid, int type, char* user_buf);
static_assert(std::is_same_v<decltype(&auth_add_session), auth_add_session_fn>);
static_assert(std::is_same_v<decltype(&auth_get_session), auth_get_session_fn>);

namespace {

std::string sessions_file(const std::string& root)
{
    return root + sim::STATE_DIR + "/sessions";
}

const char* text_or_empty(const char* s)
{
    return s ? s : "";
}

} // namespace

extern "C" int auth_add_session(const char* sid, const char* user, int type, const char* extra)
{
    std::string root = sim::root_of_library(reinterpret_cast<const void*>(&auth_add_session));
    sim::journal(root, PATH_LIB_NASAUTH,
                 {"auth_add_session", text_or_empty(sid), text_or_empty(user), std::to_string(type),
                  text_or_empty(extra)},
                 nullptr);
    if (root.empty() || !sid || !*sid || !user || !*user)
        return -1;
    std::string record = sim::join_fields({sid, std::to_string(type), user, text_or_empty(extra)});
    return sim::append_line(sessions_file(root), record) ? 0 : -1;
}

extern "C" int auth_get_session(const char* sid, int type, char* user_buf)
{
    std::string root = sim::root_of_library(reinterpret_cast<const void*>(&auth_get_session));
    sim::journal(root, PATH_LIB_NASAUTH, {"auth_get_session", text_or_empty(sid), std::to_string(type)}, nullptr);
    if (root.empty() || !sid || !user_buf)
        return -1;
    std::string text, found;
    bool any = false;
    sim::read_file(sessions_file(root), text);
    std::vector<std::string> f;
    // The newest registration of a session wins.
    for (const std::string& line : sim::split_lines(text)) {
        if (sim::split_fields(line, f) && f.size() == 4 && f[0] == sid && f[1] == std::to_string(type)) {
            found = f[2];
            any = true;
        }
    }
    if (!any)
        return -1;
    std::size_t n = std::min(found.size(), AUTH_USER_BUF_LEN - 1);
    memcpy(user_buf, found.data(), n);
    user_buf[n] = '\0';
    return 0;
}
