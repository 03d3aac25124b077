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
#include "ftpd_test_support.h"
#include "harness.h"

namespace {
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
    if (getenv("FTPS_FUZZ_VERBOSE") == nullptr) {
        g_stderr = dup(2);
        g_null = open("/dev/null", O_WRONLY);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const ftpd_temp_tree tree;
    static unsigned turn = 0;
    std::string text(reinterpret_cast<const char *>(data), size);
    ftpd_use_platform({}, tree.make_file("users" + std::to_string(turn++ & 1), text));

    // Look up the first section's name, as a login would.
    size_t at = text.find("[user ");
    size_t end = at == std::string::npos ? at : text.find(']', at);
    std::string name = "alice";
    if (end != std::string::npos) name = fuzz_string(data + at + 6, end - at - 6).substr(0, 64);
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
