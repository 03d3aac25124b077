// The PAM module (ftps-pam.so): one transaction of the `pam` method through libpam, a
// conversation that answers the prompts, then the account check. The daemon loads it at the
// first PAM login (platform/aaa_pam.cpp), which serialises transactions and serves the delay a
// PAM module asks for after a failure.
#include <security/pam_appl.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "aaa_method.h"
#include "modules.h"

namespace {

struct conv_data {
    const std::string *name;
    const std::string *password;
    unsigned delay_usec = 0;  // the failure delay the modules asked for
};

char *dup_text(const std::string &s) {
    char *p = static_cast<char *>(malloc(s.size() + 1));
    if (p != nullptr) memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

// Answers every hidden prompt with the password and every echoed prompt with the user name;
// messages need no answer. PAM frees the answers.
int conversation(int count, const struct pam_message **msgs, struct pam_response **out, void *appdata) {
    if (count <= 0 || msgs == nullptr || out == nullptr || appdata == nullptr) return PAM_CONV_ERR;
    auto *data = static_cast<conv_data *>(appdata);
    auto *answers = static_cast<struct pam_response *>(calloc(static_cast<size_t>(count), sizeof(struct pam_response)));
    if (answers == nullptr) return PAM_BUF_ERR;
    for (int i = 0; i < count; i++) {
        const std::string *text = nullptr;
        switch (msgs[i]->msg_style) {
            case PAM_PROMPT_ECHO_OFF:
                text = data->password;
                break;
            case PAM_PROMPT_ECHO_ON:
                text = data->name;
                break;
            default:
                continue;  // PAM_ERROR_MSG, PAM_TEXT_INFO
        }
        answers[i].resp = dup_text(*text);
        if (answers[i].resp == nullptr) {
            for (int j = 0; j < i; j++) {
                if (answers[j].resp == nullptr) continue;
                explicit_bzero(answers[j].resp, strlen(answers[j].resp));
                free(answers[j].resp);
            }
            free(answers);
            return PAM_BUF_ERR;
        }
    }
    *out = answers;
    return PAM_SUCCESS;
}

void record_delay(int retval, unsigned usec, void *appdata) {
    if (retval != PAM_SUCCESS && appdata != nullptr) static_cast<conv_data *>(appdata)->delay_usec = usec;
}

// Results that say the service itself could not do its work, as opposed to a refusal.
bool unreachable(int rc) {
    return rc == PAM_AUTHINFO_UNAVAIL || rc == PAM_SYSTEM_ERR || rc == PAM_BUF_ERR || rc == PAM_ABORT ||
           rc == PAM_SERVICE_ERR || rc == PAM_CONV_ERR || rc == PAM_MODULE_UNKNOWN;
}

pam_result authenticate(const std::string &service, aaa_method_call *call, aaa_state_t *state,
                        unsigned *delay_usec, std::string *why) {
    conv_data data{&call->name, &call->password};
    struct pam_conv conv = {conversation, &data};
    pam_handle_t *pamh = nullptr;
    int rc = pam_start(service.c_str(), call->name.c_str(), &conv, &pamh);
    if (rc != PAM_SUCCESS || pamh == nullptr) {
        if (pamh != nullptr) pam_end(pamh, rc);
        return pam_result::not_started;
    }
    pam_set_item(pamh, PAM_FAIL_DELAY, reinterpret_cast<const void *>(record_delay));
    if (!call->rem_addr.empty() && call->rem_addr != "async") pam_set_item(pamh, PAM_RHOST, call->rem_addr.c_str());
    pam_set_item(pamh, PAM_TTY, "ftp");
    rc = pam_authenticate(pamh, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    if (rc == PAM_SUCCESS) rc = pam_acct_mgmt(pamh, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    pam_result r = pam_result::answered;
    if (rc == PAM_SUCCESS) {
        *state = AAA_ACCEPT;
    } else if (unreachable(rc)) {
        *why = pam_strerror(pamh, rc);
        r = pam_result::unreachable;
    } else {
        *state = AAA_REJECT;
    }
    pam_end(pamh, rc);
    *delay_usec = data.delay_usec;
    return r;
}

const pam_ops kOps = {authenticate};

}  // namespace

extern "C" __attribute__((visibility("default"))) const void *ftps_module_entry(unsigned version) {
    return version == kPamModuleVersion ? &kOps : nullptr;
}
