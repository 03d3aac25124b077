// Fuzz target: a logged-in session driven line by line through the real command table, in the
// profile the first byte picks; every line goes through command recognition, and PORT and EPRT
// arguments through their field parsers. Commands that would wait for a data connection are left
// out; the rest run against a private top directory. After every line: the current directory is
// still at or below the top directory, and a refused PORT or EPRT changed nothing of the data
// address.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/ftpd.h"
#include "base/settings.h"
#include "control/commands.h"
#include "control/loop.h"
#include "ftpd_test_support.h"
#include "session/session.h"

namespace {

const ftpd_temp_tree g_top;

bool waits_for_data(const ftp_command *c) {
    return c != nullptr &&
           std::string(" RETR STOR APPE LIST NLST MLSD ").find(" " + std::string(c->word) + " ") != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_top.make_dir("sub");
    ftp_settings_defaults();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const ftp_policy kPolicies[2] = {ftp_policy_of(ftp_profile::device, false),
                                            ftp_policy_of(ftp_profile::standard, false)};
    if (size < 1) return 0;
    ftpd_socket_pair pair;
    // The session's end never blocks: a command that would wait for the client finds nothing.
    int control = dup(pair.near());
    fcntl(control, F_SETFL, O_NONBLOCK);
    ftp_connect_addr addr{};
    addr.his_addr.sin_family = AF_INET;
    addr.his_addr.sin_addr.s_addr = htonl(0x7f000001);
    addr.ctrl_addr = addr.his_addr;
    {
        ftp_session s(control, -1, AF_INET, addr, kPolicies[data[0] & 1]);
        if (!s.ready()) abort();
        s.login.logged_in = true;
        s.has_topdir = true;
        strcpy(s.rootdir.get(), g_top.path().c_str());
        strcpy(s.currentdir, g_top.path().c_str());
        size_t pos = 1;
        while (pos < size) {
            const uint8_t *nl = static_cast<const uint8_t *>(memchr(data + pos, '\n', size - pos));
            size_t len = nl != nullptr ? static_cast<size_t>(nl - (data + pos)) : size - pos;
            size_t take = len < FTP_BUF_SIZE - 1 ? len : FTP_BUF_SIZE - 1;
            memcpy(s.line, data + pos, take);
            s.line[take] = '\0';
            pos += len + 1;
            memset(s.arg, 0, FTP_BUF_SIZE);
            s.cmd = ftpd_parse_cmd(s.line, s.arg, s.policy);
            if (waits_for_data(s.cmd)) continue;
            bool had_target = s.data.has_target();
            int port = s.client_port;
            int family = s.data.addrs().family;
            bool go_on = ftp_dispatch(s);
            bool accepted = ftpd_read_all(pair.far()).rfind("200 ", 0) == 0;
            if (strncmp(s.currentdir, g_top.path().c_str(), g_top.path().size()) != 0) __builtin_trap();
            // SECURITY: what a refused PORT or EPRT parsed must not survive it.
            bool address = s.cmd != nullptr && (strcmp(s.cmd->word, "PORT") == 0 || strcmp(s.cmd->word, "EPRT") == 0);
            if (address && !accepted &&
                (s.data.has_target() != had_target || s.client_port != port || s.data.addrs().family != family))
                __builtin_trap();
            if (!go_on) break;
        }
    }
    return 0;
}
