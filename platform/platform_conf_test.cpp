// Tests of the platform file loader: the values that are more than copied text, errors naming
// file, line and key, paths relative to the file's own directory, and what the daemon reads back.
#include "platform_conf.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "ftp_platform.h"
#include "ftp_tls.h"
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

TEST_F(PlatformConfTest, StoragesListsAndAddressesAreReadIntoTheirSlotsAndForms) {
    platform_conf c;
    load(
        "; comment\n# comment\n"
        "[storage]\nflash = /s/flash\nflash2 = /s/f2\nsata0 = /s/sata\nusb0 = /s/usb\n"
        "tmp = /s/tmp\ninstall = /s/install\nnfs = /s/nfs\n"
        "[log]\nsyslog = no\nstderr = on\n"
        "[aaa]\nlist.default = radius local\nlist.ops = none\n"
        "[radius]\nserver = 10.0.0.1:1645 radius.example [fd00::1]:1645 fd00::2\n"
        "[snmp]\ntrap_sink = 127.0.0.1:1162 nms\n",
        &c);
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
    const std::pair<const char *, const char *> rows[] = {
        {"[ftp]\n\ncontrol_port = 21x\n", ":3: key 'control_port': not a number"},
        {"[ftp]\ncontrol_port = 65536\n", ":2: key 'control_port': out of range (1-65535)"},
        {"[ftp]\nlogin_fail_delay = 61\n", ":2: key 'login_fail_delay': out of range (0-60)"},
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
        {"[ftp]\nmax_sessions = 0\n", ":2: key 'max_sessions': out of range (1-4096)"},
        {"[ftp]\nmax_per_address = 4097\n", ":2: key 'max_per_address': out of range (0-4096)"},
        {"[ftp]\nmax_rate = -1\n", ":2: key 'max_rate': out of range (0-10485760)"},
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

// The operations keys: defaults when absent (limits unset, no range, no proxies) and the values
// the daemon reads back when given.
TEST_F(PlatformConfTest, OperationsKeysReachTheDaemonsCalls) {
    struct row {
        const char *text;
        const char *passive;  // dotted, or "" for the control connection's own
        int low, high, sessions, per_address, rate, upload_eof;
        const char *xferlog;  // below the file's directory, or "" for none
    };
    const row rows[] = {
        {"", "", 0, 0, -1, -1, 0, PLATFORM_TLS_UPLOAD_EOF_STRICT, ""},
        {"[ftp]\npassive_address = 192.0.2.7\npassive_ports = 50000-50099\nmax_sessions = 4096\n"
         "max_per_address = 0\nmax_rate = 10485760\n[log]\ntransfer_log = xfer.log\n[tls]\nupload_eof = Lenient\n",
         "192.0.2.7", 50000, 50099, 4096, 0, 10485760, PLATFORM_TLS_UPLOAD_EOF_LENIENT, "/etc/xfer.log"},
        {"[ftp]\npassive_ports = 1024-1024\nmax_sessions = 1\nmax_per_address = 3\npassive_address =\n", "", 1024, 1024,
         1, 3, 0, PLATFORM_TLS_UPLOAD_EOF_STRICT, ""},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.text);
        platform_conf c;
        load(r.text, &c);
        unsigned char a[4] = {};
        char dotted[16] = "";
        if (platform_ftp_passive_address(a) == 1)
            snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", a[0], a[1], a[2], a[3]);
        EXPECT_STREQ(dotted, r.passive);
        int low = -1;
        int high = -1;
        EXPECT_EQ(platform_ftp_passive_ports(&low, &high), r.low != 0 ? 1 : 0);
        EXPECT_EQ(std::make_pair(low, high), std::make_pair(r.low, r.high));
        EXPECT_EQ(platform_ftp_max_sessions(), r.sessions);
        EXPECT_EQ(platform_ftp_max_per_address(), r.per_address);
        EXPECT_EQ(platform_ftp_max_rate(), r.rate);
        EXPECT_EQ(ftp_tls_upload_eof(), r.upload_eof);
        EXPECT_EQ(std::string(platform_log_transfer_log()), *r.xferlog ? dir_ + r.xferlog : "");
    }
}

// Which peers must send a PROXY header: IPv4, IPv6 and IPv4-mapped peers against IPv4, IPv6 and
// mapped prefixes, at the edges of each prefix.
TEST_F(PlatformConfTest, ProxyFromMatchesAddressesOfEitherFamilyAgainstPrefixes) {
    platform_conf c;
    load("[ftp]\nproxy_from = 192.0.2.0/25  2001:db8:a::/48\t::ffff:198.51.100.0/120 203.0.113.9 fe80::1\n", &c);
    auto required = [](const char *text) {
        sockaddr_storage ss = {};
        auto *s6 = reinterpret_cast<sockaddr_in6 *>(&ss);
        auto *s4 = reinterpret_cast<sockaddr_in *>(&ss);
        ss.ss_family = strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
        EXPECT_EQ(inet_pton(ss.ss_family, text,
                            ss.ss_family == AF_INET6 ? static_cast<void *>(&s6->sin6_addr)
                                                     : static_cast<void *>(&s4->sin_addr)),
                  1);
        return platform_ftp_proxy_required(reinterpret_cast<sockaddr *>(&ss));
    };
    for (const char *peer : {"192.0.2.0", "192.0.2.127", "::ffff:192.0.2.5", "198.51.100.255", "203.0.113.9",
                             "2001:db8:a:ffff::1", "fe80::1"})
        EXPECT_EQ(required(peer), 1) << peer;
    // The last is IPv4-compatible, which is not mapped.
    for (const char *peer :
         {"192.0.2.128", "::ffff:192.0.2.200", "198.51.101.0", "203.0.113.8", "2001:db8:b::1", "fe80::2", "::c000:205"})
        EXPECT_EQ(required(peer), 0) << peer;
    platform_conf none;
    platform_conf_set_defaults(&none);
    platform_set_for_test(none);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    EXPECT_EQ(platform_ftp_proxy_required(reinterpret_cast<sockaddr *>(&any)), 0);
    EXPECT_EQ(platform_ftp_proxy_required(nullptr), 0);
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
        platform_conf c;
        load(std::string("[ftp]\ncontrol_port = 2121\n") + r.text, &c);
        EXPECT_EQ(platform_ftp_control_port(), 2121);
        EXPECT_EQ(platform_ftp_profile(), r.profile);
        EXPECT_EQ(platform_ftp_login_fail_delay(), r.delay);
        char *os = zqsys_get_os_name();
        EXPECT_EQ(os == nullptr ? std::string("(none)") : std::string(os), r.os_name == nullptr ? "(none)" : r.os_name);
        free(os);
    }
}

}  // namespace
