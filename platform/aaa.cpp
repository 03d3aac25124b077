// The AAA service on plain Linux: registration and model switches from the platform file, session
// identifiers, method lists, and authentication requests that run a list's methods in order on a
// worker thread, with the verdicts kept per session until the caller collects them and an open
// challenge kept per session until it is answered.
#include "aaa.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "aaa_method.h"
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

// Never destroyed: a session thread may still wait for a verdict while the process exits.
std::mutex &pending_mutex = *new std::mutex;
std::condition_variable &pending_cv = *new std::condition_variable;
std::map<uint32_t, std::shared_ptr<pending>> &pending_by_session = *new std::map<uint32_t, std::shared_ptr<pending>>;
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

// What a list's run works on: the request's values, and where in the list it starts (a
// challenge answer goes back to the method that asked for it).
struct run_input {
    aaa_method_call call;
    size_t first_method = 0;
};

// Each method gives true when it answered (the verdict stands) and false when the next method
// must be tried.
bool method_local(aaa_method_call *call, verdict *v) {
    authen_info_s req{};
    req.sub.utype = AAA_UTYPE_FTP;
    req.sub.name = {static_cast<uint32_t>(call->name.size()), call->name.c_str()};
    req.sub.password = {static_cast<uint32_t>(call->password.size()), call->password.c_str()};
    aaa_result_s *result = nullptr;
    if (username_lib_authen_req(&req, &result) != 0 || result == nullptr) return false;
    v->state = result->sub.result;
    v->mtype = AAA_MTYPE_LOCAL;
    aaa_free_result_info(result);
    return true;
}

bool method_radius(aaa_method_call *call, verdict *v) {
    if (!aaa_radius_authen(call, &v->state)) return false;
    v->mtype = AAA_MTYPE_RADIUS;
    return true;
}

bool method_pam(aaa_method_call *call, verdict *v) {
    if (!aaa_pam_authen(call, &v->state)) return false;
    v->mtype = AAA_MTYPE_PAM;
    return true;
}

bool method_none(aaa_method_call *, verdict *v) {
    v->state = AAA_ACCEPT;
    v->mtype = AAA_MTYPE_NONE;
    return true;
}

struct method_row {
    const char *name;
    bool (*run)(aaa_method_call *, verdict *);
};
const method_row methods[] = {
    {"local", method_local},
    {"radius", method_radius},
    {"pam", method_pam},
    {"none", method_none},
};

// A challenge waiting for its answer: the method that asked and the context it gave.
struct open_challenge {
    size_t method = 0;
    std::string state;
};
std::map<uint32_t, open_challenge> &challenges_by_session =
    *new std::map<uint32_t, open_challenge>;  // guarded by pending_mutex

// Runs the list from in->first_method; *answered_by is the index of the method whose verdict
// stands (the list's size when none answered).
verdict run_list(const std::vector<std::string> &list, run_input *in, size_t *answered_by) {
    for (size_t i = in->first_method; i < list.size(); i++) {
        for (const auto &row : methods) {
            verdict v;
            if (list[i] != row.name || !row.run(&in->call, &v)) continue;
            *answered_by = i;
            return v;
        }
    }
    *answered_by = list.size();
    return verdict{};  // every method silent: time-out
}

// The text value of the first element with the code, if the vector holds a well-formed one.
bool iov_find(const aaa_iovec_s *iov, uint32_t code, std::string *value) {
    if (iov == nullptr || iov->data == nullptr) return false;
    uint32_t at = 0;
    while (iov->used - at >= sizeof(aaa_elem_s)) {
        aaa_elem_s head;
        memcpy(&head, iov->data + at, sizeof head);  // elements are packed without alignment
        if (head.len < sizeof head || head.len > iov->used - at) return false;
        if (head.code == code) {
            value->assign(iov->data + at + sizeof head, head.len - sizeof head);
            return true;
        }
        at += head.len;
    }
    return false;
}

}  // namespace

int aaa_svr_reg(aaa_srv_reg_info_s *info) {
    if (info == nullptr) return -1;
    return platform_get().aaa_registered ? 0 : -1;
}

int aaa_get_new_model_status(void) {
    return platform_get().aaa_new_model ? 1 : 0;
}

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
    auto in = std::make_shared<run_input>();
    in->call.session_id = req->sub.session_id;
    if (req->sub.name.data != nullptr) in->call.name.assign(req->sub.name.data, req->sub.name.len);
    if (req->sub.password.data != nullptr) in->call.password.assign(req->sub.password.data, req->sub.password.len);
    iov_find(req->iov, AAA_ELEM_REM_ADDR, &in->call.rem_addr);
    std::string port;
    if (iov_find(req->iov, AAA_ELEM_PORT, &port) && port.size() == 1)
        in->call.nas_port = static_cast<unsigned char>(port[0]);
    auto state = std::make_shared<pending>();
    {
        std::lock_guard<std::mutex> lock(pending_mutex);
        auto open = challenges_by_session.find(req->sub.session_id);
        if (open != challenges_by_session.end()) {
            if (req->sub.is_challenge_answer) {
                in->first_method = open->second.method;
                in->call.challenge_state = open->second.state;
            }
            challenges_by_session.erase(open);
        }
        pending_by_session[req->sub.session_id] = state;
    }
    std::thread([state, methods_of_list = *list, in]() {
        size_t method = 0;
        verdict v = run_list(methods_of_list, in.get(), &method);
        std::lock_guard<std::mutex> lock(pending_mutex);
        // A session that was deleted meanwhile keeps no challenge.
        auto live = pending_by_session.find(in->call.session_id);
        if (v.state == AAA_CHALLENGE && live != pending_by_session.end() && live->second == state)
            challenges_by_session[in->call.session_id] = {method, in->call.challenge_state};
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

void aaa_free_result_info(aaa_result_s *result) {
    free(result);
}

int aaa_delete_user(uint32_t session_id, int utype) {
    (void)utype;
    std::lock_guard<std::mutex> lock(pending_mutex);
    pending_by_session.erase(session_id);
    challenges_by_session.erase(session_id);
    return 0;
}
