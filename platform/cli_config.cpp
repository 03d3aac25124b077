// Configuration lines of the command-line framework: collecting what the handlers write back
// (c2p_printf), saving it atomically into the startup configuration, replaying that file line by
// line at start-up, the reload-end hooks, and the "configuration changed" mark.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli_internal.h"
#include "syslog_ext.h"

namespace {

std::string g_startup_path;
std::vector<void (*)(void)> g_reload_hooks;
bool g_changed = false;

struct file_closer {
    void operator()(FILE *f) const { std::fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct line_free {
    void operator()(char *p) const { std::free(p); }
};

std::string error_text(int err) {
    char buf[128];
    return std::string(strerror_r(err, buf, sizeof buf));
}

// Writes all of data; false on error.
bool write_all(int fd, const std::string &data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

}  // namespace

int c2p_printf(bool nondefault, const char *fmt, ...) {
    cli_cmd *cmd = cli_current();
    if (cmd == nullptr || !cmd->config || cmd->config_lines == nullptr || !nondefault) return 0;
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n < 0) {
        va_end(ap);
        return n;
    }
    std::string text(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), fmt, ap);
    va_end(ap);
    text.resize(static_cast<size_t>(n));
    // One call may carry several lines; each stands on its own in the configuration.
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        while (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) cmd->config_lines->push_back(line);
        start = end + 1;
    }
    return n;
}

void cli_param_is_change(void) {
    g_changed = true;
}
bool cli_config_changed(void) {
    return g_changed;
}
void cli_config_mark_saved(void) {
    g_changed = false;
}

int cli_add_param_reload_end_hook(void (*hook)(void)) {
    if (hook == nullptr) return -1;
    g_reload_hooks.push_back(hook);
    return 0;
}

void cli_run_reload_end_hooks(void) {
    // A hook may register another; index so that growth is safe.
    for (size_t i = 0; i < g_reload_hooks.size(); ++i) g_reload_hooks[i]();
}

void cli_config_set_startup_path(const std::string &path) {
    g_startup_path = path;
}
const std::string &cli_config_startup_path(void) {
    return g_startup_path;
}

void cli_collect_config(std::vector<std::string> *lines) {
    // Several definitions may share one handler (a command with alternative forms); its lines
    // are wanted once, at its first definition.
    std::vector<cli_handler_t> done;
    for (int i = 0; i < cli_def_count(); ++i) {
        cli_handler_t h = cli_def_handler(i);
        if (h == nullptr || (cli_def_flags(i) & CLI_F_CONFIG) == 0) continue;
        bool seen = false;
        for (cli_handler_t d : done) seen = seen || d == h;
        if (seen) continue;
        done.push_back(h);
        cli_cmd cmd;
        cmd.def = i;
        cmd.config = true;
        cmd.config_lines = lines;
        cli_scope scope(&cmd);
        h(&cmd);
    }
}

int cli_config_write(const char *path, const std::string &text, std::string *err) {
    if (path == nullptr || *path == '\0') {
        if (err != nullptr) *err = "no file name";
        return -1;
    }
    std::string tmp = std::string(path) + ".XXXXXX";
    int fd = mkostemp(tmp.data(), O_CLOEXEC);
    if (fd < 0) {
        if (err != nullptr) *err = error_text(errno);
        return -1;
    }
    int saved = 0;
    if (!write_all(fd, text) || ::fsync(fd) != 0) saved = errno != 0 ? errno : EIO;
    if (::close(fd) != 0 && saved == 0) saved = errno;
    if (saved == 0 && ::rename(tmp.c_str(), path) != 0) saved = errno;
    if (saved != 0) {
        ::unlink(tmp.c_str());
        if (err != nullptr) *err = error_text(saved);
        return -1;
    }
    // Make the rename itself durable.
    std::string dir(path);
    size_t slash = dir.rfind('/');
    dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : dir.substr(0, slash));
    int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return 0;
}

int cli_config_replay(const char *path) {
    if (path == nullptr || *path == '\0') return 0;
    file_ptr f(std::fopen(path, "re"));
    if (!f) {
        if (errno == ENOENT) return 0;  // nothing saved yet
        printk_syslog_ext(3, "CLI", "REPLAY", LOG_CLASS_ALWAYS, "cannot read startup-config %s: %s", path,
                          error_text(errno).c_str());
        return -1;
    }
    int failed = 0;
    int number = 0;
    char *raw = nullptr;
    size_t cap = 0;
    ssize_t len;
    while ((len = getline(&raw, &cap, f.get())) >= 0) {
        ++number;
        std::string line(raw, static_cast<size_t>(len));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        size_t first = 0;
        while (first < line.size() && is_blank(line[first])) ++first;
        if (first == line.size() || line[first] == '!' || line[first] == '#') continue;
        if (cli_execute_line(line.c_str(), nullptr) != 0) {
            ++failed;
            printk_syslog_ext(3, "CLI", "REPLAY", LOG_CLASS_ALWAYS, "startup-config line %d failed: %s", number,
                              line.c_str());
        }
    }
    std::unique_ptr<char, line_free> owner(raw);
    return failed;
}

void cli_config_reset(void) {
    g_startup_path.clear();
    g_reload_hooks.clear();
    g_changed = false;
}
