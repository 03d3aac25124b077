// Command recognition: every code through its word, the loose matching that clients rely on, and
// the argument extraction bounds.
#include <gtest/gtest.h>

#include <string>

#include "ftpd.h"
#include "ftpd_parser.h"

namespace {

struct word_code {
    const char *word;
    int code;
};

const word_code kAllWords[] = {
    {"USER", 1},  {"PASS", 2},  {"ACCT", 3},  {"CWD", 4},   {"CDUP", 5},  {"SMNT", 6},  {"QUIT", 7},  {"REIN", 8},
    {"PORT", 9},  {"PASV", 10}, {"TYPE", 11}, {"STRU", 12}, {"MODE", 13}, {"RETR", 14}, {"STOR", 15}, {"STOU", 16},
    {"APPE", 17}, {"ALLO", 18}, {"REST", 19}, {"RNFR", 20}, {"RNTO", 21}, {"ABOR", 22}, {"DELE", 23}, {"RMD", 24},
    {"MKD", 25},  {"PWD", 26},  {"LIST", 27}, {"NLST", 28}, {"SITE", 29}, {"SYST", 30}, {"STAT", 31}, {"HELP", 32},
    {"NOOP", 33}, {"MDTM", 36}, {"MAIL", 37}, {"MLFL", 38}, {"MRCP", 39}, {"MRSQ", 40}, {"MSAM", 41}, {"MSND", 42},
    {"MSOM", 43}, {"XCWD", 44}, {"XRMD", 45}, {"XMKD", 46}, {"XCUP", 47}, {"XPWD", 48}, {"FEAT", 49}, {"OPTS", 50},
    {"AUTH", 51}, {"PBSZ", 52}, {"PROT", 53}, {"EPRT", 54}, {"EPSV", 55}, {"SIZE", 56},
};

int parse(const std::string &line, std::string *arg) {
    char buf[FTP_BUF_SIZE];
    memset(buf, 'Z', sizeof buf);
    buf[sizeof buf - 1] = '\0';
    int code = ftpd_parse_cmd(line.c_str(), buf);
    *arg = buf;
    return code;
}

TEST(ParserTest, EveryWordGivesItsCodeWithAndWithoutArgument) {
    std::string arg;
    for (const auto &w : kAllWords) {
        EXPECT_EQ(parse(std::string(w.word) + " some arg\r\n", &arg), w.code) << w.word;
        EXPECT_EQ(arg, "some arg") << w.word;
        EXPECT_EQ(parse(std::string(w.word) + "\r\n", &arg), w.code) << w.word;
        EXPECT_EQ(arg, "") << w.word;
        EXPECT_EQ(parse(w.word, &arg), w.code) << w.word;
    }
}

TEST(ParserTest, ShortLinesLowerCaseForeignLettersAndWordPrefixesGiveZero) {
    char buf[FTP_BUF_SIZE];
    EXPECT_EQ(ftpd_parse_cmd(nullptr, buf), 0);
    std::string arg;
    for (const char *line : {"", "QU", "PAS", "PAX", "EXRT", "MSX", "STX", "REX", "XCXX", "user bob", "Retr x", "YES",
                             "ZZZZ", "1USER", " USER x", "@BC", "[AB", "VERB"})
        EXPECT_EQ(parse(line, &arg), 0) << line;
}

TEST(ParserTest, LooseMatchingTakesRunOnTextAsArgument) {
    std::string arg;
    EXPECT_EQ(parse("LISTX", &arg), FTP_CMD_LIST);
    EXPECT_EQ(arg, "X");
    EXPECT_EQ(parse("PASSWORD", &arg), FTP_CMD_PASS);
    EXPECT_EQ(arg, "WORD");
    EXPECT_EQ(parse("CWDIR", &arg), FTP_CMD_CWD);
    EXPECT_EQ(arg, "IR");
}

TEST(ParserTest, ArgumentDropsLeadingBlanksAndLineEndButKeepsInnerAndTrailingBlanks) {
    std::string arg;
    EXPECT_EQ(parse("RETR   my file.txt \r\n", &arg), FTP_CMD_RETR);
    EXPECT_EQ(arg, "my file.txt ");
    EXPECT_EQ(parse("STOR \t\r\n a\tb\n", &arg), FTP_CMD_STOR);
    EXPECT_EQ(arg, "a\tb");
    EXPECT_EQ(parse("CWD x\ry", &arg), FTP_CMD_CWD);
    EXPECT_EQ(arg, "x");
    EXPECT_EQ(parse("EPSV ALL\r\n", &arg), FTP_CMD_EPSV);
    EXPECT_EQ(arg, "ALL");
}

TEST(ParserTest, ArgumentIsCutAt511Characters) {
    std::string arg;
    std::string exact(511, 'a');
    EXPECT_EQ(parse("MKD " + exact + "\r\n", &arg), FTP_CMD_MKD);
    EXPECT_EQ(arg, exact);
    EXPECT_EQ(parse("MKD " + exact + "bcdef\r\n", &arg), FTP_CMD_MKD);
    EXPECT_EQ(arg, exact);
}

}  // namespace
