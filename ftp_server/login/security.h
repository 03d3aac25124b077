// The standard profile's explicit TLS (AUTH, PBSZ, PROT) and the rules it puts on login and data
// connections.
#pragma once

struct ftp_session;

// The daemon's TLS at start-up (standard profile only): 0, or -1 with the reason written when it
// cannot serve.
int ftpd_security_init(bool standard);
// AUTH TLS (or SSL): answers 234 and makes the handshake within the login time-out; a failed
// handshake ends the session. PBSZ and PROT choose protected data connections.
bool command_auth(ftp_session &s);
bool command_pbsz(ftp_session &s);
bool command_prot(ftp_session &s);
// USER or PASS in clear text where TLS is required first: answered 530, true.
bool ftpd_login_needs_tls(ftp_session &s);
// A transfer or listing on a clear data connection where every one must be protected: answered
// 521, true.
bool ftpd_data_needs_tls(ftp_session &s);
