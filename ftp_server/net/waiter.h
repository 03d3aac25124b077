// Session event waiting: one session thread waits on up to five descriptors with a time-out.
#pragma once

#include <sys/epoll.h>

#include "base/ftpd.h"
#define FTP_EPOLL_MAX 5
#define FTP_EPOLL_IN 1
#define FTP_EPOLL_OUT 2
struct ftp_epoll_s {
    int fd[FTP_EPOLL_MAX];
    int mode[FTP_EPOLL_MAX];  // per descriptor; 0: the mode of the call
    int efd;
    struct epoll_event ev[FTP_EPOLL_MAX];
    int armed_fd[FTP_EPOLL_MAX];  // what each slot is registered for (-1: nothing)
    uint32_t armed[FTP_EPOLL_MAX];
    bool first_time;
    int timeout;  // seconds
    int wait_n;
};
struct ftp_epoll_s *ftpd_epoll_create(void);
int ftpd_epoll(struct ftp_epoll_s *epoll, int mode);
// Keeps slot registered for fd with events (fd -1: for nothing), changing the registration only
// when either changes, not once per wait. 0, or the epoll_ctl operation that failed.
int ftpd_epoll_watch(struct ftp_epoll_s *epoll, int slot, int fd, uint32_t events);
bool ftpd_epoll_event(const struct ftp_epoll_s *epoll, int fd, int mode);
int ftpd_epoll_destroy(struct ftp_epoll_s *epoll);

// Owner of a session's event waiter; a waiter that could not be made is given back as well.
class ftp_waiter {
  public:
    ftp_waiter() = default;
    ~ftp_waiter() { ftpd_epoll_destroy(ep_); }
    ftp_waiter(const ftp_waiter &) = delete;
    ftp_waiter &operator=(const ftp_waiter &) = delete;
    bool create() { return (ep_ = ftpd_epoll_create()) != nullptr; }
    struct ftp_epoll_s *operator->() const {
        return ep_;
    }
    struct ftp_epoll_s *get() const {
        return ep_;
    }

  private:
    struct ftp_epoll_s *ep_ = nullptr;
};
