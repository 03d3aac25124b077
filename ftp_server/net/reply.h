// Replies: the formatting function every reply leaves through, the reply texts several commands
// send whole, and the admission check that the file and directory commands share.
#pragma once

#include "base/ftpd.h"

struct ftp_tls;

int ftpd_reply(int send_sk, const char *cmd, const char *fmt, const char *arg1, const char *arg2);
int ftpd_reply_size(int send_sk, const char *cmd, const char *fmt, unsigned long arg1, const char *arg2);

inline constexpr char FTP_REPLY_221[] = "221 Service closing control connection(Goodbye).\r\n";
inline constexpr char FTP_REPLY_226[] = "226 Closing data connection.\r\n";
inline constexpr char FTP_REPLY_250[] = "250 Requested file action okay, completed.\r\n";
inline constexpr char FTP_REPLY_350[] = "350 Requested file action pending further information.\r\n";
inline constexpr char FTP_REPLY_425[] = "425 Can't open data connection.\r\n";
inline constexpr char FTP_REPLY_450[] = "450 Requested file action not taken.\r\n";
inline constexpr char FTP_REPLY_451[] = "451 Requested action aborted. Local error in processing.\r\n";
inline constexpr char FTP_REPLY_500[] = "500 Syntax error, command unrecognized.\r\n";
inline constexpr char FTP_REPLY_501[] = "501 Syntax error in parameters or arguments.\r\n";
inline constexpr char FTP_REPLY_502[] = "502 Command not implemented.\r\n";
inline constexpr char FTP_REPLY_503[] = "503 Bad sequence of commands.\r\n";
inline constexpr char FTP_REPLY_530[] = "530 Not logged in.\r\n";
inline constexpr char FTP_REPLY_550[] = "550 Requested action not taken.\r\n";
inline constexpr char FTP_REPLY_553[] = "553 Requested action not taken.\r\n";
inline constexpr char FTP_REPLY_NO_SUCH_FILE[] = "550 \"%s\": No such file or directory.\r\n";

// Sends a reply given whole. 0, or -1 when it could not be sent.
int ftpd_reply_text(int control_fd, const char *text);
// Admission of a command that names a path: not logged in (530), no top directory (550), no
// argument (501). 0 to go on, 1 refused and replied, -1 the refusal could not be sent.
int ftpd_admit_path_cmd(int control_fd, const char *arg, const struct credentials *pcred);
// From now on, replies of this session thread on control_fd go through t; nullptr ends it.
void ftpd_reply_protect(int control_fd, ftp_tls *t);
