// Application frame shared by the device's daemons: single-instance guard, liveness monitor
// registration and the per-thread notification table.
#pragma once

#include <sys/types.h>

struct zq_thread_master;

struct app_init_s {
    char name[16];
    int instance_fd;
    bool syslog_single_thread;
};

void app_public_set_debug(int on);
int app_public_instance_init(struct app_init_s *param);
int app_public_instance_deinit(struct app_init_s *param);
void app_public_init_dead_detection(struct zq_thread_master *master);
void app_ham_client_reg_thread_notify(void);
void app_ham_client_reset_thread_notify(void);
void app_ham_client_unreg_thread_notify(void);
// Prints the notification table through print (a printf-style writer).
void app_ham_show_last_ntfy_time(int (*print)(const char *fmt, ...));
int app_instance_is_running(const char *name);
char *app_make_path(char *path);
unsigned int app_sysup_secs(void);
// Test-only: how many worker-thread notifications have been passed on to the monitor.
unsigned long app_ham_notify_count(void);
