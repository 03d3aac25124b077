// One control session: the thread body, the command loop and the commands that end or abort.
#pragma once

#include "base/ftpd.h"

struct ftp_session;

void *ftp_connect_thread(void *info);
// Session threads starting or ending (not serving commands): what a shutdown lets finish.
int ftp_session_threads_ending(void);
void ftp_server(int control_fd, int domain_fd, int contrl_type, const struct ftp_connect_addr *def_addr);
// Runs the command recognised into s.cmd (with its login and profile checks). False when the
// session must end.
bool ftp_dispatch(ftp_session &s);
bool command_quit(ftp_session &s);
bool command_abor(ftp_session &s);
