// The device's local user database on plain Linux: an INI file with one "[user NAME]" section per
// account (crypt(3) secret or plain password, online limit, login modes, remote-login switch),
// reloaded whenever its modification time changes, and the accounts' online counts, which live
// in memory for the life of the process.
#include <crypt.h>
#include <ini.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "aaa.h"
#include "platform_conf.h"

namespace {

// An account without online_amount may hold as many sessions as the FTP server admits at once.
#define DEFAULT_ONLINE_AMOUNT 20

struct account {
    std::string secret;    // crypt(3) hash; checked first when present
    std::string password;  // plain text
    bool has_secret = false;
    bool has_password = false;
    int online_amount = DEFAULT_ONLINE_AMOUNT;
    uint32_t login_mode = 0;
    bool reject_remote_login = false;
};

// Never destroyed: a session may still be authenticating while the process exits.
std::mutex &db_mutex = *new std::mutex;
std::map<std::string, account> &accounts = *new std::map<std::string, account>;
std::map<std::string, int> &online_counts = *new std::map<std::string, int>;
std::string &loaded_path = *new std::string;
struct timespec loaded_mtime = {0, 0};
bool loaded = false;

bool parse_bool(const char *v, bool *out) {
    if (strcasecmp(v, "yes") == 0 || strcasecmp(v, "true") == 0 || strcmp(v, "1") == 0) return *out = true, true;
    if (strcasecmp(v, "no") == 0 || strcasecmp(v, "false") == 0 || strcmp(v, "0") == 0) return *out = false, true;
    return false;
}

struct load_state {
    std::map<std::string, account> *out;
    const char *path;
};

int on_entry(void *user, const char *section, const char *key, const char *value) {
    auto *st = static_cast<load_state *>(user);
    static const char prefix[] = "user ";
    if (strncmp(section, prefix, sizeof prefix - 1) != 0 || section[sizeof prefix - 1] == '\0') {
        fprintf(stderr, "%s: section '%s': unknown section\n", st->path, section);
        return 1;  // reported, the rest of the file still loads
    }
    account &a = (*st->out)[section + sizeof prefix - 1];
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
            fprintf(stderr, "%s: key '%s': bad value '%s'\n", st->path, key, value);
            return 1;
        }
        a.online_amount = static_cast<int>(n);
    } else if (strcmp(key, "login_mode") == 0) {
        unsigned long n = strtoul(value, &end, 0);  // hexadecimal with 0x, else decimal
        if (end == value || *end != '\0') {
            fprintf(stderr, "%s: key '%s': bad value '%s'\n", st->path, key, value);
            return 1;
        }
        a.login_mode = static_cast<uint32_t>(n);
    } else if (strcmp(key, "reject_remote_login") == 0) {
        if (!parse_bool(value, &a.reject_remote_login))
            fprintf(stderr, "%s: key '%s': bad value '%s'\n", st->path, key, value);
    } else {
        fprintf(stderr, "%s: key '%s': unknown key\n", st->path, key);
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
    load_state st{&fresh, path.c_str()};
    int rc = ini_parse(path.c_str(), on_entry, &st);
    if (rc > 0) fprintf(stderr, "%s:%d: malformed line\n", path.c_str(), rc);
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
