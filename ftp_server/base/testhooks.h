// Fault-injection switches read from the environment, compiled into test builds only.
#pragma once

#include "base/ftpd.h"

#ifdef FTPS_TEST_HOOKS
void ftpd_testhooks_init(void);
void ftpd_testhooks_listener_started(void);
#else
inline void ftpd_testhooks_init(void) {}
inline void ftpd_testhooks_listener_started(void) {}
#endif
