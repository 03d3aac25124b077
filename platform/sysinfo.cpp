// System information: the product and OS names that the platform file gives the device.
#include <sys/utsname.h>

#include <cstring>

#include "platform_conf.h"
#include "zqsys.h"

char *zqsys_get_product_name(void) {
    const platform_conf &conf = platform_get();
    if (conf.product_name.empty()) return nullptr;
    return strdup(conf.product_name.c_str());
}

char *zqsys_get_os_name(void) {
    const platform_conf &conf = platform_get();
    if (conf.os_name == "-") return nullptr;
    if (!conf.os_name.empty()) return strdup(conf.os_name.c_str());
    struct utsname u;
    if (uname(&u) != 0) return nullptr;
    return strdup(u.sysname);
}
