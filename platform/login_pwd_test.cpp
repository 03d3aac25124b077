// Tests of the type-7 encoding: round trip, form and length, capacity, and malformed input.
#include "login_pwd.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <set>
#include <string>

namespace {

std::string encrypt(const std::string &plain, int cap = 53) {
    char out[128] = "junk";
    login_password_encrypt(plain.c_str(), out, cap);
    return out;
}

std::string decrypt(const std::string &enc, int cap = 53) {
    char out[128] = "junk";
    login_password_decrypt(enc.c_str(), out, cap);
    return out;
}

TEST(LoginPwdTest, RoundTripsEveryPrintableCharacter) {
    std::string all;
    for (int c = 0x20; c < 0x7f; c++) all.push_back(static_cast<char>(c));
    for (size_t pos = 0; pos < all.size(); pos += 25)
        EXPECT_EQ(decrypt(encrypt(all.substr(pos, 25))), all.substr(pos, 25));
    std::set<std::string> forms;  // the salt varies
    for (int i = 0; i < 20; i++) forms.insert(encrypt("secret"));
    EXPECT_GT(forms.size(), 1u);
}

TEST(LoginPwdTest, FormIsSaltThenUpperHexAndEncryptGivesEmptyOutputWhenItCannotEncode) {
    std::string enc = encrypt(std::string(25, 'p'));
    ASSERT_EQ(enc.size(), 52u);
    EXPECT_TRUE(isalnum(static_cast<unsigned char>(enc[0])) && isalnum(static_cast<unsigned char>(enc[1]))) << enc;
    EXPECT_EQ(enc.find_first_not_of("0123456789ABCDEF", 2), std::string::npos) << enc;
    EXPECT_EQ(encrypt(std::string(25, 'x'), 52), "");  // 52 characters need 53 bytes
    EXPECT_EQ(encrypt(""), "");
    EXPECT_EQ(encrypt("tab\there"), "");  // not printable, so it could not be decoded back
}

// For a fixed salt each byte value decodes to a different byte, so exactly the 95 printable
// characters are accepted among the 256 digit pairs: never NUL or a control character. (Texts of
// the wrong length or alphabet: the management integration test.)
TEST(LoginPwdTest, DecryptNeedsRoomForTheTerminatorAndAcceptsOnlyPrintableResults) {
    EXPECT_EQ(decrypt(encrypt("hello"), 5), "");  // five characters need six bytes
    EXPECT_EQ(decrypt(encrypt("hello"), 6), "hello");
    std::set<std::string> accepted;
    for (int v = 0; v < 256; v++) {
        char enc[5];
        snprintf(enc, sizeof enc, "Q7%02X", v);
        std::string plain = decrypt(enc);
        if (plain.empty()) continue;
        EXPECT_TRUE(plain.size() == 1 && isprint(static_cast<unsigned char>(plain[0]))) << enc;
        accepted.insert(plain);
    }
    EXPECT_EQ(accepted.size(), 95u);
}

}  // namespace
