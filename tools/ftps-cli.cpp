// ftps-cli, the management terminal of the FTP daemon: sends command lines over the daemon's
// management socket and prints what they answer. Lines come from -c options, from a file
// (-f), from standard input when it is not a terminal, or from an interactive editor with
// history, '?' help and Tab completion. Exit status: 0 when every command succeeded, 1 when any
// failed, 2 when the daemon cannot be reached.
#include <histedit.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "cli_proto.h"
#include "platform_conf.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUnreachable = 2;
constexpr int kHistorySize = 200;

const char kUsage[] =
    "Usage: ftps-cli [-s SOCKET] [-c LINE]... [-f FILE]\n"
    "Runs management commands of the FTP daemon.\n"
    "  -s SOCKET  management socket (default: the platform file's [cli] socket,\n"
    "             else $TMPDIR/app/ftps/.cli)\n"
    "  -c LINE    run one command line; may be given several times, run in order\n"
    "  -f FILE    run the command lines of FILE\n"
    "  -h         print this help\n"
    "Without -c or -f, commands are read from standard input: interactively on a terminal\n"
    "('?' lists what may follow, Tab completes, Ctrl-C abandons a line, \"exit\" leaves),\n"
    "else one per line.\n"
    "Blank lines and lines starting with '!' or '#' are skipped.\n"
    "Exit status: 0 all commands succeeded, 1 some failed, 2 the daemon cannot be reached.\n";

struct source {
    bool is_file;
    std::string text;  // a command line, or a file name
};

// Output to the terminal or a pipe. A failed write to the program's own output has no better
// place to be reported, so the results are dropped here and only here.
void put(FILE *f, const std::string &text) {
    (void)std::fwrite(text.data(), 1, text.size(), f);
    (void)std::fflush(f);
}

int connect_daemon(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

void lost_daemon() {
    put(stderr, "ftps-cli: the connection to the daemon was lost\n");
}

bool skipped(const std::string &line) {
    size_t i = line.find_first_not_of(" \t\r\n");
    return i == std::string::npos || line[i] == '!' || line[i] == '#';
}

// Runs one line and prints its output. 0 succeeded, 1 failed, -1 connection lost.
int run_line(int fd, const std::string &line) {
    std::string out;
    int status = 1;
    int offset = -1;
    if (cli_proto_request(fd, CLI_REQ_EXEC, line, &out, &status, &offset) != 0) return -1;
    put(stdout, out);
    return status == 0 ? 0 : 1;
}

// Runs the lines of f (or of a file named in a source). false when the daemon was lost.
bool run_stream(int fd, FILE *f, bool *any_failed) {
    char *raw = nullptr;
    size_t cap = 0;
    ssize_t len;
    bool ok = true;
    while ((len = getline(&raw, &cap, f)) >= 0) {
        std::string line(raw, static_cast<size_t>(len));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        if (skipped(line)) continue;
        int rc = run_line(fd, line);
        if (rc < 0) {
            ok = false;
            break;
        }
        if (rc != 0) *any_failed = true;
    }
    std::free(raw);
    return ok;
}

// ---------------------------------------------------------------------------------------------
// Interactive terminal

struct terminal {
    int fd = -1;
    std::string prompt;
    bool lost = false;
    bool cancelled = false;  // Ctrl-C: the line ends but is not run
};

terminal *term_of(EditLine *el) {
    void *data = nullptr;
    el_get(el, EL_CLIENTDATA, &data);
    return static_cast<terminal *>(data);
}

char *prompt_of(EditLine *el) {
    return const_cast<char *>(term_of(el)->prompt.c_str());
}

std::string line_to_cursor(EditLine *el) {
    const LineInfo *li = el_line(el);
    return std::string(li->buffer, static_cast<size_t>(li->cursor - li->buffer));
}

// Puts a caret under the character at offset of the line just typed after the prompt. A line
// longer than the terminal wraps, so the column is taken within its screen row.
void print_caret(EditLine *el, const terminal &t, int offset) {
    int col = static_cast<int>(t.prompt.size()) + offset;
    int width = 0;
    if (el_get(el, EL_GETTC, "co", &width) == 0 && width > 0) col %= width;
    put(stdout, std::string(static_cast<size_t>(col), ' ') + "^\n");
}

// '?': lists what may follow the text left of the cursor; the line stays as typed.
unsigned char help_key(EditLine *el, int) {
    terminal *t = term_of(el);
    std::string out;
    int status = 0;
    int offset = -1;
    if (cli_proto_request(t->fd, CLI_REQ_HELP, line_to_cursor(el), &out, &status, &offset) != 0) {
        t->lost = true;
        return CC_EOF;
    }
    put(stdout, "?\n");
    if (status != 0 && offset >= 0) print_caret(el, *t, offset);
    put(stdout, out);
    return CC_REDISPLAY;
}

// Tab: completes the keyword under the cursor, or lists the candidates when several remain.
unsigned char complete_key(EditLine *el, int) {
    terminal *t = term_of(el);
    std::string upto = line_to_cursor(el);
    std::string out;
    int status = 0;
    int offset = -1;
    if (cli_proto_request(t->fd, CLI_REQ_COMPLETE, upto, &out, &status, &offset) != 0) {
        t->lost = true;
        return CC_EOF;
    }
    std::vector<std::string> cands;
    for (size_t at = 0; at < out.size();) {
        size_t nl = out.find('\n', at);
        if (nl == std::string::npos) nl = out.size();
        if (nl > at) cands.push_back(out.substr(at, nl - at));
        at = nl + 1;
    }
    size_t blank = upto.find_last_of(" \t");
    std::string word = blank == std::string::npos ? upto : upto.substr(blank + 1);
    if (cands.empty()) return CC_REFRESH_BEEP;
    if (cands.size() == 1) {
        std::string rest = cands[0].substr(word.size()) + " ";
        el_insertstr(el, rest.c_str());
        return CC_REFRESH;
    }
    std::string common = cands[0];
    for (const std::string &c : cands) {
        size_t n = 0;
        while (n < common.size() && n < c.size() && common[n] == c[n]) ++n;
        common.resize(n);
    }
    if (common.size() > word.size()) {
        el_insertstr(el, common.substr(word.size()).c_str());
        return CC_REFRESH;
    }
    std::string list = "\n";
    for (const std::string &c : cands) list += "  " + c + "\n";
    put(stdout, list);
    return CC_REDISPLAY;
}

// Ctrl-C: abandons the line being typed, as a shell does, instead of ending the program.
unsigned char cancel_key(EditLine *el, int) {
    term_of(el)->cancelled = true;
    put(stdout, "^C\n");
    return CC_NEWLINE;
}

int interactive(int fd) {
    terminal t;
    t.fd = fd;
    std::string name;
    int status = 0;
    int offset = -1;
    if (cli_proto_request(fd, CLI_REQ_PROMPT, "", &name, &status, &offset) != 0) {
        lost_daemon();
        return kExitUnreachable;
    }
    t.prompt = (name.empty() ? std::string("ftps") : name) + "# ";

    EditLine *el = el_init("ftps-cli", stdin, stdout, stderr);
    History *hist = history_init();
    if (el == nullptr || hist == nullptr) {
        put(stderr, "ftps-cli: cannot set up the line editor\n");
        if (hist != nullptr) history_end(hist);
        if (el != nullptr) el_end(el);
        return kExitFailed;
    }
    HistEvent ev;
    history(hist, &ev, H_SETSIZE, kHistorySize);
    history(hist, &ev, H_SETUNIQUE, 1);
    el_set(el, EL_CLIENTDATA, &t);
    el_set(el, EL_EDITOR, "emacs");
    el_set(el, EL_SIGNAL, 1);
    el_set(el, EL_HIST, history, hist);
    el_set(el, EL_PROMPT, prompt_of);
    el_source(el, nullptr);  // the user's own editrc, if any
    // The wide form keeps the editor from copying the names, copies it would never free.
    el_wset(el, EL_ADDFN, L"ftps-help", L"List what may follow", help_key);
    el_wset(el, EL_ADDFN, L"ftps-complete", L"Complete the keyword", complete_key);
    el_set(el, EL_BIND, "?", "ftps-help", nullptr);
    el_set(el, EL_BIND, "^I", "ftps-complete", nullptr);
    // While editing, Ctrl-C is a key that abandons the line; while a command runs it stays the
    // signal that ends the program, the way out when the daemon stops answering.
    el_set(el, EL_SETTY, "-d", "-isig", nullptr);
    el_wset(el, EL_ADDFN, L"ftps-cancel", L"Abandon the line", cancel_key);
    el_set(el, EL_BIND, "^C", "ftps-cancel", nullptr);

    int rc = kExitOk;
    for (;;) {
        int count = 0;
        t.cancelled = false;
        const char *raw = el_gets(el, &count);
        if (t.lost) {
            lost_daemon();
            rc = kExitUnreachable;
            break;
        }
        if (t.cancelled) continue;
        if (raw == nullptr || count <= 0) {
            put(stdout, "\n");
            break;
        }
        std::string line(raw, static_cast<size_t>(count));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        if (skipped(line)) continue;
        history(hist, &ev, H_ENTER, line.c_str());
        size_t first = line.find_first_not_of(" \t");
        size_t last = line.find_last_not_of(" \t");
        std::string bare = line.substr(first, last - first + 1);
        if (bare == "exit" || bare == "quit") break;

        std::string out;
        int st = 1;
        int off = -1;
        if (cli_proto_request(fd, CLI_REQ_EXEC, line, &out, &st, &off) != 0) {
            lost_daemon();
            rc = kExitUnreachable;
            break;
        }
        if (st != 0 && off >= 0 && !out.empty() && out[0] == '%') print_caret(el, t, off);
        put(stdout, out);
    }
    history_end(hist);
    el_end(el);
    return rc;
}

}  // namespace

int main(int argc, char **argv) {
    std::string socket_path;
    std::vector<source> sources;
    int opt;
    while ((opt = getopt(argc, argv, "s:c:f:h")) != -1) {
        switch (opt) {
            case 's':
                socket_path = optarg;
                break;
            case 'c':
                sources.push_back(source{false, optarg});
                break;
            case 'f':
                sources.push_back(source{true, optarg});
                break;
            case 'h':
                put(stdout, kUsage);
                return kExitOk;
            default:
                put(stderr, kUsage);
                return kExitFailed;
        }
    }
    if (optind < argc) {
        put(stderr, std::string("ftps-cli: unexpected argument '") + argv[optind] + "'\n" + kUsage);
        return kExitFailed;
    }
    if (socket_path.empty()) socket_path = cli_proto_socket_path(platform_get().cli_socket);

    int fd = connect_daemon(socket_path);
    if (fd < 0) {
        put(stderr, "ftps-cli: cannot reach the daemon at " + socket_path + ": " + std::strerror(errno) + "\n");
        return kExitUnreachable;
    }

    int rc = kExitOk;
    if (sources.empty() && isatty(STDIN_FILENO)) {
        rc = interactive(fd);
        ::close(fd);
        return rc;
    }
    bool any_failed = false;
    bool reachable = true;
    if (sources.empty()) reachable = run_stream(fd, stdin, &any_failed);
    for (const source &s : sources) {
        if (!reachable) break;
        if (!s.is_file) {
            if (skipped(s.text)) continue;
            int r = run_line(fd, s.text);
            if (r < 0) reachable = false;
            if (r > 0) any_failed = true;
            continue;
        }
        FILE *f = std::fopen(s.text.c_str(), "re");
        if (f == nullptr) {
            put(stderr, "ftps-cli: cannot read " + s.text + ": " + std::strerror(errno) + "\n");
            any_failed = true;
            continue;
        }
        reachable = run_stream(fd, f, &any_failed);
        (void)std::fclose(f);  // opened for reading: nothing is lost if closing fails
    }
    ::close(fd);
    if (!reachable) {
        lost_daemon();
        return kExitUnreachable;
    }
    return any_failed ? kExitFailed : rc;
}
