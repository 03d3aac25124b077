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
void ham_set_ignored_tid(pid_t tid);
