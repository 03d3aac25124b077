// Tests of the log service: the line form with its time prefix, trailing CR/LF stripping, and
// whole lines under concurrent writers.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ftpd_test_support.h"
#include "platform_conf.h"
#include "syslog_ext.h"

namespace {

const std::regex kTimePrefix(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} )");

class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform_conf_set_defaults(&conf_);
        conf_.log_syslog = false;
        conf_.log_file = tree_.full("ftps.log");
        platform_set_for_test(conf_);
    }

    // The file's lines with the time prefix checked and removed.
    std::vector<std::string> lines() {
        std::ifstream in(tree_.full("ftps.log"));
        std::vector<std::string> out;
        std::string l;
        std::smatch m;
        while (std::getline(in, l))
            out.push_back(std::regex_search(l, m, kTimePrefix) ? l.substr(m.length()) : "?" + l);
        return out;
    }

    ftpd_temp_tree tree_;
    platform_conf conf_;
};

TEST_F(LogTest, LineIsModulePriorityTagAndTextWithTrailingCrLfStripped) {
    printk_syslog_ext(7, "FTPSRV", "DEBUG", LOG_CLASS_DEBUG, "(RECV)   %s", "USER alice");
    printk_syslog_ext(4, "FTPSRV", "DIR_ERR", LOG_CLASS_ALWAYS, "two\n\n\r\n");
    printk_syslog_ext(4, "FTPSRV", "DIR_ERR", LOG_CLASS_ALWAYS, "\r\n");
    printk_syslog_ext(5, "LOGIN", "LIMIT", LOG_CLASS_ALWAYS, "in\nner\n");  // only trailing ones go
    EXPECT_EQ(lines(), (std::vector<std::string>{"%FTPSRV-7-DEBUG: (RECV)   USER alice", "%FTPSRV-4-DIR_ERR: two",
                                                 "%FTPSRV-4-DIR_ERR: ", "%LOGIN-5-LIMIT: in", "?ner"}));
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveLines) {
    const int kThreads = 4;
    const int kLines = 200;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; t++) {
        ts.emplace_back([t] {
            std::string payload(300, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; i++) printk_syslog_ext(7, "M", "T", LOG_CLASS_DEBUG, "%s", payload.c_str());
        });
    }
    for (auto &t : ts) t.join();
    auto l = lines();
    ASSERT_EQ(l.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string &line : l) {
        ASSERT_EQ(line.size(), strlen("%M-7-T: ") + 300) << line;
        EXPECT_EQ(line.find_first_not_of(line.back(), strlen("%M-7-T: ")), std::string::npos) << line;
    }
}

}  // namespace
