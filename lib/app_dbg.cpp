// Key-message files of an application: start-up progress and frame errors appended to
// TMPDIR/app/NAME/.init_msg.txt and .init_err.txt, so that a failed start can be traced even
// when no log service is reachable. Writers are serialised by one process-wide lock, which also
// guards the shared path buffer.
#include "app_dbg.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "bounded_text.h"
#include "syslog_ext.h"

#define APP_DBG_PATH_LEN 128        // 127 characters and the terminating zero
#define APP_DBG_LINE_LEN 1024
#define APP_DBG_FILE_LIMIT (2L * 1024 * 1024)
#define APP_DBG_MSG_FILE "/.init_msg.txt"
#define APP_DBG_ERR_FILE "/.init_err.txt"

// Serialises key-message writers and guards app_dbg_path and app_dbg_name.
static std::mutex app_init_sem;
static char app_dbg_path[APP_DBG_PATH_LEN];
// Until the instance guard names the application, messages go to the daemon's own directory.
static char app_dbg_name[16] = "ftps";

void app_dbg_set_name(const char *name) {
    std::lock_guard<std::mutex> lock(app_init_sem);
    (void)ftpd_strlcpy(app_dbg_name, name != nullptr ? name : "", sizeof app_dbg_name);
}

// Creates one directory; an error other than "already exists" means the application cannot
// keep its traces at all, and it stops.
static void app_dbg_mkdir(const char *dir) {
    if (mkdir(dir, 0777) != 0 && errno != EEXIST) exit(1);
}

char *app_dbg_make_path(const char *file) {
    const char *base = getenv("TMPDIR");
    if (base == nullptr) base = "/tmp";
    (void)ftpd_strlcpy(app_dbg_path, base, sizeof app_dbg_path);
    (void)ftpd_strlcat(app_dbg_path, "/app", sizeof app_dbg_path);
    // The parent is made too, so that a fresh TMPDIR works without preparation.
    app_dbg_mkdir(app_dbg_path);
    (void)ftpd_strlcat(app_dbg_path, "/", sizeof app_dbg_path);
    (void)ftpd_strlcat(app_dbg_path, app_dbg_name, sizeof app_dbg_path);
    app_dbg_mkdir(app_dbg_path);
    (void)ftpd_strlcat(app_dbg_path, file != nullptr ? file : "", sizeof app_dbg_path);
    return app_dbg_path;
}

static void app_write_file(const char *file, const char *function, int line, const char *fmt, va_list ap) {
    std::lock_guard<std::mutex> lock(app_init_sem);

    char now[32] = {0};
    syslog_get_current_time(now, sizeof now, 2);

    char text[APP_DBG_LINE_LEN];
    (void)ftpd_snprintf(text, sizeof text, "%s [%s/%d]- ", now, function != nullptr ? function : "", line);
    size_t used = strnlen(text, sizeof text);
    // A message longer than the line is cut; the cut is accepted.
    (void)ftpd_vsnprintf(text + used, sizeof text - used, fmt, ap);
    size_t len = strnlen(text, sizeof text);

    const char *path = app_dbg_make_path(file);
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0777);
    if (fd < 0) return;
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_size > APP_DBG_FILE_LIMIT) {
        if (ftruncate(fd, 0) != 0) {
            // Keep appending: a file that cannot be emptied still takes the line.
        }
    }
    ssize_t n = write(fd, text, len);
    (void)n;  // nowhere to report a failed trace
    close(fd);
}

void app_write_keymsg_impl(const char *function, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    app_write_file(APP_DBG_MSG_FILE, function, line, fmt, ap);
    va_end(ap);
}

void app_write_errmsg_impl(const char *function, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    app_write_file(APP_DBG_ERR_FILE, function, line, fmt, ap);
    va_end(ap);
}
