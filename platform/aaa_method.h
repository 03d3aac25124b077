// The authentication methods behind the AAA service's method lists that talk to an outside
// service (RADIUS, PAM): one request in, a verdict or silence out. Internal to the platform.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "aaa.h"

struct aaa_method_call {
    uint32_t session_id = 0;
    std::string name;
    std::string password;
    std::string rem_addr;  // the peer as text ("async" when it has no address); empty: unknown
    uint32_t nas_port = 21;
    // In: the opaque context of the challenge being answered (empty: a fresh request).
    // Out: the context to give back with the answer when the verdict is a challenge.
    std::string challenge_state;
};

// Each gives true when the service answered (*state is its verdict) and false when it could not
// be reached, so that the list goes on with its next method. Safe to call from several threads.
bool aaa_radius_authen(aaa_method_call *call, aaa_state_t *state);
bool aaa_pam_authen(aaa_method_call *call, aaa_state_t *state);

// The RADIUS servers of the platform file ("host:port", IPv6 hosts in brackets) in the client
// library's form: "host:port:secret" entries joined by commas. Empty when there is no usable
// server or the secret cannot be written in that form.
std::string aaa_radius_server_list(const std::vector<std::string> &servers, const std::string &secret);
