// The `radius` method, the daemon's side: the servers of the platform file in the client library's
// form, and the request through the RADIUS module (ftps-radius.so, radcli), loaded at the first
// request: a daemon whose method lists name no RADIUS never maps the library.
#include <string>
#include <vector>

#include "aaa_method.h"
#include "module.h"
#include "modules.h"
#include "platform_conf.h"
#include "syslog_ext.h"

namespace {

void log_radius(const char *text, const char *detail) {
    printk_syslog_ext(4, "AAA", "RADIUS", LOG_CLASS_ALWAYS, "%s%s", text, detail);
}

// The module's table, or nullptr (logged once) when it cannot be had.
const radius_ops *module() {
    return platform_module_once<radius_ops>("radius", kRadiusModuleVersion,
                                            [](const char *why) { log_radius("no RADIUS client: ", why); });
}

}  // namespace

std::string aaa_radius_server_list(const std::vector<std::string> &servers, const std::string &secret) {
    // The library splits its server list on blanks and commas, and takes everything after a
    // server's port as its secret.
    if (secret.empty() || secret.find_first_of(" \t,") != std::string::npos) return "";
    std::string out;
    for (const std::string &entry : servers) {
        if (entry.empty() || entry.find_first_of(" \t,") != std::string::npos) continue;
        if (!out.empty()) out += ",";
        out += entry + ":" + secret;
    }
    return out;
}

bool aaa_radius_authen(aaa_method_call *call, aaa_state_t *state) {
    if (call == nullptr || state == nullptr) return false;
    const platform_conf &conf = platform_get();
    std::string servers = aaa_radius_server_list(conf.radius_servers, conf.radius_secret);
    if (servers.empty()) {
        if (!conf.radius_servers.empty()) log_radius("no usable server or secret in the platform file", "");
        return false;
    }
    const radius_ops *ops = module();
    if (ops == nullptr) return false;
    radius_result r = ops->request(servers, conf.radius_timeout, conf.radius_retries, call, state);
    if (r == radius_result::no_client) log_radius("cannot set up the client for ", servers.c_str());
    return r == radius_result::answered;
}
