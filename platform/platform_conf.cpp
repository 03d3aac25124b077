// The platform file: parses the INI file that configures the plain-Linux device services into a
// platform_conf, with every error naming its file, line and key, keeps the process-wide copy and
// answers the daemon's questions about its FTP settings (ftp_platform.h).
#include "platform_conf.h"

#include <arpa/inet.h>
#include <ini.h>
#include <pwquality.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "fs_info.h"
#include "ftp_platform.h"

namespace {

const char *const kDefaultPlatformFile = "/etc/ftps/platform.conf";
const char *const kDefaultFlashDir = "/var/lib/ftps/flash";

// Storage keywords by the device's 0-based storage index; empty entries are gaps in its numbering.
const char *const kStorageKeywords[] = {"flash2", "flash", "sata0", "usb0", "", "tmp", "install", "", "nfs"};

const char *const kMethods[] = {"local", "radius", "pam", "none"};

// Profile names by their PLATFORM_FTP_PROFILE_* value.
const char *const kProfiles[] = {"device", "standard", nullptr};
static_assert(PLATFORM_FTP_PROFILE_DEVICE == 0 && PLATFORM_FTP_PROFILE_STANDARD == 1);

const char *const kTlsRequire[] = {"no", "login", "all", nullptr};
static_assert(PLATFORM_TLS_REQUIRE_NO == 0 && PLATFORM_TLS_REQUIRE_LOGIN == 1 && PLATFORM_TLS_REQUIRE_ALL == 2);
const char *const kTlsVersions[] = {"1.2", "1.3", nullptr};
const char *const kTlsUploadEof[] = {"strict", "lenient", nullptr};
static_assert(PLATFORM_TLS_UPLOAD_EOF_STRICT == 0 && PLATFORM_TLS_UPLOAD_EOF_LENIENT == 1);

// Longest wait the daemon may put before a failed-login reply: more would only hold sessions.
const int kMaxLoginFailDelay = 60;
// Bounds of the session limits, and of a transfer's rate in KiB/s (10 GiB/s: beyond any link).
const int kMaxSessions = 4096;
const int kMaxRate = 10485760;

struct parse_state {
    platform_conf *conf;
    std::string file;      // as given, for messages
    std::string base_dir;  // absolute directory of the file, for relative paths
    int line = 0;          // line of the text the handler is looking at
    int completed = 0;     // lines read whole so far
    FILE *fp = nullptr;
    bool failed = false;
    int error_line = 0;
    std::string error;
};

std::vector<std::string> split_blanks(const char *value) {
    std::vector<std::string> out;
    const char *p = value;
    while (*p != '\0') {
        while (*p == ' ' || *p == '\t') p++;
        const char *start = p;
        while (*p != '\0' && *p != ' ' && *p != '\t') p++;
        if (p > start) out.emplace_back(start, p - start);
    }
    return out;
}

bool parse_int(const char *value, long lo, long hi, int *out, std::string *reason) {
    char *end = nullptr;
    errno = 0;
    long v = strtol(value, &end, 10);
    if (*value == '\0' || end == value || *end != '\0' || errno != 0) {
        *reason = "not a number";
        return false;
    }
    if (v < lo || v > hi) {
        *reason = "out of range (" + std::to_string(lo) + "-" + std::to_string(hi) + ")";
        return false;
    }
    *out = static_cast<int>(v);
    return true;
}

bool parse_bool(const char *value, bool *out, std::string *reason) {
    static const char *const kTrue[] = {"yes", "true", "on", "1"};
    static const char *const kFalse[] = {"no", "false", "off", "0"};
    for (const char *t : kTrue)
        if (strcasecmp(value, t) == 0) {
            *out = true;
            return true;
        }
    for (const char *f : kFalse)
        if (strcasecmp(value, f) == 0) {
            *out = false;
            return true;
        }
    *reason = "expected yes or no";
    return false;
}

std::string resolve_path(const parse_state &st, const char *value) {
    if (*value == '\0' || *value == '/' || st.base_dir.empty()) return value;
    return st.base_dir + "/" + value;
}

// "host:port", "[v6addr]:port", a bare host or a bare IPv6 address; stored as host:port with the
// default port filled in and IPv6 addresses in brackets, so that consumers split at the last ':'.
bool parse_endpoint(const std::string &text, int default_port, std::string *out, std::string *reason) {
    std::string host;
    std::string port;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos || close == 1) {
            *reason = "bad address '" + text + "'";
            return false;
        }
        host = text.substr(0, close + 1);
        std::string rest = text.substr(close + 1);
        if (!rest.empty()) {
            if (rest[0] != ':') {
                *reason = "bad address '" + text + "'";
                return false;
            }
            port = rest.substr(1);
        }
    } else {
        size_t first = text.find(':');
        size_t last = text.rfind(':');
        if (first == std::string::npos) {
            host = text;
        } else if (first == last) {
            host = text.substr(0, first);
            port = text.substr(first + 1);
        } else {
            host = "[" + text + "]";  // a bare IPv6 address
        }
    }
    if (host.empty()) {
        *reason = "bad address '" + text + "'";
        return false;
    }
    int p = default_port;
    if (!port.empty() || text.back() == ':') {
        std::string why;
        if (!parse_int(port.c_str(), 1, 65535, &p, &why)) {
            *reason = "bad port in '" + text + "'";
            return false;
        }
    }
    *out = host + ":" + std::to_string(p);
    return true;
}

bool parse_endpoints(const char *value, int default_port, std::vector<std::string> *out, std::string *reason) {
    out->clear();
    for (const std::string &item : split_blanks(value)) {
        std::string ep;
        if (!parse_endpoint(item, default_port, &ep, reason)) return false;
        out->push_back(ep);
    }
    return true;
}

bool check_pwquality(const char *value, std::string *reason) {
    pwquality_settings_t *settings = pwquality_default_settings();
    if (settings == nullptr) {
        *reason = "libpwquality unavailable";
        return false;
    }
    bool ok = true;
    for (const std::string &opt : split_blanks(value)) {
        if (pwquality_set_option(settings, opt.c_str()) != 0) {
            *reason = "bad libpwquality setting '" + opt + "'";
            ok = false;
            break;
        }
    }
    pwquality_free_settings(settings);
    return ok;
}

// One of the names in choices (case ignored, as for yes/no), stored as its index.
bool parse_choice(const char *value, const char *const *choices, int *out, std::string *reason) {
    std::string names;
    for (int i = 0; choices[i] != nullptr; i++) {
        if (strcasecmp(value, choices[i]) == 0) {
            *out = i;
            return true;
        }
        names += i == 0 ? "" : choices[i + 1] == nullptr ? " or " : ", ";
        names += choices[i];
    }
    *reason = "expected " + names;
    return false;
}

// A value in double quotes keeps the blanks that the INI reader would trim; the quotes are not
// part of it. A lone opening quote is refused rather than kept: it is what is left when a " ;"
// inside the quotes started a comment, so the value is not what was written.
bool unquote(const char *value, std::string *out, std::string *reason) {
    size_t len = strlen(value);
    if (value[0] != '"') {
        out->assign(value, len);
        return true;
    }
    if (len < 2 || value[len - 1] != '"') {
        *reason = "unterminated double quote";
        return false;
    }
    out->assign(value + 1, len - 2);
    return true;
}

// A dotted IPv4 address (inet_pton's strict form), or empty.
bool parse_ipv4(const char *value, std::string *out, std::string *reason) {
    unsigned char a[4];
    if (*value != '\0' && inet_pton(AF_INET, value, a) != 1) {
        *reason = "not an IPv4 address";
        return false;
    }
    *out = value;
    return true;
}

// LOW-HIGH within the unprivileged ports, LOW <= HIGH; empty for any port.
bool parse_port_range(const char *value, int *low, int *high, std::string *reason) {
    if (*value == '\0') {
        *low = *high = 0;
        return true;
    }
    const char *dash = strchr(value, '-');
    std::string lo_text(value, dash != nullptr ? static_cast<size_t>(dash - value) : strlen(value));
    int lo = 0;
    int hi = 0;
    if (dash == nullptr || !parse_int(lo_text.c_str(), 1024, 65535, &lo, reason) ||
        !parse_int(dash + 1, 1024, 65535, &hi, reason)) {
        *reason = "expected LOW-HIGH within 1024-65535";
        return false;
    }
    if (lo > hi) {
        *reason = "LOW above HIGH";
        return false;
    }
    *low = lo;
    *high = hi;
    return true;
}

bool parse_prefixes(const char *value, std::vector<platform_net_prefix> *out, std::string *reason) {
    out->clear();
    for (const std::string &item : split_blanks(value)) {
        platform_net_prefix p;
        if (!platform_net_prefix_parse(item, &p, reason)) return false;
        out->push_back(p);
    }
    return true;
}

bool set_methods(platform_conf &c, const std::string &name, const char *value, std::string *reason) {
    std::vector<std::string> methods = split_blanks(value);
    if (methods.empty()) {
        *reason = "no method given";
        return false;
    }
    for (const std::string &m : methods) {
        bool known = false;
        for (const char *k : kMethods) known = known || m == k;
        if (!known) {
            *reason = "unknown method '" + m + "'";
            return false;
        }
    }
    for (auto &list : c.aaa_lists) {
        if (list.first == name) {
            list.second = methods;
            return true;
        }
    }
    c.aaa_lists.emplace_back(name, methods);
    return true;
}

// What a key's value is, and so how it is checked and stored.
enum class value_kind {
    text,       // any text
    name,       // non-empty text
    path,       // relative to the platform file's directory
    yes_no,     // yes/no, true/false, on/off, 1/0
    number,     // decimal in lo..hi
    storage,    // a storage's directory, into slot
    endpoints,  // host[:port] list, port defaulting to lo
    pwquality,  // libpwquality name=value settings
    choice,     // one of choices, stored as its index
    ipv4,       // a dotted IPv4 address or empty
    ports,      // LOW-HIGH into number and number_high, or empty
    prefixes,   // addresses and CIDR prefixes separated by blanks
};

// One row per key of the platform file.
struct key_row {
    const char *section;
    const char *key;
    value_kind kind;
    std::string platform_conf::*text = nullptr;
    bool platform_conf::*flag = nullptr;
    int platform_conf::*number = nullptr;
    int platform_conf::*number_high = nullptr;
    std::vector<platform_net_prefix> platform_conf::*prefix_list = nullptr;
    std::vector<std::string> platform_conf::*list = nullptr;
    std::string platform_conf::*at = nullptr;  // receives "FILE:LINE" of the key
    const char *const *choices = nullptr;      // nullptr-terminated
    int lo = 0;
    int hi = 0;
    int slot = 0;
};

using pc = platform_conf;
const key_row kKeys[] = {
    {.section = "device", .key = "product_name", .kind = value_kind::text, .text = &pc::product_name},
    {.section = "device", .key = "os_name", .kind = value_kind::text, .text = &pc::os_name},
    {.section = "ftp",
     .key = "control_port",
     .kind = value_kind::number,
     .number = &pc::control_port,
     .lo = 1,
     .hi = 65535},
    {.section = "ftp", .key = "profile", .kind = value_kind::choice, .number = &pc::ftp_profile, .choices = kProfiles},
    {.section = "ftp",
     .key = "login_fail_delay",
     .kind = value_kind::number,
     .number = &pc::login_fail_delay,
     .lo = 0,
     .hi = kMaxLoginFailDelay},
    {.section = "ftp", .key = "passive_address", .kind = value_kind::ipv4, .text = &pc::passive_address},
    {.section = "ftp",
     .key = "passive_ports",
     .kind = value_kind::ports,
     .number = &pc::passive_port_low,
     .number_high = &pc::passive_port_high},
    {.section = "ftp", .key = "proxy_from", .kind = value_kind::prefixes, .prefix_list = &pc::proxy_from},
    {.section = "ftp",
     .key = "max_sessions",
     .kind = value_kind::number,
     .number = &pc::max_sessions,
     .lo = 1,
     .hi = kMaxSessions},
    {.section = "ftp",
     .key = "max_per_address",
     .kind = value_kind::number,
     .number = &pc::max_per_address,
     .lo = 0,
     .hi = kMaxSessions},
    {.section = "ftp", .key = "max_rate", .kind = value_kind::number, .number = &pc::max_rate, .lo = 0, .hi = kMaxRate},
    {.section = "storage", .key = "flash2", .kind = value_kind::storage, .slot = 0},
    {.section = "storage", .key = "flash", .kind = value_kind::storage, .slot = 1},
    {.section = "storage", .key = "sata0", .kind = value_kind::storage, .slot = 2},
    {.section = "storage", .key = "usb0", .kind = value_kind::storage, .slot = 3},
    {.section = "storage", .key = "tmp", .kind = value_kind::storage, .slot = 5},
    {.section = "storage", .key = "install", .kind = value_kind::storage, .slot = 6},
    {.section = "storage", .key = "nfs", .kind = value_kind::storage, .slot = 8},
    {.section = "cli", .key = "socket", .kind = value_kind::path, .text = &pc::cli_socket},
    {.section = "cli", .key = "startup_config", .kind = value_kind::path, .text = &pc::startup_config},
    {.section = "log", .key = "syslog", .kind = value_kind::yes_no, .flag = &pc::log_syslog},
    {.section = "log", .key = "file", .kind = value_kind::path, .text = &pc::log_file},
    {.section = "log", .key = "stderr", .kind = value_kind::yes_no, .flag = &pc::log_stderr},
    {.section = "log", .key = "transfer_log", .kind = value_kind::path, .text = &pc::transfer_log},
    {.section = "aaa", .key = "registered", .kind = value_kind::yes_no, .flag = &pc::aaa_registered},
    {.section = "aaa", .key = "new_model", .kind = value_kind::yes_no, .flag = &pc::aaa_new_model},
    {.section = "aaa", .key = "user_database", .kind = value_kind::path, .text = &pc::user_database},
    {.section = "radius", .key = "server", .kind = value_kind::endpoints, .list = &pc::radius_servers, .lo = 1812},
    {.section = "radius", .key = "secret", .kind = value_kind::text, .text = &pc::radius_secret},
    {.section = "radius",
     .key = "timeout",
     .kind = value_kind::number,
     .number = &pc::radius_timeout,
     .lo = 1,
     .hi = 3600},
    {.section = "radius",
     .key = "retries",
     .kind = value_kind::number,
     .number = &pc::radius_retries,
     .lo = 1,
     .hi = 100},
    {.section = "pam", .key = "service", .kind = value_kind::name, .text = &pc::pam_service},
    {.section = "security",
     .key = "service_password_encryption",
     .kind = value_kind::yes_no,
     .flag = &pc::service_password_encryption},
    {.section = "security", .key = "pwquality", .kind = value_kind::pwquality, .text = &pc::pwquality},
    {.section = "snmp", .key = "trap_sink", .kind = value_kind::endpoints, .list = &pc::trap_sinks, .lo = 162},
    {.section = "snmp", .key = "community", .kind = value_kind::text, .text = &pc::snmp_community},
    {.section = "tls",
     .key = "certificate",
     .kind = value_kind::path,
     .text = &pc::tls_certificate,
     .at = &pc::tls_certificate_at},
    {.section = "tls", .key = "key", .kind = value_kind::path, .text = &pc::tls_key, .at = &pc::tls_key_at},
    {.section = "tls", .key = "ca", .kind = value_kind::path, .text = &pc::tls_ca, .at = &pc::tls_ca_at},
    {.section = "tls",
     .key = "require",
     .kind = value_kind::choice,
     .number = &pc::tls_require,
     .choices = kTlsRequire},
    {.section = "tls", .key = "require_reuse", .kind = value_kind::yes_no, .flag = &pc::tls_require_reuse},
    {.section = "tls",
     .key = "upload_eof",
     .kind = value_kind::choice,
     .number = &pc::tls_upload_eof,
     .choices = kTlsUploadEof},
    {.section = "tls", .key = "ciphers", .kind = value_kind::text, .text = &pc::tls_ciphers},
    {.section = "tls",
     .key = "min_version",
     .kind = value_kind::choice,
     .number = &pc::tls_min_version,
     .choices = kTlsVersions},
};

bool set_value(parse_state &st, const key_row &row, const char *value, std::string *reason) {
    platform_conf &c = *st.conf;
    switch (row.kind) {
        case value_kind::text:
            c.*row.text = value;
            return true;
        case value_kind::name:
            if (*value == '\0') {
                *reason = "empty value";
                return false;
            }
            c.*row.text = value;
            return true;
        case value_kind::path:
            c.*row.text = resolve_path(st, value);
            if (row.at != nullptr) c.*row.at = st.file + ":" + std::to_string(st.line);
            return true;
        case value_kind::yes_no:
            return parse_bool(value, &(c.*row.flag), reason);
        case value_kind::number:
            return parse_int(value, row.lo, row.hi, &(c.*row.number), reason);
        case value_kind::storage:
            c.storages[row.slot].dir = resolve_path(st, value);
            return true;
        case value_kind::endpoints:
            return parse_endpoints(value, row.lo, &(c.*row.list), reason);
        case value_kind::pwquality:
            if (!check_pwquality(value, reason)) return false;
            c.*row.text = value;
            return true;
        case value_kind::choice:
            return parse_choice(value, row.choices, &(c.*row.number), reason);
        case value_kind::ipv4:
            return parse_ipv4(value, &(c.*row.text), reason);
        case value_kind::ports:
            return parse_port_range(value, &(c.*row.number), &(c.*row.number_high), reason);
        case value_kind::prefixes:
            return parse_prefixes(value, &(c.*row.prefix_list), reason);
    }
    return false;
}

// Returns false with *reason set when the value is bad; *unknown_key when the key is not known.
bool apply_key(parse_state &st, const std::string &section, const std::string &key, const char *value,
               bool *unknown_key, std::string *reason) {
    *unknown_key = false;
    for (const key_row &row : kKeys)
        if (section == row.section && key == row.key) return set_value(st, row, value, reason);
    // Method lists are named by the key itself: list.NAME.
    if (section == "aaa" && key.rfind("list.", 0) == 0 && key.size() > 5)
        return set_methods(*st.conf, key.substr(5), value, reason);
    *unknown_key = true;
    return false;
}

bool known_section(const std::string &section) {
    static const char *const kSections[] = {"device", "ftp", "storage",  "cli",  "log", "aaa",
                                            "radius", "pam", "security", "snmp", "tls"};
    for (const char *s : kSections)
        if (section == s) return true;
    return false;
}

int on_key(void *user, const char *section, const char *name, const char *value) {
    parse_state &st = *static_cast<parse_state *>(user);
    if (st.failed) return 1;
    std::string sec = section;
    std::string key = name;
    std::string where = st.file + ":" + std::to_string(st.line) + ": ";
    if (!known_section(sec)) {
        st.error = where + "section '" + sec + "': unknown section";
    } else {
        bool unknown = false;
        std::string reason;
        std::string text;
        if (unquote(value, &text, &reason) && apply_key(st, sec, key, text.c_str(), &unknown, &reason)) return 1;
        st.error = where + "key '" + key + "': " + (unknown ? "unknown key in section '" + sec + "'" : reason);
    }
    st.failed = true;
    st.error_line = st.line;
    return 0;
}

// fgets with line accounting, so that the handler knows which line it is looking at; it also
// ends the parse after the first handler error.
char *read_line(char *buf, int size, void *stream) {
    parse_state &st = *static_cast<parse_state *>(stream);
    if (st.failed) return nullptr;
    char *got = fgets(buf, size, st.fp);
    if (got == nullptr) return nullptr;
    bool line_start = st.line == st.completed;  // not the rest of an overlong line
    st.line = st.completed + 1;
    if (strchr(buf, '\n') != nullptr) st.completed++;
    // A section header is checked here, so that an unknown section with no keys is found too.
    const char *p = buf + strspn(buf, " \t");
    const char *close = *p == '[' ? strchr(p, ']') : nullptr;
    if (line_start && close != nullptr) {
        std::string sec(p + 1, close - p - 1);
        if (!known_section(sec)) {
            st.error = st.file + ":" + std::to_string(st.line) + ": section '" + sec + "': unknown section";
            st.failed = true;
            st.error_line = st.line;
        }
    }
    return got;
}

std::string dir_of(const char *path) {
    std::string p = path;
    if (p.empty() || p[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd) == nullptr) return "";
        p = std::string(cwd) + "/" + p;
    }
    size_t slash = p.rfind('/');
    if (slash == 0) return "/";
    return p.substr(0, slash);
}

std::once_flag g_once;
// Never destroyed: session threads still read it while the process exits (shutdown does not stop
// them), so it must outlive the static destructors.
platform_conf &g_conf = *new platform_conf;
bool g_ok = true;

void load_process_conf() {
    const char *env = getenv("FTPS_PLATFORM");
    const char *path = nullptr;
    if (env != nullptr && *env != '\0') {
        path = env;
    } else if (access(kDefaultPlatformFile, F_OK) == 0) {
        path = kDefaultPlatformFile;
    }
    if (path == nullptr) {
        platform_conf_set_defaults(&g_conf);
        return;
    }
    std::string err;
    if (platform_conf_load(path, &g_conf, &err) != 0) {
        fprintf(stderr, "%s\n", err.c_str());
        platform_conf_set_defaults(&g_conf);
        g_ok = false;
    }
}

}  // namespace

void platform_conf_set_defaults(platform_conf *conf) {
    *conf = platform_conf{};
    conf->storages.clear();
    for (size_t i = 0; i < FS_STORAGE_SLOTS; i++) conf->storages.push_back({kStorageKeywords[i], ""});
    conf->storages[1].dir = kDefaultFlashDir;
    conf->aaa_lists.push_back({"default", {"local"}});
}

int platform_conf_load(const char *path, platform_conf *conf, std::string *err) {
    platform_conf_set_defaults(conf);
    conf->path = path != nullptr ? path : "";
    if (path == nullptr || *path == '\0') {
        if (err != nullptr) *err = "platform file: no path given";
        return -1;
    }
    parse_state st;
    st.conf = conf;
    st.file = path;
    st.base_dir = dir_of(path);
    st.fp = fopen(path, "re");
    if (st.fp == nullptr) {
        if (err != nullptr) *err = std::string(path) + ": cannot open: " + strerror(errno);
        return -1;
    }
    int rc = ini_parse_stream(read_line, &st, on_key, &st);
    fclose(st.fp);
    if (rc == 0 && !st.failed) return 0;
    if (err != nullptr) {
        if (st.failed && (rc == st.error_line || rc <= 0))
            *err = st.error;
        else if (rc > 0)
            *err = std::string(path) + ":" + std::to_string(rc) + ": malformed line";
        else
            *err = std::string(path) + ": cannot read";
    }
    return -1;
}

const platform_conf &platform_get() {
    std::call_once(g_once, load_process_conf);
    return g_conf;
}

bool platform_conf_ok() {
    std::call_once(g_once, load_process_conf);
    return g_ok;
}

int platform_ftp_control_port(void) {
    return platform_get().control_port;
}

int platform_ftp_profile(void) {
    return platform_get().ftp_profile;
}

int platform_ftp_login_fail_delay(void) {
    return platform_get().login_fail_delay;
}

int platform_ftp_passive_address(unsigned char out[4]) {
    const std::string &a = platform_get().passive_address;
    if (a.empty() || inet_pton(AF_INET, a.c_str(), out) != 1) return 0;
    return 1;
}

int platform_ftp_passive_ports(int *low, int *high) {
    const platform_conf &c = platform_get();
    if (low != nullptr) *low = c.passive_port_low;
    if (high != nullptr) *high = c.passive_port_high;
    return c.passive_port_low != 0 ? 1 : 0;
}

int platform_ftp_proxy_required(const struct sockaddr *peer) {
    return platform_address_in_list(peer, platform_get().proxy_from) ? 1 : 0;
}

int platform_ftp_max_sessions(void) {
    return platform_get().max_sessions;
}

int platform_ftp_max_per_address(void) {
    return platform_get().max_per_address;
}

int platform_ftp_max_rate(void) {
    return platform_get().max_rate;
}

const char *platform_log_transfer_log(void) {
    return platform_get().transfer_log.c_str();
}

void platform_set_for_test(const platform_conf &conf) {
    std::call_once(g_once, [] {});
    g_conf = conf;
    g_ok = true;
}
