// The PROXY protocol header (versions 1 and 2) that a load balancer puts in front of a relayed
// connection to name the client it came from. Only connections from the platform file's
// proxy_from addresses may carry one: from anyone else it would let a client choose its address.
#pragma once

#include <sys/socket.h>

#include <cstddef>

enum ftp_proxy_status_e {
    FTP_PROXY_COMPLETE = 0,   // a whole, valid header
    FTP_PROXY_NEED_MORE = 1,  // a valid beginning of one
    FTP_PROXY_MALFORMED = 2,  // no header can begin with these bytes
};

// Longest version 1 header, its CR LF included.
#define FTP_PROXY_V1_MAX 107
// Fixed part of a version 2 header; its length field counts the bytes that follow.
#define FTP_PROXY_V2_HEAD 16

struct ftp_proxy_header {
    // COMPLETE: the bytes the header occupies (never more than given); NEED_MORE: the fewest it
    // can occupy in all, so that a reader may take that many without reading past it.
    size_t length;
    // The client (src) and the address it connected to (dst), ports included. AF_UNSPEC for a
    // version 2 LOCAL command (the proxy's own connection, such as a health check), version 1
    // UNKNOWN, and version 2 families or transports other than TCP over IPv4 or IPv6: the
    // connection's own endpoints then stand.
    struct sockaddr_storage src;
    struct sockaddr_storage dst;
};

// Parses the first len bytes received on a connection. One of FTP_PROXY_*; *out is filled for
// COMPLETE and its length for NEED_MORE. Pure: no state between calls, any split of the bytes
// gives the same answer once they are all given.
int ftp_proxy_parse(const void *data, size_t len, struct ftp_proxy_header *out);

// Reads the header at the start of the connection fd and nothing after it: the bytes that follow
// (the client's first command) stay in the socket. Waits at most timeout_ms in all. 0 with *src
// and *dst set as above; -1 when the header is malformed, the connection closed or the time ran
// out (the connection must then be closed).
int ftp_proxy_read(int fd, int timeout_ms, struct sockaddr_storage *src, struct sockaddr_storage *dst);
