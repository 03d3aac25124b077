// The authentication-failure notification: its registration record with the SNMP agent and the
// send that each failed USER or PASS raises.
#include "base/ftpd.h"
#include "login/trap.h"
#include "snmp_agent.h"

namespace {

#define FTP_AUTH_FAIL_TRAP_ID 220

// 1.3.6.1.6.3.1.1.5.5: authenticationFailure of SNMPv2-MIB.
OBJID ftp_authenticationFailure_trap_oid[] = {1, 3, 6, 1, 6, 3, 1, 1, 5, 5};

TRAP_REGISTER_INFO ftp_authenticationFailure_trap = {
    ftp_authenticationFailure_trap_oid,
    sizeof ftp_authenticationFailure_trap_oid / sizeof ftp_authenticationFailure_trap_oid[0],
    FTP_AUTH_FAIL_TRAP_ID,
    nullptr,  // the notification carries no variables
    0,
    true,
    0,
    0x04000000,
};

}  // namespace

int ftp_trap_init(struct zq_thread_master *master) {
    if (master == nullptr) return -1;
    if (snmp_agent_init("ftp_trap", master) < 0) return -1;
    ftp_authen_trap_reg();
    return 0;
}

void ftp_authen_trap_reg(void) {
    snmp_trap_register(&ftp_authenticationFailure_trap);
}

void ftp_authen_trap_send(void) {
    snmp_send_trap(FTP_AUTH_FAIL_TRAP_ID, nullptr);
}
