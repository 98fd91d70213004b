#include "platform/FileBytes.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace kestrin::platform {

Expected<plist::Data> readFileBytes(const std::string& path, std::size_t limit) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return Failure{path + ": " + std::strerror(errno)};
  }
  plist::Data bytes(limit + 1);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (file.bad()) {
    return Failure{path + ": read error"};
  }
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  if (bytes.size() > limit) {
    return Failure{path + ": larger than " + std::to_string(limit) + " bytes"};
  }
  return bytes;
}

} // namespace kestrin::platform
