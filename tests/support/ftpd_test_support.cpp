// Implementation of the shared unit-test fixtures.
#include "ftpd_test_support.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform_conf.h"

ftpd_temp_tree::ftpd_temp_tree() {
    std::string templ = (std::filesystem::temp_directory_path() / "ftps-unit-XXXXXX").string();
    if (mkdtemp(templ.data()) != nullptr) root_ = templ;
}

ftpd_temp_tree::~ftpd_temp_tree() {
    std::error_code ec;
    if (!root_.empty()) std::filesystem::remove_all(root_, ec);
}

std::string ftpd_temp_tree::make_file(const std::string &rel, const std::string &contents) const {
    std::ofstream(full(rel), std::ios::binary | std::ios::trunc) << contents;
    return full(rel);
}

std::string ftpd_temp_tree::make_dir(const std::string &rel) const {
    mkdir(full(rel).c_str(), 0755);
    return full(rel);
}

ftpd_socket_pair::ftpd_socket_pair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return;
    near_.reset(fds[0]);
    far_.reset(fds[1]);
    fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
}

std::string ftpd_read_all(int fd) {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

std::string ftpd_read_all(const std::string &path) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return ftpd_read_all(fd.get());
}

std::string &ftpd_captured() {
    static std::string text;
    return text;
}

int ftpd_capture(const char *fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    ftpd_captured() += buf;
    return n;
}

void ftpd_use_platform(ftpd_storage_dirs dirs, const std::string &users, const std::string &product) {
    platform_conf conf;
    platform_conf_set_defaults(&conf);
    for (const auto &[slot, dir] : dirs) conf.storages[static_cast<size_t>(slot)].dir = dir;
    conf.log_syslog = false;
    if (!users.empty()) conf.user_database = users;
    conf.product_name = product;
    platform_set_for_test(conf);
}
