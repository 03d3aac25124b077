// Password policy service: libpwquality with the platform file's settings judges a password for
// a user, and a registry of policy clients receives the device's configuration messages (the
// framework broadcasts a change of the service-password encryption).
#include "pwd_policy.h"

#include <pwquality.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "platform_conf.h"

struct pwd_policy_client {
    struct zq_thread_master *master = nullptr;
    int version = 0;
    int protocol = 0;
    int service = 0;
    bool started = false;
    struct registration {
        int msg_type;
        pwd_policy_parser_t parser;
        pwd_policy_handler_t handler;
        void *arg;
    };
    std::vector<registration> regs;
};

namespace {

// What a broadcast carries to the parsers.
struct pwd_policy_msg {
    int msg_type;
    int msg_value;
};

std::once_flag g_settings_once;
pwquality_settings_t *g_settings = nullptr;  // read-only once built

thread_local int t_last_code = 0;
thread_local void *t_last_aux = nullptr;

std::mutex g_clients_lock;
// Never destroyed: clients live as long as the process, and a broadcast from another thread may
// still walk the list while the process exits.
std::vector<pwd_policy_client *> &g_clients = *new std::vector<pwd_policy_client *>;

void build_settings() {
    g_settings = pwquality_default_settings();
    if (g_settings == nullptr) return;
    const std::string &opts = platform_get().pwquality;
    size_t pos = 0;
    while (pos < opts.size()) {
        size_t start = opts.find_first_not_of(" \t", pos);
        if (start == std::string::npos) break;
        size_t end = opts.find_first_of(" \t", start);
        if (end == std::string::npos) end = opts.size();
        std::string opt = opts.substr(start, end - start);
        pwquality_set_option(g_settings, opt.c_str());  // checked when the platform file was loaded
        pos = end;
    }
}

}  // namespace

int pwd_policy_chk_pwd_safety_with_username(const char *username, const char *password, int len) {
    std::call_once(g_settings_once, build_settings);
    t_last_code = 0;
    t_last_aux = nullptr;
    if (g_settings == nullptr) return 0;  // no policy can be applied; it is advisory
    char pw[256];
    size_t n = password != nullptr && len > 0 ? std::min(static_cast<size_t>(len), sizeof pw - 1) : 0;
    if (n > 0) memcpy(pw, password, n);
    pw[n] = '\0';
    void *aux = nullptr;
    int score = pwquality_check(g_settings, pw, nullptr, username, &aux);
    memset(pw, 0, sizeof pw);
    if (score >= 0) return 0;
    t_last_code = -score;
    t_last_aux = aux;
    return -score;
}

int pwd_policy_format_result_string(int verdict, char *out, int len) {
    if (out == nullptr || len <= 0) return -1;
    out[0] = '\0';
    if (verdict <= 0) return 0;
    char buf[PWQ_MAX_ERROR_MESSAGE_LEN];
    const char *text = pwquality_strerror(buf, sizeof buf, -verdict, verdict == t_last_code ? t_last_aux : nullptr);
    snprintf(out, static_cast<size_t>(len), "%s", text != nullptr ? text : "");
    return 0;
}

struct pwd_policy_client *pwd_policy_client_create(struct zq_thread_master *master) {
    pwd_policy_client *c = new (std::nothrow) pwd_policy_client;
    if (c == nullptr) return nullptr;
    c->master = master;
    std::lock_guard<std::mutex> lock(g_clients_lock);
    g_clients.push_back(c);
    return c;
}

int pwd_policy_client_set_version(struct pwd_policy_client *c, int version) {
    if (c == nullptr) return -1;
    c->version = version;
    return 0;
}

int pwd_policy_client_set_protocol(struct pwd_policy_client *c, int protocol) {
    if (c == nullptr) return -1;
    c->protocol = protocol;
    return 0;
}

int pwd_policy_client_set_service(struct pwd_policy_client *c, int service) {
    if (c == nullptr) return -1;
    c->service = service;
    return 0;
}

int pwd_policy_client_register(struct pwd_policy_client *c, int msg_type, pwd_policy_parser_t parser,
                               pwd_policy_handler_t handler, void *arg) {
    if (c == nullptr || parser == nullptr || handler == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_clients_lock);
    c->regs.push_back({msg_type, parser, handler, arg});
    return 0;
}

int pwd_policy_client_start(struct pwd_policy_client *c) {
    if (c == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_clients_lock);
    c->started = true;
    return 0;
}

void pwd_policy_client_delete(struct pwd_policy_client *c) {
    if (c == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(g_clients_lock);
        std::erase(g_clients, c);
    }
    delete c;
}

int pwd_policy_parse_msg_cfg_info(const void *msg, int len, int *msg_type, int *msg_value) {
    if (msg == nullptr || msg_type == nullptr || msg_value == nullptr || len < static_cast<int>(sizeof(pwd_policy_msg)))
        return -1;
    pwd_policy_msg m;
    memcpy(&m, msg, sizeof m);
    *msg_type = m.msg_type;
    *msg_value = m.msg_value;
    return 0;
}

// Every registration is a subscription to the configuration channel: the message's own type
// (1 = service-password encryption changed) travels inside it, as the parser reports.
void pwd_policy_broadcast(int msg_type, int msg_value) {
    std::vector<pwd_policy_client::registration> targets;
    {
        std::lock_guard<std::mutex> lock(g_clients_lock);
        for (pwd_policy_client *c : g_clients)
            if (c->started) targets.insert(targets.end(), c->regs.begin(), c->regs.end());
    }
    pwd_policy_msg m{msg_type, msg_value};
    for (const auto &r : targets) {
        int type = 0;
        int value = 0;
        if (r.parser(&m, static_cast<int>(sizeof m), &type, &value) == 0) r.handler(type, value, r.arg);
    }
}
