// LIST, NLST, MLSD and MLST.
#pragma once

#include "base/ftpd.h"

int list_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd);
int write_list(int control_fd, int data_sock, char *current_dir, char *path, struct credentials *pcred, int domain_fd);
int get_file_info(const char *path, char *stat_buff, int length, const char *name);
int get_file_name(const char *path, const char **name);
int ftpd_mkstemp(char *templ);
int ftpd_is_match(const char *str1, const char *match1);
int nlst_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd);
int write_nlst(int control_fd, int data_sock, char *current_dir, char *path, struct credentials *pcred, int domain_fd);
// Standard profile (ftpd_mlsd.cpp): MLSD sends machine-readable facts of a directory's entries
// over the data connection (as list_fun: -2 when stopped, else 0); MLST answers the facts of one
// path on the control connection (0 to go on, non-zero to end the session).
int mlsd_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd);
int command_mlst(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred);
