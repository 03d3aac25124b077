// The transfer engine, the TYPE command, and RETR, STOR and APPE.
#pragma once

#include "base/ftpd.h"

extern const char *typenames[];
int send_data(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred, int domain_fd);
int send_data_with_type(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred, int domain_fd);
// discard_path, when given, names the file being written: it is removed before a failure is
// answered.
int receive_data(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd,
                 const char *discard_path = nullptr);
int receive_data_with_type(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd,
                           const char *discard_path = nullptr);
int unix_to_dos(const char *buf, char *chang_buf, int cnt);
int dos_to_unix(const char *databuff, char *buf, int len);
// One read, repeated only when a signal interrupted it.
ssize_t ftpd_read_some(int fd, char *p, size_t len);
void type_fun(int control_fd, const char *rev_type, struct credentials *pcred);
int command_retr(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd);
int command_stor(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd);
// Standard profile: APPE appends to the file in place (created when missing).
int command_appe(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd);
int retrieve(int control_fd, const char *name, int client_port, const char *client_addr, char *current_dir,
             struct credentials *pcred, int domain_fd);
int store(int control_fd, const char *name, const char *mode, int unique, int client_port, const char *client_addr,
          char *current_dir, struct credentials *pcred, int domain_fd);
char *gunique(int control_fd, char *local);
bool is_special_file(const char *dir);
