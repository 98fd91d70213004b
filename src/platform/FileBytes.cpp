#include "platform/FileBytes.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include <stdlib.h>
#include <unistd.h>

#include "platform/AtomicFile.h"

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

Expected<std::string> writeTemporaryFile(const std::string& folder, const plist::Data& bytes) {
  std::string path = folder + "/kestrin-XXXXXX";
  int fd = ::mkstemp(path.data()); // mode 0600
  if (fd < 0) {
    return Failure{folder + ": " + std::strerror(errno)};
  }
  if (auto written = writeAll(fd, bytes, path); !written) {
    ::close(fd);
    ::unlink(path.c_str());
    return written.failure();
  }
  ::close(fd);
  return path;
}

} // namespace kestrin::platform
