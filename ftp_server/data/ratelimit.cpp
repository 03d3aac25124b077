// The per-transfer rate limit: a token bucket that starts empty (a transfer never opens with a
// burst) and fills at the limit up to 100 ms worth of bytes.
#include "data/ratelimit.h"

#include <time.h>

namespace {

const long long kMinBurst = 512;
// Credit is kept in thousandths of a byte, so that a millisecond at any rate adds a whole number:
// rate bytes per second is rate thousandths per millisecond.
const long long kScale = 1000;
// Longer idle gaps change nothing (the bucket is full long before) and would only risk overflow.
const long long kMaxGapMs = 10LL * 1000 * 1000;
const size_t kMaxStep = static_cast<size_t>(1) << 40;

long long monotonic_ms(void *) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

ftp_rate_limit::ftp_rate_limit(unsigned kib_per_second, ftp_rate_clock clock, void *ctx)
    : rate_(static_cast<long long>(kib_per_second) * 1024), clock_(clock != nullptr ? clock : monotonic_ms), ctx_(ctx) {
    long long burst = rate_ / 10;
    burst_ = static_cast<size_t>(burst < kMinBurst ? kMinBurst : burst);
}

long long ftp_rate_limit::wait_ms(size_t bytes) {
    if (rate_ == 0) return 0;
    long long now = clock_(ctx_);
    if (!started_) {
        started_ = true;
        last_ms_ = now;
    }
    long long gap = now - last_ms_;
    if (gap > kMaxGapMs) gap = kMaxGapMs;
    if (gap > 0) {
        credit_ += gap * rate_;
        long long full = static_cast<long long>(burst_) * kScale;
        if (credit_ > full) credit_ = full;
        last_ms_ = now;
    }
    credit_ -= static_cast<long long>(bytes < kMaxStep ? bytes : kMaxStep) * kScale;
    if (credit_ >= 0) return 0;
    return (-credit_ + rate_ - 1) / rate_;
}
