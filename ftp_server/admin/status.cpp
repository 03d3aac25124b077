// The two reports of the show commands: the server information report (state, settings, and
// each configured user with its connected sessions and their addresses) and the user/password
// listing. Both hold the user-table lock for their whole run, output included.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>

#include "base/ftpd.h"
#include "admin/admin.h"
#include "control/listener.h"
#include "base/settings.h"
#include "data/ascii.h"
#include "base/users.h"

namespace {

const char ctrl_client_pad[] = "                               client ";
const char data_client_pad[] = "                                client ";

const unsigned char *octets(const struct sockaddr_in &a) {
    return reinterpret_cast<const unsigned char *>(&a.sin_addr.s_addr);
}

void print_v4(ftpd_print_fn print, const char *lead, const struct sockaddr_in &a) {
    const unsigned char *o = octets(a);
    print("%sIP:%d.%d.%d.%d[%d]\n", lead, o[0], o[1], o[2], o[3], static_cast<int>(ntohs(a.sin_port)));
}

void print_v6(ftpd_print_fn print, const char *lead, const struct sockaddr_in6 &a) {
    char text[INET6_ADDRSTRLEN] = {0};
    if (inet_ntop(AF_INET6, &a.sin6_addr, text, sizeof text) == nullptr) text[0] = '\0';
    print("%sIP:%s[%d]\n", lead, text, static_cast<int>(ntohs(a.sin6_port)));
}

const char *type_name(int t) {
    return t >= 0 && t <= 4 ? typenames[t] : "";
}

// One slot's control part and, while a transfer is in progress, its data part. True when the
// slot had a data part (only those count towards the user's connection number).
bool print_slot(ftpd_print_fn print, int index, const struct ftp_user_cnt_info_s &s) {
    print("    [%d]trans-type:%s ", index, type_name(static_cast<int>(s.tran_type)));
    if (s.contrl_type == AF_INET) {
        print_v4(print, "(ctrl)server ", s.def_addr.ctrl_addr);
        print_v4(print, ctrl_client_pad, s.def_addr.his_addr);
    } else if (s.contrl_type == AF_INET6) {
        print_v6(print, "(ctrl)server ", s.def_addr.ctrl_addrv6);
        print_v6(print, ctrl_client_pad, s.def_addr.his_addrv6);
    }
    const struct sockaddr_in *src4, *dst4;
    const struct sockaddr_in6 *src6, *dst6;
    if (s.data_mode == ftp_data_mode::active) {
        print("                     (data-PORT)");
        src4 = &s.data_source;
        dst4 = &s.data_dest;
        src6 = &s.data_sourcev6;
        dst6 = &s.data_destv6;
    } else if (s.data_mode == ftp_data_mode::passive) {
        print("                     (data-PASV)");
        src4 = &s.pasv_addr;
        dst4 = &s.pasv_dest;
        src6 = &s.pasv_addrv6;
        dst6 = &s.pasv_destv6;
    } else {
        return false;
    }
    if (s.data_type == AF_INET) {
        print_v4(print, "server ", *src4);
        print_v4(print, data_client_pad, *dst4);
    } else if (s.data_type == AF_INET6) {
        print_v6(print, "server ", *src6);
        print_v6(print, data_client_pad, *dst6);
    }
    return true;
}

}  // namespace

void dump_ftp_server_information(ftpd_print_fn print) {
    if (print == nullptr) return;
    print("    ftp-server information\n");
    print("===================================\n");
    print("enable : %s\n", is_ftp_server_start() ? "Y" : "N");
    const char *top = get_ftp_server_root_dir();
    print("topdir : %s\n", top != nullptr ? top : "not config");
    print("timeout: %dmin\n", static_cast<int>(get_ftp_timeout()));

    ftp_userinfo_lock();
    for (const auto &row : gb_usinfo) {
        if (row.use_flag != 1 || row.username[0] == '\0' || row.password[0] == '\0') continue;
        if (row.pass_type == 7)
            print("username:%s\npassword:(ENCRYPT)%s\nconnect num[%d]\n", row.username, row.pass_encrypt,
                  row.connect_num);
        else
            print("username:%s\npassword:(PLAINT)%s\nconnect num[%d]\n", row.username, row.password, row.connect_num);
        if (row.connect_num == 0) continue;
        int shown = 0;
        unsigned int limit =
            ftpd_user_max_connect > FTP_MAX_SLOTS ? FTP_MAX_SLOTS : ftpd_user_max_connect;
        for (unsigned int i = 0; i < limit; i++) {
            const struct ftp_user_cnt_info_s *slot = row.cnt[i];
            if (slot == nullptr || slot->use_flag == 0) continue;
            if (print_slot(print, static_cast<int>(i), *slot) && ++shown == row.connect_num) break;
        }
    }
    ftp_userinfo_unlock();
}

void dump_ftp_server_user_password(ftpd_print_fn print) {
    if (print == nullptr) return;
    ftp_userinfo_lock();
    for (const auto &row : gb_usinfo) {
        if (row.use_flag != 1 || row.username[0] == '\0' || row.password[0] == '\0') continue;
        print("username:%s password:%s\n", row.username, row.password);
    }
    ftp_userinfo_unlock();
}
