// Session event waiting: a small epoll wrapper with which one session thread waits, with a
// time-out in seconds, for readiness on up to five descriptors (in practice its control
// connection and the local control-channel socket).
#include "net/waiter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/ftpd.h"

static uint32_t mode_events(int mode) {
    uint32_t events = 0;
    if (mode & FTP_EPOLL_IN) events |= EPOLLIN;
    if (mode & FTP_EPOLL_OUT) events |= EPOLLOUT;
    return events;
}

struct ftp_epoll_s *ftpd_epoll_create(void) {
    auto *epoll = static_cast<struct ftp_epoll_s *>(ftpd_malloc(FTPD_M_EPOLL, sizeof(struct ftp_epoll_s)));
    if (epoll == nullptr) return nullptr;
    epoll->efd = epoll_create(FTP_EPOLL_MAX);
    if (epoll->efd < 0) {
        ftpd_free(FTPD_M_EPOLL, epoll);
        return nullptr;
    }
    epoll->first_time = true;
    for (int &fd : epoll->armed_fd) fd = -1;
    return epoll;
}

int ftpd_epoll(struct ftp_epoll_s *epoll, int mode) {
    if (epoll == nullptr) return -1;
    // Only values below -1 are refused: -1 itself goes on and fails at registration.
    if (epoll->fd[0] < -1) {
        FTPD_LOG_PRO("(%s) socket not create, _client_fd(%d).\n", "ftpd_epoll", epoll->fd[0]);
        return -1;
    }

    for (int i = 0; i < FTP_EPOLL_MAX && epoll->fd[i] != 0; i++) {
        uint32_t events = mode_events(epoll->mode[i] != 0 ? epoll->mode[i] : mode);
        int failed;
        if (epoll->fd[i] < 0) {
            // -1 here is a descriptor to register, and fails as one.
            errno = EBADF;
            failed = epoll->first_time ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        } else {
            failed = ftpd_epoll_watch(epoll, i, epoll->fd[i], events);
        }
        if (failed != 0) {
            char errtext[128];
            const char *why = strerror_r(errno, errtext, sizeof errtext);
            if (failed == EPOLL_CTL_ADD)
                FTPD_LOG_PRO("(%s) epoll_ctl, fd set failed [%d](%d)[%d] %s.\n", "ftpd_epoll", i, epoll->fd[i], -1,
                             why);
            else
                FTPD_LOG_PRO("(%s) epoll_ctl MOD, fd set failed [%d](%d)[%d] %s.\n", "ftpd_epoll", i, epoll->fd[i], -1,
                             why);
            return -1;
        }
    }
    epoll->first_time = false;

    epoll->wait_n = epoll_wait(epoll->efd, epoll->ev, FTP_EPOLL_MAX, epoll->timeout * 1000);
    return epoll->wait_n;
}

int ftpd_epoll_watch(struct ftp_epoll_s *epoll, int slot, int fd, uint32_t events) {
    int old = epoll->armed_fd[slot];
    if (fd == old && events == epoll->armed[slot]) return 0;
    if (old >= 0 && fd != old) epoll_ctl(epoll->efd, EPOLL_CTL_DEL, old, nullptr);
    if (fd >= 0) {
        struct epoll_event ev {};
        ev.events = events;
        ev.data.fd = fd;
        int op = fd == old ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
        if (epoll_ctl(epoll->efd, op, fd, &ev) != 0) return op;
    }
    epoll->armed_fd[slot] = fd;
    epoll->armed[slot] = events;
    return 0;
}

// A hang-up or error counts as readiness of either kind: the caller's read or write then reports
// it at once instead of the session waiting for its time-out.
bool ftpd_epoll_event(const struct ftp_epoll_s *epoll, int fd, int mode) {
    if (epoll == nullptr) return false;
    for (int i = 0; i < epoll->wait_n && i < FTP_EPOLL_MAX; i++) {
        if (epoll->ev[i].data.fd == fd) return (epoll->ev[i].events & (mode_events(mode) | EPOLLERR | EPOLLHUP)) != 0;
    }
    return false;
}

int ftpd_epoll_destroy(struct ftp_epoll_s *epoll) {
    if (epoll == nullptr) return -1;
    if (epoll->efd >= 0) close(epoll->efd);
    ftpd_free(FTPD_M_EPOLL, epoll);
    return 0;
}
