// Replies: the control connection, the formatting function every reply leaves through and the
// reply texts several commands send whole.
#pragma once

#include "base/ftpd.h"
#include "net/stream.h"

// The control connection: its stream and how replies are written on it.
struct ftp_control {
    ftp_stream stream;
    bool crlf = false;          // every line of a reply ends in CR LF
    bool shorten_echo = false;  // a reply over the bound shortens its echoed name (else none is sent)
    int send_timeout_ms = 1000;  // no reply may block longer than the wait for the next command
};

int ftpd_reply(ftp_control &c, const char *cmd, const char *fmt, const char *arg1, const char *arg2);
int ftpd_reply_size(ftp_control &c, const char *cmd, const char *fmt, unsigned long arg1, const char *arg2);

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
int ftpd_reply_text(ftp_control &c, const char *text);
