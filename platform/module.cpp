// Loading the daemon's modules: found beside the program (the build tree) or where they are
// installed, relative to the program (PREFIX/sbin and PREFIX/LIBDIR/ftps), never on a search path
// that someone else could put a file of the same name on. Loaded once, never unloaded: sessions
// keep pointers into them until the process ends.
#include "module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#ifndef FTPS_MODULE_SUBDIR
#define FTPS_MODULE_SUBDIR "../lib/ftps"
#endif

namespace {

std::mutex g_lock;

std::string program_dir() {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "";
    self[n] = '\0';
    char *slash = strrchr(self, '/');
    if (slash == nullptr) return "";
    *slash = '\0';
    return self;
}

void *open_module(const char *name, std::string *why) {
    std::string dir = program_dir();
    std::string file = std::string("ftps-") + name + ".so";
    for (const std::string &path : {dir + "/" + file, dir + "/" FTPS_MODULE_SUBDIR "/" + file}) {
        if (access(path.c_str(), R_OK) != 0) continue;
        void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (h != nullptr) return h;
        const char *e = dlerror();
        *why = e != nullptr ? e : path + ": cannot be loaded";
        return nullptr;
    }
    *why = file + ": not found beside " + dir + " nor in " + dir + "/" FTPS_MODULE_SUBDIR;
    return nullptr;
}

}  // namespace

const void *platform_module_load(const char *name, unsigned version, char *err, size_t err_len) {
    std::lock_guard<std::mutex> lock(g_lock);
    std::string why;
    void *h = open_module(name, &why);
    const void *ops = nullptr;
    if (h != nullptr) {
        // dlopen hands back the same handle for a module already loaded.
        auto entry = reinterpret_cast<platform_module_entry>(dlsym(h, "ftps_module_entry"));
        ops = entry != nullptr ? entry(version) : nullptr;
        if (ops == nullptr) why = std::string("ftps-") + name + ".so: not a module of this daemon's version";
    }
    if (ops == nullptr && err != nullptr && err_len > 0) snprintf(err, err_len, "%s", why.c_str());
    return ops;
}
