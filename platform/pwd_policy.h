// Password policy service (libpwquality) and its client channel.
#pragma once

struct zq_thread_master;
struct pwd_policy_client;

typedef int (*pwd_policy_parser_t)(const void *msg, int len, int *msg_type, int *msg_value);
typedef int (*pwd_policy_handler_t)(int msg_type, int msg_value, void *arg);

// 0 when the password is acceptable; otherwise a positive verdict code.
int pwd_policy_chk_pwd_safety_with_username(const char *username, const char *password, int len);
// The verdict text of the last check of this thread into out (capacity len).
int pwd_policy_format_result_string(int verdict, char *out, int len);

struct pwd_policy_client *pwd_policy_client_create(struct zq_thread_master *master);
int pwd_policy_client_set_version(struct pwd_policy_client *c, int version);
int pwd_policy_client_set_protocol(struct pwd_policy_client *c, int protocol);
// 0 when the service is accepted.
int pwd_policy_client_set_service(struct pwd_policy_client *c, int service);
int pwd_policy_client_register(struct pwd_policy_client *c, int msg_type, pwd_policy_parser_t parser,
                               pwd_policy_handler_t handler, void *arg);
int pwd_policy_client_start(struct pwd_policy_client *c);
void pwd_policy_client_delete(struct pwd_policy_client *c);
int pwd_policy_parse_msg_cfg_info(const void *msg, int len, int *msg_type, int *msg_value);
// Delivers (msg_type, msg_value) to every started client (the framework's service command).
void pwd_policy_broadcast(int msg_type, int msg_value);
