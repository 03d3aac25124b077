// The transfer log: formatting one record into its line, and the process-wide writer that owns
// the log's descriptor (open, append a whole line per call, open again after rotation, close).
#include "base/xferlog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>

#include "bounded_text.h"

namespace {

// Long enough for any path the daemon serves, with the other fields around it.
const size_t kLineMax = 8192;

// Never destroyed: a session may end a transfer while the process exits.
std::mutex &g_lock = *new std::mutex;
char g_path[PATH_MAX];
int g_fd = -1;

// Appends to a line under construction; a line that would not fit is refused as a whole.
struct line_out {
    char *buf;
    size_t cap;
    size_t len = 0;
    bool ok = true;

    void text(const char *t) {
        size_t n = strlen(t);
        if (!ok || n >= cap - len) {
            ok = false;
            return;
        }
        memcpy(buf + len, t, n);
        len += n;
        buf[len] = '\0';
    }
    // One field of client text: every blank and control character as '_', so that it stays one.
    void field(const char *t) {
        size_t start = len;
        text(*t != '\0' ? t : "_");
        for (size_t i = start; ok && i < len; i++) {
            auto u = static_cast<unsigned char>(buf[i]);
            if (u <= 0x20 || u == 0x7f) buf[i] = '_';
        }
        text(" ");
    }
};

int open_log(const char *path) {
    return open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
}

}  // namespace

int ftp_xferlog_format(const struct ftp_xferlog_record *rec, char *buf, size_t len) {
    if (rec == nullptr || buf == nullptr || rec->filename == nullptr || rec->remote_host == nullptr ||
        rec->user == nullptr)
        return -1;
    // The names are English whatever the locale: that is what the readers of the log parse.
    static const char *const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm t;
    if (localtime_r(&rec->end, &t) == nullptr || t.tm_wday < 0 || t.tm_wday > 6 || t.tm_mon < 0 || t.tm_mon > 11)
        return -1;
    long long seconds = (rec->duration_ms + 500) / 1000;
    char head[64];
    if (!ftpd_snprintf(head, sizeof head, "%s %s %02d %02d:%02d:%02d %d %lld ", kDays[t.tm_wday], kMonths[t.tm_mon],
                       t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_year + 1900, seconds < 1 ? 1 : seconds))
        return -1;
    char bytes[32];
    if (!ftpd_snprintf(bytes, sizeof bytes, "%lld ", rec->bytes < 0 ? 0 : rec->bytes)) return -1;
    char flags[16];
    if (!ftpd_snprintf(flags, sizeof flags, "%c _ %c r ", rec->binary ? 'b' : 'a', rec->upload ? 'i' : 'o')) return -1;
    line_out out{buf, len};
    if (len == 0) return -1;
    out.text(head);
    out.field(rec->remote_host);
    out.text(bytes);
    out.field(rec->filename);
    out.text(flags);
    out.field(rec->user);
    out.text(rec->complete ? "ftp 0 * c\n" : "ftp 0 * i\n");
    return out.ok ? static_cast<int>(out.len) : -1;
}

int ftp_xferlog_open(const char *path) {
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_fd >= 0) close(g_fd);
    g_fd = -1;
    g_path[0] = '\0';
    if (path == nullptr || *path == '\0') return 0;
    if (!ftpd_strlcpy(g_path, path, sizeof g_path)) {
        g_path[0] = '\0';
        return -1;
    }
    g_fd = open_log(path);
    return g_fd < 0 ? -1 : 0;
}

int ftp_xferlog_write(const struct ftp_xferlog_record *rec) {
    char line[kLineMax];
    int n = ftp_xferlog_format(rec, line, sizeof line);
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_fd < 0) return 1;
    if (n < 0) return -1;
    ssize_t w;
    do {
        w = write(g_fd, line, static_cast<size_t>(n));
    } while (w < 0 && errno == EINTR);
    return w == n ? 0 : -1;
}

int ftp_xferlog_reopen(void) {
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_fd < 0) return 0;
    int fd = open_log(g_path);
    if (fd < 0) return -1;
    close(g_fd);
    g_fd = fd;
    return 0;
}

void ftp_xferlog_close(void) {
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_fd >= 0) close(g_fd);
    g_fd = -1;
    g_path[0] = '\0';
}
