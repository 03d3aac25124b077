// The daemon's two debug switches: process tracing and error lines. Written by the main thread
// (management commands), read by every thread; a change takes effect at the next log line.
#include <atomic>

#include "base/ftpd.h"

// Relaxed atomics: no ordering is needed, only a race-free read of a plain value.
static std::atomic<int> ftp_debug_pro{0};
static std::atomic<int> ftp_debug_err{0};

void set_ftp_debug_pro(int v) {
    ftp_debug_pro.store(v, std::memory_order_relaxed);
}

int get_ftp_debug_pro(void) {
    return ftp_debug_pro.load(std::memory_order_relaxed);
}

void set_ftp_debug_err(int v) {
    ftp_debug_err.store(v, std::memory_order_relaxed);
}

int get_ftp_debug_err(void) {
    return ftp_debug_err.load(std::memory_order_relaxed);
}
