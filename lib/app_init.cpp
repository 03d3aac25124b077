// Application frame shared by the device's daemons: the single-instance guard (a write-locked
// file below TMPDIR), registration with the liveness monitor, the main thread's periodic
// notification timer, and the per-thread table that rate-limits worker notifications and that a
// show command prints.
#include "app_init.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "app_dbg.h"
#include "bounded_text.h"
#include "ham.h"
#include "syslog_ext.h"
#include "zq_thread.h"

#define APP_MODULE "APP_PUBLIC"
#define APP_INSTANCE_PATH_LEN 64
#define APP_HAM_TIMER 120
#define APP_HAM_COUNT 15
// Fixed minimum spacing of worker notifications, independent of the configured period.
#define APP_HAM_RATE_SECS 120

static std::atomic<int> app_debug{0};

#define APP_LOG(fmt, ...)                                                                             \
    do {                                                                                              \
        if (app_debug.load(std::memory_order_relaxed) == 1)                                           \
            printk_syslog_ext(7, APP_MODULE, "DEBUG", LOG_CLASS_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

struct ham_ntfy_time_t {
    int timer;
    int count;
};

struct ham_ntfy_list_t {
    ham_ntfy_list_t *prev;
    ham_ntfy_list_t *next;
    pid_t tid;
    unsigned int last_ntfy_time;
};

// Process-wide copy of the caller's parameter. Written at initialisation and shutdown by the
// main thread only.
static struct app_init_s g_app_init = {{0}, -1, false};
static ham_ntfy_time_t g_ntfy_time = {APP_HAM_TIMER, APP_HAM_COUNT};

// The table of worker threads, in registration order. Recursive: the update path holds the lock
// while it calls the find and add helpers, which take it again.
static std::recursive_mutex app_ham_mutex;
static ham_ntfy_list_t app_ham_last_ntfy_head = {&app_ham_last_ntfy_head, &app_ham_last_ntfy_head, 0, 0};
static std::atomic<unsigned long> app_ham_sent{0};

static const char *err_text(int err, char *buf, size_t size) { return strerror_r(err, buf, size); }

void app_public_set_debug(int on) { app_debug.store(on, std::memory_order_relaxed); }

unsigned int app_sysup_secs(void) {
    struct sysinfo info;
    if (sysinfo(&info) != 0) return 0;
    return static_cast<unsigned int>(info.uptime);
}

// ---------------------------------------------------------------------------------------------
// Single-instance guard

char *app_make_path(char *path) {
    if (mkdir(path, 0777) != 0 && errno != EEXIST) {
        char eb[128];
        APP_LOG("Failed to create directory \"./%s\"[%s].\n", path, err_text(errno, eb, sizeof eb));
        return nullptr;
    }
    // Whatever mode the directory had, every daemon of the device must be able to use it.
    if (chmod(path, 0777) != 0) {
        // Not ours to change (made by another user); it is usable as it is or the open fails.
    }
    return path;
}

int app_instance_is_running(const char *name) {
    const char *base = getenv("TMPDIR");
    if (base == nullptr || name == nullptr) return -1;
    if (strlen(base) + strlen(name) + 15 >= APP_INSTANCE_PATH_LEN) {
        APP_LOG("path_len is not enough.\n");
        return -1;
    }

    char path[APP_INSTANCE_PATH_LEN];
    (void)ftpd_snprintf(path, sizeof path, "%s/app/", base);
    if (app_make_path(path) == nullptr) {
        APP_LOG("Failed to get app path.\n");
        return -1;
    }
    (void)ftpd_strlcat(path, name, sizeof path);
    if (app_make_path(path) == nullptr) {
        APP_LOG("Failed to get /app/%s path.\n", name);
        return -1;
    }
    (void)ftpd_strlcat(path, "/.running", sizeof path);

    char eb[128];
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        APP_LOG("Failed to open file %s[%s].\n", path, err_text(errno, eb, sizeof eb));
        return -1;
    }
    // The lock, not the file, says that an instance runs: it vanishes with the process.
    struct flock lk;
    memset(&lk, 0, sizeof lk);
    lk.l_type = F_WRLCK;
    lk.l_whence = SEEK_SET;
    lk.l_start = 0;
    lk.l_len = 0;
    if (fcntl(fd, F_SETLK, &lk) != 0) {
        int err = errno;
        close(fd);
        if (err != EACCES && err != EAGAIN) APP_LOG("Failed to lock file %s[%s].\n", path, err_text(err, eb, sizeof eb));
        return -1;
    }
    return fd;
}

// ---------------------------------------------------------------------------------------------
// Instance set-up and shutdown

static int app_reg_ham(const struct app_init_s *param) {
    int ret = reg_process_exit_action(0, 2);
    if (ret < 0) {
        APP_LOG("[%s] ham reg_process_exit_action fail: %d\n", param->name, ret);
        return -1;
    }
    return 0;
}

int app_public_instance_init(struct app_init_s *param) {
    if (param == nullptr) return -1;
    umask(0);
    g_app_init = *param;
    g_app_init.name[sizeof g_app_init.name - 1] = '\0';
    app_dbg_set_name(g_app_init.name);

    g_app_init.instance_fd = app_instance_is_running(g_app_init.name);
    param->instance_fd = g_app_init.instance_fd;
    if (g_app_init.instance_fd < 0) {
        app_write_keymsg("One instance is running.\n");
        return -1;
    }

    if (app_reg_ham(&g_app_init) != 0) return -1;

    g_ntfy_time.timer = APP_HAM_TIMER;
    g_ntfy_time.count = APP_HAM_COUNT;

    if (!g_app_init.syslog_single_thread && syslog_multi_thread_client_init(APP_HAM_TIMER, APP_HAM_COUNT) != 0)
        APP_LOG("init syslog multi thread failed.\n");
    return 0;
}

int app_public_instance_deinit(struct app_init_s *param) {
    if (g_app_init.instance_fd == -1) {
        APP_LOG("[%s]: runner error\n", __func__);
    } else {
        close(g_app_init.instance_fd);
        g_app_init.instance_fd = -1;
    }
    if (param != nullptr) param->instance_fd = -1;
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Main-thread liveness: a self-renewing timer on the event master

static int app_ham_ntfy_timer(struct zq_thread *task) {
    int ret = ham_client_reset_thread_notify(getpid(), gettid(), g_ntfy_time.timer, g_ntfy_time.count);
    if (ret < 0) APP_LOG("Failed to reset ham thread notify, ret = %d\n", ret);
    if (zq_thread_add_timer_withname(task->master, app_ham_ntfy_timer, nullptr, g_ntfy_time.timer, "ham-ntfy") ==
        nullptr)
        APP_LOG("Failed to add re-thread for HAM.\n");
    return 0;
}

void app_public_init_dead_detection(struct zq_thread_master *master) {
    if (g_app_init.syslog_single_thread && syslog_single_thread_client_init(master) != 0)
        APP_LOG("init syslog single thread failed.\n");
    int ret = ham_client_reg_thread_notify(getpid(), gettid(), g_ntfy_time.timer, g_ntfy_time.count);
    if (ret < 0) APP_LOG("Failed to reg ham thread notify, ret = %d\n", ret);
    if (zq_thread_add_timer_withname(master, app_ham_ntfy_timer, nullptr, g_ntfy_time.timer, "ham-ntfy") == nullptr)
        APP_LOG("Failed to add re-thread for HAM.\n");
}

// ---------------------------------------------------------------------------------------------
// Worker-thread liveness table

static ham_ntfy_list_t *app_ham_find(pid_t tid) {
    std::lock_guard<std::recursive_mutex> lock(app_ham_mutex);
    for (ham_ntfy_list_t *e = app_ham_last_ntfy_head.next; e != &app_ham_last_ntfy_head; e = e->next)
        if (e->tid == tid) return e;
    return nullptr;
}

// Entries use the general allocator: the frame is shared with daemons that have no accounting.
static ham_ntfy_list_t *app_ham_add(pid_t tid, unsigned int now) {
    std::lock_guard<std::recursive_mutex> lock(app_ham_mutex);
    auto *e = static_cast<ham_ntfy_list_t *>(calloc(1, sizeof(ham_ntfy_list_t)));
    if (e == nullptr) return nullptr;
    e->tid = tid;
    e->last_ntfy_time = now;
    e->prev = app_ham_last_ntfy_head.prev;
    e->next = &app_ham_last_ntfy_head;
    app_ham_last_ntfy_head.prev->next = e;
    app_ham_last_ntfy_head.prev = e;
    return e;
}

static void app_ham_send_reset(pid_t pid, pid_t tid) {
    int ret = ham_client_reset_thread_notify(pid, tid, g_ntfy_time.timer, g_ntfy_time.count);
    app_ham_sent.fetch_add(1, std::memory_order_relaxed);
    if (ret < 0) APP_LOG("Failed to reset ham thread notify, ret = %d\n", ret);
}

void app_ham_client_reg_thread_notify(void) {
    pid_t pid = getpid();
    pid_t tid = gettid();
    int ret = ham_client_reg_thread_notify(pid, tid, g_ntfy_time.timer, g_ntfy_time.count);
    if (ret < 0)
        APP_LOG("Failed to reg ham thread(pid=%u, tid=%d, timer=%d, cnt=%d) notify, ret = %d\n",
                static_cast<unsigned>(pid), tid, g_ntfy_time.timer, g_ntfy_time.count, ret);
    // The entry is kept even when the monitor refused, so that the show command still lists it.
    std::lock_guard<std::recursive_mutex> lock(app_ham_mutex);
    unsigned int now = app_sysup_secs();
    ham_ntfy_list_t *e = app_ham_find(tid);
    if (e != nullptr)
        e->last_ntfy_time = now;
    else
        app_ham_add(tid, now);
}

void app_ham_client_reset_thread_notify(void) {
    pid_t tid = gettid();
    {
        std::lock_guard<std::recursive_mutex> lock(app_ham_mutex);
        unsigned int now = app_sysup_secs();
        ham_ntfy_list_t *e = app_ham_find(tid);
        if (e == nullptr) {
            app_ham_add(tid, now);
        } else {
            if (now - e->last_ntfy_time < APP_HAM_RATE_SECS) return;
            e->last_ntfy_time = now;
        }
    }
    app_ham_send_reset(getpid(), tid);
}

void app_ham_client_unreg_thread_notify(void) {
    pid_t tid = gettid();
    {
        std::lock_guard<std::recursive_mutex> lock(app_ham_mutex);
        ham_ntfy_list_t *e = app_ham_find(tid);
        if (e != nullptr) {
            e->prev->next = e->next;
            e->next->prev = e->prev;
            free(e);
        }
    }
    ham_client_unreg_thread_notify(tid);
}

void app_ham_show_last_ntfy_time(int (*print)(const char *fmt, ...)) {
    if (print == nullptr) return;
    std::lock_guard<std::recursive_mutex> lock(app_ham_mutex);
    print("PID              pthread                 last ntfy\n");
    int pid = static_cast<int>(getpid());
    for (ham_ntfy_list_t *e = app_ham_last_ntfy_head.next; e != &app_ham_last_ntfy_head; e = e->next)
        print("%-10d       %-15d         %-15u\n", pid, static_cast<int>(e->tid), e->last_ntfy_time);
}

unsigned long app_ham_notify_count(void) { return app_ham_sent.load(std::memory_order_relaxed); }
