// Storage and file-system services: the storage table of the platform file, and the mount check.
#pragma once

// Storage numbering of the device (1-based, with gaps): flash2 1, flash 2, sata0 3, usb0 4,
// tmp 6, install 7, nfs 9. The 0-based index i used below is that number minus one.
#define FS_STORAGE_SLOTS 9

// Loads the storage table (and with it the platform file). 0, or -1 when the platform file is bad.
int init_fs_info(void);
// The main flash directory into buf; 0, or -1 when absent or it does not fit.
int fs_get_flash_home(char *buf, int len);
// 0 when a mount point other than "/" in /proc/self/mountinfo is path itself or a whole-component
// prefix of it; negative otherwise.
int fs_check_mount(const char *path);
// Test hook: read mount points from another mountinfo file (nullptr: back to the process's own).
void fs_set_mountinfo_path_for_test(const char *path);
// Keyword text with its colon ("flash:") for 0-based index i; nullptr for a gap or out of range.
const char *get_fs_prefix_index(int i);
// Storage i's directory followed by the normalised path, into out; negative when the storage is
// absent or the result does not fit in outlen.
int get_final_path(int i, const char *path, char *out, int outlen);
