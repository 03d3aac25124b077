// The listener thread, the connection counter, the pause pair and the local control channel.
#pragma once

#include "base/ftpd.h"

extern int gb_ftp_connect_num;              // guarded by ftp_mutex_userinfo
extern unsigned int ftpd_user_max_connect;  // written under ftp_mutex_userinfo
extern std::atomic<int> no_version;
void *ftps_main(void *argv);
int server_mode(int domain_fd);
int domain_server(void);
int ftp_connect_num_add(void);
int ftp_connect_num_get(void);
int ftp_connect_num_dec(void);
void ftp_pthread_suspend(void);
void ftp_pthread_resume(void);
void ftp_set_max_user_connect(unsigned int n);
void ftp_listener_sync_init(void);  // mutex and monotonic condition of the pause pair; 0 or -1
bool is_ftp_server_start(void);
void ftp_server_enable(void);
void ftp_server_disable(void);
void ftp_server_disable_cli(void);
