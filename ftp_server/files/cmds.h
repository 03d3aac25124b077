// The directory commands (CWD, CDUP, PWD, MKD, RMD) and the file commands (DELE, RNFR, RNTO, SIZE,
// MDTM, STAT of a path) and those that change attributes: the command table's handlers, false when the session must end.
#pragma once

struct ftp_session;

bool command_cwd(ftp_session &s);
bool command_cdup(ftp_session &s);
bool pwd_fun(ftp_session &s);
bool command_mkd(ftp_session &s);
bool command_rmd(ftp_session &s);
bool command_dele(ftp_session &s);
bool command_rnfr(ftp_session &s);
bool command_rnto(ftp_session &s);
bool command_size(ftp_session &s);
bool command_mdtm(ftp_session &s);
// MFMT, SITE UTIME and SITE CHMOD (standard profile).
bool command_mfmt(ftp_session &s);
bool site_utime(ftp_session &s);
bool site_chmod(ftp_session &s);
// STAT with a path: the listing lines of it on the control connection.
bool stat_path(ftp_session &s);
// Moves the current directory to path (resolved inside the top directory) and answers 250, or
// answers 550. 0 moved, -1 refused.
int cwd(ftp_session &s, const char *path);
