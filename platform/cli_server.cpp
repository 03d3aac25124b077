// The management socket of the command-line framework: cli_client_init creates the Unix stream
// socket (mode 0600) that ftps-cli connects to, serves its connections from the event master
// on the main thread, answers each framed request in full before reading the next, and
// schedules the replay of the startup configuration. A misbehaving client (oversized frame,
// stalled reader, disconnect, a request begun and never finished) loses its connection; the
// daemon never waits on it for long.
//
// A terminal may stay connected and quiet between requests for as long as it likes (an
// interactive ftps-cli waits at its prompt). Only when every place is taken does a newcomer push
// one out: the connection that never completed a request, longest connected first, else the one
// quiet the longest. So a new terminal is always served, and a quiet connection is closed only to
// make room for a newcomer that would otherwise be turned away.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli_internal.h"
#include "cli_proto.h"
#include "platform_conf.h"
#include "syslog_ext.h"
#include "zq_thread.h"

namespace {

constexpr size_t kMaxConnections = 16;
// A send that makes no progress for this long, or a whole answer that takes longer than the
// deadline, gives the connection up.
constexpr int kSendTimeoutMs = 2000;
constexpr long kAnswerDeadlineMs = 10000;
// Reads per wake-up, so that one busy client cannot starve the event loop.
constexpr int kReadsPerWakeup = 16;
// A request, once its first byte has arrived, must be complete within this time. ftps-cli sends
// each request whole at once.
constexpr long kRequestDeadlineMs = 2000;

struct connection {
    int fd = -1;
    std::string in;
    zq_thread *task = nullptr;
    zq_thread *deadline = nullptr;  // armed while a request is incomplete
    unsigned long answered = 0;     // requests answered
    long quiet_since_ms = 0;        // accepted, or last request answered
};

struct server {
    zq_thread_master *master = nullptr;
    int listen_fd = -1;
    zq_thread *accept_task = nullptr;
    std::vector<std::unique_ptr<connection>> conns;
    char path[sizeof(sockaddr_un{}.sun_path)] = "";
    bool atexit_armed = false;
};

server g_srv;

int accept_ready(zq_thread *task);
int conn_ready(zq_thread *task);

long now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

std::string error_text(int err) {
    char buf[128];
    return std::string(strerror_r(err, buf, sizeof buf));
}

void remove_socket_file() {
    if (g_srv.path[0] != '\0') ::unlink(g_srv.path);
}

void close_conn(connection *c) {
    if (c->task != nullptr) zq_thread_cancel(c->task);
    if (c->deadline != nullptr) zq_thread_cancel(c->deadline);
    ::close(c->fd);
    for (auto it = g_srv.conns.begin(); it != g_srv.conns.end(); ++it)
        if (it->get() == c) {
            g_srv.conns.erase(it);
            break;
        }
}

bool send_answer(int fd, const std::string &data) {
    long deadline = now_ms() + kAnswerDeadlineMs;
    size_t done = 0;
    while (done < data.size()) {
        if (now_ms() > deadline) return false;
        ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;  // includes the send time-out
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string product_name() {
    return platform_get().product_name;
}

// Runs one request and frames its answer.
std::string answer(uint8_t kind, const std::string &payload) {
    std::string text;
    int status = 0;
    int offset = -1;
    switch (kind) {
        case CLI_REQ_EXEC:
            status = cli_execute_line_ex(payload.c_str(), &text, &offset);
            break;
        case CLI_REQ_HELP:
            status = cli_help_line(payload.c_str(), &text, &offset);
            break;
        case CLI_REQ_COMPLETE: {
            std::vector<std::string> cands;
            cli_complete_line(payload.c_str(), &cands);
            for (const std::string &c : cands) text += c + "\n";
            break;
        }
        case CLI_REQ_PROMPT:
            text = product_name();
            break;
        default:
            text = "% Unknown request.\n";
            status = 1;
            break;
    }
    std::string frames;
    for (size_t at = 0; at < text.size(); at += CLI_PROTO_MAX_CHUNK) {
        size_t len = std::min<size_t>(CLI_PROTO_MAX_CHUNK, text.size() - at);
        cli_proto_append(&frames, CLI_RSP_OUTPUT, text.data() + at, len);
    }
    std::string end = cli_proto_end_payload(status, offset);
    cli_proto_append(&frames, CLI_RSP_END, end.data(), end.size());
    return frames;
}

// Answers every complete request in the buffer, in order. false: drop the connection.
bool serve_requests(connection *c) {
    size_t at = 0;
    bool ok = true;
    while (c->in.size() - at >= CLI_PROTO_HEADER) {
        const uint8_t *h = reinterpret_cast<const uint8_t *>(c->in.data() + at);
        uint32_t len = cli_proto_get_u32(h);
        if (len > CLI_PROTO_MAX_REQUEST) {
            ok = false;
            break;
        }
        if (c->in.size() - at < CLI_PROTO_HEADER + len) break;
        std::string payload = c->in.substr(at + CLI_PROTO_HEADER, len);
        uint8_t kind = h[4];
        at += CLI_PROTO_HEADER + len;
        if (!send_answer(c->fd, answer(kind, payload))) {
            ok = false;
            break;
        }
        c->answered++;
        c->quiet_since_ms = now_ms();
    }
    c->in.erase(0, at);
    return ok;
}

int request_overdue(zq_thread *task) {
    connection *c = static_cast<connection *>(ZQ_THREAD_ARG(task));
    c->deadline = nullptr;  // a timer fires once
    close_conn(c);
    return 0;
}

// Arms the deadline when an incomplete request is waiting and none is armed; disarms it once
// nothing is waiting. The deadline runs from the request's first byte. false: drop the connection.
bool watch_request(connection *c) {
    if (c->in.empty()) {
        if (c->deadline != nullptr) zq_thread_cancel(c->deadline);
        c->deadline = nullptr;
        return true;
    }
    if (c->deadline == nullptr)
        c->deadline = zq_thread_add_timer_msec(g_srv.master, request_overdue, c, kRequestDeadlineMs, "cli_request");
    return c->deadline != nullptr;
}

// The connection a newcomer replaces when every place is taken.
connection *eviction_victim() {
    connection *victim = nullptr;
    for (const auto &c : g_srv.conns) {
        bool c_silent = c->answered == 0;
        bool v_silent = victim != nullptr && victim->answered == 0;
        if (victim == nullptr || (c_silent && !v_silent) ||
            (c_silent == v_silent && c->quiet_since_ms < victim->quiet_since_ms))
            victim = c.get();
    }
    return victim;
}

int conn_ready(zq_thread *task) {
    connection *c = static_cast<connection *>(ZQ_THREAD_ARG(task));
    c->task = nullptr;  // a read event fires once
    char buf[4096];
    for (int round = 0; round < kReadsPerWakeup; ++round) {
        ssize_t n = ::recv(c->fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            unsigned long before = c->answered;
            c->in.append(buf, static_cast<size_t>(n));
            if (!serve_requests(c)) {
                close_conn(c);
                return 0;
            }
            if (c->answered != before && c->deadline != nullptr) {
                zq_thread_cancel(c->deadline);  // its request was answered; what waits is a new one
                c->deadline = nullptr;
            }
            if (!watch_request(c)) {
                close_conn(c);
                return 0;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        close_conn(c);  // end of stream or error
        return 0;
    }
    c->task = zq_thread_add_read(g_srv.master, conn_ready, c, c->fd, "cli_conn");
    if (c->task == nullptr) close_conn(c);
    return 0;
}

void watch_listener() {
    g_srv.accept_task = zq_thread_add_read(g_srv.master, accept_ready, nullptr, g_srv.listen_fd, "cli_accept");
    if (g_srv.accept_task == nullptr)
        printk_syslog_ext(3, "CLI", "SOCKET", LOG_CLASS_ALWAYS, "cannot watch the management socket");
}

int accept_ready(zq_thread *) {
    g_srv.accept_task = nullptr;
    for (;;) {
        int fd = ::accept4(g_srv.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            break;
        }
        if (g_srv.conns.size() >= kMaxConnections) close_conn(eviction_victim());
        timeval tv{kSendTimeoutMs / 1000, (kSendTimeoutMs % 1000) * 1000};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        auto c = std::make_unique<connection>();
        c->fd = fd;
        c->quiet_since_ms = now_ms();
        c->task = zq_thread_add_read(g_srv.master, conn_ready, c.get(), fd, "cli_conn");
        if (c->task == nullptr) {
            ::close(fd);
            continue;
        }
        g_srv.conns.push_back(std::move(c));
    }
    watch_listener();
    return 0;
}

int replay_ready(zq_thread *) {
    cli_config_replay(cli_config_startup_path().c_str());
    cli_run_reload_end_hooks();
    return 0;
}

// Creates the directories of path that are missing.
int make_parent_dirs(const std::string &path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        std::string dir = path.substr(0, slash);
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return -1;
    }
    return 0;
}

// True when a live server already answers on path.
bool socket_in_use(const sockaddr_un &addr) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    bool live = ::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
    ::close(fd);
    return live;
}

int open_listener(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (make_parent_dirs(path) != 0) return -1;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (socket_in_use(addr)) {
        errno = EADDRINUSE;
        return -1;
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    // The socket is bound under a temporary name, restricted, then renamed into place, so it is
    // never reachable with a wider mode. A name too long for that is bound in place.
    std::string tmp = path + "~";
    bool in_place = tmp.size() >= sizeof addr.sun_path;
    const std::string &bound = in_place ? path : tmp;
    sockaddr_un bind_addr{};
    bind_addr.sun_family = AF_UNIX;
    std::snprintf(bind_addr.sun_path, sizeof bind_addr.sun_path, "%s", bound.c_str());
    ::unlink(bound.c_str());
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&bind_addr), sizeof bind_addr) != 0 ||
        ::chmod(bound.c_str(), 0600) != 0 || ::listen(fd, 16) != 0 ||
        (!in_place && ::rename(tmp.c_str(), path.c_str()) != 0)) {
        int saved = errno;
        ::close(fd);
        ::unlink(bound.c_str());
        errno = saved;
        return -1;
    }
    return fd;
}

}  // namespace

int cli_client_init(const char *module, struct zq_thread_master *master) {
    (void)module;
    if (master == nullptr) return -1;
    if (g_srv.listen_fd >= 0) return 0;
    if (cli_builtin_register() != 0) return -1;
    const platform_conf &conf = platform_get();
    cli_config_set_startup_path(conf.startup_config);
    std::string path = cli_proto_socket_path(conf.cli_socket);
    int fd = open_listener(path);
    if (fd < 0) {
        int saved = errno;
        printk_syslog_ext(3, "CLI", "SOCKET", LOG_CLASS_ALWAYS, "cannot listen on %s: %s", path.c_str(),
                          error_text(saved).c_str());
        errno = saved;
        return -1;
    }
    g_srv.master = master;
    g_srv.listen_fd = fd;
    std::snprintf(g_srv.path, sizeof g_srv.path, "%s", path.c_str());
    if (!g_srv.atexit_armed) {
        std::atexit(remove_socket_file);
        g_srv.atexit_armed = true;
    }
    watch_listener();
    zq_thread_add_event(master, replay_ready, nullptr, "cli_replay");
    return 0;
}

void cli_server_stop(void) {
    while (!g_srv.conns.empty()) close_conn(g_srv.conns.back().get());
    if (g_srv.accept_task != nullptr) zq_thread_cancel(g_srv.accept_task);
    g_srv.accept_task = nullptr;
    if (g_srv.listen_fd >= 0) ::close(g_srv.listen_fd);
    g_srv.listen_fd = -1;
    remove_socket_file();
    g_srv.path[0] = '\0';
    g_srv.master = nullptr;
}

const char *cli_server_path(void) {
    return g_srv.path;
}
