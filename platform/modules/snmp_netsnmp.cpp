// The SNMP module (ftps-snmp.so): net-snmp sessions to trap sinks and the SNMPv2c trap
// (sysUpTime.0 and snmpTrapOID.0) sent through them. The daemon loads it once the platform file
// names a trap sink (platform/snmp_agent.cpp); what is registered and where it goes is kept there.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <string>
#include <vector>

#include "modules.h"

namespace {

const oid kSysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
const oid kSnmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

void *open_session(const std::string &peer, const std::string &community) {
    netsnmp_session s;
    snmp_sess_init(&s);
    s.version = SNMP_VERSION_2c;
    std::string name = "udp:" + peer;
    std::vector<char> peername(name.begin(), name.end());
    peername.push_back('\0');
    std::vector<u_char> comm(community.begin(), community.end());
    comm.push_back('\0');
    s.peername = peername.data();
    s.community = comm.data();
    s.community_len = community.size();
    return snmp_sess_open(&s);  // copies what it keeps
}

void close_session(void *session) {
    if (session != nullptr) snmp_sess_close(session);
}

bool send_trap(void *session, const uint32_t *trap_oid, size_t len, unsigned long ticks) {
    if (len == 0 || len > MAX_OID_LEN) return false;
    std::vector<oid> name(trap_oid, trap_oid + len);
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_TRAP2);
    if (pdu == nullptr) return false;
    u_long up = ticks;
    snmp_pdu_add_variable(pdu, kSysUpTime, OID_LENGTH(kSysUpTime), ASN_TIMETICKS, &up, sizeof up);
    snmp_pdu_add_variable(pdu, kSnmpTrapOid, OID_LENGTH(kSnmpTrapOid), ASN_OBJECT_ID, name.data(),
                          name.size() * sizeof(oid));
    if (snmp_sess_send(session, pdu) == 0) {
        snmp_free_pdu(pdu);
        return false;
    }
    return true;
}

const snmp_ops kOps = {open_session, close_session, send_trap};

}  // namespace

extern "C" __attribute__((visibility("default"))) const void *ftps_module_entry(unsigned version) {
    return version == kSnmpModuleVersion ? &kOps : nullptr;
}
