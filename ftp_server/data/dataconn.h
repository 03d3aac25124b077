// The data-address commands and the opening of each data connection.
#pragma once

#include "base/ftpd.h"

int command_port(int control_fd, char *data_buff, char *client_addr, int *client_port, struct credentials *pcred);
int command_eprt(int control_fd, char *data_buff, char *client_addr, int addr_size, int *client_port,
                 struct credentials *pcred);
int command_epsv(int control_fd, char *data_buff, struct credentials *pcred);
void passive(int control_fd, struct credentials *pcred);
int parse_port_data(char *data_buff, char *client_addr);
int toint(const char *str, int strict);
int doeprt(int control_fd, char *p, char *client_addr, int addr_size, int *client_port, struct credentials *pcred);
int do_ipv6_port(int control_fd, char *p, char delim, char *client_addr, int addr_size, int *client_port,
                 const struct credentials *pcred);
int dopasv(int control_fd, struct credentials *pcred);
int dataconn(int control_fd, off_t size, const char *mode, int client_port, const char *client_addr,
             struct credentials *pcred);
int getdatasock(const char *mode, struct credentials *pcred);
// The session's data connections (passive listener, accepted passive connection, active
// connection) are closed and reset here only. One of them:
void ftpd_data_close(int32_t *fd);
// After a transfer or listing on dfd: both connections closed, without lingering, and reset.
void ftpd_data_finish(struct credentials *pcred, int dfd);
// At the session's end: all three.
void ftpd_data_release(struct credentials *pcred);
void ftps_set_vrf_option(struct credentials *pcred, int fd);
