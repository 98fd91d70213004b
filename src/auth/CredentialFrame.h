#pragma once

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <string_view>

#include <poll.h>
#include <string.h>
#include <unistd.h>

#include "support/SecretBuffer.h"

// How the agent hands a user name and password to kestrin-auth: one frame on the helper's
// standard input, never in its arguments or environment (both are visible to other users
// through /proc).
//
//   byte 0        version, kFrameVersion
//   bytes 1-2     user name length U, big-endian, 1..kMaxUserLength
//   U bytes       user name
//   2 bytes       password length P, big-endian, 0..kMaxPasswordLength
//   P bytes       password
//
// Neither text may contain a NUL byte (PAM takes C strings, so a NUL would silently shorten
// what is checked). The helper reads exactly one frame and nothing after it, then replaces its
// standard input with /dev/null so PROGRAM can never read the channel.
//
// Header-only so the helper links none of the agent's libraries.
namespace kestrin::auth {

inline constexpr unsigned char kFrameVersion = 1;
inline constexpr std::size_t kMaxUserLength = 256;
inline constexpr std::size_t kMaxPasswordLength = 1024;
inline constexpr std::size_t kMaxFrameLength = 1 + 2 + kMaxUserLength + 2 + kMaxPasswordLength;

// One frame, in a secret buffer that holds the longest frame: encoding never reallocates.
class CredentialFrame : public SecretBuffer {
public:
  CredentialFrame() : SecretBuffer(kMaxFrameLength) {}
};

// Fills `frame` (wiped first). False when the user name is empty or too long, the password is
// too long, or either contains a NUL byte; the frame is then left empty.
inline bool encodeCredentials(std::string_view user, std::string_view password,
                              CredentialFrame& frame) {
  frame.wipe();
  if (user.empty() || user.size() > kMaxUserLength || password.size() > kMaxPasswordLength ||
      user.find('\0') != std::string_view::npos || password.find('\0') != std::string_view::npos) {
    return false;
  }
  auto appendLength = [&](std::size_t length) {
    const unsigned char bytes[2] = {static_cast<unsigned char>(length >> 8),
                                    static_cast<unsigned char>(length & 0xff)};
    frame.append(bytes, sizeof bytes);
  };
  frame.append(&kFrameVersion, 1);
  appendLength(user.size());
  frame.append(user.data(), user.size());
  appendLength(password.size());
  frame.append(password.data(), password.size());
  return true;
}

// A decoded frame as NUL-terminated texts for PAM. Wiped on destruction; the helper wipes the
// password as soon as PAM has taken it.
struct Credentials {
  char user[kMaxUserLength + 1] = {};
  char password[kMaxPasswordLength + 1] = {};

  Credentials() = default;
  ~Credentials() { wipe(); }
  Credentials(const Credentials&) = delete;
  Credentials& operator=(const Credentials&) = delete;

  void wipePassword() { ::explicit_bzero(password, sizeof password); }
  void wipe() {
    wipePassword();
    ::explicit_bzero(user, sizeof user);
  }
};

enum class FrameError {
  None,
  Truncated,          // end of file inside the frame
  UnsupportedVersion, // first byte is not kFrameVersion
  BadLength,          // empty user name, or a length over its limit
  BadCharacter,       // a NUL byte inside a text
  TimedOut,           // the whole frame did not arrive in time
  ReadFailed,         // the descriptor could not be read
};

namespace detail {

// Reads exactly `count` bytes unless end of file, an error or the deadline comes first.
inline FrameError readExactly(int fd, void* into, std::size_t count,
                              std::chrono::steady_clock::time_point deadline) {
  auto* bytes = static_cast<unsigned char*>(into);
  while (count > 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return FrameError::TimedOut;
    }
    pollfd watch{fd, POLLIN, 0};
    int ready = ::poll(&watch, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    if (ready < 0) {
      return FrameError::ReadFailed;
    }
    if (ready == 0) {
      return FrameError::TimedOut;
    }
    ssize_t got = ::read(fd, bytes, count);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (got < 0) {
      return FrameError::ReadFailed;
    }
    if (got == 0) {
      return FrameError::Truncated;
    }
    bytes += got;
    count -= static_cast<std::size_t>(got);
  }
  return FrameError::None;
}

inline FrameError readText(int fd, char* into, std::size_t minimum, std::size_t maximum,
                           std::chrono::steady_clock::time_point deadline) {
  unsigned char lengthBytes[2];
  if (auto error = readExactly(fd, lengthBytes, sizeof lengthBytes, deadline);
      error != FrameError::None) {
    return error;
  }
  std::size_t length = (std::size_t{lengthBytes[0]} << 8) | lengthBytes[1];
  if (length < minimum || length > maximum) {
    return FrameError::BadLength;
  }
  if (auto error = readExactly(fd, into, length, deadline); error != FrameError::None) {
    return error;
  }
  into[length] = '\0';
  if (std::memchr(into, '\0', length) != nullptr) {
    return FrameError::BadCharacter;
  }
  return FrameError::None;
}

} // namespace detail

// Reads one frame from `fd` within `timeout`, consuming nothing past its end. On any error the
// credentials are wiped.
inline FrameError readCredentials(int fd, Credentials& credentials,
                                  std::chrono::milliseconds timeout) {
  credentials.wipe();
  auto deadline = std::chrono::steady_clock::now() + timeout;
  unsigned char version = 0;
  auto error = detail::readExactly(fd, &version, 1, deadline);
  if (error == FrameError::None && version != kFrameVersion) {
    error = FrameError::UnsupportedVersion;
  }
  if (error == FrameError::None) {
    error = detail::readText(fd, credentials.user, 1, kMaxUserLength, deadline);
  }
  if (error == FrameError::None) {
    error = detail::readText(fd, credentials.password, 0, kMaxPasswordLength, deadline);
  }
  if (error != FrameError::None) {
    credentials.wipe();
  }
  return error;
}

} // namespace kestrin::auth
