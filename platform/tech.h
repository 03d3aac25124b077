// Tech-support collector: services register a hook; "show tech-support" runs them.
#pragma once

struct zq_thread_master;
typedef int (*tech_hook_t)(int kind, void *arg);

int tech_reg_service_callback(const char *name, struct zq_thread_master *master, tech_hook_t hook);
int tech_module_msg_output(const char *fmt, const char *text);
int tech_module_msg_deal_completion(void);
// Runs every hook with kind into the terminal output (the framework's show tech-support).
void tech_run_all(int kind);
