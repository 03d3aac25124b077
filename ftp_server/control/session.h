// One control session: the thread body, the session record's set-up and release, command reading.
#pragma once

#include "base/ftpd.h"

void *ftp_connect_thread(void *info);
// Session threads starting or ending (not serving commands): what a shutdown lets finish.
int ftp_session_threads_ending(void);
void ftp_server(int control_fd, int domain_fd, int contrl_type, const struct ftp_connect_addr *def_addr);
int init_cred(struct credentials *pcred, int contrl_type);
void clear_cred(struct credentials *pcred);
bool is_logged_in(const struct credentials *pcred);
bool is_access(const struct credentials *pcred);
bool is_data_empty(const char *s);
// peer_closed, when given, is set once the client has closed its sending side or the connection
// failed: the session answers that last line and ends.
int get_command(int control_fd, char *recvbuff, char *databuff, int buffsize, bool *peer_closed = nullptr);
