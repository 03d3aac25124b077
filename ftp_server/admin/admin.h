// The management commands, the password-policy client and the two reports of the show commands.
#pragma once

#include "base/ftpd.h"

// (ftpd_status.cpp)
int cfg_ftp_server_init(void);
void debug_ftp_server(int code);
bool is_valid_password(char *password);
char *ftp_str_trim(char *s);
int ftpd_enable_pwd_policy_register(struct zq_thread_master *master);
void dump_ftp_server_information(ftpd_print_fn print);
void dump_ftp_server_user_password(ftpd_print_fn print);
