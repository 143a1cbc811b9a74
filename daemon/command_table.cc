// The rows of both command tables. A row whose handler is not written yet
// holds nullptr and names its handler in a comment: replace the one with the
// other when the handler arrives.
#include "daemon/command_table.h"

#include <iterator>

#include "handlers/handlers.h"

const T_COMMAND_ENTRY handler[] = {
    {"test", nox_test_handler},
    {"exec_cli", nox_exec_cli_handler},
    {"get_tvdeck_status", nox_get_cfg_tvDeck_handler},
    // Event-log writers: not written yet.
    {"system_call_log_tool", nullptr},  // nox_system_call_log_tool_handler
    {"system_conn_log_tool", nullptr},  // nox_system_conn_log_tool_handler
    // Session id: not written yet.
    {"get_sess_id", nullptr},  // nox_get_sess_id_handler
    // Share locks: not written yet.
    {"system_call_share_lock_add", nullptr},     // nox_system_call_share_lock_add_handler
    {"system_call_share_lock_remove", nullptr},  // nox_system_call_share_lock_remove_handler
    {"system_call_vexpro_disable", nox_system_call_vexpro_disable_handler},
    {"get_vpd_productnamed", nox_get_vpd_productnamed_handler},
    {"get_vpd_eepkey", nox_get_vpd_eepkey_handler},
    {"get_vpd_channel", nox_get_vpd_channel_handler},
    {"get_vpd_ext_area", nox_get_vpd_ext_area_handler},
    {"is_generic_model", nox_is_generic_model_handler},
    {"get_platform_display_name", nox_get_platform_display_name_handler},
    // Cloud analysis records: not written yet.
    {"system_call_cloud_analysis_register", nullptr},    // nox_system_call_cloud_analysis_register_handler
    {"system_call_cloud_analysis_send", nullptr},        // nox_system_call_cloud_analysis_send_handler
    {"system_call_cloud_analysis_flush", nullptr},       // nox_system_call_cloud_analysis_flush_handler
    {"system_call_cloud_analysis_unregister", nullptr},  // nox_system_call_cloud_analysis_unregister_handler
    // Share privileges: not written yet.
    {"system_zel_smb_setfolder_priv", nullptr},  // nox_system_zel_smb_setfolder_priv_handler
    {"system_call_share_folder_renew", nox_system_call_share_folder_renew_handler},
    // Search-index exception: not written yet.
    {"system_call_tandex_list_add", nullptr},  // nox_system_call_tandex_list_add_handler
    // Authentication sessions: not written yet.
    {"vex_auth_add_session", nullptr},  // nox_vex_auth_add_session_handler
    {"vex_auth_get_session", nullptr},  // nox_vex_auth_get_session_handler
    // Users, groups and SMS settings: not written yet.
    {"get_sms_config", nullptr},     // nox_get_sms_config_handler
    {"get_all_users", nullptr},      // nox_get_all_users_handler
    {"get_all_groups", nullptr},     // nox_get_all_groups_handler
    {"get_group_members", nullptr},  // nox_get_group_members_handler
    // Notification and small queries: not written yet.
    {"system_call_nc_notify", nullptr},            // nox_system_call_nc_notify_handler
    {"system_get_tierlink_cloud_usage", nullptr},  // nox_system_get_tierlink_cloud_usage_handler
    {"is_zel_model", nullptr},                     // nox_system_is_ZEL_model_handler
    // IP ban list: not written yet.
    {"update_ip_ban_list", nullptr},  // nox_update_ip_ban_list_handler
    // Notify result (with the small queries above): not written yet.
    {"notify_return", nullptr},  // nox_return_handler
    // Cloud account queries: not written yet.
    {"system_call_cloud_get_device_list", nullptr},     // nox_system_call_cloud_get_device_list_handler
    {"system_call_cloud_get_user_token", nullptr},      // nox_system_call_cloud_get_user_token_handler
    {"system_call_cloud_get_host_endpoint", nullptr},   // nox_system_call_cloud_get_host_endpoint_handler
    {"system_call_cloud_get_host_site", nullptr},       // nox_system_call_cloud_get_host_site_handler
    {"system_call_cloud_get_access_token", nullptr},    // nox_system_call_cloud_get_access_token_handler
    // Reverse proxy, browser containers, app installation: not written yet.
    {"reverse_proxy", nullptr},  // nox_reverse_proxy_handler
    {"web_booth", nullptr},      // nox_web_booth_handler
    {"install_app", nullptr},    // nox_install_app_handler
    // Media-viewer control: not written yet.
    {"cmv_cli", nullptr},  // nox_cmv_cli_handler
};
const size_t handler_size = std::size(handler);

const T_COMMAND_ENTRY sendmail_handler[] = {
    {"test", nox_test_sendmail_srv_handler},
    // Mail sending: not written yet.
    {"sendmail", nullptr},  // nox_sendmail_handler
};
const size_t sendmail_handler_size = std::size(sendmail_handler);
