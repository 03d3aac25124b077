// The AAA service on plain Linux: registration and model switches from the platform file, session
// identifiers, method lists, and authentication requests that run a list's methods in order on a
// worker thread, with the verdicts kept per session until the caller collects them.
#include "aaa.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform_conf.h"

namespace {

struct verdict {
    aaa_state_t state = AAA_TIMEOUT;
    aaa_mtype_t mtype = AAA_MTYPE_NONE;
};

// One request in flight or answered, shared by the worker and the waiting caller.
struct pending {
    bool done = false;
    verdict v;
};

std::mutex pending_mutex;
std::condition_variable pending_cv;
std::map<uint32_t, std::shared_ptr<pending>> pending_by_session;
std::atomic<uint32_t> next_session_id{1};

// The methods of a list, or nullptr when the platform file does not define it.
const std::vector<std::string> *find_list(const char *name) {
    static const std::vector<std::string> builtin_default{"local"};
    if (name == nullptr) return nullptr;
    for (const auto &list : platform_get().aaa_lists) {
        if (list.first == name) return &list.second;
    }
    if (std::string(name) == "default") return &builtin_default;
    return nullptr;
}

// Each method gives true when it answered (the verdict stands) and false when the next method
// must be tried.
bool method_local(const std::string &name, const std::string &password, verdict *v) {
    authen_info_s req{};
    req.sub.utype = AAA_UTYPE_FTP;
    req.sub.name = {static_cast<uint32_t>(name.size()), name.c_str()};
    req.sub.password = {static_cast<uint32_t>(password.size()), password.c_str()};
    aaa_result_s *result = nullptr;
    if (username_lib_authen_req(&req, &result) != 0 || result == nullptr) return false;
    v->state = result->sub.result;
    v->mtype = AAA_MTYPE_LOCAL;
    aaa_free_result_info(result);
    return true;
}

// RADIUS is not configured in this build: the method never answers, so the list goes on.
bool method_radius(const std::string &, const std::string &, verdict *) { return false; }

// PAM is not configured in this build: the method never answers, so the list goes on.
bool method_pam(const std::string &, const std::string &, verdict *) { return false; }

bool method_none(const std::string &, const std::string &, verdict *v) {
    v->state = AAA_ACCEPT;
    v->mtype = AAA_MTYPE_NONE;
    return true;
}

struct method_row {
    const char *name;
    bool (*run)(const std::string &, const std::string &, verdict *);
};
const method_row methods[] = {
    {"local", method_local},
    {"radius", method_radius},
    {"pam", method_pam},
    {"none", method_none},
};

verdict run_list(const std::vector<std::string> &list, const std::string &name, const std::string &password) {
    verdict v;  // every method silent: time-out
    for (const auto &m : list) {
        for (const auto &row : methods) {
            if (m == row.name && row.run(name, password, &v)) return v;
        }
    }
    return verdict{};
}

}  // namespace

int aaa_svr_reg(aaa_srv_reg_info_s *info) {
    if (info == nullptr) return -1;
    return platform_get().aaa_registered ? 0 : -1;
}

int aaa_get_new_model_status(void) { return platform_get().aaa_new_model ? 1 : 0; }

uint32_t aaa_get_session_id(void) {
    uint32_t id = next_session_id.fetch_add(1);
    if (id == 0) id = next_session_id.fetch_add(1);  // 0 means "none" to the caller
    return id;
}

int aaa_mlist_existed(const char *name, int utype) {
    (void)utype;
    const std::vector<std::string> *list = find_list(name);
    if (list == nullptr || list->empty()) return 0;
    return list->front() == "none" ? 3 : 1;
}

int aaa_user_req_authen(authen_info_s *req) {
    if (req == nullptr || req->sub.session_id == 0) return -1;
    const std::vector<std::string> *list = find_list(req->mlist != nullptr ? req->mlist : "default");
    if (list == nullptr) return -1;
    std::string name = req->sub.name.data != nullptr ? std::string(req->sub.name.data, req->sub.name.len) : "";
    std::string password =
        req->sub.password.data != nullptr ? std::string(req->sub.password.data, req->sub.password.len) : "";
    auto state = std::make_shared<pending>();
    {
        std::lock_guard<std::mutex> lock(pending_mutex);
        pending_by_session[req->sub.session_id] = state;
    }
    std::thread([state, methods_of_list = *list, name, password]() {
        verdict v = run_list(methods_of_list, name, password);
        std::lock_guard<std::mutex> lock(pending_mutex);
        state->v = v;
        state->done = true;
        pending_cv.notify_all();
    }).detach();
    return 0;
}

int aaa_user_get_result(uint32_t session_id, int utype, int wait_seconds, aaa_result_s **result) {
    (void)utype;
    if (result == nullptr) return -1;
    *result = nullptr;
    std::unique_lock<std::mutex> lock(pending_mutex);
    auto it = pending_by_session.find(session_id);
    if (it == pending_by_session.end()) return -1;
    std::shared_ptr<pending> state = it->second;
    if (!pending_cv.wait_for(lock, std::chrono::seconds(wait_seconds < 0 ? 0 : wait_seconds),
                             [&] { return state->done; }))
        return -1;
    pending_by_session.erase(session_id);
    auto *r = static_cast<aaa_result_s *>(calloc(1, sizeof(aaa_result_s)));
    if (r == nullptr) return -1;
    r->sub.result = state->v.state;
    r->sub.mtype = state->v.mtype;
    r->sub.ip_privilege = 1;
    *result = r;
    return 0;
}

void aaa_free_result_info(aaa_result_s *result) { free(result); }

int aaa_delete_user(uint32_t session_id, int utype) {
    (void)utype;
    std::lock_guard<std::mutex> lock(pending_mutex);
    pending_by_session.erase(session_id);
    return 0;
}
