// Bounded text: every fixed-buffer copy and format goes through these, and they report truncation.
#pragma once

#include <cstdarg>
#include <cstddef>

// Formats into buf (always terminated when size > 0). Returns true when the whole text fit.
[[nodiscard]] bool ftpd_snprintf(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
[[nodiscard]] bool ftpd_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap);
// Copies / appends src (always terminated when size > 0). Returns true when the whole text fit.
[[nodiscard]] bool ftpd_strlcpy(char *dst, const char *src, size_t size);
[[nodiscard]] bool ftpd_strlcat(char *dst, const char *src, size_t size);
