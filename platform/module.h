// The daemon's optional parts that need a large library (the TLS record layer with OpenSSL, the
// RADIUS client, the SNMP agent's sender): each is a module of its own, loaded only when the
// platform file configures what it serves. A daemon without [tls], RADIUS or trap sinks maps none
// of those libraries: their relocated tables alone weigh more than an idle daemon's own memory.
#pragma once

#include <cstddef>

// A module's entry point, named ftps_module_entry: its table of operations for this version of
// the interface (nullptr when the module was built for another).
using platform_module_entry = const void *(*)(unsigned version);

// Loads ftps-NAME.so (beside the program, as built, or in the library directory it is installed
// to) once and for the whole process, and gives its table. nullptr when it cannot be had, with
// the reason in err.
const void *platform_module_load(const char *name, unsigned version, char *err, size_t err_len);
