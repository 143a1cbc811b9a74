// Every command handler of both services. Each takes the request's message
// object and the extra descriptor the client sent (-1 when none), and ends
// with exactly one reply unless its own description says otherwise.
#pragma once

#include <string>

#include "dv.h"

// Liveness tests and simple queries (handlers/system/simple_queries.cc, vpd.cc).
void nox_test_handler(dv_io* io, int fd);
void nox_test_sendmail_srv_handler(dv_io* io, int fd);
void nox_exec_cli_handler(dv_io* io, int fd);
void nox_get_cfg_tvDeck_handler(dv_io* io, int fd);
void nox_is_generic_model_handler(dv_io* io, int fd);
void nox_get_platform_display_name_handler(dv_io* io, int fd);
void nox_get_vpd_productnamed_handler(dv_io* io, int fd);
void nox_get_vpd_eepkey_handler(dv_io* io, int fd);
void nox_get_vpd_channel_handler(dv_io* io, int fd);
void nox_get_vpd_ext_area_handler(dv_io* io, int fd);
void nox_system_call_vexpro_disable_handler(dv_io* io, int fd);
void nox_system_call_share_folder_renew_handler(dv_io* io, int fd);

// One field of the hardware's product data, by object index ("0:7"): 0 with
// the bare value in *out, or -2 (the tool could not be run, or did not print
// exactly one "KEY = value"), then with its raw output in *out.
int system_call_hwdapp_vpdget(const char* obj_index, std::string* out);

// Session id and mail.
void nox_get_sess_id_handler(dv_io* io, int fd);
void nox_sendmail_handler(dv_io* io, int fd);
// At start: a mail log directory or spool under /tmp that is not root's is
// moved aside and both are made afresh, so that nobody who made them first
// can stop the mail.
void reclaim_mail_dirs();

// Share and search-index exceptions.
void nox_system_call_share_lock_add_handler(dv_io* io, int fd);
void nox_system_call_share_lock_remove_handler(dv_io* io, int fd);
void nox_system_call_tandex_list_add_handler(dv_io* io, int fd);
void nox_system_zel_smb_setfolder_priv_handler(dv_io* io, int fd);

// Cloud analysis records.
void nox_system_call_cloud_analysis_register_handler(dv_io* io, int fd);
void nox_system_call_cloud_analysis_send_handler(dv_io* io, int fd);
void nox_system_call_cloud_analysis_flush_handler(dv_io* io, int fd);
void nox_system_call_cloud_analysis_unregister_handler(dv_io* io, int fd);

// IP ban list.
void nox_update_ip_ban_list_handler(dv_io* io, int fd);

// Authentication sessions.
void nox_vex_auth_add_session_handler(dv_io* io, int fd);
void nox_vex_auth_get_session_handler(dv_io* io, int fd);

// Users, groups and SMS settings.
void nox_get_sms_config_handler(dv_io* io, int fd);
void nox_get_all_users_handler(dv_io* io, int fd);
void nox_get_all_groups_handler(dv_io* io, int fd);
void nox_get_group_members_handler(dv_io* io, int fd);

// Notification and small queries.
void nox_system_call_nc_notify_handler(dv_io* io, int fd);
void nox_system_get_tierlink_cloud_usage_handler(dv_io* io, int fd);
void nox_system_is_ZEL_model_handler(dv_io* io, int fd);
void nox_return_handler(dv_io* io, int fd);

// Reverse proxy, browser containers, app installation.
void nox_reverse_proxy_handler(dv_io* io, int fd);
void nox_web_booth_handler(dv_io* io, int fd);
void nox_install_app_handler(dv_io* io, int fd);

// Cloud account queries.
void nox_system_call_cloud_get_device_list_handler(dv_io* io, int fd);
void nox_system_call_cloud_get_user_token_handler(dv_io* io, int fd);
void nox_system_call_cloud_get_host_endpoint_handler(dv_io* io, int fd);
void nox_system_call_cloud_get_host_site_handler(dv_io* io, int fd);
void nox_system_call_cloud_get_access_token_handler(dv_io* io, int fd);

// Event-log writers.
void nox_system_call_log_tool_handler(dv_io* io, int fd);
void nox_system_conn_log_tool_handler(dv_io* io, int fd);

// Media-viewer control.
void nox_cmv_cli_handler(dv_io* io, int fd);
