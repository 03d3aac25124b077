// The transfer commands: the data-address commands (PORT, EPRT, PASV, EPSV), TYPE and REST,
// RETR, STOR and APPE, and the listings (LIST, NLST, MLSD, MLST). The command table's handlers:
// false when the session must end.
#pragma once

#include <sys/socket.h>

struct ftp_session;

bool command_port(ftp_session &s);
bool command_eprt(ftp_session &s);
bool passive(ftp_session &s);
bool command_epsv(ftp_session &s);
bool type_fun(ftp_session &s);
bool command_rest(ftp_session &s);
bool command_mode(ftp_session &s);
bool command_stru(ftp_session &s);
bool command_allo(ftp_session &s);
bool command_retr(ftp_session &s);
bool command_stor(ftp_session &s);
bool command_appe(ftp_session &s);
bool list_fun(ftp_session &s);
bool nlst_fun(ftp_session &s);
bool command_mlsd(ftp_session &s);
bool command_mlst(ftp_session &s);

// The argument parsers of PORT and EPRT, on a copy of the argument. PORT: the port, or -1 when the
// address is not four numbers of 0-254 (the first 1-254); the address as typed goes into addr
// (FTP_CLIENT_ADDR_LEN bytes). toint: the decimal value of str, non-digits keeping their place
// unless strict; -1 when empty or over four digits.
int parse_port_data(char *data_buff, char *client_addr);
int toint(const char *str, int strict);
