// The transfer log: one line per upload or download in the classic transfer-log form that log
// analysers and shippers read, written by one process-wide writer.
//
//   Mon Jan 05 13:45:02 2026 3 192.0.2.1 1048576 /pub/a.iso b _ o r alice ftp 0 * c
//
// Fields: local end time, whole seconds (at least 1), client address, bytes, file name, type
// (a ASCII, b binary), special action (_), direction (o download, i upload), access mode (r),
// user, service (ftp), authentication method (0), authenticated user id (*), completion (c
// complete, i incomplete). Blanks and control characters of the name and the user are written
// as '_', so that every line keeps its fields whatever a client named.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>

struct ftp_xferlog_record {
    time_t end;               // when the transfer ended
    long long duration_ms;    // how long it took
    const char *remote_host;  // the client's address as text
    long long bytes;          // bytes moved
    const char *filename;     // the path as the client's session sees it
    bool binary;              // type I (else A)
    bool upload;              // STOR, APPE (else RETR)
    const char *user;         // the login name
    bool complete;            // the whole transfer went through
};

// Formats rec as one line with its LF into buf. The line's length, or -1 when it does not fit
// in len or rec is incomplete.
int ftp_xferlog_format(const struct ftp_xferlog_record *rec, char *buf, size_t len);

// Opens path for appending (created with mode 0640), closing any log open before; an empty path
// or nullptr leaves no log open. 0, or -1 (with no log open) when it cannot be opened.
int ftp_xferlog_open(const char *path);
// Appends the record's line with one write(2), so that lines of concurrent sessions never
// interleave. 0 when written, 1 when no log is open, -1 when the line did not fit or the write
// failed.
int ftp_xferlog_write(const struct ftp_xferlog_record *rec);
// Opens the same path again (SIGHUP, after log rotation moved the file away). 0 when done or no
// log is open; -1 when it cannot be opened, and the log in use stays.
int ftp_xferlog_reopen(void);
void ftp_xferlog_close(void);
