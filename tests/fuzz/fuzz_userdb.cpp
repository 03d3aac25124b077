// Fuzz target: the local user-database parser. Each input is written as the database file and
// read through the account look-up and the online-count write-back. Two file names are used in
// turn so that every input is a new file to the database and is parsed afresh.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "aaa.h"
#include "platform_conf.h"

namespace {
std::string g_paths[2];
platform_conf g_conf[2];
unsigned g_turn = 0;
int g_stderr = -1;
int g_null = -1;

// The parser reports every odd line on standard error: millions of lines over a long run. They
// are dropped while it runs; a crash still leaves its input as the fuzzer's artifact.
struct quiet_stderr {
    quiet_stderr() {
        if (g_null >= 0) dup2(g_null, 2);
    }
    ~quiet_stderr() {
        if (g_stderr >= 0) dup2(g_stderr, 2);
    }
};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    for (int i = 0; i < 2; i++) {
        char tmpl[] = "/tmp/ftps-fuzz-users-XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd < 0) abort();
        close(fd);
        g_paths[i] = tmpl;
        platform_conf_set_defaults(&g_conf[i]);
        g_conf[i].log_syslog = false;
        g_conf[i].user_database = g_paths[i];
    }
    if (getenv("FTPS_FUZZ_VERBOSE") == nullptr) {
        g_stderr = dup(2);
        g_null = open("/dev/null", O_WRONLY);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    unsigned turn = g_turn++ & 1;
    int fd = open(g_paths[turn].c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) abort();
    if (write(fd, data, size) != static_cast<ssize_t>(size)) abort();
    close(fd);
    platform_set_for_test(g_conf[turn]);

    // Look up the first section's name, as a login would.
    std::string text(reinterpret_cast<const char *>(data), size);
    std::string name = "alice";
    size_t at = text.find("[user ");
    if (at != std::string::npos) {
        size_t end = text.find(']', at);
        if (end != std::string::npos) name = text.substr(at + 6, end - at - 6);
    }
    if (name.find('\0') != std::string::npos) name.resize(name.find('\0'));
    if (name.size() > 64) name.resize(64);
    quiet_stderr quiet;
    username_lib_user_s user;
    if (username_lib_copy_user(name.c_str(), &user) == 0) {
        if (memchr(user.name, '\0', sizeof user.name) == nullptr) __builtin_trap();
        user.online_count++;
        if (username_lib_update_user(&user) != 0) __builtin_trap();
        username_lib_release_user(&user);
    }
    return 0;
}
