// Which wire profile the daemon speaks, read once from the platform at start-up, and what each
// profile answers to the questions of the policy.
#include "base/policy.h"

#include "ftp_platform.h"
#include "ftp_tls.h"

namespace {
ftp_policy g_policy;
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
}

const ftp_policy &ftp_policy_get(void) {
    return g_policy;
}
