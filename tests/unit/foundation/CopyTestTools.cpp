#include "CopyTestTools.h"

#include <fstream>
#include <memory>
#include <random>

#include <fmt/format.h>
#include <openssl/evp.h>

namespace kestrin::testing {

class HookedStreams::Stream final : public platform::FileStream {
public:
  Stream(HookedStreams& owner, std::unique_ptr<platform::FileStream> real, std::string path)
      : owner_(owner), real_(std::move(real)), path_(std::move(path)) {}

  platform::Transfer read(std::span<std::uint8_t> into) override {
    if (owner_.beforeRead) {
      if (int error = owner_.beforeRead(path_, offset_)) {
        return {0, error};
      }
    }
    platform::Transfer got = real_->read(into);
    offset_ += got.bytes;
    return got;
  }
  platform::Transfer writeAt(std::uint64_t offset, std::span<const std::uint8_t> bytes) override {
    return real_->writeAt(offset, bytes);
  }
  platform::Transfer readAt(std::uint64_t offset, std::span<std::uint8_t> into) override {
    ++owner_.readBacks_;
    if (owner_.beforeReadAt) {
      owner_.beforeReadAt(path_, *real_, offset, into.size());
    }
    return real_->readAt(offset, into);
  }
  int truncate() override { return real_->truncate(); }
  std::optional<platform::StreamStatus> status() const override { return real_->status(); }

private:
  HookedStreams& owner_;
  std::unique_ptr<platform::FileStream> real_;
  std::string path_;
  std::uint64_t offset_ = 0;
};

std::unique_ptr<platform::FileStream>
HookedStreams::wrap(std::unique_ptr<platform::FileStream> real, const std::string& path) {
  return real ? std::make_unique<Stream>(*this, std::move(real), path) : nullptr;
}

std::unique_ptr<platform::FileStream> HookedStreams::openForReading(const std::string& path) {
  return wrap(platform::FileStreams::system().openForReading(path), path);
}

std::unique_ptr<platform::FileStream> HookedStreams::openForUpdate(const std::string& path) {
  return wrap(platform::FileStreams::system().openForUpdate(path), path);
}

std::unique_ptr<platform::FileStream> HookedStreams::createForUpdate(const std::string& path) {
  return wrap(platform::FileStreams::system().createForUpdate(path), path);
}

RecordingDelegate::RecordingDelegate(std::vector<Message> answers) : answers_(std::move(answers)) {}

bool RecordingDelegate::respondsTo(Message message) {
  return std::find(answers_.begin(), answers_.end(), message) != answers_.end();
}

void RecordingDelegate::record(Call call) {
  std::lock_guard lock(mutex_);
  calls_.push_back(std::move(call));
}

void RecordingDelegate::fileCopyBytesWritten(std::uint64_t total,
                                             const plist::Dictionary& settings) {
  record({Message::BytesWritten, total, settings, {}, nullptr});
  if (onBytesWritten) {
    onBytesWritten(total);
  }
}

bool RecordingDelegate::fileCopyShouldContinue(const plist::Dictionary& settings) {
  record({Message::ShouldContinue, 0, settings, {}, nullptr});
  return keepGoing;
}

void RecordingDelegate::fileCopyVerificationFailed(const plist::Dictionary& settings,
                                                   const std::string& file) {
  record({Message::VerificationFailed, 0, settings, file, nullptr});
}

void RecordingDelegate::fileCopyFinished(const plist::Dictionary& settings) {
  record({Message::Finished, 0, settings, {}, nullptr});
}

void RecordingDelegate::fileOperationProgress(const plist::Dictionary& status,
                                              const plist::ObjectRef& operation) {
  Call call{Message::OperationProgressWithHandle, 0, status, {}, operation};
  record(call);
  if (onStage) {
    onStage(call);
  }
}

void RecordingDelegate::fileOperationProgress(const plist::Dictionary& status) {
  Call call{Message::OperationProgress, 0, status, {}, nullptr};
  record(call);
  if (onStage) {
    onStage(call);
  }
}

void RecordingDelegate::fileOperationFinished(const plist::Dictionary& status,
                                              const plist::ObjectRef& operation) {
  Call call{Message::OperationFinishedWithHandle, 0, status, {}, operation};
  record(call);
  if (onStage) {
    onStage(call);
  }
}

void RecordingDelegate::fileOperationFinished(const plist::Dictionary& status) {
  Call call{Message::OperationFinished, 0, status, {}, nullptr};
  record(call);
  if (onStage) {
    onStage(call);
  }
}

std::vector<RecordingDelegate::Call> RecordingDelegate::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

std::vector<FileCopyDelegate::Message> RecordingDelegate::messages() const {
  std::vector<Message> messages;
  for (const Call& call : calls()) {
    messages.push_back(call.message);
  }
  return messages;
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

void writeNoise(const std::filesystem::path& path, std::uint64_t size) {
  // One mebibyte of noise, its first word numbered for each mebibyte written: cheap enough for
  // a sanitizer's build, and no two mebibytes alike.
  std::mt19937_64 random(size);
  std::vector<std::uint64_t> chunk((1 << 20) / sizeof(std::uint64_t));
  for (auto& word : chunk) {
    word = random();
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  for (std::uint64_t left = size, number = 0; left > 0; ++number) {
    chunk[0] ^= number;
    const std::uint64_t bytes = std::min<std::uint64_t>(left, chunk.size() * sizeof(std::uint64_t));
    out.write(reinterpret_cast<const char*>(chunk.data()), static_cast<std::streamsize>(bytes));
    chunk[0] ^= number;
    left -= bytes;
  }
}

std::string sha1OfFile(const std::filesystem::path& path) {
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  EVP_DigestInit_ex(context.get(), EVP_sha1(), nullptr);
  std::ifstream in(path, std::ios::binary);
  std::vector<char> buffer(1 << 20);
  while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
    EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(in.gcount()));
  }
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_DigestFinal_ex(context.get(), out, &length);
  std::string hex;
  for (unsigned i = 0; i < length; ++i) {
    hex += fmt::format("{:02x}", out[i]);
  }
  return hex;
}

} // namespace kestrin::testing
