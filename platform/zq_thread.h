// Event master: a small epoll event loop on the main thread with one-shot timers and read events.
#pragma once

struct zq_thread_master;
struct zq_thread;

typedef int (*zq_thread_func)(struct zq_thread *task);

enum zq_thread_type { ZQ_THREAD_NONE = 0, ZQ_THREAD_TIMER, ZQ_THREAD_READ, ZQ_THREAD_EVENT };

// One task: what zq_thread_fetch hands out and zq_thread_call runs.
struct zq_thread {
    int type;
    struct zq_thread_master *master;
    zq_thread_func func;
    void *arg;
    int fd;
    char name[32];
};

#define ZQ_THREAD_ARG(t) ((t)->arg)
#define ZQ_THREAD_FD(t) ((t)->fd)

struct zq_thread_master *zq_thread_master_create(void);
// Blocks until a task is ready and copies it into *fetch; returns fetch, or nullptr once the
// master is stopped (SIGTERM, SIGINT or zq_thread_master_stop). While a master lives, SIGHUP
// hands out a task that reopens the log service's targets (syslog_reopen).
struct zq_thread *zq_thread_fetch(struct zq_thread_master *m, struct zq_thread *fetch);
void zq_thread_call(struct zq_thread *task);
void zq_thread_master_finish(struct zq_thread_master *m);

// One-shot timer; returns its handle or nullptr.
struct zq_thread *zq_thread_add_timer_withname(struct zq_thread_master *m, zq_thread_func func, void *arg,
                                               long seconds, const char *name);
// One-shot timer stored in *timer; returns 0 when armed, -1 otherwise.
int zq_thread_insert_timer(struct zq_thread_master *m, struct zq_thread **timer, zq_thread_func func, void *arg,
                           long seconds, const char *name);
// Timer in milliseconds (platform-internal use).
struct zq_thread *zq_thread_add_timer_msec(struct zq_thread_master *m, zq_thread_func func, void *arg, long msec,
                                           const char *name);
// One-shot read event: runs func once when fd is readable (re-add to keep watching).
struct zq_thread *zq_thread_add_read(struct zq_thread_master *m, zq_thread_func func, void *arg, int fd,
                                     const char *name);
// Runs func at the next fetch.
struct zq_thread *zq_thread_add_event(struct zq_thread_master *m, zq_thread_func func, void *arg, const char *name);
// Cancels a pending timer or read event; the handle is invalid afterwards.
void zq_thread_cancel(struct zq_thread *task);
// What else SIGHUP reopens or reloads (after the log service's targets), run on the main thread;
// one hook, a later call replacing it.
void zq_thread_set_hangup_hook(void (*hook)(void));
// Makes the next (or the blocked) fetch return nullptr. Async-signal-safe.
void zq_thread_master_stop(struct zq_thread_master *m);
