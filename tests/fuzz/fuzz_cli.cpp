// Fuzz target: the management command parser over the daemon's own command tree (the framework's
// built-in commands and every ftp-server command), executing what matches and answering "?"
// help requests. Type-7 passwords are decoded here as the daemon receives them; their round trip
// over every printable character is a unit test. The settings and the user table go back to their defaults after each input so
// that a crash reproduces from its one input.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "admin/admin.h"
#include "base/ftpd.h"
#include "base/settings.h"
#include "base/users.h"
#include "cli.h"
#include "cli_internal.h"
#include "ftpd_test_support.h"
#include "harness.h"
#include "login_pwd.h"

namespace {
void reset_settings() {
    for (auto &row : gb_usinfo) {
        if (row.use_flag == 1) unset_ftp_server_userinfo(std::string(row.username).c_str());
    }
    set_ftp_server_user(nullptr);
    set_ftp_server_password(nullptr, nullptr, 0);
    login_set_service_pwd_encrypt(0);
    ftp_settings_defaults();
    debug_ftp_server(0);
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // A private TMPDIR, also the flash storage: "no ftp-server enable" sends its stop datagram below it.
    static const ftpd_temp_tree tmp;
    setenv("TMPDIR", tmp.path().c_str(), 1);
    ftpd_mem_init();
    ftpd_use_platform({{1, tmp.path()}});
    if (cli_builtin_register() != 0 || cfg_ftp_server_init() != 0) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1024) return 0;
    std::string line = fuzz_string(data, size);
    std::string out;
    int err_offset = -1;
    if (!line.empty() && line.back() == '?')
        cli_help_line(line.substr(0, line.size() - 1).c_str(), &out, &err_offset);
    else
        cli_execute_line_ex(line.c_str(), &out, &err_offset);
    if (err_offset < -1 || err_offset > static_cast<int>(line.size())) __builtin_trap();
    reset_settings();
    return 0;
}
