// Tests of the SNMP agent: the SNMPv2c trap a sink receives (community, PDU type, sysUpTime.0 and
// snmpTrapOID.0 with the registered OID, nothing else) and unknown ids.
#include "snmp_agent.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>

#include "platform_conf.h"

namespace {

OBJID g_auth_failure_oid[] = {1, 3, 6, 1, 6, 3, 1, 1, 5, 5};

void use_platform(const std::vector<std::string> &sinks, const std::string &log) {
    platform_conf c;
    platform_conf_set_defaults(&c);
    c.log_syslog = false;
    c.log_file = log;
    c.trap_sinks = sinks;
    c.snmp_community = "c0mmunity";
    platform_set_for_test(c);
    TRAP_REGISTER_INFO info{g_auth_failure_oid, 10, 220, nullptr, 0, true, 0, 0x04000000};
    ASSERT_EQ(snmp_trap_register(&info), 0);
}

TEST(SnmpAgentTest, TrapReachesTheSinkAsSnmpV2cWithOnlyUptimeAndTrapOid) {
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(getsockname(sock, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    use_platform({"127.0.0.1:" + std::to_string(ntohs(addr.sin_port))}, "");
    ASSERT_EQ(snmp_agent_init("ftp_trap", nullptr), 0);
    ASSERT_EQ(snmp_send_trap(220, nullptr), 0);
    EXPECT_EQ(snmp_send_trap(221, nullptr), -1);

    pollfd p{sock, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    char buf[1500];
    ssize_t n = recv(sock, buf, sizeof buf, 0);
    close(sock);
    ASSERT_GT(n, 0);
    std::string pkt(buf, static_cast<size_t>(n));
    auto has = [&pkt](std::initializer_list<int> b) {
        return pkt.find(std::string(b.begin(), b.end())) != std::string::npos;
    };
    EXPECT_TRUE(has({0x02, 0x01, 0x01}));  // version 2c
    EXPECT_NE(pkt.find("\x04\x09"
                       "c0mmunity"),
              std::string::npos);                                         // community
    EXPECT_TRUE(has({0xA7}));                                             // SNMPv2-Trap-PDU
    EXPECT_TRUE(has({0x06, 0x08, 0x2B, 6, 1, 2, 1, 1, 3, 0, 0x43}));      // sysUpTime.0 TimeTicks
    std::string trap_oid = {0x06, 0x0A, 0x2B, 6, 1, 6, 3, 1, 1, 4, 1, 0,  // snmpTrapOID.0 =
                            0x06, 0x09, 0x2B, 6, 1, 6, 3, 1, 1, 5, 5};    // 1.3.6.1.6.3.1.1.5.5
    size_t at = pkt.find(trap_oid);
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(at + trap_oid.size(), pkt.size());  // the last variable: no others follow
}

}  // namespace
