#include "support/SecretBuffer.h"

#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace kestrin {
namespace {

// What memory holds at `address` now, read through /proc/self/mem: freed memory included,
// behind the allocator's back and without touching it from C++.
std::string memoryAt(const void* address, std::size_t size) {
  int fd = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  std::string bytes(size, '?');
  ssize_t got = fd < 0 ? -1
                       : ::pread(fd, bytes.data(), size,
                                 static_cast<off_t>(reinterpret_cast<std::uintptr_t>(address)));
  if (fd >= 0) {
    ::close(fd);
  }
  EXPECT_EQ(got, static_cast<ssize_t>(size));
  return bytes;
}

// The allocator keeps its own words at the start of a freed block; the rest must be zero.
constexpr std::size_t kAllocatorWords = 16;
const std::string kSecret = "correct horse battery staple, quite a long secret";

bool wipedAfterFree(const unsigned char* storage) {
  return memoryAt(storage + kAllocatorWords, kSecret.size() - kAllocatorWords) ==
         std::string(kSecret.size() - kAllocatorWords, '\0');
}

TEST(SecretBuffer, LeavesNothingBehindWhenDestroyedOrReplaced) {
  const unsigned char* destroyed = nullptr;
  const unsigned char* replaced = nullptr;
  {
    SecretBuffer buffer = SecretBuffer::copyOf(kSecret);
    destroyed = buffer.data();
    // A move hands the storage over: no second copy, nothing left in the source.
    SecretBuffer moved(std::move(buffer));
    EXPECT_EQ(moved.data(), destroyed);
    EXPECT_EQ(moved.view(), kSecret);
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.data(), nullptr);

    SecretBuffer other = SecretBuffer::copyOf(kSecret);
    replaced = other.data();
    other = std::move(moved);
    EXPECT_TRUE(wipedAfterFree(replaced));
  }
  EXPECT_TRUE(wipedAfterFree(destroyed));
}

TEST(SecretBuffer, KeepsAPartAndWipesTheRestOfItsStorage) {
  SecretBuffer buffer(16);
  ASSERT_TRUE(buffer.append("  pass word \n", 13));
  EXPECT_FALSE(buffer.append("overflowing", 11)); // never grows
  buffer.keep(2, 9);
  EXPECT_EQ(buffer.view(), "pass word");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()) + 9, 7), std::string(7, '\0'));
  buffer.wipe();
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 16), std::string(16, '\0'));
}

} // namespace
} // namespace kestrin
