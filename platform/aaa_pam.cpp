// The `pam` method, the daemon's side: the PAM service of the platform file authenticates the
// name and password through the PAM module (ftps-pam.so, libpam), loaded at the first PAM login:
// a daemon whose method lists name no PAM never maps the library. PAM modules are not all safe to
// run on several threads at once, so transactions are serialised; the delay that a module asks
// for after a failure is served after the lock is given back.
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "aaa_method.h"
#include "module.h"
#include "modules.h"
#include "platform_conf.h"
#include "syslog_ext.h"

namespace {

std::mutex g_pam_lock;

void log_pam(const char *step, const char *text) {
    printk_syslog_ext(4, "AAA", "PAM", LOG_CLASS_ALWAYS, "%s: %s", step, text != nullptr ? text : "");
}

// The module's table, or nullptr (logged once) when it cannot be had.
const pam_ops *module() {
    return platform_module_once<pam_ops>("pam", kPamModuleVersion,
                                         [](const char *why) { log_pam("no PAM library", why); });
}

}  // namespace

bool aaa_pam_authen(aaa_method_call *call, aaa_state_t *state) {
    if (call == nullptr || state == nullptr) return false;
    const pam_ops *ops = module();
    if (ops == nullptr) return false;
    const std::string service = platform_get().pam_service;
    unsigned delay_usec = 0;
    std::string why;
    pam_result r;
    {
        std::lock_guard<std::mutex> lock(g_pam_lock);
        r = ops->authenticate(service, call, state, &delay_usec, &why);
    }
    if (r == pam_result::not_started) log_pam("cannot start service", service.c_str());
    if (r == pam_result::unreachable) log_pam(service.c_str(), why.c_str());
    if (delay_usec > 0) std::this_thread::sleep_for(std::chrono::microseconds(delay_usec));
    return r == pam_result::answered;
}
