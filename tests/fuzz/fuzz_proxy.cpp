// Fuzz target: the PROXY protocol header parser. Checks that a complete header never claims more
// bytes than were given, that a request for more always asks past what was given, and that the
// answer does not depend on what follows the header: the header alone parses the same, and one
// byte less of it asks for more.
#include <sys/socket.h>

#include <cstdint>
#include <cstring>

#include "net/proxy_header.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ftp_proxy_header h;
    int status = ftp_proxy_parse(data, size, &h);
    if (status == FTP_PROXY_NEED_MORE && h.length <= size) __builtin_trap();
    if (status != FTP_PROXY_COMPLETE) return 0;
    if (h.length > size || h.length < 15) __builtin_trap();
    int families[] = {AF_UNSPEC, AF_INET, AF_INET6};
    bool known = false;
    for (int f : families) known = known || h.src.ss_family == f;
    if (!known || h.src.ss_family != h.dst.ss_family) __builtin_trap();
    ftp_proxy_header alone;
    if (ftp_proxy_parse(data, h.length, &alone) != FTP_PROXY_COMPLETE || alone.length != h.length ||
        memcmp(&alone.src, &h.src, sizeof h.src) != 0 || memcmp(&alone.dst, &h.dst, sizeof h.dst) != 0)
        __builtin_trap();
    ftp_proxy_header shorter;
    if (ftp_proxy_parse(data, h.length - 1, &shorter) != FTP_PROXY_NEED_MORE || shorter.length > h.length)
        __builtin_trap();
    return 0;
}
