// The server's run-time settings: idle and login time-outs, the login-attempt limit, the top
// directory in its display and file-system forms, the AAA method-list name, the flash home and
// the product name shown in the greeting. Written by the management thread, read by sessions.
//
// The integers are atomics. The three texts (both top-directory forms and the list name) are
// kept under one small mutex; their getters copy the text out into a per-thread buffer and return
// that, so a session never reads a buffer that the management thread is rewriting. A returned
// pointer stays valid until the same thread calls the same getter again.
#include "base/settings.h"

#include <dirent.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "cli.h"
#include "fs_info.h"
#include "base/ftpd.h"
#include "base/path.h"
#include "zqsys.h"

namespace {

char unknown_product[] = "UNKNOWN";

std::atomic<unsigned int> ftp_timeout{FTP_DEF_TIMEOUT};
std::atomic<unsigned int> logintimeout{FTP_DEF_LOGINTIMEOUT};
std::atomic<unsigned int> logintimes{FTP_DEF_LOGINTIMES};

std::mutex settings_mutex;  // guards the three texts below
char rootdir[FTP_ROOTDIR_LEN];
char rootdir_true[FTP_ROOTDIR_LEN];
char authen_login_mlist[FTP_NAME_LEN];

std::mutex product_mutex;  // the one-time replacement of "UNKNOWN" by the device's name

#define ROOTDIR_MAX 256

// Copy-out under the lock; null when the setting is empty.
const char *copy_out(const char *src, char *dst, size_t size) {
    std::lock_guard<std::mutex> lock(settings_mutex);
    if (src[0] == '\0') return nullptr;
    (void)ftpd_strlcpy(dst, src, size);
    return dst;
}

void store(char *dst, const char *src, size_t size) {
    std::lock_guard<std::mutex> lock(settings_mutex);
    if (src == nullptr)
        memset(dst, 0, size);
    else
        (void)ftpd_strlcpy(dst, src, size);
}

bool opens_as_directory(const char *path) {
    dir_handle d(opendir(path));
    return static_cast<bool>(d);
}

}  // namespace

char *ftpd_product_name = unknown_product;

namespace {
std::atomic<bool> g_started{false};
}  // namespace

bool is_ftp_server_start(void) {
    return g_started.load();
}

void ftp_set_server_started(bool started) {
    g_started = started;
}

void ftp_settings_defaults(void) {
    ftp_timeout = FTP_DEF_TIMEOUT;
    logintimeout = FTP_DEF_LOGINTIMEOUT;
    logintimes = FTP_DEF_LOGINTIMES;
    store(rootdir, nullptr, sizeof rootdir);
    store(rootdir_true, nullptr, sizeof rootdir_true);
    store(authen_login_mlist, nullptr, sizeof authen_login_mlist);
    ftp_release_product_name();
}

void set_ftp_timeout(unsigned int minutes) {
    ftp_timeout = minutes;
}
unsigned int get_ftp_timeout(void) {
    return ftp_timeout;
}
void set_ftp_logintimeout(unsigned int minutes) {
    logintimeout = minutes;
}
unsigned int get_ftp_logintimeout(void) {
    return logintimeout;
}
void set_ftp_logintimes(unsigned int n) {
    logintimes = n;
}
unsigned int get_ftp_logintimes(void) {
    return logintimes;
}

namespace {
// The top directory as an absolute normalised path into trimmed (FTP_ROOTDIR_LEN bytes); slashed
// receives the path with its leading "/" for the refusal message.
bool normalise_root(const char *path, char *slashed, size_t slashed_len, char *trimmed) {
    return ftpd_snprintf(slashed, slashed_len, "%s%s", path[0] == '/' ? "" : "/", path) &&
           ftpd_path_trim(slashed, trimmed, FTP_ROOTDIR_LEN);
}

int refuse_long_root(const char *path) {
    cli_printf("Root dir %s too long, max length is %d.\n", path, ROOTDIR_MAX);
    return -1;
}

// The bound and the normal form both forms of the command check first; a refusal echoes the
// slashed text or the text as given, as each form always has.
bool accept_root_text(const char *path, size_t prefix_len, bool echo_slashed, char *trimmed) {
    if (strlen(path) + prefix_len > ROOTDIR_MAX) {
        (void)refuse_long_root(path);
        return false;
    }
    char slashed[FTP_ROOTDIR_LEN + 1];
    if (!normalise_root(path, slashed, sizeof slashed, trimmed)) {
        cli_printf("%s can't be set as rootdir!\n", echo_slashed ? slashed : path);
        return false;
    }
    return true;
}

// Whether the real directory may be a top directory; a refusal names it as named.
bool root_usable(const char *real, const char *named) {
    if (!is_access_path(real)) {
        cli_printf("%s can't be set as rootdir!\n", named);
        return false;
    }
    if (!opens_as_directory(real)) {
        cli_printf("topdir %s don't exist!\n", named);
        return false;
    }
    return true;
}

// Both forms change together and only once the directory is accepted: a refused command leaves
// the top directory that sessions are confined to as it was. Both texts were checked against
// the same bounds.
void set_root_forms(const char *shown, const char *real) {
    std::lock_guard<std::mutex> lock(settings_mutex);
    (void)ftpd_strlcpy(rootdir, shown, sizeof rootdir);
    (void)ftpd_strlcpy(rootdir_true, real, sizeof rootdir_true);
}
}  // namespace

int set_ftp_server_root_dir(const char *path) {
    if (path == nullptr) {
        // The file-system form keeps its old text: sessions only look at the display form.
        store(rootdir, nullptr, sizeof rootdir);
        return 0;
    }
    char trimmed[FTP_ROOTDIR_LEN] = {0};
    if (!accept_root_text(path, 0, true, trimmed)) return -1;
    char real[FTP_ROOTDIR_LEN] = {0};
    const char *home = ftp_get_flash_dir();
    if (home != nullptr) {
        char *h = const_cast<char *>(home);  // the calling thread's own copy
        size_t hl = strlen(h);
        if (hl > 0 && h[hl - 1] == '/') h[hl - 1] = '\0';
        // SECURITY: a directory cut short would confine sessions to another one.
        if (!ftpd_snprintf(real, sizeof real, "%s%s", h, trimmed)) return refuse_long_root(path);
    } else {
        (void)ftpd_strlcpy(real, trimmed, sizeof real);  // both hold FTP_ROOTDIR_LEN
    }
    if (!root_usable(real, trimmed)) return -1;
    set_root_forms(trimmed, real);
    return 0;
}

int set_ftp_server_root_dir_ext(int index, const char *path, const char *prefix) {
    if (path == nullptr || prefix == nullptr) return -1;
    char trimmed[FTP_ROOTDIR_LEN] = {0};
    if (!accept_root_text(path, strlen(prefix), false, trimmed)) return -1;
    char real[FTP_ROOTDIR_LEN] = {0};
    if (get_final_path(index - 1, path, real, sizeof real) < 0) {
        cli_printf("%s can't be set as rootdir!\n", real);
        return -1;
    }
    if (!root_usable(real, real)) return -1;
    char shown[FTP_ROOTDIR_LEN];
    if (!ftpd_snprintf(shown, sizeof shown, "%s%s", prefix, trimmed)) return refuse_long_root(path);
    set_root_forms(shown, real);
    return 0;
}

const char *get_ftp_server_root_dir(void) {
    thread_local char copy[FTP_ROOTDIR_LEN];
    return copy_out(rootdir, copy, sizeof copy);
}

const char *get_true_ftp_server_root_dir(void) {
    thread_local char copy[FTP_ROOTDIR_LEN];
    return copy_out(rootdir_true, copy, sizeof copy);
}

int set_ftp_server_auth(const char *name) {
    if (name == nullptr) {
        store(authen_login_mlist, nullptr, sizeof authen_login_mlist);
        return 0;
    }
    size_t len = strnlen(name, FTP_USERNAME_MAX + 1);
    if (len == 0 || len > FTP_USERNAME_MAX) {
        cli_printf("authentication list name(%s) is NULL or too long, max length is %d.\n", name, FTP_USERNAME_MAX);
        return -1;
    }
    store(authen_login_mlist, name, sizeof authen_login_mlist);
    return 0;
}

const char *get_ftp_server_auth(void) {
    thread_local char copy[FTP_NAME_LEN];
    return copy_out(authen_login_mlist, copy, sizeof copy);
}

const char *ftp_get_flash_dir(void) {
    thread_local char flash_dir[FTP_NAME_LEN];
    memset(flash_dir, 0, sizeof flash_dir);
    if (fs_get_flash_home(flash_dir, sizeof flash_dir) != 0) return nullptr;
    return flash_dir;
}

const char *ftp_get_product_name(void) {
    std::lock_guard<std::mutex> lock(product_mutex);
    if (ftpd_product_name == unknown_product || strcmp(ftpd_product_name, "UNKNOWN") == 0) {
        char *name = zqsys_get_product_name();
        if (name == nullptr) return nullptr;
        if (ftpd_product_name != unknown_product) free(ftpd_product_name);
        ftpd_product_name = name;
    }
    return ftpd_product_name;
}

void ftp_copy_product_name(char *buf, size_t size) {
    std::lock_guard<std::mutex> lock(product_mutex);
    (void)ftpd_strlcpy(buf, ftpd_product_name != nullptr ? ftpd_product_name : "UNKNOWN", size);  // shown cut
}

void ftp_release_product_name(void) {
    std::lock_guard<std::mutex> lock(product_mutex);
    // The built-in "UNKNOWN" is constant text and is never freed.
    if (ftpd_product_name != unknown_product) free(ftpd_product_name);
    ftpd_product_name = unknown_product;
}
