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
