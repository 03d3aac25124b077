// The command table: one row per command word with everything the daemon knows of it (its
// handler, whether it needs a login, which profiles recognise it, serve it and list it in HELP,
// its HELP text and FEAT line). The recognisers, the dispatch, HELP and FEAT are derived from it.
// Adding a command is one row and one handler.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/policy.h"

struct ftp_session;

// A command's handler: false when the session must end. The argument is in the session's arg.
using ftp_handler = bool (*)(ftp_session &s);

// Sets of profiles.
enum : uint8_t { kNone = 0, kDevice = 1, kStandard = 2, kBoth = 3 };

// What a command needs of the login before its handler runs.
enum class ftp_needs : uint8_t {
    nothing,
    login,           // "530 Not logged in."
    login_pwd_quirk  // the device answers "550 Requested action not taken." (PWD), the standard 530
};

struct ftp_command {
    const char *word;
    ftp_handler handler;
    ftp_needs needs;
    uint8_t known;   // profiles that recognise the word (else it is an unknown word)
    uint8_t served;  // profiles that carry it out (else 502)
    uint8_t listed;  // profiles whose HELP lists it
    uint8_t marked;  // profiles whose HELP shows it as served (else "*")
    bool tls;        // served only while TLS is configured
    const char *help;
    const char *feat;  // its FEAT line, without the leading blank; nullptr for none
    bool modifies;     // it changes the name space: refused to a read-only user
};

extern const ftp_command kCommands[];
extern const size_t kCommandCount;
// The SITE commands: HELP SITE lists them, SITE carries out those the profile serves.
extern const ftp_command kSiteCommands[];
extern const size_t kSiteCommandCount;

inline bool in_profile(uint8_t set, const ftp_policy &p) {
    return (set & (p.profile == ftp_profile::device ? kDevice : kStandard)) != 0;
}
// Whether the policy's profile carries the command out.
bool ftp_command_served(const ftp_command &c, const ftp_policy &p);

// Recognition of one received line, terminated, into its row (nullptr: an unknown word) and its
// argument (arg holds FTP_BUF_SIZE bytes). The device's recogniser compares only the letters of
// each word, so that LISTX is LIST with the argument X; the standard profile's takes the word up
// to the first blank, without regard to case.
const ftp_command *ftpd_parse_cmd(const char *line, char *arg, const ftp_policy &p);

// The row of a SITE command's word (any case), or nullptr.
const ftp_command *ftp_find_site_command(const char *word, size_t len, const ftp_policy &p);

// The FEAT reply of the policy's profile: every served command's line, in order of the lines.
// False when it does not fit out (cap bytes).
bool ftp_feat_reply(const ftp_policy &p, char *out, size_t cap);
