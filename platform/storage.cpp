// Storage and file-system services: the storage table of the platform file (keyword, directory),
// the mapping of a storage-relative path to a real one, and the mount check over mountinfo.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "fs_info.h"
#include "platform_conf.h"

namespace {

const char *const kPrefixes[FS_STORAGE_SLOTS] = {"flash2:", "flash:",   "sata0:", "usb0:", nullptr,
                                                 "tmp:",    "install:", nullptr,  "nfs:"};

std::mutex g_mountinfo_lock;
// Never destroyed: a session may check a mount while the process exits.
std::string &g_mountinfo_path = *new std::string("/proc/self/mountinfo");

// The storage's directory, or nullptr when the slot is a gap or the storage is absent.
const char *storage_dir(int i) {
    if (i < 0 || i >= FS_STORAGE_SLOTS || kPrefixes[i] == nullptr) return nullptr;
    const platform_conf &conf = platform_get();
    if (static_cast<size_t>(i) >= conf.storages.size() || conf.storages[i].dir.empty()) return nullptr;
    return conf.storages[i].dir.c_str();
}

// Undoes the octal escapes (\040 for a blank, ...) of a mountinfo field.
std::string unescape_field(const char *s, size_t len) {
    std::string out;
    for (size_t i = 0; i < len; i++) {
        if (s[i] == '\\' && i + 3 < len && s[i + 1] >= '0' && s[i + 1] <= '3' && s[i + 2] >= '0' && s[i + 2] <= '7' &&
            s[i + 3] >= '0' && s[i + 3] <= '7') {
            out.push_back(static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

// Field 5 of a mountinfo line: the mount point.
bool mount_point_of(const char *line, std::string *out) {
    const char *p = line;
    for (int field = 1; field < 5; field++) {
        p = strchr(p, ' ');
        if (p == nullptr) return false;
        p++;
    }
    size_t len = strcspn(p, " \n");
    if (len == 0) return false;
    *out = unescape_field(p, len);
    return true;
}

bool covers(const std::string &mount_point, const char *path) {
    if (mount_point == "/") return false;
    size_t n = mount_point.size();
    return strncmp(path, mount_point.c_str(), n) == 0 && (path[n] == '\0' || path[n] == '/');
}

}  // namespace

void fs_set_mountinfo_path_for_test(const char *path) {
    std::lock_guard<std::mutex> lock(g_mountinfo_lock);
    g_mountinfo_path = path != nullptr ? path : "/proc/self/mountinfo";
}

int init_fs_info(void) {
    platform_get();
    return platform_conf_ok() ? 0 : -1;
}

int fs_get_flash_home(char *buf, int len) {
    const char *dir = storage_dir(1);
    if (buf == nullptr || len <= 0 || dir == nullptr) return -1;
    int n = snprintf(buf, static_cast<size_t>(len), "%s", dir);
    if (n < 0 || n >= len) {
        buf[0] = '\0';
        return -1;
    }
    return 0;
}

int fs_check_mount(const char *path) {
    if (path == nullptr || *path == '\0') return -1;
    std::string file;
    {
        std::lock_guard<std::mutex> lock(g_mountinfo_lock);
        file = g_mountinfo_path;
    }
    FILE *fp = fopen(file.c_str(), "re");
    if (fp == nullptr) return -1;
    char *line = nullptr;
    size_t cap = 0;
    int rc = -1;
    std::string mp;
    while (getline(&line, &cap, fp) > 0) {
        if (mount_point_of(line, &mp) && covers(mp, path)) {
            rc = 0;
            break;
        }
    }
    free(line);
    fclose(fp);
    return rc;
}

const char *get_fs_prefix_index(int i) {
    if (i < 0 || i >= FS_STORAGE_SLOTS) return nullptr;
    return kPrefixes[i];
}

int get_final_path(int i, const char *path, char *out, int outlen) {
    if (out == nullptr || outlen <= 0) return -1;
    out[0] = '\0';
    const char *dir = storage_dir(i);
    if (dir == nullptr || path == nullptr) return -1;

    // Normalise: drop empty and "." components, ".." removes the previous one and stops at the
    // storage's root.
    std::vector<std::string> parts;
    const char *p = path;
    while (*p != '\0') {
        while (*p == '/') p++;
        const char *start = p;
        while (*p != '\0' && *p != '/') p++;
        std::string comp(start, p - start);
        if (comp.empty() || comp == ".") continue;
        if (comp == "..") {
            if (!parts.empty()) parts.pop_back();
            continue;
        }
        parts.push_back(comp);
    }

    std::string result = dir;
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    if (result == "/" && !parts.empty()) result.clear();
    for (const std::string &comp : parts) result += "/" + comp;
    if (result.size() + 1 > static_cast<size_t>(outlen)) return -1;
    memcpy(out, result.c_str(), result.size() + 1);
    return 0;
}
