// The listener thread, the connection counter, the pause pair and the local control channel.
#pragma once

#include "base/ftpd.h"
#include "base/settings.h"
#include "base/users.h"

extern std::atomic<int> no_version;
void *ftps_main(void *argv);
int server_mode(int domain_fd);
int domain_server(void);
void ftp_pthread_suspend(void);
void ftp_pthread_resume(void);
void ftp_listener_sync_init(void);  // mutex and monotonic condition of the pause pair; 0 or -1
void ftp_server_enable(void);
void ftp_server_disable(void);
void ftp_server_disable_cli(void);
