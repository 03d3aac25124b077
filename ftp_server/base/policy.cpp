// Which wire profile the daemon speaks, read once from the platform at start-up, and what each
// profile answers to the questions of the policy.
#include "base/policy.h"

#include "ftp_platform.h"
#include "ftp_tls.h"

namespace {
ftp_policy g_policy;
}  // namespace

namespace {
unsigned char g_passive_address[4];

// The standard profile's limits and operations keys of the platform file.
void standard_operations(ftp_policy *p) {
    int n = platform_ftp_max_sessions();
    p->max_sessions = n > 0 ? n : 200;
    n = platform_ftp_max_per_address();
    p->max_per_address = n >= 0 ? n : 32;
    p->user_connect_default = static_cast<unsigned>(p->max_sessions);
    p->max_rate = static_cast<unsigned>(platform_ftp_max_rate());
    if (platform_ftp_passive_address(g_passive_address) == 1) p->passive_address = g_passive_address;
    if (platform_ftp_passive_ports(&p->passive_low, &p->passive_high) != 1) p->passive_low = p->passive_high = 0;
    p->proxy_protocol = true;
    p->user_rights = true;
    p->transfer_log = platform_log_transfer_log()[0] != '\0';
}
}  // namespace

ftp_policy ftp_policy_of(ftp_profile profile, bool tls) {
    ftp_policy p;
    p.profile = profile;
    if (profile == ftp_profile::device) return p;
    p.line_input = true;
    p.stop_wakeup_repeats = false;
    p.reply_crlf = true;
    p.reply_shortens_echo = true;
    p.pass_sequence_strict = true;
    p.single_530 = true;
    p.user_limit_421 = true;
    p.data_peer_only = true;
    p.standard_listings = true;
    p.rest_offsets = true;
    p.atomic_uploads = true;
    p.ascii_joins_blocks = true;
    p.log_failed_logins = true;
    p.lean_transfers = true;
    p.keep_passive_listener = true;
    p.confine_links = true;
    p.links_as_entries = true;
    p.rename_once = true;
    p.rfc_replies = true;
    p.telnet_lines = true;
    // On plain Linux a new directory is not world-writable; the device's process has no umask.
    p.mkdir_mode = 0755;
    p.tls = tls;
    return p;
}

void ftp_policy_init(void) {
    ftp_profile profile =
        platform_ftp_profile() == PLATFORM_FTP_PROFILE_STANDARD ? ftp_profile::standard : ftp_profile::device;
    g_policy = ftp_policy_of(profile, ftp_tls_enabled());
    if (profile == ftp_profile::standard) standard_operations(&g_policy);
}

const ftp_policy &ftp_policy_get(void) {
    return g_policy;
}
