// SNMP agent: raises registered notifications as SNMPv2c traps (sysUpTime.0 and snmpTrapOID.0)
// to every trap sink of the platform file, one UDP send per sink, through sessions that are opened
// once and reused. The sessions and the sending are the SNMP module's (ftps-snmp.so, net-snmp),
// loaded only once there is a sink. Without a sink the notification is only logged.
#include "snmp_agent.h"

#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "module.h"
#include "modules.h"
#include "platform_conf.h"
#include "syslog_ext.h"

namespace {

struct trap_record {
    int id;
    std::vector<uint32_t> trap_oid;
};

struct sink_session {
    std::string peer;  // "host:port"
    void *sess = nullptr;
    long long last_open_s = -1;  // monotonic second of the last attempt to open the session
};

// Opening a session resolves the sink's name, which may block; a sink that could not be opened
// is tried again at most this often, so that raising a trap stays one UDP send.
const long long kReopenSeconds = 60;

// The longest object identifier SNMP carries.
constexpr int kMaxOidLen = 128;

// Everything here lives as long as the process and is never destroyed: a session thread may
// raise a trap while the process exits.
std::mutex g_lock;  // guards the records and the sessions; sends are serialised under it
std::vector<trap_record> &g_traps = *new std::vector<trap_record>;
std::vector<sink_session> &g_sinks = *new std::vector<sink_session>;
std::string &g_community = *new std::string;  // the sessions' community
std::string &g_agent_name = *new std::string("ftp_trap");

std::string oid_text(const std::vector<uint32_t> &o) {
    std::string s;
    for (uint32_t v : o) {
        s += '.';
        s += std::to_string(v);
    }
    return s;
}

// Hundredths of a second since boot, as TimeTicks wrap.
unsigned long uptime_ticks() {
    struct timespec ts;
    clock_gettime(CLOCK_BOOTTIME, &ts);
    unsigned long long cs = static_cast<unsigned long long>(ts.tv_sec) * 100 + ts.tv_nsec / 10000000;
    return static_cast<unsigned long>(cs & 0xffffffffULL);
}

// The module's table once a sink needs it, or nullptr (logged once).
const snmp_ops *module() {
    return platform_module_once<snmp_ops>("snmp", kSnmpModuleVersion, [](const char *why) {
        printk_syslog_ext(3, "SNMP", "TRAP", LOG_CLASS_ALWAYS, "no SNMP sender: %s", why);
    });
}

// The sessions follow the platform file's sink list; it only changes under tests.
void load_sinks() {
    const std::vector<std::string> &peers = platform_get().trap_sinks;
    bool same = peers.size() == g_sinks.size() && g_community == platform_get().snmp_community;
    for (size_t i = 0; same && i < peers.size(); i++) same = peers[i] == g_sinks[i].peer;
    if (same) return;
    for (sink_session &sink : g_sinks)
        if (sink.sess != nullptr) module()->close(sink.sess);
    g_sinks.clear();
    g_community = platform_get().snmp_community;
    for (const std::string &peer : peers) g_sinks.push_back({peer, nullptr, -1});
}

long long monotonic_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}

bool ensure_open(sink_session &sink, const std::string &community) {
    if (sink.sess != nullptr) return true;
    long long now = monotonic_s();
    if (sink.last_open_s >= 0 && now - sink.last_open_s < kReopenSeconds) return false;
    sink.last_open_s = now;
    const snmp_ops *ops = module();
    sink.sess = ops != nullptr ? ops->open(sink.peer, community) : nullptr;
    return sink.sess != nullptr;
}

bool send_to(sink_session &sink, const std::string &community, const trap_record &rec) {
    if (!ensure_open(sink, community)) return false;
    return module()->send_trap(sink.sess, rec.trap_oid.data(), rec.trap_oid.size(), uptime_ticks());
}

}  // namespace

int snmp_agent_init(const char *name, struct zq_thread_master *master) {
    (void)master;  // traps are sent from the raising thread; nothing runs on the event loop
    std::lock_guard<std::mutex> lock(g_lock);
    if (name != nullptr && *name != '\0') g_agent_name = name;
    load_sinks();
    // Open (and resolve) the sinks now, on the main thread, rather than at the first trap.
    const std::string &community = platform_get().snmp_community;
    for (sink_session &sink : g_sinks) ensure_open(sink, community);
    return 0;
}

int snmp_trap_register(TRAP_REGISTER_INFO *info) {
    if (info == nullptr || info->m_pTrapOid == nullptr || info->m_nTrapOidLen <= 0 || info->m_nTrapOidLen > kMaxOidLen)
        return -1;
    trap_record rec;
    rec.id = info->m_TrapID;
    rec.trap_oid.assign(info->m_pTrapOid, info->m_pTrapOid + info->m_nTrapOidLen);
    std::lock_guard<std::mutex> lock(g_lock);
    for (trap_record &r : g_traps) {
        if (r.id == rec.id) {
            r = rec;
            return 0;
        }
    }
    g_traps.push_back(rec);
    return 0;
}

int snmp_send_trap(int trap_id, void *arg) {
    (void)arg;
    std::string oid_str;
    std::string agent;
    std::vector<std::string> failed;
    bool no_sink = false;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        const trap_record *rec = nullptr;
        for (const trap_record &r : g_traps)
            if (r.id == trap_id) rec = &r;
        if (rec == nullptr) return -1;
        oid_str = oid_text(rec->trap_oid);
        agent = g_agent_name;
        load_sinks();
        no_sink = g_sinks.empty();
        const std::string &community = platform_get().snmp_community;
        for (sink_session &sink : g_sinks)
            if (!send_to(sink, community, *rec)) failed.push_back(sink.peer);
    }
    if (no_sink)
        printk_syslog_ext(6, "SNMP", "TRAP", LOG_CLASS_ALWAYS, "%s: notification %s raised (no trap sink)",
                          agent.c_str(), oid_str.c_str());
    for (const std::string &peer : failed)
        printk_syslog_ext(4, "SNMP", "TRAP", LOG_CLASS_ALWAYS, "%s: notification %s could not be sent to %s",
                          agent.c_str(), oid_str.c_str(), peer.c_str());
    return 0;
}
