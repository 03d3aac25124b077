// The rate limit of one transfer: a token bucket in KiB/s with a small burst, which tells the
// transfer loop how long to wait before it moves the next bytes, so that the flow stays smooth
// rather than a full-speed burst followed by a long pause.
#pragma once

#include <cstddef>

// A limiter's clock: milliseconds on a steady scale (tests step it by hand).
using ftp_rate_clock = long long (*)(void *ctx);

class ftp_rate_limit {
  public:
    // kib_per_second 0: no limit. clock nullptr: the monotonic clock.
    explicit ftp_rate_limit(unsigned kib_per_second = 0, ftp_rate_clock clock = nullptr, void *ctx = nullptr);

    bool on() const { return rate_ != 0; }
    // The most bytes worth moving in one step: the burst, so that no step runs ahead of the limit
    // by more than it. want itself when off.
    size_t chunk(size_t want) const { return rate_ == 0 || want <= burst_ ? want : burst_; }
    // Milliseconds to wait before moving bytes, which are then counted as moved; 0 to go at once.
    // Always 0 when off, without reading the clock. Over any second the bytes moved stay within
    // the limit plus the burst.
    long long wait_ms(size_t bytes);
    // Bytes that may move at once: 100 ms worth, and at least one 512-byte block.
    size_t burst() const { return burst_; }

  private:
    long long rate_ = 0;  // bytes per second
    size_t burst_ = 0;
    ftp_rate_clock clock_ = nullptr;
    void *ctx_ = nullptr;
    bool started_ = false;
    long long last_ms_ = 0;
    long long credit_ = 0;  // in thousandths of a byte; negative: bytes moved ahead of the limit
};
