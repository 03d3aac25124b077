// Fuzz target: the platform-file parser. Each input is written to a private temporary file and
// loaded; a refusal must come with its "FILE:LINE: ..." reason.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform_conf.h"

namespace {
std::string g_path;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char tmpl[] = "/tmp/ftps-fuzz-conf-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) abort();
    close(fd);
    g_path = tmpl;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int fd = open(g_path.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) abort();
    if (write(fd, data, size) != static_cast<ssize_t>(size)) abort();
    close(fd);
    platform_conf conf;
    std::string err;
    int rc = platform_conf_load(g_path.c_str(), &conf, &err);
    if (rc != 0 && rc != -1) __builtin_trap();
    if (rc == -1 && err.compare(0, g_path.size(), g_path) != 0) __builtin_trap();
    return 0;
}
