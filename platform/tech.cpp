// Tech-support collector: the services registered for a support dump, and the run that prints
// each one's output under a header line naming it (the framework's "show tech-support").
#include "tech.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "cli.h"

namespace {

struct tech_service {
    std::string name;
    tech_hook_t hook;
};

std::mutex g_lock;
std::vector<tech_service> g_services;

}  // namespace

int tech_reg_service_callback(const char *name, struct zq_thread_master *master, tech_hook_t hook) {
    (void)master;  // hooks run on the framework's thread, which is the master's
    if (name == nullptr || *name == '\0' || hook == nullptr) return -1;
    std::lock_guard<std::mutex> lock(g_lock);
    for (tech_service &s : g_services) {
        if (s.name == name) {
            s.hook = hook;
            return 0;
        }
    }
    g_services.push_back({name, hook});
    return 0;
}

int tech_module_msg_output(const char *fmt, const char *text) {
    if (fmt == nullptr) return -1;
    cli_printf(fmt, text != nullptr ? text : "");
    return 0;
}

int tech_module_msg_deal_completion(void) {
    return 0;
}

void tech_run_all(int kind) {
    std::vector<tech_service> services;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        services = g_services;
    }
    for (const tech_service &s : services) {
        cli_printf("------------------ %s ------------------\n", s.name.c_str());
        s.hook(kind, nullptr);
    }
}
