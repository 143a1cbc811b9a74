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
    {"system_call_log_tool", nox_system_call_log_tool_handler},
    {"system_conn_log_tool", nox_system_conn_log_tool_handler},
    {"get_sess_id", nox_get_sess_id_handler},
    {"system_call_share_lock_add", nox_system_call_share_lock_add_handler},
    {"system_call_share_lock_remove", nox_system_call_share_lock_remove_handler},
    {"system_call_vexpro_disable", nox_system_call_vexpro_disable_handler},
    {"get_vpd_productnamed", nox_get_vpd_productnamed_handler},
    {"get_vpd_eepkey", nox_get_vpd_eepkey_handler},
    {"get_vpd_channel", nox_get_vpd_channel_handler},
    {"get_vpd_ext_area", nox_get_vpd_ext_area_handler},
    {"is_generic_model", nox_is_generic_model_handler},
    {"get_platform_display_name", nox_get_platform_display_name_handler},
    {"system_call_cloud_analysis_register", nox_system_call_cloud_analysis_register_handler},
    {"system_call_cloud_analysis_send", nox_system_call_cloud_analysis_send_handler},
    {"system_call_cloud_analysis_flush", nox_system_call_cloud_analysis_flush_handler},
    {"system_call_cloud_analysis_unregister", nox_system_call_cloud_analysis_unregister_handler},
    {"system_zel_smb_setfolder_priv", nox_system_zel_smb_setfolder_priv_handler},
    {"system_call_share_folder_renew", nox_system_call_share_folder_renew_handler},
    {"system_call_tandex_list_add", nox_system_call_tandex_list_add_handler},
    {"vex_auth_add_session", nox_vex_auth_add_session_handler},
    {"vex_auth_get_session", nox_vex_auth_get_session_handler},
    {"get_sms_config", nox_get_sms_config_handler},
    {"get_all_users", nox_get_all_users_handler},
    {"get_all_groups", nox_get_all_groups_handler},
    {"get_group_members", nox_get_group_members_handler},
    {"system_call_nc_notify", nox_system_call_nc_notify_handler},
    {"system_get_tierlink_cloud_usage", nox_system_get_tierlink_cloud_usage_handler},
    {"is_zel_model", nox_system_is_ZEL_model_handler},
    {"update_ip_ban_list", nox_update_ip_ban_list_handler},
    {"notify_return", nox_return_handler},
    {"system_call_cloud_get_device_list", nox_system_call_cloud_get_device_list_handler},
    {"system_call_cloud_get_user_token", nox_system_call_cloud_get_user_token_handler},
    {"system_call_cloud_get_host_endpoint", nox_system_call_cloud_get_host_endpoint_handler},
    {"system_call_cloud_get_host_site", nox_system_call_cloud_get_host_site_handler},
    {"system_call_cloud_get_access_token", nox_system_call_cloud_get_access_token_handler},
    {"reverse_proxy", nox_reverse_proxy_handler},
    {"web_booth", nox_web_booth_handler},
    {"install_app", nox_install_app_handler},
    {"cmv_cli", nox_cmv_cli_handler},
};
const size_t handler_size = std::size(handler);

const T_COMMAND_ENTRY sendmail_handler[] = {
    {"test", nox_test_sendmail_srv_handler},
    {"sendmail", nox_sendmail_handler},
};
const size_t sendmail_handler_size = std::size(sendmail_handler);
