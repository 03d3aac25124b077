// SNMP agent: SNMPv2c notifications to the trap sinks of the platform file.
#pragma once

#include <cstdint>

struct zq_thread_master;
typedef uint32_t OBJID;

struct TRAP_REGISTER_INFO {
    OBJID *m_pTrapOid;
    int m_nTrapOidLen;
    int m_TrapID;
    void *m_pBindVarTable;
    int m_BindVarNum;
    bool m_IsStandardTrap;
    int m_PrivateTrapId;
    uint32_t m_notifType;
};

int snmp_agent_init(const char *name, struct zq_thread_master *master);
int snmp_trap_register(TRAP_REGISTER_INFO *info);
// Never blocks for more than one UDP send per sink. 0, or -1 for an unknown id.
int snmp_send_trap(int trap_id, void *arg);
