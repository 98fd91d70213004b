#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include <string.h>

namespace kestrin {

// Bytes of a secret: a decrypted password, a credential frame. The storage is allocated once,
// at the capacity given, and never grows, so no stale copy is left behind in freed heap memory;
// it is wiped with explicit_bzero (which the optimiser may not drop) on destruction, when a
// move replaces it, and on request. A move hands the storage over without copying a byte; a copy
// is impossible.
//
// Header-only: kestrin-auth uses it too.
class SecretBuffer {
public:
  SecretBuffer() = default;
  explicit SecretBuffer(std::size_t capacity)
      : bytes_(capacity > 0 ? new unsigned char[capacity]() : nullptr), capacity_(capacity) {}
  ~SecretBuffer() { release(); }

  SecretBuffer(SecretBuffer&& other) noexcept
      : bytes_(std::exchange(other.bytes_, nullptr)), capacity_(std::exchange(other.capacity_, 0)),
        size_(std::exchange(other.size_, 0)) {}
  SecretBuffer& operator=(SecretBuffer&& other) noexcept {
    if (this != &other) {
      release();
      bytes_ = std::exchange(other.bytes_, nullptr);
      capacity_ = std::exchange(other.capacity_, 0);
      size_ = std::exchange(other.size_, 0);
    }
    return *this;
  }
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;

  // A buffer of exactly the text's size holding it: for secrets that arrive as text (a test's
  // password, a prompt's answer). The text itself is the caller's to wipe.
  static SecretBuffer copyOf(std::string_view text) {
    SecretBuffer buffer(text.size());
    buffer.append(text.data(), text.size());
    return buffer;
  }

  // False (and nothing appended) when the bytes do not fit.
  bool append(const void* bytes, std::size_t count) {
    if (count > capacity_ - size_) {
      return false;
    }
    if (count > 0) {
      std::memcpy(bytes_ + size_, bytes, count);
      size_ += count;
    }
    return true;
  }

  // Keeps `count` bytes from `offset` (clamped to what is held) at the front and wipes the rest.
  void keep(std::size_t offset, std::size_t count) {
    offset = offset < size_ ? offset : size_;
    count = count < size_ - offset ? count : size_ - offset;
    if (offset > 0 && count > 0) {
      std::memmove(bytes_, bytes_ + offset, count);
    }
    if (capacity_ > count) {
      ::explicit_bzero(bytes_ + count, capacity_ - count);
    }
    size_ = count;
  }

  // Zeroes the whole storage; the capacity stays.
  void wipe() {
    if (bytes_ != nullptr) {
      ::explicit_bzero(bytes_, capacity_);
    }
    size_ = 0;
  }

  const unsigned char* data() const { return bytes_; }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  bool empty() const { return size_ == 0; }
  // The bytes as text, valid until the buffer changes. Never turn it into a std::string.
  std::string_view view() const { return {reinterpret_cast<const char*>(bytes_), size_}; }

private:
  void release() {
    wipe();
    delete[] bytes_;
    bytes_ = nullptr;
    capacity_ = 0;
  }

  unsigned char* bytes_ = nullptr;
  std::size_t capacity_ = 0;
  std::size_t size_ = 0;
};

} // namespace kestrin
