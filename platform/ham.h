// Liveness monitor: the table of registered threads, and systemd notification when supervised.
#pragma once

#include <sys/types.h>

int reg_process_exit_action(int action, int mode);
int ham_client_reg_thread_notify(pid_t pid, pid_t tid, int timer, int count);
int ham_client_reset_thread_notify(pid_t pid, pid_t tid, int timer, int count);
int ham_client_unreg_thread_notify(pid_t tid);
int ham_cancel_proc(pid_t pid);

// Sends READY=1 when NOTIFY_SOCKET is set (called through cli_client_ready).
void ham_notify_ready(void);
// Sends WATCHDOG=1 when every registered thread notified within timer * count seconds.
// Returns 1 when sent or would have been sent, 0 when a thread is late.
int ham_notify_watchdog(void);
// Test-only: a thread id whose notifications are dropped (0: none).
// That thread also counts as late at once, so the watchdog stops at its next check.
void ham_set_ignored_tid(pid_t tid);

struct zq_thread_master;
// When systemd asks for a watchdog (WATCHDOG_USEC), arms a repeating timer on the master that
// runs ham_notify_watchdog at half that period; otherwise does nothing.
void ham_watchdog_start(struct zq_thread_master *m);

// Test hooks: the clock of the table in milliseconds (nullptr: the monotonic clock), and an
// empty table with no ignored thread.
void ham_set_clock_for_test(long long (*now_ms)(void));
void ham_reset_for_test(void);
