#include "auth/CredentialFrame.h"

#include <string>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace kestrin::auth {
namespace {

using namespace std::chrono_literals;

class Pipe {
public:
  Pipe() { EXPECT_EQ(::pipe2(fds_, O_CLOEXEC), 0); }
  ~Pipe() {
    closeWriteEnd();
    ::close(fds_[0]);
  }
  int readEnd() const { return fds_[0]; }
  void write(std::string_view bytes) {
    ASSERT_EQ(::write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void closeWriteEnd() {
    if (fds_[1] >= 0) {
      ::close(fds_[1]);
      fds_[1] = -1;
    }
  }
  std::string readRest() {
    std::string rest;
    char buffer[256];
    ssize_t got;
    while ((got = ::read(fds_[0], buffer, sizeof buffer)) > 0) {
      rest.append(buffer, static_cast<std::size_t>(got));
    }
    return rest;
  }

private:
  int fds_[2] = {-1, -1};
};

std::string bytesOf(const CredentialFrame& frame) {
  return std::string(reinterpret_cast<const char*>(frame.data()), frame.size());
}

std::string lengthBytes(std::size_t length) {
  return {static_cast<char>(length >> 8), static_cast<char>(length & 0xff)};
}

FrameError readFrom(std::string_view bytes, Credentials& credentials) {
  Pipe pipe;
  pipe.write(bytes);
  pipe.closeWriteEnd();
  return readCredentials(pipe.readEnd(), credentials, 1s);
}

TEST(CredentialFrame, RoundTripsUserAndPasswordAndReadsNothingPastTheFrame) {
  const std::string password = "pass word \xc3\xbc:\n\x01";
  CredentialFrame frame;
  ASSERT_TRUE(encodeCredentials("editor", password, frame));
  EXPECT_EQ(bytesOf(frame),
            std::string("\x01\x00\x06", 3) + "editor" + lengthBytes(password.size()) + password);

  Pipe pipe;
  pipe.write(bytesOf(frame) + "trailing bytes");
  pipe.closeWriteEnd();
  Credentials credentials;
  ASSERT_EQ(readCredentials(pipe.readEnd(), credentials, 1s), FrameError::None);
  EXPECT_STREQ(credentials.user, "editor");
  EXPECT_EQ(std::string(credentials.password), password);
  EXPECT_EQ(pipe.readRest(), "trailing bytes");
}

TEST(CredentialFrame, CarriesAnEmptyPasswordAndTheLongestTexts) {
  const std::string user(kMaxUserLength, 'u');
  const std::string password(kMaxPasswordLength, 'p');
  CredentialFrame frame;
  ASSERT_TRUE(encodeCredentials(user, password, frame));
  Credentials credentials;
  ASSERT_EQ(readFrom(bytesOf(frame), credentials), FrameError::None);
  EXPECT_EQ(credentials.user, user);
  EXPECT_EQ(credentials.password, password);

  ASSERT_TRUE(encodeCredentials("editor", "", frame));
  ASSERT_EQ(readFrom(bytesOf(frame), credentials), FrameError::None);
  EXPECT_STREQ(credentials.password, "");
}

TEST(CredentialFrame, EncodingRefusesTextsTheHelperWouldRefuse) {
  CredentialFrame frame;
  ASSERT_TRUE(encodeCredentials("editor", "secret", frame));
  for (auto [user, password] : {
           std::pair<std::string, std::string>{"", "secret"},
           {std::string(kMaxUserLength + 1, 'u'), "secret"},
           {"editor", std::string(kMaxPasswordLength + 1, 'p')},
           {std::string("ed\0itor", 7), "secret"},
           {"editor", std::string("sec\0ret", 7)},
       }) {
    EXPECT_FALSE(encodeCredentials(user, password, frame)) << user.size() << "/" << password.size();
    EXPECT_TRUE(frame.empty()) << "a refused encoding must not leave the previous secret behind";
  }
}

TEST(CredentialFrame, RefusesMalformedFramesAndLeavesNothingBehind) {
  const std::string version = "\x01";
  const std::string password = lengthBytes(6) + "secret";
  struct Case {
    std::string bytes;
    FrameError expected;
  };
  const Case cases[] = {
      {"", FrameError::Truncated},
      {"\x02" + lengthBytes(6) + "editor" + password, FrameError::UnsupportedVersion},
      {version + lengthBytes(0) + password, FrameError::BadLength},
      {version + lengthBytes(kMaxUserLength + 1) + std::string(kMaxUserLength + 1, 'u') + password,
       FrameError::BadLength},
      {version + lengthBytes(6) + "editor" + lengthBytes(kMaxPasswordLength + 1),
       FrameError::BadLength},
      {version + lengthBytes(6) + "edi", FrameError::Truncated},
      {version + lengthBytes(6) + "editor" + lengthBytes(6) + "sec", FrameError::Truncated},
      {version + lengthBytes(6) + std::string("ed\0tor", 6) + password, FrameError::BadCharacter},
      {version + lengthBytes(6) + "editor" + lengthBytes(6) + std::string("se\0ret", 6),
       FrameError::BadCharacter},
  };
  for (const auto& c : cases) {
    Credentials credentials;
    std::strcpy(credentials.password, "stale");
    EXPECT_EQ(readFrom(c.bytes, credentials), c.expected) << testing::PrintToString(c.bytes);
    EXPECT_STREQ(credentials.user, "");
    EXPECT_STREQ(credentials.password, "");
  }
}

TEST(CredentialFrame, GivesUpWhenTheWriterNeverFinishes) {
  Pipe pipe;
  pipe.write("\x01" + lengthBytes(6) + "edi");
  Credentials credentials;
  EXPECT_EQ(readCredentials(pipe.readEnd(), credentials, 20ms), FrameError::TimedOut);
}

} // namespace
} // namespace kestrin::auth
