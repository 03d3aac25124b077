// The RADIUS module (ftps-radius.so): an Access-Request of the `radius` method through the radcli
// client library, configured in memory (no configuration file of its own). Each request builds
// its own client handle, so that requests on several worker threads never share one. The daemon
// loads it at the first request (platform/aaa_radius.cpp).
#include <radcli/radcli.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "aaa_method.h"
#include "modules.h"

namespace {

// The attributes this client sends or reads, and those the library adds to every request on its
// own (NAS address, NAS identifier); the library refuses to send an attribute it has no entry for.
const char kDictionary[] =
    "ATTRIBUTE User-Name 1 string\n"
    "ATTRIBUTE Password 2 string\n"
    "ATTRIBUTE NAS-IP-Address 4 ipv4addr\n"
    "ATTRIBUTE NAS-Port-Id 5 integer\n"
    "ATTRIBUTE Service-Type 6 integer\n"
    "ATTRIBUTE Reply-Message 18 string\n"
    "ATTRIBUTE State 24 string\n"
    "ATTRIBUTE Class 25 string\n"
    "ATTRIBUTE Session-Timeout 27 integer\n"
    "ATTRIBUTE Idle-Timeout 28 integer\n"
    "ATTRIBUTE Calling-Station-Id 31 string\n"
    "ATTRIBUTE NAS-Identifier 32 string\n"
    "ATTRIBUTE Proxy-State 33 string\n"
    "ATTRIBUTE Message-Authenticator 80 string\n"
    "ATTRIBUTE NAS-IPv6-Address 95 ipv6addr\n"
    "VALUE Service-Type Login-User 1\n";

struct handle_deleter {
    void operator()(rc_handle *rh) const { rc_destroy(rh); }
};
using handle_ptr = std::unique_ptr<rc_handle, handle_deleter>;

// Owns a list of attribute pairs.
struct pairs {
    VALUE_PAIR *list = nullptr;
    pairs() = default;
    pairs(const pairs &) = delete;
    pairs &operator=(const pairs &) = delete;
    ~pairs() {
        if (list != nullptr) rc_avpair_free(list);
    }
};

// A client handle for one request, or null when the settings cannot make one.
handle_ptr make_handle(const std::string &servers, int timeout, int retries) {
    handle_ptr rh(rc_new());
    if (!rh) return rh;
    if (rc_config_init(rh.get()) == nullptr) {
        (void)rh.release();  // rc_config_init destroys the handle when it fails
        return rh;
    }
    char timeout_text[16];
    char retries_text[16];
    snprintf(timeout_text, sizeof timeout_text, "%d", timeout > 0 ? timeout : 1);
    // The platform counts tries per server; the library counts resends after the first.
    snprintf(retries_text, sizeof retries_text, "%d", retries > 1 ? retries - 1 : 0);
    const char *source = "platform";
    if (rc_add_config(rh.get(), "authserver", servers.c_str(), source, 0) != 0 ||
        rc_add_config(rh.get(), "radius_timeout", timeout_text, source, 0) != 0 ||
        rc_add_config(rh.get(), "radius_retries", retries_text, source, 0) != 0 ||
        rc_add_config(rh.get(), "radius_deadtime", "0", source, 0) != 0 ||
        rc_add_config(rh.get(), "bindaddr", "*", source, 0) != 0 || rc_apply_config(rh.get()) != 0 ||
        rc_read_dictionary_from_buffer(rh.get(), kDictionary, sizeof kDictionary - 1) != 0)
        rh.reset();
    return rh;
}

bool add_pair(rc_handle *rh, VALUE_PAIR **list, int attr, const void *value, int len) {
    return rc_avpair_add(rh, list, attr, value, len, 0) != nullptr;
}

}  // namespace

namespace {

radius_result request(const std::string &servers, int timeout, int retries, aaa_method_call *call,
                      aaa_state_t *state) {
    handle_ptr rh = make_handle(servers, timeout, retries);
    if (!rh) return radius_result::no_client;

    pairs send;
    uint32_t service = PW_LOGIN;
    uint32_t nas_port = call->nas_port;
    if (!add_pair(rh.get(), &send.list, PW_USER_NAME, call->name.c_str(), static_cast<int>(call->name.size())) ||
        !add_pair(rh.get(), &send.list, PW_USER_PASSWORD, call->password.c_str(),
                  static_cast<int>(call->password.size())) ||
        !add_pair(rh.get(), &send.list, PW_NAS_PORT, &nas_port, 0) ||
        !add_pair(rh.get(), &send.list, PW_SERVICE_TYPE, &service, 0))
        return radius_result::no_answer;
    if (!call->rem_addr.empty() && !add_pair(rh.get(), &send.list, PW_CALLING_STATION_ID, call->rem_addr.c_str(),
                                             static_cast<int>(call->rem_addr.size())))
        return radius_result::no_answer;
    if (!call->challenge_state.empty() && !add_pair(rh.get(), &send.list, PW_STATE, call->challenge_state.data(),
                                                    static_cast<int>(call->challenge_state.size())))
        return radius_result::no_answer;

    pairs received;
    std::vector<char> msg(PW_MAX_MSG_SIZE, '\0');
    int rc = rc_aaa(rh.get(), nas_port, send.list, &received.list, msg.data(), 0, PW_ACCESS_REQUEST);
    call->challenge_state.clear();
    switch (rc) {
        case OK_RC:
            *state = AAA_ACCEPT;
            return radius_result::answered;
        case REJECT_RC:
            *state = AAA_REJECT;
            return radius_result::answered;
        case CHALLENGE_RC: {
            VALUE_PAIR *vp = rc_avpair_get(received.list, PW_STATE, 0);
            char *data = nullptr;
            unsigned size = 0;
            if (vp != nullptr && rc_avpair_get_raw(vp, &data, &size) == 0 && data != nullptr)
                call->challenge_state.assign(data, size);
            *state = AAA_CHALLENGE;
            return radius_result::answered;
        }
        default:
            // No server gave a valid answer (time-out, or answers that failed the secret check).
            return radius_result::no_answer;
    }
}

const radius_ops kOps = {request};

}  // namespace

extern "C" __attribute__((visibility("default"))) const void *ftps_module_entry(unsigned version) {
    return version == kRadiusModuleVersion ? &kOps : nullptr;
}
