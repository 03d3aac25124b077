// Fuzz target: the wildcard matcher of LIST and NLST. The input is a file name and a pattern
// separated by the first zero byte; both are bounded as the listing bounds them.
#include <cstdint>
#include <cstring>

#include "base/ftpd.h"
#include "files/entries.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t *zero = static_cast<const uint8_t *>(memchr(data, 0, size));
    size_t name_len = zero != nullptr ? static_cast<size_t>(zero - data) : size / 2;
    size_t pat_off = zero != nullptr ? name_len + 1 : name_len;
    size_t pat_len = size - pat_off;
    if (name_len > FTP_BUF_SIZE || pat_len > FTP_BUF_SIZE) return 0;
    auto name = fuzz_text(data, name_len);
    auto pattern = fuzz_text(data + pat_off, pat_len);
    int r = ftpd_is_match(name.get(), pattern.get());
    if (r != 0 && r != 1) __builtin_trap();
    // A pattern without wildcards matches exactly the name it spells (both non-empty).
    if (name[0] != '\0' && strpbrk(pattern.get(), "*?") == nullptr && strlen(pattern.get()) < 256 &&
        strlen(name.get()) < 256 && r != (strcmp(name.get(), pattern.get()) == 0 ? 1 : 0))
        __builtin_trap();
    return 0;
}
