// Every command of both tables answered by the daemon binary with a
// well-formed request: the list below must name exactly the tables' rows, so
// a command added to a table without being exercised here fails the test.
#include <gtest/gtest.h>

#include <set>
#include <span>
#include <string>
#include <vector>

#include "daemon/command_table.h"
#include "daemon/json.h"
#include "support/daemon_process.h"
#include "support/sim_root.h"

namespace {

struct Exercise {
    const char* command;
    const char* request;
};

const Exercise kMain[] = {
    {"test", "{}"},
    {"exec_cli", R"({"command":["/bin/echo","hello"]})"},
    {"get_tvdeck_status", "{}"},
    {"system_call_log_tool", R"({"log_type":1,"log_mseg":"coverage"})"},
    {"system_conn_log_tool",
     R"({"log_type":1,"service_type":2,"action_type":3,"log_mseg":"m","user_name":"u","IP":"10.0.0.9","computer_name":"pc"})"},
    {"get_sess_id", R"({"user":"admin","pwd":"secret"})"},
    {"system_call_share_lock_add", R"({"share_name":"Recordings"})"},
    {"system_call_share_lock_remove", R"({"share_name":"Recordings"})"},
    {"system_call_vexpro_disable", "{}"},
    {"get_vpd_productnamed", "{}"},
    {"get_vpd_eepkey", "{}"},
    {"get_vpd_channel", "{}"},
    {"get_vpd_ext_area", R"({"offest":0,"length":8})"},
    {"is_generic_model", "{}"},
    {"get_platform_display_name", "{}"},
    {"system_call_cloud_analysis_register", R"({"provide_id":"vexpro","command":"register"})"},
    {"system_call_cloud_analysis_send",
     R"({"provide_id":"vexpro","command":"send","record_type":"1","record_text":"camera added"})"},
    {"system_call_cloud_analysis_flush", R"({"provide_id":"vexpro","command":"flush"})"},
    {"system_call_cloud_analysis_unregister", R"({"provide_id":"vexpro","command":"unregister"})"},
    {"system_zel_smb_setfolder_priv", R"({"share_name":"Recordings","command":"set","priv_type":"rw"})"},
    {"system_call_share_folder_renew", "{}"},
    {"system_call_tandex_list_add", R"({"exclude_name":"rec","exclude_path":"/share/Recordings"})"},
    {"vex_auth_add_session", R"({"type":1,"user":"alice","sid":"coverage-sid"})"},
    {"vex_auth_get_session", R"({"type":1,"length":256,"sid":"coverage-sid"})"},
    {"get_sms_config", "{}"},
    {"get_all_users", "{}"},
    {"get_all_groups", "{}"},
    {"get_group_members", R"({"group_name":"everyone"})"},
    {"system_call_nc_notify", R"({"nc_notify":"camera 3 offline"})"},
    {"system_get_tierlink_cloud_usage", R"({"full_path":"/share/CloudGW"})"},
    {"is_zel_model", "{}"},
    {"update_ip_ban_list", R"({"ip_list":"10.0.0.1,10.0.0.2"})"},
    {"notify_return", R"({"cmd":3,"type":1,"acy":0})"},
    {"system_call_cloud_get_device_list", "{}"},
    {"system_call_cloud_get_user_token", "{}"},
    {"system_call_cloud_get_host_endpoint", "{}"},
    {"system_call_cloud_get_host_site", "{}"},
    {"system_call_cloud_get_access_token", R"({"client_id":"c","client_secret":"s","access_token":"t"})"},
    {"reverse_proxy",
     R"({"action":"add","rule_list":[{"GUID":"cam1","port":9443,"des_port":80,"protocol":"https","des_protocol":"http","hsts":false,"host_name":"camera1"}]})"},
    {"web_booth",
     R"({"action":"get_status","auth_token":"tok","rule_list":[{"bs_id":"b1","des_protocol":"http","host_name":"camera1","des_port":8080}]})"},
    {"install_app",
     R"({"sys_install_folder":"/opt/VexProServer","app_file_path":"/share/Public/demo.pkg","install_volume":"1"})"},
    {"cmv_cli", R"({"cmd":"status"})"},
};

const Exercise kMail[] = {
    {"test", "{}"},
    {"sendmail", R"({"user":"","pwd":"","config_file":"cov.conf","content_file":"cov.content"})"},
};

std::set<std::string> names_of(std::span<const T_COMMAND_ENTRY> table)
{
    std::set<std::string> out;
    for (const T_COMMAND_ENTRY& e : table)
        out.insert(e.name);
    return out;
}

std::set<std::string> names_of(std::span<const Exercise> list)
{
    std::set<std::string> out;
    for (const Exercise& e : list)
        out.insert(e.command);
    return out;
}

TEST(CommandCoverage, EveryCommandOfBothTablesAnswersAWellFormedRequest)
{
    EXPECT_EQ(names_of(kMain), names_of({handler, handler_size}));
    EXPECT_EQ(std::size(kMain), handler_size);
    EXPECT_EQ(names_of(kMail), names_of({sendmail_handler, sendmail_handler_size}));

    SimRoot root;
    root.write_file("/share/Public/demo.pkg", "package");
    root.write_file("/tmp/vexpro_sendmail/cov.conf", "account default\n");
    root.write_file("/tmp/vexpro_sendmail/cov.content", "Subject: coverage\n\nhello\n");
    DaemonProcess daemon(root);
    ASSERT_TRUE(daemon.start()) << daemon.stderr_text();
    // Each reply is one JSON object without a failure text, as a caller that
    // sent a good request sees it (each command's exact texts are asserted
    // by its own suite).
    for (const bool mail : {false, true}) {
        for (const Exercise& e : mail ? std::span<const Exercise>(kMail) : std::span<const Exercise>(kMain)) {
            SCOPED_TRACE(e.command);
            int status = -1;
            const std::string reply = mail ? daemon.call_mail(e.command, e.request, &status)
                                           : daemon.call(e.command, e.request, &status);
            Json::Value root;
            ASSERT_EQ(status, 0);
            ASSERT_TRUE(json_parse(reply, root) && root.isObject()) << reply;
            EXPECT_FALSE(root.isMember("error_msg")) << reply;
        }
    }
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.stderr_text(), "");
}

}  // namespace
