// The standard profile's explicit TLS (AUTH, PBSZ, PROT) and the rules it puts on login and data
// connections.
#pragma once

#include "base/ftpd.h"

// The daemon's TLS at start-up: 0, or -1 with the reason written when it cannot serve.
int ftpd_security_init(void);
// AUTH TLS (or SSL): answers 234 and makes the handshake within timeout_s. False when the session
// must end (a failed handshake).
bool ftpd_command_auth(int control_fd, const char *arg, struct credentials *pcred, int timeout_s);
void ftpd_command_pbsz(int control_fd, const char *arg, struct credentials *pcred);
void ftpd_command_prot(int control_fd, const char *arg, struct credentials *pcred);
// USER or PASS in clear text where TLS is required first: answered 530, true.
bool ftpd_login_needs_tls(int control_fd, const struct credentials *pcred);
// A transfer or listing on a clear data connection where every one must be protected: answered
// 521, true.
bool ftpd_data_needs_tls(int control_fd, const struct credentials *pcred);
// The FEAT lines of TLS, empty when it is not configured.
const char *ftpd_security_features(void);
// Gives back the control connection's TLS state (the session's end).
void ftpd_security_release(struct credentials *pcred);
