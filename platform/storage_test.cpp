// Tests of the storage services: storage paths with their bounds, and the mount check over a fake
// mountinfo.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "fs_info.h"
#include "ftpd_test_support.h"

namespace {

class StorageTest : public ::testing::Test {
  protected:
    void SetUp() override { ftpd_use_platform({{1, "/srv/flash/"}, {3, "/media/usb0"}, {8, "/"}}); }
    void TearDown() override { fs_set_mountinfo_path_for_test(nullptr); }

    std::string final_path(int i, const char *path, int outlen = 258) {
        char out[600] = "junk";
        int rc = get_final_path(i, path, out, outlen);
        EXPECT_TRUE(rc == 0 || out[0] == '\0');
        return rc < 0 ? "<fail>" : out;
    }

    ftpd_temp_tree tree_;
};

TEST_F(StorageTest, FinalPathJoinsTheDirectoryAndTheNormalisedPathAndMustFit) {
    EXPECT_EQ(final_path(3, "/pub"), "/media/usb0/pub");
    EXPECT_EQ(final_path(3, "pub//docs/./"), "/media/usb0/pub/docs");
    EXPECT_EQ(final_path(3, "/"), "/media/usb0");
    EXPECT_EQ(final_path(3, "/a/../../../etc"), "/media/usb0/etc");  // ".." stops at the storage root
    EXPECT_EQ(final_path(1, "/pub"), "/srv/flash/pub");
    EXPECT_EQ(final_path(8, "/x"), "/x");
    EXPECT_EQ(final_path(8, "/"), "/");
    // Absent storage, gap, out of range, no path.
    for (int i : {0, 4, 9, -1}) EXPECT_EQ(final_path(i, "/x"), "<fail>") << i;
    EXPECT_EQ(final_path(3, nullptr), "<fail>");
    // The result must fit with its terminator: "/media/usb0/" (12) + 246 = 258 characters.
    std::string tail(246, 'a');
    EXPECT_EQ(final_path(3, tail.c_str(), 259), "/media/usb0/" + tail);
    EXPECT_EQ(final_path(3, tail.c_str(), 258), "<fail>");
}

TEST_F(StorageTest, MountCheckMatchesWholeComponentsAndIgnoresRoot) {
    std::string mountinfo = tree_.make_file("mountinfo",
                                            "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                                            "30 22 8:17 / /mnt/usb0 rw,relatime shared:2 - vfat /dev/sdb1 rw\n"
                                            "31 22 8:33 / /mnt/my\\040disk rw,relatime shared:3 - ext4 /dev/sdc1 rw\n");
    fs_set_mountinfo_path_for_test(mountinfo.c_str());

    EXPECT_EQ(fs_check_mount("/mnt/usb0"), 0);
    EXPECT_EQ(fs_check_mount("/mnt/usb0/pub/x"), 0);
    EXPECT_LT(fs_check_mount("/mnt/usb01"), 0);  // a prefix of characters, not of components
    EXPECT_LT(fs_check_mount("/mnt"), 0);
    EXPECT_LT(fs_check_mount("/srv/data"), 0);  // only "/" covers it
    EXPECT_EQ(fs_check_mount("/mnt/my disk/files"), 0);
    EXPECT_LT(fs_check_mount(nullptr), 0);

    unlink(mountinfo.c_str());  // unreadable mountinfo: nothing is mounted
    EXPECT_LT(fs_check_mount("/mnt/usb0"), 0);
}

}  // namespace
