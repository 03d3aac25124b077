// Bounded text helpers.
#include "bounded_text.h"

#include <cstdio>
#include <cstring>

bool ftpd_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap) {
    if (buf == nullptr || size == 0) return false;
    int n = vsnprintf(buf, size, fmt, ap);
    return n >= 0 && static_cast<size_t>(n) < size;
}

bool ftpd_snprintf(char *buf, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool ok = ftpd_vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    return ok;
}

bool ftpd_strlcpy(char *dst, const char *src, size_t size) {
    if (dst == nullptr || size == 0) return false;
    if (src == nullptr) src = "";
    size_t n = strnlen(src, size);
    if (n == size) {
        memcpy(dst, src, size - 1);
        dst[size - 1] = '\0';
        return false;
    }
    memcpy(dst, src, n + 1);
    return true;
}

bool ftpd_strlcat(char *dst, const char *src, size_t size) {
    if (dst == nullptr || size == 0) return false;
    size_t used = strnlen(dst, size);
    if (used == size) return false;
    return ftpd_strlcpy(dst + used, src, size - used);
}
