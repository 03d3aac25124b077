// Tests of the platform file loader: the values that are more than copied text, errors naming
// file, line and key, paths relative to the file's own directory, and what the daemon reads back.
#include "platform_conf.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
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

    // Loads text and puts it in force for the daemon's calls.
    void load(const std::string &text, platform_conf *c) {
        std::string err;
        ASSERT_EQ(platform_conf_load(write_file(text).c_str(), c, &err), 0) << err;
        platform_set_for_test(*c);
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

    ftpd_temp_tree tree_;
    const std::string &dir_ = tree_.path();
};

// Method lists, the default among them, as logins use them: the AAA integration tests.
TEST_F(PlatformConfTest, StoragesListsAndAddressesAreReadIntoTheirSlotsAndForms) {
    platform_conf c;
    load(
        "; comment\n# comment\n"
        "[storage]\nflash = /s/flash\nflash2 = /s/f2\nsata0 = /s/sata\nusb0 = /s/usb\n"
        "tmp = /s/tmp\ninstall = /s/install\nnfs = /s/nfs\n"
        "[log]\nsyslog = no\nstderr = on\n"
        "[radius]\nserver = 10.0.0.1:1645 radius.example [fd00::1]:1645 fd00::2\n"
        "[snmp]\ntrap_sink = 127.0.0.1:1162 nms\n",
        &c);
    strings dirs;
    for (const auto &s : c.storages) dirs.push_back(s.dir);
    EXPECT_EQ(dirs, (strings{"/s/f2", "/s/flash", "/s/sata", "/s/usb", "", "/s/tmp", "/s/install", "", "/s/nfs"}));
    EXPECT_FALSE(c.log_syslog);
    EXPECT_TRUE(c.log_stderr);
    // Ports default per service; IPv6 addresses end up in brackets.
    EXPECT_EQ(c.radius_servers, (strings{"10.0.0.1:1645", "radius.example:1812", "[fd00::1]:1645", "[fd00::2]:1812"}));
    EXPECT_EQ(c.trap_sinks, (strings{"127.0.0.1:1162", "nms:162"}));
}

// One number out of its range stands for all: each key's bounds are a row of the loader's table,
// and the accepted extremes are read back below.
TEST_F(PlatformConfTest, ErrorsNameTheLineAndTheKeyOrSection) {
    const std::pair<const char *, const char *> rows[] = {
        {"[ftp]\n\ncontrol_port = 21x\n", ":3: key 'control_port': not a number"},
        {"[ftp]\ncontrol_port = 65536\n", ":2: key 'control_port': out of range (1-65535)"},
        {"[ftp]\nprofile = vendor\n", ":2: key 'profile': expected device or standard"},
        {"[ftp]\npassive_address = ftp.example.net\n", ":2: key 'passive_address': not an IPv4 address"},
        {"[ftp]\npassive_address = ::1\n", ":2: key 'passive_address': not an IPv4 address"},
        {"[ftp]\npassive_ports = 1023-2000\n", ":2: key 'passive_ports': expected LOW-HIGH within 1024-65535"},
        {"[ftp]\npassive_ports = 3000-2999\n", ":2: key 'passive_ports': LOW above HIGH"},
        {"[ftp]\nproxy_from = 10.0.0.0/8 lb.example\n",
         ":2: key 'proxy_from': not an IPv4 or IPv6 address 'lb.example'"},
        {"[ftp]\nproxy_from = 10.0.0.1/8\n",
         ":2: key 'proxy_from': address '10.0.0.1/8' has bits set beyond its prefix length"},
        {"[ftp]\nproxy_from = fd00::/129\n", ":2: key 'proxy_from': bad prefix length in 'fd00::/129'"},
        {"[tls]\nupload_eof = loose\n", ":2: key 'upload_eof': expected strict or lenient"},
        // A blank and ';' inside the quotes start a comment, which leaves the quote open.
        {"[device]\nos_name = \"UNIX ; V\"\n", ":2: key 'os_name': unterminated double quote"},
        {"[log]\nsyslog = maybe\n", ":2: key 'syslog': expected yes or no"},
        {"[aaa]\nlist.x = local tacacs\n", ":2: key 'list.x': unknown method 'tacacs'"},
        {"[storage]\nflash3 = /x\n", ":2: key 'flash3': unknown key in section 'storage'"},
        {"[snmp]\ntrap_sink = host:port\n", ":2: key 'trap_sink': bad port in 'host:port'"},
        {"[security]\npwquality = nosuch=1\n", ":2: key 'pwquality': bad libpwquality setting 'nosuch=1'"},
        {"[ftp]\n[empty]\n", ":2: section 'empty': unknown section"},
        {"control_port = 21\n", ":1: section '': unknown section"},
        {"[ftp\n", ":1: malformed line"},
        // Whichever kind of error comes first is the one reported.
        {"[ftp]\nno equals sign\ncontrol_port = x\n", ":2: malformed line"},
        {"[ftp]\ncontrol_port = x\nno equals sign\n", ":2: key 'control_port': not a number"},
    };
    for (const auto &[text, want] : rows) EXPECT_EQ(load_error(text), want) << text;
    for (const char *range : {"2000", "3000-2000x", "2000-65536", "-", "5000-"})
        EXPECT_EQ(load_error(std::string("[ftp]\npassive_ports = ") + range + "\n"),
                  ":2: key 'passive_ports': expected LOW-HIGH within 1024-65535");
}

// Each path key goes through the same resolution; a relative transfer log as sessions write it:
// the operations and HAProxy integration tests.
TEST_F(PlatformConfTest, RelativePathsAreTakenFromTheFilesDirectory) {
    write_file("[storage]\nflash = data/flash\nusb0 =\n[cli]\nsocket = ../run/cli\n");
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
    EXPECT_EQ(c.cli_socket, dir_ + "/etc/../run/cli");
}

// Which peers must send a PROXY header: IPv4, IPv6 and IPv4-mapped peers against IPv4, IPv6 and
// mapped prefixes, at the edges of each prefix. (Without proxy_from none: every other integration
// test.)
TEST_F(PlatformConfTest, ProxyFromMatchesAddressesOfEitherFamilyAgainstPrefixes) {
    platform_conf c;
    load("[ftp]\nproxy_from = 192.0.2.0/25  2001:db8:a::/48\t::ffff:198.51.100.0/120 203.0.113.9 fe80::1\n", &c);
    auto required = [](const char *text) {
        addrinfo hints = {}, *ai = nullptr;
        hints.ai_flags = AI_NUMERICHOST;
        if (getaddrinfo(text, nullptr, &hints, &ai) != 0) return -1;
        int r = platform_ftp_proxy_required(ai->ai_addr);
        freeaddrinfo(ai);
        return r;
    };
    for (const char *peer : {"192.0.2.0", "192.0.2.127", "::ffff:192.0.2.5", "198.51.100.255", "203.0.113.9",
                             "2001:db8:a:ffff::1", "fe80::1"})
        EXPECT_EQ(required(peer), 1) << peer;
    // The last is IPv4-compatible, which is not mapped.
    for (const char *peer :
         {"192.0.2.128", "::ffff:192.0.2.200", "198.51.101.0", "203.0.113.8", "2001:db8:b::1", "fe80::2", "::c000:205"})
        EXPECT_EQ(required(peer), 0) << peer;
}

// The ftp keys and the system name as the daemon's calls give them, in one line. (The passive
// address and range, a relative transfer log and lenient upload ends as sessions meet them: the
// operations, HAProxy and TLS integration tests.)
std::string in_force() {
    char *os = zqsys_get_os_name();
    std::ostringstream o;
    o << "port " << platform_ftp_control_port();
    o << (platform_ftp_profile() == PLATFORM_FTP_PROFILE_STANDARD ? " standard" : " device");
    o << " delay " << platform_ftp_login_fail_delay() << " os [" << (os != nullptr ? os : "(none)") << "]";
    o << " sessions " << platform_ftp_max_sessions() << "/" << platform_ftp_max_per_address();
    o << " rate " << platform_ftp_max_rate();
    free(os);
    return o.str();
}

// The defaults when a key is absent (the device profile, one second, "UNIX ", limits unset); the
// standard profile without delay is the integration suite's, which runs on both.
TEST_F(PlatformConfTest, FtpKeysReachTheDaemonsCalls) {
    struct utsname u;
    ASSERT_EQ(uname(&u), 0);
    const std::string unset = " sessions -1/-1 rate 0";
    const std::pair<std::string, std::string> rows[] = {
        {"", "port 21 device delay 1 os [UNIX ]" + unset},
        {"[ftp]\ncontrol_port = 2121\nprofile = standard\nmax_sessions = 4096\nmax_per_address = 0\n"
         "max_rate = 10485760\n[device]\nos_name = \"  Sys V \"\n",
         "port 2121 standard delay 1 os [  Sys V ] sessions 4096/0 rate 10485760"},
        {"[ftp]\nprofile = Device\nlogin_fail_delay = 60\nmax_sessions = 1\nmax_per_address = 3\n"
         "[device]\nos_name = UNIX \n",
         "port 21 device delay 60 os [UNIX] sessions 1/3 rate 0"},
        {"[device]\nos_name = -\n", "port 21 device delay 1 os [(none)]" + unset},
        {"[device]\nos_name = \"\"\n", "port 21 device delay 1 os [" + std::string(u.sysname) + "]" + unset},
    };
    for (const auto &[text, facts] : rows) {
        platform_conf c;
        load(text, &c);
        EXPECT_EQ(in_force(), facts) << text;
    }
}

}  // namespace
