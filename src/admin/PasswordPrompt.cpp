#include "admin/PasswordPrompt.h"

#include <optional>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "auth/CredentialFrame.h"
#include "platform/FileDescriptor.h"
#include "support/Syscall.h"

namespace kestrin::admin {

namespace {

// Turns a terminal's echo off for its lifetime; does nothing to anything else.
class EchoOff {
public:
  explicit EchoOff(int fd) : fd_(fd) {
    termios settings{};
    if (::isatty(fd) == 0 || ::tcgetattr(fd, &settings) != 0) {
      return;
    }
    saved_ = settings;
    settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    settings.c_lflag |=
        ECHONL; // the typed line end still shows, so the next output is on its own line
    ::tcsetattr(fd, TCSAFLUSH, &settings);
  }
  ~EchoOff() {
    if (saved_) {
      ::tcsetattr(fd_, TCSAFLUSH, &*saved_);
    }
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

private:
  int fd_;
  std::optional<termios> saved_;
};

} // namespace

Expected<SecretBuffer> readPasswordLine(int fd) {
  EchoOff quiet(fd);
  // One byte at a time: nothing past the line end is consumed, and the password never passes
  // through a buffer that is not wiped.
  SecretBuffer line(auth::kMaxPasswordLength);
  for (;;) {
    char c = 0;
    ssize_t n = retryOnEintr([&] { return ::read(fd, &c, 1); });
    if (n < 0) {
      return Failure{errnoMessage("cannot read the password")};
    }
    if (n == 0 || c == '\n') {
      break;
    }
    if (!line.append(&c, 1)) {
      return Failure{"the password is longer than " + std::to_string(auth::kMaxPasswordLength) +
                     " bytes"};
    }
  }
  if (!line.empty() && line.view().back() == '\r') {
    line.keep(0, line.size() - 1);
  }
  return line;
}

Expected<SecretBuffer> promptForPassword(const std::string& prompt) {
  platform::FileDescriptor terminal(
      retryOnEintr([] { return ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC); }));
  if (!terminal) {
    return Failure{"no terminal to ask for the password on; pass it with --password-stdin"};
  }
  (void)!::write(terminal.get(), prompt.data(), prompt.size());
  return readPasswordLine(terminal.get());
}

} // namespace kestrin::admin
