// The command tables of both services and their callbacks, and the request
// keys of every command that reads any, in the order it reads them, each
// named after its command. The rows of the command tables
// (registry.cc) and the handlers share these, so a key is written once:
// a handler asks for keys::<command> and never spells a key itself.
#pragma once

#include <cstddef>

#include "daemon/command_table.h"
#include "dv.h"

namespace keys {

inline constexpr T_REQUEST_KEY system_call_log_tool[] = {{"log_type", "int"}, {"log_mseg", "string"}};
inline constexpr T_REQUEST_KEY system_conn_log_tool[] = {
    {"log_type", "int"},      {"service_type", "int"}, {"action_type", "int"},       {"log_mseg", "string"},
    {"user_name", "string"}, {"IP", "string"},        {"computer_name", "string"}};
inline constexpr T_REQUEST_KEY get_sess_id[] = {{"user", "string"}, {"pwd", "string"}};
inline constexpr T_REQUEST_KEY share_lock[] = {{"share_name", "string"}};
// "offest" is the key callers have always sent.
inline constexpr T_REQUEST_KEY get_vpd_ext_area[] = {{"offest", "int"}, {"length", "int"}};
inline constexpr T_REQUEST_KEY cloud_analysis[] = {{"provide_id", "string"}, {"command", "string"}};
inline constexpr T_REQUEST_KEY cloud_analysis_send[] = {
    {"provide_id", "string"}, {"command", "string"}, {"record_type", "string"}, {"record_text", "string"}};
inline constexpr T_REQUEST_KEY system_zel_smb_setfolder_priv[] = {
    {"share_name", "string"}, {"command", "string"}, {"priv_type", "string"}};
inline constexpr T_REQUEST_KEY system_call_tandex_list_add[] = {{"exclude_name", "string"},
                                                                {"exclude_path", "string"}};
inline constexpr T_REQUEST_KEY vex_auth_add_session[] = {{"type", "int"}, {"user", "string"}, {"sid", "string"}};
inline constexpr T_REQUEST_KEY vex_auth_get_session[] = {{"type", "int"}, {"length", "int"}, {"sid", "string"}};
inline constexpr T_REQUEST_KEY get_group_members[] = {{"group_name", "string"}};
inline constexpr T_REQUEST_KEY system_call_nc_notify[] = {{"nc_notify", "string"}};
inline constexpr T_REQUEST_KEY system_get_tierlink_cloud_usage[] = {{"full_path", "string"}};
inline constexpr T_REQUEST_KEY update_ip_ban_list[] = {{"ip_list", "string"}};
inline constexpr T_REQUEST_KEY notify_return[] = {{"cmd", "int"}, {"type", "int"}, {"acy", "int"}};
inline constexpr T_REQUEST_KEY system_call_cloud_get_access_token[] = {
    {"client_id", "string"}, {"client_secret", "string"}, {"access_token", "string"}};
inline constexpr T_REQUEST_KEY reverse_proxy[] = {{"action", "string"}, {"rule_list", "array"}};
// A rule to delete is read as far as its GUID only.
inline constexpr T_REQUEST_KEY reverse_proxy_rule[] = {
    {"GUID", "string"},         {"port", "int"},   {"des_port", "int"},        {"protocol", "string"},
    {"des_protocol", "string"}, {"hsts", "bool"}, {"host_name", "string"}};
inline constexpr T_REQUEST_KEY web_booth[] = {{"action", "string"}, {"auth_token", "string"}, {"rule_list", "array"}};
inline constexpr T_REQUEST_KEY web_booth_rule[] = {{"bs_id", "string"},
                                                   {"des_protocol", "string"},
                                                   {"host_name", "string"},
                                                   {"des_port", "int"},
                                                   {"browser_type", "string"}};
inline constexpr T_REQUEST_KEY install_app[] = {{"sys_install_folder", "string"}, {"app_file_path", "string"}};
inline constexpr T_REQUEST_KEY cmv_cli[] = {{"cmd", "string"}};
inline constexpr T_REQUEST_KEY sendmail[] = {
    {"user", "string"}, {"pwd", "string"}, {"config_file", "string"}, {"content_file", "string"}};

}  // namespace keys

// The two services' command tables and their exec callbacks, which the
// program hands to dv_create.

// "VexProServer-vexprod": searched in this order, first match wins. The row
// order is part of the contract with existing callers; keep it.
extern const T_COMMAND_ENTRY handler[];
extern const size_t handler_size;

// "VexProServer_send_mail-vexprod": "test" and "sendmail", in that order.
extern const T_COMMAND_ENTRY sendmail_handler[];
extern const size_t sendmail_handler_size;

// "VexProServer-vexprod", over the table `handler`.
void service_handler(const char* name, dv_io* io, int fd);
// "VexProServer_send_mail-vexprod", over the table `sendmail_handler`.
void sendmail_service_handler(const char* name, dv_io* io, int fd);
