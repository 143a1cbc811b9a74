// The platform's local users and groups, a group's members, and the SMS
// notification settings, read through the platform's libraries, which are
// loaded for each call.
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/handler_kit.h"
#include "daemon/platform_lib.h"
#include "handlers/handlers.h"
#include "handlers/registry.h"
#include "platform/paths.h"
#include "platform/platform_libs.h"

std::atomic<Get_Local_User_List_V2_fn> p_Get_Local_User_List_V2{nullptr};
std::atomic<Get_Local_Group_List_V2_fn> p_Get_Local_Group_List_V2{nullptr};
std::atomic<Get_NAS_User_List_Of_Group_Ex_fn> p_Get_NAS_User_List_Of_Group_Ex{nullptr};
std::atomic<Get_SMS_config_fn> p_Get_SMS_config{nullptr};

namespace {

// The text of a fixed-width field: up to its first NUL, never past its end.
std::string field_text(const char* field, size_t width)
{
    return std::string(field, strnlen(field, width));
}

template <size_t N>
std::string field_text(const char (&field)[N])
{
    return field_text(field, N);
}

// "local_count" and, when there is at least one name, the list key with the
// names in the library's order. The library's block is ours to free.
void reply_local_names(dv_io* io, std::atomic<Get_Local_User_List_V2_fn>& slot, const char* symbol, size_t width,
                       const char* list_key, const char* failure)
{
    Json::Value reply;
    char* list = nullptr;
    int count = 0;
    int ret = -1;
    bool called = call_platform_function(PATH_LIB_NAS, symbol, slot,
                                         [&](Get_Local_User_List_V2_fn fn) { ret = fn(&list, 0, 0, 0, &count); });
    if (!called || ret < 0 || count < 0 || (count > 0 && !list)) {
        if (called && ret >= 0)
            DBG("%s returned %d with count %d and %s list", symbol, ret, count, list ? "a" : "no");
        set_failure(reply, failure);
    } else {
        reply["result"] = 0;
        reply["local_count"] = count;
        // No names, no key: callers test for the key, not for an empty array.
        if (count > 0) {
            Json::Value names(Json::arrayValue);
            for (int i = 0; i < count; ++i)
                names.append(field_text(list + static_cast<size_t>(i) * width, width));
            reply[list_key] = names;
        }
    }
    free(list);
    send_reply(io, reply);
}

}  // namespace

void nox_get_all_users_handler(dv_io* io, int)
{
    reply_local_names(io, p_Get_Local_User_List_V2, "Get_Local_User_List_V2", NAS_USER_ENTRY_LEN, "user_list",
                      "nox_get_all_users_handler fail");
}

void nox_get_all_groups_handler(dv_io* io, int)
{
    reply_local_names(io, p_Get_Local_Group_List_V2, "Get_Local_Group_List_V2", NAS_GROUP_ENTRY_LEN, "group_list",
                      "nox_get_all_groups_handler fail");
}

void nox_get_group_members_handler(dv_io* io, int)
{
    Json::Value reply;
    std::string group_name;
    if (fetch_request_args(io, reply, keys::get_group_members, {&group_name})) {
        char** members = nullptr;
        int count = -1;
        bool called = call_platform_function(
            PATH_LIB_NAS, "Get_NAS_User_List_Of_Group_Ex", p_Get_NAS_User_List_Of_Group_Ex,
            [&](Get_NAS_User_List_Of_Group_Ex_fn fn) { count = fn(group_name.c_str(), &members); });
        if (!called || count < 0 || (count > 0 && !members)) {
            if (called && count > 0)
                DBG("Get_NAS_User_List_Of_Group_Ex counted %d members of %s but listed none", count,
                    group_name.c_str());
            set_failure(reply, "nox_get_group_members_handler fail");
        } else {
            // One flag per member, true where the library has an entry:
            // callers count members this way and never receive the names.
            Json::Value flags(Json::arrayValue);
            for (int i = 0; i < count; ++i)
                flags.append(Json::Value(members[i] != nullptr));
            reply["result"] = 0;
            reply["user_count"] = count;
            reply["user_list"] = flags;
        }
        if (members && count > 0)
            for (int i = 0; i < count; ++i)
                free(members[i]);
        free(members);
    }
    send_reply(io, reply);
}

void nox_get_sms_config_handler(dv_io* io, int)
{
    Json::Value reply;
    // The library fills a record we own; its result says nothing we use, so a
    // record it leaves untouched comes back as zeros and empty texts.
    T_SMS_CONFIG config = {};
    bool called = call_platform_function(PATH_LIB_CONFIG, "Get_SMS_config", p_Get_SMS_config,
                                         [&](Get_SMS_config_fn fn) { fn(&config); });
    if (called) {
        reply["mode"] = config.mode;
        reply["max_provider"] = config.max_provider;
        reply["now_provider"] = config.now_provider;
        reply["using_provider"] = config.using_provider;
        reply["country"] = field_text(config.country);
        reply["country_code"] = field_text(config.country_code);
        reply["phone1"] = field_text(config.phone1);
        reply["phone2"] = field_text(config.phone2);
        reply["result"] = 0;
    } else {
        set_failure(reply, "nox_get_sms_config_handler fail");
    }
    send_reply(io, reply);
}
