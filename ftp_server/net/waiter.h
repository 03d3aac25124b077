// Session event waiting: one session thread waits on up to five descriptors with a time-out.
#pragma once

#include <sys/epoll.h>

#include "base/ftpd.h"
#define FTP_EPOLL_MAX 5
#define FTP_EPOLL_IN 1
#define FTP_EPOLL_OUT 2
struct ftp_epoll_s {
    int fd[FTP_EPOLL_MAX];
    int efd;
    struct epoll_event ev[FTP_EPOLL_MAX];
    bool first_time;
    int timeout;  // seconds
    int wait_n;
};
struct ftp_epoll_s *ftpd_epoll_create(void);
int ftpd_epoll(struct ftp_epoll_s *epoll, int mode);
bool ftpd_epoll_event(const struct ftp_epoll_s *epoll, int fd, int mode);
int ftpd_epoll_destroy(struct ftp_epoll_s *epoll);
