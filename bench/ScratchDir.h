#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include <stdlib.h>

namespace kestrin::bench {

// A throwaway folder under the system's temporary directory, removed with everything in it.
class ScratchDir {
public:
  ScratchDir() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "kestrin-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

private:
  std::filesystem::path path_;
};

} // namespace kestrin::bench
