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
        // Registrations last: a descriptor is changed only when what it is waited for changes.
        if (!epoll->first_time && epoll->armed[i] == events) continue;
        memset(&epoll->ev[i], 0, sizeof epoll->ev[i]);
        epoll->ev[i].data.fd = epoll->fd[i];
        epoll->ev[i].events = events;
        int op = epoll->first_time ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
        int ret = epoll_ctl(epoll->efd, op, epoll->fd[i], &epoll->ev[i]);
        if (ret != 0) {
            char errtext[128];
            const char *why = strerror_r(errno, errtext, sizeof errtext);
            if (op == EPOLL_CTL_ADD)
                FTPD_LOG_PRO("(%s) epoll_ctl, fd set failed [%d](%d)[%d] %s.\n", "ftpd_epoll", i, epoll->fd[i], ret,
                             why);
            else
                FTPD_LOG_PRO("(%s) epoll_ctl MOD, fd set failed [%d](%d)[%d] %s.\n", "ftpd_epoll", i, epoll->fd[i], ret,
                             why);
            return -1;
        }
        epoll->armed[i] = events;
    }
    epoll->first_time = false;

    epoll->wait_n = epoll_wait(epoll->efd, epoll->ev, FTP_EPOLL_MAX, epoll->timeout * 1000);
    return epoll->wait_n;
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
