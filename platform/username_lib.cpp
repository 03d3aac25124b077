// The device's local user database on plain Linux: an INI file with one "[user NAME]" section per
// account (crypt(3) secret or plain password, online limit, login modes, remote-login switch, and
// the account's rights: home directory, write permission, transfer rate), reloaded whenever its
// modification time changes, and the accounts' online counts, which live in memory for the life
// of the process.
#include <crypt.h>
#include <ini.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "aaa.h"
#include "platform_conf.h"

namespace {

// An account without online_amount may hold 20 sessions at once, the device's own session limit.
#define DEFAULT_ONLINE_AMOUNT 20

struct account {
    std::string secret;    // crypt(3) hash; checked first when present
    std::string password;  // plain text
    bool has_secret = false;
    bool has_password = false;
    int online_amount = DEFAULT_ONLINE_AMOUNT;
    uint32_t login_mode = 0;
    bool reject_remote_login = false;
    int home_storage = -1;  // 0-based storage index; -1: no home of its own
    std::string home_path;
    bool write = true;
    int max_rate = 0;
    // SECURITY: a right that could not be read would otherwise fall back to a wider one (the
    // whole top directory, writing allowed); such an account cannot log in at all.
    bool rights_bad = false;
};

// A transfer rate beyond any link, as for the platform file's max_rate.
constexpr long kMaxRate = 10485760;

// Never destroyed: a session may still be authenticating while the process exits.
std::mutex &db_mutex = *new std::mutex;
std::map<std::string, account> &accounts = *new std::map<std::string, account>;
std::map<std::string, int> &online_counts = *new std::map<std::string, int>;
std::string &loaded_path = *new std::string;
struct timespec loaded_mtime = {0, 0};
bool loaded = false;

bool parse_bool(const char *v, bool *out) {
    if (strcasecmp(v, "yes") == 0 || strcasecmp(v, "true") == 0 || strcasecmp(v, "on") == 0 || strcmp(v, "1") == 0)
        return *out = true, true;
    if (strcasecmp(v, "no") == 0 || strcasecmp(v, "false") == 0 || strcasecmp(v, "off") == 0 || strcmp(v, "0") == 0)
        return *out = false, true;
    return false;
}

// "STORAGE:/path" with a storage the platform file names; the path from "/" (empty: "/"),
// without "." or ".." components or control characters. false with *reason set otherwise.
bool parse_home(const char *value, account *a, std::string *reason) {
    const char *colon = strchr(value, ':');
    std::string keyword(value, colon != nullptr ? static_cast<size_t>(colon - value) : 0);
    const std::vector<platform_storage> &storages = platform_get().storages;
    int index = -1;
    for (size_t i = 0; i < storages.size() && !keyword.empty(); i++)
        if (storages[i].keyword == keyword && !storages[i].dir.empty()) index = static_cast<int>(i);
    if (index < 0) {
        *reason = "expected STORAGE:/path with a storage of the platform file";
        return false;
    }
    std::string path = colon[1] == '\0' ? "/" : colon + 1;
    if (path[0] != '/' || path.size() >= sizeof(username_lib_rights_s{}.home_path)) {
        *reason = "the path must begin with '/' and have at most " +
                  std::to_string(sizeof(username_lib_rights_s{}.home_path) - 1) + " characters";
        return false;
    }
    bool bad = false;
    for (unsigned char c : path) bad = bad || c < 0x20 || c == 0x7f;
    for (size_t start = 1; start <= path.size() && !bad;) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        std::string component = path.substr(start, end - start);
        bad = component == "." || component == "..";
        start = end + 1;
    }
    if (bad) {
        *reason = "the path may not hold control characters or '.' and '..' components";
        return false;
    }
    a->home_storage = index;
    a->home_path = path;
    return true;
}

// The longest account name a copy of the account can carry.
constexpr size_t kNameMax = sizeof(username_lib_user_s{}.name) - 1;
constexpr char kPrefix[] = "user ";
constexpr size_t kPrefixLen = sizeof kPrefix - 1;
// inih reads at most this many characters of a line at a time.
constexpr size_t kLineMax = INI_MAX_LINE - 1;

// The parse of one file. The reader sees every line before inih does and keeps the section in
// force itself: inih cuts section names at 49 characters, which would file a long account name
// under a shorter one, and keeps the previous section in force after a header it cannot read.
// Keys are filed under the reader's section, never under inih's.
struct load_state {
    std::map<std::string, account> *out = nullptr;
    const char *path = "";
    FILE *fp = nullptr;
    int line = 0;
    std::string section;       // the section in force, in full
    bool skip = false;         // its keys are dropped: its header was refused
    bool key_seen = false;     // a key since the last header: an indented line continues its value
    int first_bad_header = 0;  // the first header reported here as malformed
};

void report(const load_state &st, const std::string &what) {
    fprintf(stderr, "%s:%d: %s\n", st.path, st.line, what.c_str());
}

// Where inih's search for the end of a header stops: the first ']' or an inline comment.
const char *header_end(const char *s) {
    bool was_space = false;
    while (*s != '\0' && *s != ']' && !(was_space && *s == ';')) {
        was_space = isspace(static_cast<unsigned char>(*s)) != 0;
        s++;
    }
    return s;
}

// True when inih reads raw as a section header; follows the header, and reports one whose keys
// cannot be filed under it (they are then dropped until the next header).
bool note_header(load_state &st, const std::string &raw) {
    size_t bom = st.line == 1 && raw.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    size_t first = raw.find_first_not_of(" \t\r\n\v\f", bom);
    if (first == std::string::npos || raw[first] != '[') return false;
    if (first > bom && st.key_seen) return false;  // an indented line after a key continues its value
    st.skip = true;
    if (raw.size() > kLineMax) {
        report(st, "section header longer than " + std::to_string(kLineMax) + " characters; its keys are ignored");
        return true;
    }
    const char *open = raw.c_str() + first;
    const char *end = header_end(open + 1);
    if (*end != ']') {
        report(st, "malformed section header; its keys are ignored");
        if (st.first_bad_header == 0) st.first_bad_header = st.line;
        return true;
    }
    st.key_seen = false;
    std::string section(open + 1, static_cast<size_t>(end - open - 1));
    if (section.compare(0, kPrefixLen, kPrefix) == 0 && section.size() - kPrefixLen > kNameMax) {
        report(st, "section '" + section + "': user name longer than " + std::to_string(kNameMax) +
                       " characters; the account is not loaded");
        return true;
    }
    st.section = section;
    st.skip = false;
    return true;
}

// fgets for inih, with line accounting and header tracking. A line longer than inih takes is
// dropped as a whole (inih would read its rest as further lines of their own).
char *read_line(char *buf, int size, void *stream) {
    auto *st = static_cast<load_state *>(stream);
    char *got = nullptr;
    size_t cap = 0;
    ssize_t len = getline(&got, &cap, st->fp);
    std::string raw(got != nullptr && len > 0 ? got : "", len > 0 ? static_cast<size_t>(len) : 0);
    free(got);
    if (len < 0 || size < 1) return nullptr;
    st->line++;
    while (!raw.empty() && (raw.back() == '\n' || raw.back() == '\r')) raw.pop_back();
    bool header = note_header(*st, raw);
    if (raw.size() > kLineMax || raw.size() >= static_cast<size_t>(size)) {
        if (!header) report(*st, "line longer than " + std::to_string(kLineMax) + " characters; ignored");
        raw.clear();
    }
    snprintf(buf, static_cast<size_t>(size), "%s", raw.c_str());
    return buf;
}

// The rights keys (home, write, max_rate): true when key is one of them. A refused value is
// reported and leaves the account unable to log in.
bool apply_right(const load_state &st, account &a, const char *key, const char *value) {
    std::string reason;
    bool ok;
    if (strcmp(key, "home") == 0) {
        ok = parse_home(value, &a, &reason);
    } else if (strcmp(key, "write") == 0) {
        ok = parse_bool(value, &a.write);
        if (!ok) reason = "expected yes or no";
    } else if (strcmp(key, "max_rate") == 0) {
        char *end = nullptr;
        errno = 0;
        long n = strtol(value, &end, 10);
        ok = *value != '\0' && *end == '\0' && errno == 0 && n >= 0 && n <= kMaxRate;
        if (ok) a.max_rate = static_cast<int>(n);
        if (!ok) reason = "expected KiB/s from 0 to " + std::to_string(kMaxRate);
    } else {
        return false;
    }
    if (!ok) {
        report(st,
               std::string("key '") + key + "': bad value '" + value + "': " + reason + "; the account cannot log in");
        a.rights_bad = true;
    }
    return true;
}

int on_entry(void *user, const char * /*inih's, possibly cut*/, const char *key, const char *value) {
    auto *st = static_cast<load_state *>(user);
    st->key_seen = true;
    if (st->skip) return 1;
    const std::string &section = st->section;
    if (section.compare(0, kPrefixLen, kPrefix) != 0 || section.size() == kPrefixLen) {
        report(*st, "section '" + section + "': unknown section");
        return 1;  // reported, the rest of the file still loads
    }
    account &a = (*st->out)[section.substr(kPrefixLen)];
    char *end = nullptr;
    if (strcmp(key, "secret") == 0) {
        a.secret = value;
        a.has_secret = true;
    } else if (strcmp(key, "password") == 0) {
        a.password = value;
        a.has_password = true;
    } else if (strcmp(key, "online_amount") == 0) {
        long n = strtol(value, &end, 10);
        if (end == value || *end != '\0' || n < 0) {
            report(*st, std::string("key '") + key + "': bad value '" + value + "'");
            return 1;
        }
        a.online_amount = static_cast<int>(n);
    } else if (strcmp(key, "login_mode") == 0) {
        unsigned long n = strtoul(value, &end, 0);  // hexadecimal with 0x, else decimal
        if (end == value || *end != '\0') {
            report(*st, std::string("key '") + key + "': bad value '" + value + "'");
            return 1;
        }
        a.login_mode = static_cast<uint32_t>(n);
    } else if (strcmp(key, "reject_remote_login") == 0) {
        if (!parse_bool(value, &a.reject_remote_login))
            report(*st, std::string("key '") + key + "': bad value '" + value + "'");
    } else if (!apply_right(*st, a, key, value)) {
        report(*st, std::string("key '") + key + "': unknown key");
    }
    return 1;
}

// Caller holds db_mutex. Loads the file when it is new or its modification time changed.
void refresh_locked() {
    const std::string &path = platform_get().user_database;
    if (path.empty()) {
        accounts.clear();
        loaded_path.clear();
        loaded = false;
        return;
    }
    struct stat sb;
    if (stat(path.c_str(), &sb) != 0) {
        accounts.clear();
        loaded = false;
        return;
    }
    if (loaded && path == loaded_path && sb.st_mtim.tv_sec == loaded_mtime.tv_sec &&
        sb.st_mtim.tv_nsec == loaded_mtime.tv_nsec)
        return;
    std::map<std::string, account> fresh;
    load_state st;
    st.out = &fresh;
    st.path = path.c_str();
    st.fp = fopen(path.c_str(), "re");
    if (st.fp == nullptr) {
        accounts.clear();
        loaded = false;
        return;
    }
    int rc = ini_parse_stream(read_line, &st, on_entry, &st);
    fclose(st.fp);
    if (rc > 0 && rc != st.first_bad_header) fprintf(stderr, "%s:%d: malformed line\n", path.c_str(), rc);
    accounts.swap(fresh);
    loaded_path = path;
    loaded_mtime = sb.st_mtim;
    loaded = true;
}

bool secret_matches(const std::string &hash, const std::string &password) {
    auto *data = static_cast<struct crypt_data *>(calloc(1, sizeof(struct crypt_data)));
    if (data == nullptr) return false;
    const char *out = crypt_r(password.c_str(), hash.c_str(), data);
    bool ok = out != nullptr && out[0] != '*' && hash == out;
    free(data);
    return ok;
}

bool password_matches(const account &a, const std::string &password) {
    if (a.rights_bad) return false;
    if (a.has_secret) return secret_matches(a.secret, password);
    if (a.has_password) return a.password == password;
    return false;  // an account without any password cannot log in
}

}  // namespace

int username_lib_authen_req(authen_info_s *req, aaa_result_s **result) {
    if (req == nullptr || result == nullptr) return -1;
    *result = nullptr;
    std::string name = req->sub.name.data != nullptr ? std::string(req->sub.name.data, req->sub.name.len) : "";
    std::string password =
        req->sub.password.data != nullptr ? std::string(req->sub.password.data, req->sub.password.len) : "";
    bool accept;
    {
        std::lock_guard<std::mutex> lock(db_mutex);
        refresh_locked();
        auto it = accounts.find(name);
        accept = it != accounts.end() && password_matches(it->second, password);
    }
    auto *r = static_cast<aaa_result_s *>(calloc(1, sizeof(aaa_result_s)));
    if (r == nullptr) return -1;
    r->sub.result = accept ? AAA_ACCEPT : AAA_REJECT;
    r->sub.mtype = AAA_MTYPE_LOCAL;
    r->sub.ip_privilege = 1;
    *result = r;
    return 0;
}

int username_lib_copy_user(const char *name, username_lib_user_s *out) {
    if (name == nullptr || out == nullptr) return -1;
    std::lock_guard<std::mutex> lock(db_mutex);
    refresh_locked();
    auto it = accounts.find(name);
    if (it == accounts.end()) return -2;
    memset(out, 0, sizeof *out);
    snprintf(out->name, sizeof out->name, "%s", name);
    out->reject_remote_login = it->second.reject_remote_login;
    out->online_amount = it->second.online_amount;
    out->login_mode = it->second.login_mode;
    auto c = online_counts.find(name);
    out->online_count = c == online_counts.end() ? 0 : c->second;
    return 0;
}

int username_lib_user_rights(const char *name, username_lib_rights_s *out) {
    if (name == nullptr || out == nullptr) return -1;
    std::lock_guard<std::mutex> lock(db_mutex);
    refresh_locked();
    auto it = accounts.find(name);
    if (it == accounts.end()) return -2;
    const account &a = it->second;
    if (a.rights_bad) return -3;
    memset(out, 0, sizeof *out);
    out->home_storage = a.home_storage;
    snprintf(out->home_path, sizeof out->home_path, "%s", a.home_path.c_str());
    out->write = a.write;
    out->max_rate = a.max_rate;
    return 0;
}

// A copy owns nothing: its values stay readable after the release.
void username_lib_release_user(username_lib_user_s *user) {
    (void)user;
}

int username_lib_update_user(const username_lib_user_s *user) {
    if (user == nullptr) return -1;
    std::lock_guard<std::mutex> lock(db_mutex);
    refresh_locked();
    if (accounts.find(user->name) == accounts.end()) return -2;
    online_counts[user->name] = user->online_count < 0 ? 0 : user->online_count;
    return 0;
}
