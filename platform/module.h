// The daemon's optional parts that need a large library (the TLS record layer with OpenSSL, the
// RADIUS client, the SNMP agent's sender): each is a module of its own, loaded only when the
// platform file configures what it serves. A daemon without [tls], RADIUS or trap sinks maps none
// of those libraries: their relocated tables alone weigh more than an idle daemon's own memory.
#pragma once

#include <cstddef>
#include <mutex>

// A module's entry point, named ftps_module_entry: its table of operations for this version of
// the interface (nullptr when the module was built for another).
using platform_module_entry = const void *(*)(unsigned version);

// Loads ftps-NAME.so (beside the program, as built, or in the library directory it is installed
// to) once and for the whole process, and gives its table. nullptr when it cannot be had, with
// the reason in err.
const void *platform_module_load(const char *name, unsigned version, char *err, size_t err_len);

// The table of a module asked for where it is needed: loaded the first time, the outcome kept for
// the whole process (one module per table type), a failure given to report once.
template <typename Ops>
const Ops *platform_module_once(const char *name, unsigned version, void (*report)(const char *why)) {
    static std::once_flag once;
    static const Ops *ops = nullptr;
    std::call_once(once, [&] {
        char why[400] = {0};
        ops = static_cast<const Ops *>(platform_module_load(name, version, why, sizeof why));
        if (ops == nullptr && report != nullptr) report(why);
    });
    return ops;
}
