// Every absolute path of the platform that the daemon touches, in one table,
// and the one function that maps such a path onto the running system.
//
// On the appliance VEXPROD_PLATFORM_ROOT is unset and platform_path() returns
// the path unchanged. Tests and the demo point it at a simulated root, which
// makes the daemon behave as if chrooted there for the paths it uses itself.
// Paths handed to platform programs as arguments are never rewritten.
#pragma once

#include <sys/types.h>

#include <string>

// Programs.
inline constexpr const char PATH_CONF_GET[] = "/sbin/conf_get";
inline constexpr const char PATH_HWD_APP[] = "/sbin/hwd_app";
inline constexpr const char PATH_ADMCTL[] = "/sbin/admctl";
inline constexpr const char PATH_SENDMAIL[] = "/usr/sbin/sendmail";
inline constexpr const char PATH_SHARE_LOCK[] = "/sbin/share_lock";
inline constexpr const char PATH_SMB_UPDATE[] = "/etc/init.d/vex_smb_update.sh";
inline constexpr const char PATH_METRIX_TOOL[] = "/usr/local/bin/metrix_tool";
inline constexpr const char PATH_APACHE_PROXY[] = "/usr/local/apache/bin/apache_proxy";
inline constexpr const char PATH_STUNNEL[] = "/etc/init.d/stunnel.sh";
inline constexpr const char PATH_GETFATTR[] = "/usr/bin/getfattr";
inline constexpr const char PATH_DAEMON_MGR[] = "/sbin/daemon_mgr";
inline constexpr const char PATH_REVERSEPROXY[] = "/usr/sbin/reverseproxy_vexpro";
inline constexpr const char PATH_VESH[] = "/usr/sbin/vesh";
inline constexpr const char PATH_NIMBO_DEVICE_TOOL[] = "/usr/local/bin/nimbo_device_tool";
inline constexpr const char PATH_NIMBO_CLI[] = "/usr/bin/nimbo_cli";
inline constexpr const char PATH_GET_NIMBO_HOST[] = "/usr/sbin/get_nimbo_host";
inline constexpr const char PATH_NIMBO_AUTH_TOOL[] = "/usr/local/bin/nimbo_auth_tool";
inline constexpr const char PATH_LOG_TOOL[] = "/sbin/log_tool";
inline constexpr const char PATH_CONN_LOG_TOOL[] = "/sbin/conn_log_tool";

// Libraries, loaded per call.
inline constexpr const char PATH_LIB_NASAUTH[] = "/usr/lib/libHalcyon_nasauth.so.1.0.0";
inline constexpr const char PATH_LIB_NAS[] = "/usr/lib/libHalcyon_NAS.so.0.0";
inline constexpr const char PATH_LIB_CONFIG[] = "/usr/lib/libHalcyon_config.so.0.0";

// Configuration and marker files.
inline constexpr const char PATH_APPBOX_CONF[] = "/etc/config/appbox.conf";
inline constexpr const char PATH_UI_CP_CONF[] = "/etc/ixos.ui.cp.conf";
inline constexpr const char PATH_PLATFORM_CONF[] = "/etc/platform.conf";
inline constexpr const char PATH_IS_GENERIC_MARKER[] = "/etc/IS_G";
inline constexpr const char PATH_UCA_PEM[] = "/etc/stunnel/uca.pem";
inline constexpr const char PATH_STUNNEL_PEM[] = "/etc/stunnel/stunnel.pem";
inline constexpr const char PATH_APACHE_SYS_PROXY_CONF[] = "/etc/apache-sys-proxy.conf";
inline constexpr const char PATH_REVERSEPROXY_CONF[] = "/etc/reverseproxy_vexpro/reverseproxy-vexpro.conf";
inline constexpr const char PATH_REVERSEPROXY_PID[] = "/var/lock/apache_reverse_proxy_vexpro.pid";
// Who besides root may call the daemon (see README, "Callers").
inline constexpr const char PATH_CALLER_POLICY[] = "/etc/config/dwe_dv_vexprod.policy";
// Held (flock) by the running daemon: the single-instance test.
inline constexpr const char PATH_INSTANCE_LOCK[] = "/var/lock/dwe_dv_vexprod.lock";

// Files and directories the daemon writes.
inline constexpr const char PATH_IP_BAN_LIST[] = "/etc/default_config/apache/extra/vexcms_ip_ban_list.conf";
inline constexpr const char PATH_REVERSEPROXY_EXTRA_DIR[] = "/etc/reverseproxy_vexpro/extra/";
inline constexpr const char PATH_SENDMAIL_SPOOL_DIR[] = "/tmp/vexpro_sendmail";
inline constexpr const char PATH_SENDMAIL_LOG_DIR[] = "/tmp/.vexpro_log";
inline constexpr const char PATH_SENDMAIL_LOG[] = "/tmp/.vexpro_log/sendmail.log";
inline constexpr const char PATH_SENDMAIL_CONF_COPY[] = "/tmp/.vexpro_log/sendmail.conf";
inline constexpr const char PATH_SENDMAIL_CONTENT_COPY[] = "/tmp/.vexpro_log/sendmail.content";
inline constexpr const char PATH_SENDMAIL_DBG[] = "/tmp/.vexpro_log/sendmail.dbg";

// Relative to an app's Install_Path, read from the package registry. The
// joined path is a platform path like the others: prefix it before use.
inline constexpr const char PATH_APP_LOG_SUBDIR[] = ".log";
inline constexpr const char PATH_APP_NC_WRAPPER[] = "script/nc_wrapper.sh";
inline constexpr const char PATH_APP_NOTIFY_SCRIPT[] = "vexpro_notify.sh";
inline constexpr const char PATH_APP_APPCENTER_SCRIPT[] = "script/operate_appboxcenter_app.sh";
inline constexpr const char PATH_CMV_CLI[] = "bin/conf_get"; // under the media viewer's Install_Path

// The system's own programs: run as they are, never under the platform root.
inline constexpr const char PATH_BIN_MV[] = "/bin/mv";

// Passed to platform programs as arguments only.
inline constexpr const char PATH_ANALYTIC_DIR[] = "/share/DATAVOL1/.@analytic";

// The platform root: $VEXPROD_PLATFORM_ROOT, or "" on the appliance.
const char* platform_root();

// abs_path (absolute) as the daemon must open, exec, stat or dlopen it:
// the platform root followed by abs_path.
std::string platform_path(const char* abs_path);
std::string platform_path(const std::string& abs_path);

// Whether abs_path names anything on the platform (stat succeeds; errno
// says why not).
bool platform_has(const std::string& abs_path);
// open(2) and unlink(2) of abs_path on the platform.
int platform_open(const std::string& abs_path, int flags, mode_t mode = 0);
int platform_unlink(const std::string& abs_path);
