// The tech-support hook.
#pragma once

#include "base/ftpd.h"

int ftpd_tech_init(struct zq_thread_master *master);
int _ftpd_tech_hook(int kind, void *arg);
void _ftpd_tech_detail(void);
int ftpd_tech_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
