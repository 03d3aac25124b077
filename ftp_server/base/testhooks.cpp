// Test-only switches, read once from the environment at start-up so that the integration tests
// can inject faults into the real daemon; nothing sets them in production.
//   FTPS_TEST_MEMFAIL=TYPE:N            the N-th following allocation of category TYPE (its number,
//                                       or -1 for any category) fails
//   FTPS_TEST_LISTENER_SILENT_AFTER=S   S seconds after the listener starts, its liveness
//                                       notifications are dropped, as if it hung
#include "base/testhooks.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

#include "base/ftpd.h"
#include "ham.h"

void ftpd_testhooks_init(void) {
    const char *memfail = getenv("FTPS_TEST_MEMFAIL");
    if (memfail != nullptr) {
        char *end = nullptr;
        long type = strtol(memfail, &end, 10);
        if (end != nullptr && *end == ':') {
            long n = strtol(end + 1, nullptr, 10);
            if (n > 0) ftpd_mem_fail_after(static_cast<int>(type), static_cast<unsigned>(n));
        }
    }
}

namespace {
struct silence {
    pid_t tid;
    unsigned seconds;
};

void *silence_later(void *arg) {
    auto *s = static_cast<silence *>(arg);
    sleep(s->seconds);
    ham_set_ignored_tid(s->tid);
    delete s;
    return nullptr;
}
}  // namespace

void ftpd_testhooks_listener_started(void) {
    const char *after = getenv("FTPS_TEST_LISTENER_SILENT_AFTER");
    if (after == nullptr) return;
    auto *s = new silence{static_cast<pid_t>(syscall(SYS_gettid)), static_cast<unsigned>(atoi(after))};
    pthread_t t;
    if (pthread_create(&t, nullptr, silence_later, s) == 0)
        pthread_detach(t);
    else
        delete s;
}
