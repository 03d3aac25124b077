// The password-policy client: registered on the main event master at start-up, it hears of
// changes of the device's password settings and then has the saved configuration rewritten,
// since the encryption policy decides the form of the saved user lines.
#include "cli.h"
#include "base/ftpd.h"
#include "admin/admin.h"
#include "pwd_policy.h"

namespace {

#define PWD_POLICY_VERSION 1
#define PWD_POLICY_PROTOCOL 10
#define PWD_POLICY_SERVICE 1
#define PWD_POLICY_MSG_CFG_INFO 3
#define PWD_POLICY_MSG_ENCRYPTION 1

int ftpd_enable_pwd_policy_recv_cfg_info_replay(int msg_type, int msg_value, void *arg) {
    if (arg == nullptr) {
        FTPD_LOG_ERR("[Enable_Module] Pwd Policy Client: par error!\n");
        return -1;
    }
    FTPD_LOG_PRO("Pwd Policy Client: recv cfg info replay: msg_type(%d), msg_value(%d)!\n", msg_type, msg_value);
    if (msg_type == PWD_POLICY_MSG_ENCRYPTION) cli_param_is_change();
    return 0;
}

}  // namespace

int ftpd_enable_pwd_policy_register(struct zq_thread_master *master) {
    struct pwd_policy_client *client = pwd_policy_client_create(master);
    if (client == nullptr) return -1;
    pwd_policy_client_set_version(client, PWD_POLICY_VERSION);
    pwd_policy_client_set_protocol(client, PWD_POLICY_PROTOCOL);
    if (pwd_policy_client_set_service(client, PWD_POLICY_SERVICE) != 0) {
        pwd_policy_client_delete(client);
        return -1;
    }
    // The client lives as long as the process and is handed back to the handler as its argument.
    if (pwd_policy_client_register(client, PWD_POLICY_MSG_CFG_INFO, pwd_policy_parse_msg_cfg_info,
                                   ftpd_enable_pwd_policy_recv_cfg_info_replay, client) != 0 ||
        pwd_policy_client_start(client) != 0) {
        pwd_policy_client_delete(client);
        return -1;
    }
    return 0;
}
