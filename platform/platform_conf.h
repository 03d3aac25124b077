// The platform file: an INI file that says how the device services behave on plain Linux.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ftp_platform.h"
#include "ftp_tls.h"
#include "net_prefix.h"

struct platform_storage {
    std::string keyword;  // "flash", "flash2", "sata0", "usb0", "tmp", "install", "nfs"
    std::string dir;      // absolute directory; empty when the storage is absent
};

struct platform_conf {
    std::string path;  // file it was read from; empty when the built-in defaults are used
    // [device]
    std::string product_name;       // empty: unknown
    std::string os_name = "UNIX ";  // SYST says "UNIX Type: L8."; empty: kernel system name; "-": none
    // [ftp]
    int control_port = 21;
    int ftp_profile = PLATFORM_FTP_PROFILE_DEVICE;
    int login_fail_delay = 1;     // seconds before a failed PASS is answered
    std::string passive_address;  // dotted IPv4 address PASV announces; empty: the control connection's own
    int passive_port_low = 0;     // passive port range; both 0: any unprivileged port
    int passive_port_high = 0;
    std::vector<platform_net_prefix> proxy_from;  // peers that must send a PROXY header first
    int max_sessions = -1;                        // -1: the profile's default
    int max_per_address = -1;                     // -1: the profile's default; 0: no limit
    int max_rate = 0;                             // KiB/s per transfer; 0: unlimited
    // [storage], in the platform's storage order (index 0 = flash2, 1 = flash, ...; see fs_info.h)
    std::vector<platform_storage> storages;
    // [cli]
    std::string cli_socket;      // empty: $TMPDIR/app/ftps/.cli
    std::string startup_config;  // empty: none
    // [log]
    bool log_syslog = true;
    std::string log_file;
    bool log_stderr = false;
    std::string transfer_log;  // transfer log (one line per transfer); empty: none
    // [aaa]
    bool aaa_registered = true;
    bool aaa_new_model = true;
    std::string user_database;
    std::vector<std::pair<std::string, std::vector<std::string>>> aaa_lists;  // name, methods
    // [radius]
    std::vector<std::string> radius_servers;  // "host:port"
    std::string radius_secret;
    int radius_timeout = 3;
    int radius_retries = 1;
    // [pam]
    std::string pam_service = "ftp_server";
    // [security]
    bool service_password_encryption = false;
    std::string pwquality;
    // [snmp]
    std::vector<std::string> trap_sinks;  // "host:port"
    std::string snmp_community = "public";
    // [tls]: no certificate, no TLS
    std::string tls_certificate;  // PEM certificate chain
    std::string tls_key;          // PEM private key; empty: in the certificate's file
    std::string tls_ca;           // PEM certificates of client authorities; empty: none
    // Where each file was named ("FILE:LINE"), for the message when it cannot be loaded.
    std::string tls_certificate_at;
    std::string tls_key_at;
    std::string tls_ca_at;
    int tls_require = PLATFORM_TLS_REQUIRE_LOGIN;
    bool tls_require_reuse = true;
    std::string tls_ciphers;  // TLS 1.2 cipher list; empty: the library's default
    int tls_min_version = 0;  // index into "1.2", "1.3"
    int tls_upload_eof = PLATFORM_TLS_UPLOAD_EOF_STRICT;  // index into "strict", "lenient"
};

// The built-in defaults: every storage slot present with its keyword, flash at its default
// directory, and the method list "default" = local.
void platform_conf_set_defaults(platform_conf *conf);

// Reads the file into conf (starting from the defaults). On failure returns -1 and puts
// "FILE:LINE: key 'KEY': reason" into err.
int platform_conf_load(const char *path, platform_conf *conf, std::string *err);

// The process-wide platform configuration, loaded once on first use from $FTPS_PLATFORM, else
// /etc/ftps/platform.conf when it exists, else the defaults. A load error is written to standard
// error once and remembered; platform_conf_ok() then returns false.
const platform_conf &platform_get();
bool platform_conf_ok();

// Test hook: replace the process-wide configuration.
void platform_set_for_test(const platform_conf &conf);
