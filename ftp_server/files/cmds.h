// The directory commands (CWD, CDUP, PWD, MKD, RMD) and the file commands (DELE, RNFR, RNTO, SIZE, MDTM, STAT).
#pragma once

#include "base/ftpd.h"

int command_cwd(int control_fd, char *data_buff, char *reply_buff, char *currentdir, struct credentials *pcred);
int cwd(int control_fd, char *current_dir, const char *path, char *sendbuff, struct credentials *pcred);
int pwd_fun(int control_fd, char *current_dir, char *sendbuff, struct credentials *pcred);
int command_mkd(int control_fd, char *data_buff, char *currentdir, struct credentials *pcred);
int command_rmd(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred);
int command_dele(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred);
int command_rnfr(int control_fd, char *data_buff, char *reply_buff, char *rename_from, char *current_dir,
                 struct credentials *pcred);
int command_rnto(int control_fd, char *data_buff, char *rename_from, char *current_dir, struct credentials *pcred);
int command_size(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred);
int command_mdtm(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred);
int command_stat(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred);
