// Start-up and shutdown steps shared with the management commands.
#pragma once

#include "base/ftpd.h"

extern int gb_ftp_start_err;
extern int gb_ftp_cli_end;
int ftp_signal_init(void);
int ftp_server_init(void);
void ftp_server_exit(void);
void set_ftp_cli_end(void);
int get_ftp_start_err(void);
void ftp_server_alarm_quit(int signo);
int ftps_cli_ready_thread(struct zq_thread *task);
