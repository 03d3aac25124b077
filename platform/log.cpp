// Log service: turns one printk_syslog_ext call into one line "%MODULE-PRIORITY-TAG: text" and
// writes it to syslog(3), the log file and standard error as the platform file enables them.
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "platform_conf.h"
#include "syslog_ext.h"

namespace {

const size_t kTextMax = 2048;
const size_t kTimeLen = 20;  // "YYYY-MM-DD HH:MM:SS" and its NUL
// Time, blank, the "%MODULE-PRIORITY-TAG: " head, the text and the line feed.
const size_t kLineMax = kTimeLen + 96 + kTextMax + 2;

std::once_flag g_openlog_once;

// One write per line: O_APPEND makes each write land whole at the end of the file, so lines of
// concurrent threads never interleave; pipes keep writes below PIPE_BUF whole as well.
void write_all_once(int fd, const char *buf, size_t len) {
    ssize_t n;
    do {
        n = write(fd, buf, len);
    } while (n < 0 && errno == EINTR);
}

void append_to_file(const std::string &path, const char *line, size_t len) {
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd < 0) return;
    write_all_once(fd, line, len);
    close(fd);
}

}  // namespace

int syslog_get_current_time(char *buf, int len, int mode) {
    (void)mode;
    if (buf == nullptr || len < static_cast<int>(kTimeLen)) return -1;
    time_t now = time(nullptr);
    struct tm tm_now;
    if (localtime_r(&now, &tm_now) == nullptr) return -1;
    if (strftime(buf, static_cast<size_t>(len), "%Y-%m-%d %H:%M:%S", &tm_now) == 0) return -1;
    return 0;
}

int vprintk_syslog_ext(int priority, const char *module, const char *tag, int cls, const char *fmt, va_list ap) {
    (void)cls;  // gating by class is the caller's business; every line that arrives is written
    const platform_conf &conf = platform_get();
    if (!conf.log_syslog && conf.log_file.empty() && !conf.log_stderr) return 0;

    char text[kTextMax];
    int n = vsnprintf(text, sizeof text, fmt != nullptr ? fmt : "", ap);
    size_t tlen = n < 0 ? 0 : (static_cast<size_t>(n) < sizeof text ? static_cast<size_t>(n) : sizeof text - 1);
    text[tlen] = '\0';
    while (tlen > 0 && (text[tlen - 1] == '\n' || text[tlen - 1] == '\r')) text[--tlen] = '\0';

    if (priority < 0) priority = 0;
    if (priority > 7) priority = 7;

    // The line with its time prefix; the syslog target gets it from the "%" on.
    char line[kLineMax];
    if (syslog_get_current_time(line, static_cast<int>(kTimeLen), 2) != 0) snprintf(line, kTimeLen, "%s", "-");
    size_t head = strlen(line);
    line[head++] = ' ';
    int m = snprintf(line + head, sizeof line - head - 1, "%%%s-%d-%s: %s", module != nullptr ? module : "", priority,
                     tag != nullptr ? tag : "", text);
    size_t len = head + (m < 0 ? 0 : static_cast<size_t>(m));
    if (len > sizeof line - 2) len = sizeof line - 2;
    line[len] = '\0';

    if (conf.log_syslog) {
        std::call_once(g_openlog_once, [] { openlog("ftp_server", LOG_PID, LOG_DAEMON); });
        syslog(priority, "%s", line + head);
    }
    line[len++] = '\n';
    if (!conf.log_file.empty()) append_to_file(conf.log_file, line, len);
    if (conf.log_stderr) write_all_once(STDERR_FILENO, line, len);
    return 0;
}

int printk_syslog_ext(int priority, const char *module, const char *tag, int cls, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int rc = vprintk_syslog_ext(priority, module, tag, cls, fmt, ap);
    va_end(ap);
    return rc;
}

// The file target is opened by name for every line and syslog(3) reconnects by itself, so a
// rotated file is replaced by a new one at the next line; the notice makes that line come at once.
int syslog_reopen(void) {
    return printk_syslog_ext(6, "LOG", "REOPEN", LOG_CLASS_ALWAYS, "log reopened");
}

int syslog_multi_thread_client_init(int timer, int count) {
    (void)timer;
    (void)count;
    return 0;
}

int syslog_single_thread_client_init(struct zq_thread_master *master) {
    (void)master;
    return 0;
}
