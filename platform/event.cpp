// Event master: the main thread's event loop. One-shot timers on the monotonic clock, one-shot
// read events through epoll, queued events, and a stop path that SIGTERM, SIGINT or another
// thread can take through an eventfd. SIGHUP (log rotation) takes the same eventfd and queues
// the log service's reopen (and the TLS certificates' reload) as an event; it never ends the loop.
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <list>
#include <new>

#include "ftp_tls.h"
#include "syslog_ext.h"
#include "zq_thread.h"

namespace {

// A pending task: the public record handed out by fetch, plus its bookkeeping.
struct zq_task {
    zq_thread pub;
    int64_t deadline_ms = 0;    // timers
    uint64_t seq = 0;           // arrival order, breaks ties between equal deadlines
    zq_thread **ref = nullptr;  // caller's handle slot, cleared when the task fires or is cancelled
};

}  // namespace

struct zq_thread_master {
    int epfd = -1;
    int stopfd = -1;  // eventfd written by stop and by the signal handler
    std::atomic<bool> stopped{false};
    uint64_t next_seq = 0;
    std::list<zq_task *> timers;  // sorted by deadline, then seq
    std::list<zq_task *> reads;
    std::list<zq_task *> ready;  // fired or queued, handed out in order
    struct sigaction old_term {};
    struct sigaction old_int {};
    struct sigaction old_hup {};
    zq_thread_master *next_master = nullptr;
};

namespace {

// The eventfd the signal handler writes to: the most recently created master's.
std::atomic<int> g_signal_fd{-1};
std::atomic<bool> g_signal_stopped{false};
std::atomic<bool> g_signal_hangup{false};
// Live masters (only the main thread creates and uses them), so that cancelling a stale handle
// never dereferences freed memory.
zq_thread_master *g_masters = nullptr;

// Marks the request and wakes the loop; async-signal-safe.
void mark_and_wake(std::atomic<bool> &flag) {
    int saved = errno;
    flag.store(true);
    int fd = g_signal_fd.load();
    if (fd >= 0) {
        uint64_t one = 1;
        ssize_t n = write(fd, &one, sizeof one);
        (void)n;
    }
    errno = saved;
}

void on_stop_signal(int) {
    mark_and_wake(g_signal_stopped);
}

// Only marks the request: the reopen itself runs as an event on the main thread.
void on_hangup_signal(int) {
    mark_and_wake(g_signal_hangup);
}

std::atomic<void (*)(void)> g_hangup_hook{nullptr};

int reopen_logs(zq_thread *) {
    syslog_reopen();
    void (*hook)(void) = g_hangup_hook.load();
    if (hook != nullptr) hook();
    // Renewed certificates are taken up the same way; sessions already protected keep theirs.
    char err[512] = {0};
    if (ftp_tls_reload(err, sizeof err) != 0)
        printk_syslog_ext(3, "TLS", "RELOAD", LOG_CLASS_ALWAYS, "TLS certificate not reloaded: %s\n", err);
    return 0;
}

int64_t now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

zq_task *new_task(zq_thread_master *m, int type, zq_thread_func func, void *arg, int fd, const char *name) {
    zq_task *t = new (std::nothrow) zq_task;
    if (t == nullptr) return nullptr;
    t->pub.type = type;
    t->pub.master = m;
    t->pub.func = func;
    t->pub.arg = arg;
    t->pub.fd = fd;
    snprintf(t->pub.name, sizeof t->pub.name, "%s", name != nullptr ? name : "");
    t->seq = m->next_seq++;
    return t;
}

void release_task(zq_task *t) {
    if (t->ref != nullptr && *t->ref == &t->pub) *t->ref = nullptr;
    delete t;
}

zq_task *add_timer(zq_thread_master *m, zq_thread_func func, void *arg, long msec, const char *name) {
    if (m == nullptr || func == nullptr) return nullptr;
    zq_task *t = new_task(m, ZQ_THREAD_TIMER, func, arg, -1, name);
    if (t == nullptr) return nullptr;
    t->deadline_ms = now_ms() + (msec > 0 ? msec : 0);
    auto it = m->timers.begin();
    while (it != m->timers.end() && (*it)->deadline_ms <= t->deadline_ms) ++it;
    m->timers.insert(it, t);
    return t;
}

bool remove_from(std::list<zq_task *> &l, zq_task *t) {
    for (auto it = l.begin(); it != l.end(); ++it) {
        if (*it == t) {
            l.erase(it);
            return true;
        }
    }
    return false;
}

void free_all(std::list<zq_task *> &l) {
    for (zq_task *t : l) release_task(t);
    l.clear();
}

// Moves due timers and readable descriptors onto the ready list; waits at most timeout_ms.
void poll_once(zq_thread_master *m, int timeout_ms) {
    epoll_event evs[32];
    int n = epoll_wait(m->epfd, evs, 32, timeout_ms);
    for (int i = 0; i < n; i++) {
        if (evs[i].data.ptr == nullptr) {
            uint64_t v;
            ssize_t r = read(m->stopfd, &v, sizeof v);
            (void)r;
            if (g_signal_stopped.load()) m->stopped.store(true);
            if (g_signal_hangup.exchange(false)) {
                zq_task *t = new_task(m, ZQ_THREAD_EVENT, reopen_logs, nullptr, -1, "log_reopen");
                if (t != nullptr) m->ready.push_back(t);
            }
            continue;
        }
        zq_task *t = static_cast<zq_task *>(evs[i].data.ptr);
        if (remove_from(m->reads, t)) {
            epoll_ctl(m->epfd, EPOLL_CTL_DEL, t->pub.fd, nullptr);
            m->ready.push_back(t);
        }
    }
    int64_t now = now_ms();
    while (!m->timers.empty() && m->timers.front()->deadline_ms <= now) {
        m->ready.push_back(m->timers.front());
        m->timers.pop_front();
    }
}

}  // namespace

struct zq_thread_master *zq_thread_master_create(void) {
    zq_thread_master *m = new (std::nothrow) zq_thread_master;
    if (m == nullptr) return nullptr;
    m->epfd = epoll_create1(EPOLL_CLOEXEC);
    m->stopfd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = nullptr;
    if (m->epfd < 0 || m->stopfd < 0 || epoll_ctl(m->epfd, EPOLL_CTL_ADD, m->stopfd, &ev) != 0) {
        if (m->epfd >= 0) close(m->epfd);
        if (m->stopfd >= 0) close(m->stopfd);
        delete m;
        return nullptr;
    }
    g_signal_stopped.store(false);
    g_signal_fd.store(m->stopfd);
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &sa, &m->old_term);
    sigaction(SIGINT, &sa, &m->old_int);
    g_signal_hangup.store(false);
    sa.sa_handler = on_hangup_signal;
    sigaction(SIGHUP, &sa, &m->old_hup);
    // The process may have blocked them until its loop exists; a stop asked for meanwhile is
    // pending and ends the loop as soon as it runs.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGHUP);
    pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
    m->next_master = g_masters;
    g_masters = m;
    return m;
}

void zq_thread_master_finish(struct zq_thread_master *m) {
    if (m == nullptr) return;
    for (zq_thread_master **pp = &g_masters; *pp != nullptr; pp = &(*pp)->next_master) {
        if (*pp == m) {
            *pp = m->next_master;
            break;
        }
    }
    if (g_signal_fd.load() == m->stopfd) {
        sigaction(SIGTERM, &m->old_term, nullptr);
        sigaction(SIGINT, &m->old_int, nullptr);
        sigaction(SIGHUP, &m->old_hup, nullptr);
        g_signal_fd.store(-1);
    }
    free_all(m->timers);
    free_all(m->reads);
    free_all(m->ready);
    close(m->stopfd);
    close(m->epfd);
    delete m;
}

struct zq_thread *zq_thread_fetch(struct zq_thread_master *m, struct zq_thread *fetch) {
    if (m == nullptr || fetch == nullptr) return nullptr;
    for (;;) {
        if (m->stopped.load() || (g_signal_stopped.load() && g_signal_fd.load() == m->stopfd)) {
            m->stopped.store(true);
            return nullptr;
        }
        if (!m->ready.empty()) {
            zq_task *t = m->ready.front();
            m->ready.pop_front();
            *fetch = t->pub;
            release_task(t);
            return fetch;
        }
        int timeout = -1;
        if (!m->timers.empty()) {
            int64_t wait = m->timers.front()->deadline_ms - now_ms();
            if (wait < 0) wait = 0;
            timeout = wait > 60000 ? 60000 : static_cast<int>(wait);
        }
        poll_once(m, timeout);
    }
}

void zq_thread_call(struct zq_thread *task) {
    if (task != nullptr && task->func != nullptr) task->func(task);
}

struct zq_thread *zq_thread_add_timer_msec(struct zq_thread_master *m, zq_thread_func func, void *arg, long msec,
                                           const char *name) {
    zq_task *t = add_timer(m, func, arg, msec, name);
    return t != nullptr ? &t->pub : nullptr;
}

struct zq_thread *zq_thread_add_timer_withname(struct zq_thread_master *m, zq_thread_func func, void *arg, long seconds,
                                               const char *name) {
    zq_task *t = add_timer(m, func, arg, seconds * 1000, name);
    return t != nullptr ? &t->pub : nullptr;
}

int zq_thread_insert_timer(struct zq_thread_master *m, struct zq_thread **timer, zq_thread_func func, void *arg,
                           long seconds, const char *name) {
    zq_task *t = add_timer(m, func, arg, seconds * 1000, name);
    if (t == nullptr) return -1;
    if (timer != nullptr) {
        t->ref = timer;
        *timer = &t->pub;
    }
    return 0;
}

struct zq_thread *zq_thread_add_read(struct zq_thread_master *m, zq_thread_func func, void *arg, int fd,
                                     const char *name) {
    if (m == nullptr || func == nullptr || fd < 0) return nullptr;
    zq_task *t = new_task(m, ZQ_THREAD_READ, func, arg, fd, name);
    if (t == nullptr) return nullptr;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = t;
    if (epoll_ctl(m->epfd, EPOLL_CTL_ADD, fd, &ev) != 0) {
        delete t;
        return nullptr;
    }
    m->reads.push_back(t);
    return &t->pub;
}

struct zq_thread *zq_thread_add_event(struct zq_thread_master *m, zq_thread_func func, void *arg, const char *name) {
    if (m == nullptr || func == nullptr) return nullptr;
    zq_task *t = new_task(m, ZQ_THREAD_EVENT, func, arg, -1, name);
    if (t == nullptr) return nullptr;
    m->ready.push_back(t);
    return &t->pub;
}

void zq_thread_cancel(struct zq_thread *task) {
    if (task == nullptr) return;
    // pub is the first member of zq_task, so the handle converts back without reading it.
    zq_task *t = reinterpret_cast<zq_task *>(task);
    for (zq_thread_master *m = g_masters; m != nullptr; m = m->next_master) {
        if (remove_from(m->timers, t) || remove_from(m->ready, t)) {
            release_task(t);
            return;
        }
        if (remove_from(m->reads, t)) {
            epoll_ctl(m->epfd, EPOLL_CTL_DEL, t->pub.fd, nullptr);
            release_task(t);
            return;
        }
    }
}

void zq_thread_set_hangup_hook(void (*hook)(void)) {
    g_hangup_hook.store(hook);
}

void zq_thread_master_stop(struct zq_thread_master *m) {
    if (m == nullptr) return;
    m->stopped.store(true);
    uint64_t one = 1;
    ssize_t n = write(m->stopfd, &one, sizeof one);
    (void)n;
}
