// The FTP settings of the platform file, for the daemon: plain functions, so that the daemon
// includes no header of the platform's internals. Each call loads the platform file on first use.
#pragma once

// What the daemon puts on the wire.
enum platform_ftp_profile_e {
    PLATFORM_FTP_PROFILE_DEVICE = 0,    // the device's wire behaviour, byte for byte
    PLATFORM_FTP_PROFILE_STANDARD = 1,  // the changes stock clients on plain Linux need
};

// TCP port of both control listeners.
int platform_ftp_control_port(void);
// One of PLATFORM_FTP_PROFILE_*.
int platform_ftp_profile(void);
// Seconds before a failed PASS is answered; 0: at once.
int platform_ftp_login_fail_delay(void);

struct sockaddr;

// The IPv4 address the PASV reply announces, into *out (network order): 1 when the platform file
// names one, 0 when the reply announces the control connection's own address.
int platform_ftp_passive_address(unsigned char out[4]);
// The passive port range, into *low and *high: 1 when the platform file limits it, 0 (with both
// set to 0) when any unprivileged port the kernel gives will do.
int platform_ftp_passive_ports(int *low, int *high);
// 1 when a connection from peer (AF_INET or AF_INET6, IPv4-mapped counting as IPv4) must begin
// with a PROXY protocol header, 0 otherwise.
int platform_ftp_proxy_required(const struct sockaddr *peer);
// Sessions at once, 1-4096; -1 when not set (the profile's default applies).
int platform_ftp_max_sessions(void);
// Sessions at once from one client address, 0-4096 with 0 no limit; -1 when not set.
int platform_ftp_max_per_address(void);
// KiB/s per transfer, 0 for no limit.
int platform_ftp_max_rate(void);
// Path of the transfer log; "" when there is none.
const char *platform_log_transfer_log(void);
