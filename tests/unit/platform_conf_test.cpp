// Tests of the platform file loader: defaults, every key, errors naming file, line and key, and
// paths relative to the file's own directory.
#include "platform_conf.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

using strings = std::vector<std::string>;

class PlatformConfTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (std::filesystem::temp_directory_path() / "platform_conf_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        std::filesystem::create_directory(dir_ + "/etc");
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string write_file(const std::string &text) {
        std::string path = dir_ + "/etc/platform.conf";
        FILE *f = fopen(path.c_str(), "w");
        EXPECT_NE(f, nullptr);
        fputs(text.c_str(), f);
        fclose(f);
        return path;
    }

    // The error of loading text with the file name cut off; empty when it loaded.
    std::string load_error(const std::string &text) {
        std::string path = write_file(text);
        platform_conf conf;
        std::string err;
        if (platform_conf_load(path.c_str(), &conf, &err) == 0) return "";
        EXPECT_EQ(err.rfind(path + ":", 0), 0u) << err;
        return err.substr(path.size());
    }

    std::string dir_;
};

TEST_F(PlatformConfTest, DefaultsHaveTheStorageSlotsInDeviceOrderWithOnlyFlashPresent) {
    platform_conf c;
    platform_conf_set_defaults(&c);
    ASSERT_EQ(c.storages.size(), 9u);
    const char *keywords[] = {"flash2", "flash", "sata0", "usb0", "", "tmp", "install", "", "nfs"};
    for (size_t i = 0; i < 9; i++) {
        EXPECT_EQ(c.storages[i].keyword, keywords[i]);
        EXPECT_EQ(c.storages[i].dir, i == 1 ? "/var/lib/ftps/flash" : "") << i;
    }
    ASSERT_EQ(c.aaa_lists.size(), 1u);
    EXPECT_EQ(c.aaa_lists[0], (std::pair<std::string, strings>{"default", {"local"}}));
}

TEST_F(PlatformConfTest, EveryKeyIsRead) {
    std::string path = write_file(
        "; comment\n# comment\n"
        "[device]\nproduct_name = S5800\nos_name = -\n"
        "[ftp]\ncontrol_port = 2121\n"
        "[storage]\nflash = /s/flash\nflash2 = /s/f2\nsata0 = /s/sata\nusb0 = /s/usb\n"
        "tmp = /s/tmp\ninstall = /s/install\nnfs = /s/nfs\n"
        "[cli]\nsocket = /run/cli\nstartup_config = /s/startup.conf\n"
        "[log]\nsyslog = no\nfile = /s/ftps.log\nstderr = on\n"
        "[aaa]\nregistered = false\nnew_model = 0\nuser_database = /s/users.ini\n"
        "list.default = radius local\nlist.ops = none\n"
        "[radius]\nserver = 10.0.0.1:1645 radius.example [fd00::1]:1645 fd00::2\nsecret = s3cret\n"
        "timeout = 5\nretries = 2\n"
        "[pam]\nservice = other\n"
        "[security]\nservice_password_encryption = yes\npwquality = minlen=10 dcredit=-1\n"
        "[snmp]\ntrap_sink = 127.0.0.1:1162 nms\ncommunity = private\n");
    platform_conf c;
    std::string err;
    ASSERT_EQ(platform_conf_load(path.c_str(), &c, &err), 0) << err;
    EXPECT_EQ(c.product_name, "S5800");
    EXPECT_EQ(c.os_name, "-");
    EXPECT_EQ(c.control_port, 2121);
    strings dirs;
    for (const auto &s : c.storages) dirs.push_back(s.dir);
    EXPECT_EQ(dirs, (strings{"/s/f2", "/s/flash", "/s/sata", "/s/usb", "", "/s/tmp", "/s/install", "", "/s/nfs"}));
    EXPECT_EQ(c.cli_socket, "/run/cli");
    EXPECT_EQ(c.startup_config, "/s/startup.conf");
    EXPECT_FALSE(c.log_syslog);
    EXPECT_EQ(c.log_file, "/s/ftps.log");
    EXPECT_TRUE(c.log_stderr);
    EXPECT_FALSE(c.aaa_registered);
    EXPECT_FALSE(c.aaa_new_model);
    EXPECT_EQ(c.user_database, "/s/users.ini");
    ASSERT_EQ(c.aaa_lists.size(), 2u);  // the given default replaces the built-in one
    EXPECT_EQ(c.aaa_lists[0].second, (strings{"radius", "local"}));
    EXPECT_EQ(c.aaa_lists[1], (std::pair<std::string, strings>{"ops", {"none"}}));
    // Ports default per service; IPv6 addresses end up in brackets.
    EXPECT_EQ(c.radius_servers, (strings{"10.0.0.1:1645", "radius.example:1812", "[fd00::1]:1645", "[fd00::2]:1812"}));
    EXPECT_EQ(c.radius_secret, "s3cret");
    EXPECT_EQ(c.radius_timeout, 5);
    EXPECT_EQ(c.radius_retries, 2);
    EXPECT_EQ(c.pam_service, "other");
    EXPECT_TRUE(c.service_password_encryption);
    EXPECT_EQ(c.pwquality, "minlen=10 dcredit=-1");
    EXPECT_EQ(c.trap_sinks, (strings{"127.0.0.1:1162", "nms:162"}));
    EXPECT_EQ(c.snmp_community, "private");
}

TEST_F(PlatformConfTest, ErrorsNameTheLineAndTheKeyOrSection) {
    EXPECT_EQ(load_error("[ftp]\n\ncontrol_port = 21x\n"), ":3: key 'control_port': not a number");
    EXPECT_EQ(load_error("[ftp]\ncontrol_port = 65536\n"), ":2: key 'control_port': out of range (1-65535)");
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

// The process-wide copy is loaded once per process, so these run in a child.
TEST_F(PlatformConfTest, ProcessConfigurationComesFromTheEnvironmentAndReportsErrorsOnStderr) {
    std::string good = write_file("[ftp]\ncontrol_port = 2100\n");
    EXPECT_EXIT(
        {
            setenv("FTPS_PLATFORM", good.c_str(), 1);
            exit(platform_conf_ok() && platform_get().control_port == 2100 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    std::string bad = write_file("[ftp]\ncontrol_port = none\n");
    EXPECT_EXIT(
        {
            setenv("FTPS_PLATFORM", bad.c_str(), 1);
            exit(!platform_conf_ok() && platform_get().storages.size() == 9 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), ":2: key 'control_port': not a number");
}

}  // namespace
