#include "foundation/QVEncryption.h"

#include <gtest/gtest.h>

namespace kestrin {
namespace {

plist::Data bytes(std::string_view text) {
  return plist::Data(text.begin(), text.end());
}

plist::Data hex(std::string_view text) {
  plist::Data out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(
        static_cast<std::uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

TEST(QVEncryption, MatchesTheFips197Aes256Example) {
  std::string key(32, '\0');
  for (int i = 0; i < 32; ++i) {
    key[static_cast<std::size_t>(i)] = static_cast<char>(i);
  }
  plist::Data plain = hex("00112233445566778899aabbccddeeff");
  plist::Data cipher = QVEncryption::AESEncryptData(plain, key);
  EXPECT_EQ(cipher, hex("8ea2b7ca516745bfeafc49904b496089"));
  EXPECT_EQ(QVEncryption::AESDecryptData(cipher, key), plain);
}

TEST(QVEncryption, ShortBlocksAreFilledWithSpacesThatDecryptionLeavesInPlace) {
  std::string_view passcode = QVEncryption::kPasscode;
  EXPECT_TRUE(QVEncryption::AESEncryptData({}, passcode).empty());
  EXPECT_TRUE(QVEncryption::AESDecryptData({}, passcode).empty());
  EXPECT_EQ(QVEncryption::AESEncryptData(plist::Data(16, 'a'), passcode).size(), 16u);

  plist::Data seventeen = bytes("0123456789abcdefZ");
  plist::Data cipher = QVEncryption::AESEncryptData(seventeen, passcode);
  ASSERT_EQ(cipher.size(), 32u);
  EXPECT_EQ(QVEncryption::AESDecryptData(cipher, passcode),
            bytes("0123456789abcdefZ" + std::string(15, ' ')));

  EXPECT_EQ(QVEncryption::AESDecryptData(QVEncryption::AESEncryptData(bytes("secret"), passcode),
                                         passcode),
            bytes("secret" + std::string(10, ' ')));

  plist::Data twice = QVEncryption::AESEncryptData(plist::Data(32, 'x'), passcode);
  EXPECT_TRUE(std::equal(twice.begin(), twice.begin() + 16, twice.begin() + 16));
}

TEST(QVEncryption, OnlyThePassphrasesFirst32BytesCountAndShortOnesAreZeroFilled) {
  std::string passcode(QVEncryption::kPasscode);
  std::string differentTail = passcode.substr(0, 32) + "ZZZZ";
  plist::Data cipher = QVEncryption::AESEncryptData(bytes("password"), passcode);
  EXPECT_EQ(QVEncryption::AESDecryptData(cipher, differentTail), bytes("password        "));
  EXPECT_EQ(QVEncryption::AESEncryptData(bytes("x"), "short"),
            QVEncryption::AESEncryptData(bytes("x"), std::string("short") + std::string(27, '\0')));
}

TEST(QVEncryption, AShortFinalCipherBlockIsCompletedWithThePreviousBlocksBytes) {
  std::string_view passcode = QVEncryption::kPasscode;
  plist::Data cipher =
      QVEncryption::AESEncryptData(bytes("first block 16b.second block 16b"), passcode);
  ASSERT_EQ(cipher.size(), 32u);
  plist::Data truncated(cipher.begin(), cipher.begin() + 20);
  plist::Data plain = QVEncryption::AESDecryptData(truncated, passcode);
  ASSERT_EQ(plain.size(), 32u);
  EXPECT_EQ(plist::Data(plain.begin(), plain.begin() + 16), bytes("first block 16b."));
  // The four bytes that arrived, then bytes 4..15 of the first cipher block still in the buffer.
  plist::Data lastBlock(cipher.begin(), cipher.begin() + 16);
  std::copy(cipher.begin() + 16, cipher.begin() + 20, lastBlock.begin());
  EXPECT_EQ(plist::Data(plain.begin() + 16, plain.end()),
            QVEncryption::AESDecryptData(lastBlock, passcode));
}

TEST(QVEncryption, ANonAsciiPassphraseIsCutAfterItsThirtySecondByte) {
  // "é" is two bytes in UTF-8; only its first falls inside the key.
  std::string passphrase = std::string(31, 'k') + "\xc3\xa9";
  plist::Data cipher = QVEncryption::AESEncryptData(bytes("données"), passphrase);
  EXPECT_EQ(cipher, QVEncryption::AESEncryptData(bytes("données"), std::string(31, 'k') + "\xc3"));
  EXPECT_NE(cipher, QVEncryption::AESEncryptData(bytes("données"), std::string(31, 'k') + "e"));
  EXPECT_EQ(QVEncryption::AESDecryptData(cipher, passphrase), bytes("données        "));
}

TEST(QVEncryption, PasswordsRoundTripTrimmedAndBadTextCountsAsEmpty) {
  auto decrypted = [](std::string_view password) {
    return std::string(
        QVEncryption::decryptPassword(QVEncryption::encryptPassword(password)).view());
  };
  EXPECT_EQ(decrypted("s3cret\n\n "), "s3cret");
  EXPECT_EQ(decrypted("pässwörd"), "pässwörd");
  EXPECT_TRUE(QVEncryption::decryptPassword({}).empty());
  EXPECT_TRUE(QVEncryption::decryptPassword(
                  QVEncryption::AESEncryptData(plist::Data{0xff, 0xfe}, QVEncryption::kPasscode))
                  .empty());

  // What trimming cut off (and the padding) is wiped, not left behind the text.
  SecretBuffer trimmed =
      QVEncryption::decryptPassword(QVEncryption::encryptPassword("  pass word\t"));
  EXPECT_EQ(trimmed.view(), "pass word");
  ASSERT_EQ(trimmed.capacity(), 16u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(trimmed.data()) + 9, 7),
            std::string(7, '\0'));
}

} // namespace
} // namespace kestrin
