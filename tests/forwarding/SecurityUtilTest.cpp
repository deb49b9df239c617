#include "forwarding/SecurityUtil.h"
#include "foundation/run/Current.h"
#include "platform/openssl/OpenSslCryptography.h"

#include <gtest/gtest.h>

namespace sentrova {

namespace {

using Text = std::optional<std::string>;
// Made with an independent tool from the key and a zero vector.
constexpr const char* kSixteenEncrypted = "mBTznmHhDMK5sREZRyIn8lfLbcmtxarmVybNUx4D58k=";

}  // namespace

class SecurityUtilTest : public ::testing::Test {
  private:
    const std::unique_ptr<Cryptography> cryptography_ = platform::makeOpenSslCryptography();
    const Current<Cryptography>::Publication publication_{*cryptography_};
};

TEST_F(SecurityUtilTest, EncryptionGivesTheEstablishedCipherTextWhateverTheVector) {
    for (const auto& [plain, cipher] :
         {std::pair("0123456789abcdef", kSixteenEncrypted), {"gr\u00FC\u00DFe", "UimcDlISETUyligNIO9feQ=="}}) {
        for (const auto* vector : {"", "0123456789abcdef"}) {
            EXPECT_EQ(*SecurityUtil::encrypt(plain, "secret", vector), Text(cipher));
            EXPECT_EQ(*SecurityUtil::decrypt(cipher, "secret", vector), Text(plain));
        }
    }
    EXPECT_EQ(*SecurityUtil::decrypt(*SecurityUtil::encrypt("", "k", ""), "k", ""), Text(""));
    // Only the bytes of the pass phrase up to the first zero byte count.
    EXPECT_EQ(*SecurityUtil::decrypt(kSixteenEncrypted, std::string("secret\0more", 11), ""), Text("0123456789abcdef"));
}

TEST_F(SecurityUtilTest, UndecryptableTextGivesNothingOrTheCipherError) {
    EXPECT_EQ(*SecurityUtil::encrypt(std::nullopt, "k", ""), std::nullopt);
    EXPECT_EQ(*SecurityUtil::encrypt("text", std::nullopt, ""), std::nullopt);
    EXPECT_EQ(*SecurityUtil::decrypt(std::nullopt, "k", ""), std::nullopt);
    EXPECT_EQ(*SecurityUtil::decrypt(kSixteenEncrypted, std::nullopt, ""), std::nullopt);
    EXPECT_EQ(*SecurityUtil::decrypt(*SecurityUtil::encrypt("\xFF", "k", ""), "k", ""), std::nullopt) << "not UTF-8";
    for (const auto* text : {"mBTz nmHh", "mBTz\nnmHh", "mBTznmH", "mB=znmHh", "mBTznmHh====", "-BTznmHh"}) {
        EXPECT_EQ(*SecurityUtil::decrypt(text, "secret", ""), std::nullopt) << text;
    }
    // A wrong pass phrase; a text cut at a block boundary and within a block.
    const std::pair<std::string, const char*> cases[] = {
        {kSixteenEncrypted, "wrong"}, {std::string(kSixteenEncrypted, 20) + "8g==", "secret"}, {"mBTznmHh", "secret"}};
    for (const auto& [text, passPhrase] : cases) {
        const auto plain = SecurityUtil::decrypt(text, passPhrase, "");
        ASSERT_FALSE(plain) << text;
        EXPECT_EQ(plain.error().domain, "kEncryptionError");
        EXPECT_NE(plain.error().code, 0);
    }
    // The cipher itself preserves bytes that are not text.
    const Data key(32, 'k');
    const Data noText = {0xFF, 0xFE};
    const auto cipher = SecurityUtil::doAES(noText, key, {}, SecurityUtil::CipherOperation::encrypt);
    EXPECT_EQ(*SecurityUtil::doAES(*cipher, key, {}, SecurityUtil::CipherOperation::decrypt), noText);
    EXPECT_FALSE(SecurityUtil::doAES(noText, Data(5), {}, SecurityUtil::CipherOperation::encrypt));
}

}  // namespace sentrova
