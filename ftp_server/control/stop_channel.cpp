// The management side of the local control channel: the enabled flag, and the stop datagrams
// that wake the listener and every session when the service is disabled.
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/ftpd.h"
#include "base/settings.h"
#include "control/listener.h"
#include "base/path.h"

// The longest the disabling side keeps retrying sends that find the receiving queue full.
#define FTP_STOP_SEND_MS 2000

void ftp_server_enable(void) {
    if (!is_ftp_server_start()) {
        ftp_set_server_started(true);
        ftp_pthread_resume();
    }
}

void ftp_server_disable(void) {
    if (is_ftp_server_start()) {
        ftp_set_server_started(false);
        ftp_server_disable_cli();
    }
}

static bool fill_unix_addr(struct sockaddr_un *addr, const char *path) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    return ftpd_strlcpy(addr->sun_path, path, sizeof(addr->sun_path));
}

void ftp_server_disable_cli(void) {
    unique_fd sock(socket(AF_UNIX, SOCK_DGRAM, 0));
    if (!sock) return;

    char client_path[FTP_NAME_LEN];
    if (ftp_make_path(client_path, sizeof(client_path), FTP_CLIENT_SOCK_PATH) == nullptr) {
        FTPD_LOG_ERR("FTP_CLIENT: make client path fail\n");
        return;
    }
    unlink(client_path);
    struct sockaddr_un caddr;
    fill_unix_addr(&caddr, client_path);
    if (bind(sock.get(), reinterpret_cast<struct sockaddr *>(&caddr), sizeof(caddr)) < 0) {
        FTPD_LOG_ERR("FTP_CLIENT: domain socket bind failed(errno=%d)\n", errno);
        sock.reset();
        unlink(client_path);
        return;
    }

    char server_path[FTP_NAME_LEN];
    if (ftp_make_path(server_path, sizeof(server_path), FTP_SERVER_SOCK_PATH) == nullptr) {
        FTPD_LOG_ERR("FTP_CLIENT: make server path fail\n");
        sock.reset();
        unlink(client_path);
        return;
    }
    struct sockaddr_un saddr;
    fill_unix_addr(&saddr, server_path);

    // One message per counted connection (the sessions and the listener). A send that fails is
    // repeated, but never for ever: the messages are queued without blocking, and while the
    // receiving queue is full every watcher already finds the channel readable and the flag
    // cleared. Retrying stops once the connections still counted have had one message each, or
    // at the deadline; the main thread must not hang on a queue that no one reads.
    int count = ftp_connect_num_get();
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    int sent = 0;
    while (sent < count) {
        if (sendto(sock.get(), FTP_STOP_MSG, strlen(FTP_STOP_MSG), MSG_DONTWAIT,
                   reinterpret_cast<struct sockaddr *>(&saddr),
                   sizeof(saddr)) == static_cast<ssize_t>(strlen(FTP_STOP_MSG))) {
            sent++;
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            FTPD_LOG_ERR("FTP_CLIENT: domain socket send failed(errno=%d)\n", errno);
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if ((now.tv_sec - start.tv_sec) * 1000L + (now.tv_nsec - start.tv_nsec) / 1000000L >= FTP_STOP_SEND_MS) break;
        usleep(10000);  // let the readers make room
        count = std::min(count, ftp_connect_num_get());
    }
    int left = count - sent;
    if (left > 0) FTPD_LOG_ERR("ftp server disable failed\n");
    sock.reset();
    unlink(client_path);
}
