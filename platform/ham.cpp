// Liveness monitor: the table of registered threads with their periods, and the systemd
// notifications (READY=1, WATCHDOG=1 while no registered thread is late) when supervised.
#include "ham.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include "syslog_ext.h"
#include "zq_thread.h"

namespace {

struct ham_entry {
    pid_t pid;
    pid_t tid;
    int timer;  // seconds between notifications
    int count;  // missed notifications tolerated
    long long last_ms;
};

std::mutex g_lock;
// Never destroyed: the listener may still notify while the process exits.
std::vector<ham_entry> &g_table = *new std::vector<ham_entry>;
pid_t g_ignored_tid = 0;
bool g_late = false;  // last verdict, so that a late thread is logged once, not every period

long long monotonic_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

long long (*g_clock)(void) = monotonic_ms;

// The service manager's notification protocol (one datagram to $NOTIFY_SOCKET, "@" for an
// abstract name), spoken here rather than through libsystemd: that library and the ones it
// brings cost an idle daemon more memory than the daemon's own state. Unsupervised: nothing.
void notify_manager(const char *state) {
    const char *path = getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@')) return;
    struct sockaddr_un addr {};
    size_t len = strlen(path);
    if (len < 2 || len >= sizeof addr.sun_path) return;
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path, len);
    if (path[0] == '@') addr.sun_path[0] = '\0';
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    socklen_t alen = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + len);
    (void)sendto(fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<struct sockaddr *>(&addr), alen);
    close(fd);
}

// The watchdog period the manager asks for ($WATCHDOG_USEC, for this process when
// $WATCHDOG_PID names one), microseconds; 0 when none.
uint64_t watchdog_usec() {
    const char *usec = getenv("WATCHDOG_USEC");
    if (usec == nullptr) return 0;
    const char *pid = getenv("WATCHDOG_PID");
    if (pid != nullptr && strtol(pid, nullptr, 10) != static_cast<long>(getpid())) return 0;
    char *end = nullptr;
    unsigned long long v = strtoull(usec, &end, 10);
    return end != usec && *end == '\0' ? v : 0;
}

ham_entry *find(pid_t tid) {
    for (ham_entry &e : g_table)
        if (e.tid == tid) return &e;
    return nullptr;
}

void upsert(pid_t pid, pid_t tid, int timer, int count) {
    long long now = g_clock();
    ham_entry *e = find(tid);
    if (e == nullptr) {
        g_table.push_back({pid, tid, timer, count, now});
        return;
    }
    e->pid = pid;
    e->timer = timer;
    e->count = count;
    e->last_ms = now;
}

int watchdog_tick(struct zq_thread *task) {
    ham_notify_watchdog();
    long period = static_cast<long>(reinterpret_cast<intptr_t>(task->arg));
    zq_thread_add_timer_msec(task->master, watchdog_tick, task->arg, period, "ham-watchdog");
    return 0;
}

}  // namespace

void ham_set_clock_for_test(long long (*now_ms)(void)) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_clock = now_ms != nullptr ? now_ms : monotonic_ms;
}

void ham_reset_for_test(void) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_table.clear();
    g_ignored_tid = 0;
    g_late = false;
}

int reg_process_exit_action(int action, int mode) {
    (void)action;
    (void)mode;
    return 0;
}

int ham_client_reg_thread_notify(pid_t pid, pid_t tid, int timer, int count) {
    std::lock_guard<std::mutex> lock(g_lock);
    upsert(pid, tid, timer, count);
    return 0;
}

int ham_client_reset_thread_notify(pid_t pid, pid_t tid, int timer, int count) {
    std::lock_guard<std::mutex> lock(g_lock);
    if (tid == g_ignored_tid && tid != 0) return 0;  // dropped on purpose: the thread looks hung
    upsert(pid, tid, timer, count);
    return 0;
}

int ham_client_unreg_thread_notify(pid_t tid) {
    std::lock_guard<std::mutex> lock(g_lock);
    for (auto it = g_table.begin(); it != g_table.end(); ++it) {
        if (it->tid == tid) {
            g_table.erase(it);
            break;
        }
    }
    return 0;
}

int ham_cancel_proc(pid_t pid) {
    {
        std::lock_guard<std::mutex> lock(g_lock);
        std::erase_if(g_table, [pid](const ham_entry &e) { return e.pid == pid; });
    }
    notify_manager("STOPPING=1");
    return 0;
}

void ham_notify_ready(void) {
    notify_manager("READY=1");
}

int ham_notify_watchdog(void) {
    pid_t late_tid = 0;
    long long late_for = 0;
    bool log_late = false;
    bool log_recovered = false;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        long long now = g_clock();
        for (const ham_entry &e : g_table) {
            long long allowed = static_cast<long long>(e.timer) * e.count * 1000;
            // A silenced thread counts as hung at once: with the device's periods (120 s x 15) it
            // would only become late after half an hour.
            bool silenced = g_ignored_tid != 0 && e.tid == g_ignored_tid;
            if (silenced || now - e.last_ms > allowed) {
                late_tid = e.tid;
                late_for = (now - e.last_ms) / 1000;
                break;
            }
        }
        bool late = late_tid != 0;
        log_late = late && !g_late;
        log_recovered = !late && g_late;
        g_late = late;
    }
    if (log_late)
        printk_syslog_ext(3, "HAM", "LATE", LOG_CLASS_ALWAYS,
                          "thread %d has not notified for %lld seconds, watchdog withheld", static_cast<int>(late_tid),
                          late_for);
    if (log_recovered)
        printk_syslog_ext(5, "HAM", "LATE", LOG_CLASS_ALWAYS, "every thread notifies again, watchdog resumed");
    if (late_tid != 0) return 0;
    notify_manager("WATCHDOG=1");
    return 1;
}

void ham_set_ignored_tid(pid_t tid) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_ignored_tid = tid;
}

void ham_watchdog_start(struct zq_thread_master *m) {
    uint64_t usec = watchdog_usec();
    if (m == nullptr || usec == 0) return;
    long period_ms = static_cast<long>(usec / 2000);
    if (period_ms < 1) period_ms = 1;
    zq_thread_add_timer_msec(m, watchdog_tick, reinterpret_cast<void *>(static_cast<intptr_t>(period_ms)), period_ms,
                             "ham-watchdog");
}
