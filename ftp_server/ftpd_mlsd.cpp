// MLSD and MLST: machine-readable listings of the standard profile.
#include "ftpd.h"
#include "ftpd_replies.h"

int mlsd_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd) {
    (void)current_dir, (void)path, (void)client_port, (void)client_addr, (void)pcred, (void)domain_fd;
    return ftpd_reply_text(control_fd, FTP_REPLY_502) == 0 ? 0 : -1;
}

int command_mlst(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred) {
    (void)data_buff, (void)current_dir, (void)pcred;
    return ftpd_reply_text(control_fd, FTP_REPLY_502);
}
