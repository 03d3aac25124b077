// Tests of the platform file loader: the values that are more than copied text, errors naming
// file, line and key, paths relative to the file's own directory, and what the daemon reads back.
#include "platform_conf.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>

#include "ftp_platform.h"
#include "ftpd_test_support.h"
#include "zqsys.h"

namespace {

using strings = std::vector<std::string>;

class PlatformConfTest : public ::testing::Test {
  protected:
    void SetUp() override { tree_.make_dir("etc"); }
    std::string write_file(const std::string &text) { return tree_.make_file("etc/platform.conf", text); }

    // The error of loading text with the file name cut off; empty when it loaded.
    std::string load_error(const std::string &text) {
        std::string path = write_file(text);
        platform_conf conf;
        std::string err;
        if (platform_conf_load(path.c_str(), &conf, &err) == 0) return "";
        EXPECT_EQ(err.rfind(path + ":", 0), 0u) << err;
        return err.substr(path.size());
    }

    ftpd_temp_tree tree_;
    const std::string &dir_ = tree_.path();
};

TEST_F(PlatformConfTest, StoragesListsAndAddressesAreReadIntoTheirSlotsAndForms) {
    std::string path = write_file(
        "; comment\n# comment\n"
        "[storage]\nflash = /s/flash\nflash2 = /s/f2\nsata0 = /s/sata\nusb0 = /s/usb\n"
        "tmp = /s/tmp\ninstall = /s/install\nnfs = /s/nfs\n"
        "[log]\nsyslog = no\nstderr = on\n"
        "[aaa]\nlist.default = radius local\nlist.ops = none\n"
        "[radius]\nserver = 10.0.0.1:1645 radius.example [fd00::1]:1645 fd00::2\n"
        "[snmp]\ntrap_sink = 127.0.0.1:1162 nms\n");
    platform_conf c;
    std::string err;
    ASSERT_EQ(platform_conf_load(path.c_str(), &c, &err), 0) << err;
    strings dirs;
    for (const auto &s : c.storages) dirs.push_back(s.dir);
    EXPECT_EQ(dirs, (strings{"/s/f2", "/s/flash", "/s/sata", "/s/usb", "", "/s/tmp", "/s/install", "", "/s/nfs"}));
    EXPECT_FALSE(c.log_syslog);
    EXPECT_TRUE(c.log_stderr);
    ASSERT_EQ(c.aaa_lists.size(), 2u);  // the given default replaces the built-in one
    EXPECT_EQ(c.aaa_lists[0].second, (strings{"radius", "local"}));
    EXPECT_EQ(c.aaa_lists[1], (std::pair<std::string, strings>{"ops", {"none"}}));
    // Ports default per service; IPv6 addresses end up in brackets.
    EXPECT_EQ(c.radius_servers, (strings{"10.0.0.1:1645", "radius.example:1812", "[fd00::1]:1645", "[fd00::2]:1812"}));
    EXPECT_EQ(c.trap_sinks, (strings{"127.0.0.1:1162", "nms:162"}));
}

TEST_F(PlatformConfTest, ErrorsNameTheLineAndTheKeyOrSection) {
    EXPECT_EQ(load_error("[ftp]\n\ncontrol_port = 21x\n"), ":3: key 'control_port': not a number");
    EXPECT_EQ(load_error("[ftp]\ncontrol_port = 65536\n"), ":2: key 'control_port': out of range (1-65535)");
    EXPECT_EQ(load_error("[ftp]\nlogin_fail_delay = 61\n"), ":2: key 'login_fail_delay': out of range (0-60)");
    EXPECT_EQ(load_error("[ftp]\nprofile = vendor\n"), ":2: key 'profile': expected device or standard");
    // A blank and ';' inside the quotes start a comment, which leaves the quote open.
    EXPECT_EQ(load_error("[device]\nos_name = \"UNIX ; V\"\n"), ":2: key 'os_name': unterminated double quote");
    EXPECT_EQ(load_error("[log]\nsyslog = maybe\n"), ":2: key 'syslog': expected yes or no");
    EXPECT_EQ(load_error("[aaa]\nlist.x = local tacacs\n"), ":2: key 'list.x': unknown method 'tacacs'");
    EXPECT_EQ(load_error("[storage]\nflash3 = /x\n"), ":2: key 'flash3': unknown key in section 'storage'");
    EXPECT_EQ(load_error("[snmp]\ntrap_sink = host:port\n"), ":2: key 'trap_sink': bad port in 'host:port'");
    EXPECT_EQ(load_error("[security]\npwquality = nosuch=1\n"),
              ":2: key 'pwquality': bad libpwquality setting 'nosuch=1'");
    EXPECT_EQ(load_error("[ftp]\n[empty]\n"), ":2: section 'empty': unknown section");
    EXPECT_EQ(load_error("control_port = 21\n"), ":1: section '': unknown section");
    EXPECT_EQ(load_error("[ftp\n"), ":1: malformed line");
    // Whichever kind of error comes first is the one reported.
    EXPECT_EQ(load_error("[ftp]\nno equals sign\ncontrol_port = x\n"), ":2: malformed line");
    EXPECT_EQ(load_error("[ftp]\ncontrol_port = x\nno equals sign\n"), ":2: key 'control_port': not a number");
}

TEST_F(PlatformConfTest, RelativePathsAreTakenFromTheFilesDirectory) {
    write_file("[storage]\nflash = data/flash\nusb0 =\n[cli]\nsocket = run/cli\n[log]\nfile = ../ftps.log\n");
    // The file is named relative to the working directory, as an administrator may start it.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    platform_conf c;
    std::string err;
    int rc = platform_conf_load("etc/platform.conf", &c, &err);
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_EQ(rc, 0) << err;
    EXPECT_EQ(c.storages[1].dir, dir_ + "/etc/data/flash");
    EXPECT_EQ(c.storages[3].dir, "");  // an empty value leaves the storage absent
    EXPECT_EQ(c.cli_socket, dir_ + "/etc/run/cli");
    EXPECT_EQ(c.log_file, dir_ + "/etc/../ftps.log");
}

// The defaults (device profile, one second, "UNIX ") and the standard profile without delay: the
// integration suite, which runs on both.
TEST_F(PlatformConfTest, FtpKeysAndQuotedValuesReachTheDaemonsCalls) {
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    struct row {
        const char *text;
        int profile;
        int delay;
        const char *os_name;  // what SYST is given; nullptr: none
    };
    const row rows[] = {
        {"[ftp]\nprofile = standard\n[device]\nos_name = \"  Sys V \"\n", PLATFORM_FTP_PROFILE_STANDARD, 1, "  Sys V "},
        {"[ftp]\nprofile = Device\nlogin_fail_delay = 60\n[device]\nos_name = UNIX \n", PLATFORM_FTP_PROFILE_DEVICE, 60,
         "UNIX"},
        {"[device]\nos_name = -\n", PLATFORM_FTP_PROFILE_DEVICE, 1, nullptr},
        {"[device]\nos_name = \"\"\n", PLATFORM_FTP_PROFILE_DEVICE, 1, u.sysname},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.text);
        std::string path = write_file(std::string("[ftp]\ncontrol_port = 2121\n") + r.text);
        platform_conf c;
        std::string err;
        ASSERT_EQ(platform_conf_load(path.c_str(), &c, &err), 0) << err;
        platform_set_for_test(c);
        EXPECT_EQ(platform_ftp_control_port(), 2121);
        EXPECT_EQ(platform_ftp_profile(), r.profile);
        EXPECT_EQ(platform_ftp_login_fail_delay(), r.delay);
        char *os = zqsys_get_os_name();
        EXPECT_EQ(os == nullptr ? std::string("(none)") : std::string(os), r.os_name == nullptr ? "(none)" : r.os_name);
        free(os);
    }
}

}  // namespace
