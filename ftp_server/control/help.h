// HELP, SYST and server STAT: the command tables HELP shows and the replies of the three.
#pragma once

#include "base/ftpd.h"

struct tab {
    const char *name;
    short implemented;
    const char *help;
};
extern struct tab cmdtab[];
extern struct tab sitetab[];
void command_help(int control_fd, char *data_buff);
void ftpd_help(int control_fd, struct tab *ctab, char *s);
struct tab *lookup(struct tab *p, const char *cmd);
void str_toupper(char *s);
int command_syst(int control_fd);
void statcmd(int control_fd, char *sendbuff, struct credentials *pcred);
