// Every fixed path of the daemon. Tests reach them through a private mount
// namespace, never through another prefix.
#pragma once

#define QZ_FILE_LOCK_PATH "/tmp/qz_fh_lock"
#define QZ_CONFIG_PATH "/etc/qz_fh_audit.json"
#define QZ_SPOOL_DIR_FORMAT "/tmp/%d"
#define QZ_CLT_WIFI_INFO_DIR "/tmp/qztmp/clt_wifi_info/"
#define QZ_CLT_AP_INFO_DIR "/tmp/qztmp/clt_ap_info/"
#define QZ_AC_STATUS_PATH "/tmp/qztmp/AC.status"
#define QZ_SHELL_SOCK_PATH "/tmp/qz_hk_audit_srv"
#define QZ_STATS_PATH "/tmp/qz_fh_stats.json"
