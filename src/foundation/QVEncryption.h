#pragma once

#include <string_view>

#include "plist/Value.h"
#include "support/SecretBuffer.h"

namespace kestrin {

// AES-256 in electronic code book, as the administration application and the agent have
// always exchanged passwords: the key is the passphrase's first 32 bytes (zero-filled when it is
// shorter), a short final block is filled with spaces, and decryption leaves those spaces for
// the caller to trim. Not a general-purpose cipher: no salt, no IV, identical blocks show.
class QVEncryption {
public:
  // The passphrase that agent and administration application share for passwords.
  static constexpr std::string_view kPasscode = "7C1E4B92-3A5D-4F07-B6E8-91D2C0A5F3E4";

  static plist::Data AESEncryptData(const plist::Data& data, std::string_view passphrase);
  static plist::Data AESDecryptData(const plist::Data& data, std::string_view passphrase);

  // A password as the admin side sends it, and back: decrypted under the passcode, checked as
  // UTF-8 and trimmed of white space and line ends (empty when empty or undecodable). The
  // plain text only ever exists in the answered buffer, which wipes itself.
  static plist::Data encryptPassword(std::string_view password);
  static SecretBuffer decryptPassword(const plist::Data& data);
};

} // namespace kestrin
