// The command table and what is derived from it: both recognisers, the rows each profile serves,
// and FEAT.
#include "control/commands.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "base/ftpd.h"

namespace {

const ftp_policy kDevice = ftp_policy_of(ftp_profile::device, false);
const ftp_policy kStandard = ftp_policy_of(ftp_profile::standard, false);
const ftp_policy kStandardTls = ftp_policy_of(ftp_profile::standard, true);

// The recognised word of a line ("" when none) and its argument.
std::string parse(const std::string &line, std::string *arg, const ftp_policy &p = kDevice) {
    char buf[FTP_BUF_SIZE];
    memset(buf, 'Z', sizeof buf);
    buf[sizeof buf - 1] = '\0';
    const ftp_command *c = ftpd_parse_cmd(line.c_str(), buf, p);
    *arg = buf;
    return c != nullptr ? c->word : "";
}

TEST(CommandTable, EveryKnownWordIsRecognisedWithAndWithoutArgument) {
    std::string arg;
    for (size_t i = 0; i < kCommandCount; i++) {
        const ftp_command &c = kCommands[i];
        for (const ftp_policy *p : {&kDevice, &kStandard}) {
            if (!in_profile(c.known, *p)) continue;
            // The device gets the line with its end; the standard profile's reader has taken it off.
            std::string end = p == &kDevice ? "\r\n" : "";
            EXPECT_EQ(parse(std::string(c.word) + " some arg" + end, &arg, *p), c.word);
            EXPECT_EQ(arg, "some arg") << c.word;
            EXPECT_EQ(parse(c.word, &arg, *p), c.word);
            EXPECT_EQ(arg, "") << c.word;
        }
    }
}

// What the device serves is fixed; the standard profile serves more, never less. (The words only
// the standard profile serves, each answered: the standard-profile and FTPS integration tests.)
TEST(CommandTable, ServedSetsOfBothProfiles) {
    std::set<std::string> device, standard;
    for (size_t i = 0; i < kCommandCount; i++) {
        const ftp_command &c = kCommands[i];
        if (ftp_command_served(c, kDevice)) device.insert(c.word);
        if (ftp_command_served(c, kStandardTls)) standard.insert(c.word);
        EXPECT_FALSE(ftp_command_served(c, kStandard) && c.tls) << c.word;
    }
    EXPECT_EQ(device, (std::set<std::string>{"USER", "PASS", "CWD",  "CDUP", "QUIT", "PORT", "PASV", "TYPE", "RETR",
                                             "STOR", "RNFR", "RNTO", "DELE", "RMD",  "MKD",  "PWD",  "LIST", "NLST",
                                             "SYST", "STAT", "HELP", "MDTM", "EPRT", "EPSV", "SIZE"}));
    for (const std::string &w : device) EXPECT_TRUE(standard.count(w)) << w;
}

// The device compares only the letters of a word, case-sensitively; the standard profile takes
// the word up to the first blank in any case (a longer word refused: the standard-profile
// integration test).
TEST(CommandTable, RecognitionOfEachProfile) {
    const ftp_policy *D = &kDevice, *S = &kStandard;
    const struct {
        const ftp_policy *p;
        std::string line, word, arg;
    } rows[] = {
        {D, "LISTX", "LIST", "X"},
        {D, "PASSWORD", "PASS", "WORD"},
        {D, "CWDIR", "CWD", "IR"},
        {D, "RETR   my file.txt \r\n", "RETR", "my file.txt "},
        {D, "STOR \t\r\n a\tb\n", "STOR", "a\tb"},
        {D, "CWD x\ry", "CWD", "x"},
        {D, "MKD " + std::string(511, 'a') + "bcdef\r\n", "MKD", std::string(511, 'a')},
        {S, "uSeR bob", "USER", "bob"},
        {S, "MLSD dir", "MLSD", "dir"},
        {S, "STOR cr\rx.txt", "STOR", "cr\rx.txt"},
        {S, "xmkd  new dir ", "XMKD", "new dir "},
    };
    std::string arg;
    for (const auto &r : rows) {
        EXPECT_EQ(parse(r.line, &arg, *r.p), r.word) << r.line;
        EXPECT_EQ(arg, r.arg) << r.line;
    }
    for (const char *line :
         {"user bob", "MLSD", "", "QU", "PAS", "PAX", "EXRT", "Retr x", "YES", "1USER", " USER x", "VERB"})
        EXPECT_EQ(parse(line, &arg), "") << line;
}

// Without TLS, FEAT to the byte: the standard-profile integration test; the TLS lines present: the
// FTPS one. Here, where they go and a buffer too small.
TEST(CommandTable, FeatListsWhatIsServedAndTlsOnlyWithTls) {
    char text[FTP_BUF_SIZE];
    ASSERT_TRUE(ftp_feat_reply(kStandardTls, text, sizeof text));
    EXPECT_NE(strstr(text, " AUTH TLS\r\n EPRT\r\n"), nullptr);
    EXPECT_NE(strstr(text, " PBSZ\r\n PROT\r\n REST STREAM\r\n"), nullptr);
    EXPECT_FALSE(ftp_feat_reply(kStandardTls, text, 40));
}

}  // namespace
