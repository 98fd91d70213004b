#include "platform/MountTable.h"

#include <charconv>
#include <filesystem>
#include <fstream>

#include <sys/statvfs.h>

namespace kestrin::platform {

namespace {

namespace fs = std::filesystem;

// Far beyond a real table: a container host with thousands of mounts stays under 1 MiB.
constexpr std::size_t kMountInfoLimit = 8 << 20;

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> out;
  std::size_t at = 0;
  while (at < line.size()) {
    std::size_t end = line.find(' ', at);
    if (end == std::string_view::npos) {
      end = line.size();
    }
    if (end > at) {
      out.push_back(line.substr(at, end - at));
    }
    at = end + 1;
  }
  return out;
}

// The kernel writes a blank, a tab, a new line and a backslash in a path as \040, \011, \012
// and \134.
std::string unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 4 <= text.size()) {
      unsigned value = 0;
      bool octal = true;
      for (std::size_t k = 1; octal && k <= 3; ++k) {
        char c = text[i + k];
        octal = c >= '0' && c <= '7';
        value = value * 8 + static_cast<unsigned>(c - '0');
      }
      if (octal && value < 256) {
        out += static_cast<char>(value);
        i += 3;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

bool parseDevice(std::string_view text, unsigned& major, unsigned& minor) {
  std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  auto first = std::from_chars(text.data(), text.data() + colon, major);
  auto second = std::from_chars(text.data() + colon + 1, text.data() + text.size(), minor);
  return first.ec == std::errc() && first.ptr == text.data() + colon && second.ec == std::errc() &&
         second.ptr == text.data() + text.size();
}

std::optional<std::string> linkTo(const fs::path& folder, const std::string& device) {
  std::error_code ec;
  fs::path target = fs::canonical(device, ec);
  if (ec) {
    return std::nullopt;
  }
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    std::error_code linkError;
    if (entry.is_symlink(linkError) && fs::canonical(entry.path(), linkError) == target) {
      // udev escapes characters of a label the way the mount table does (\x20 for a blank).
      std::string name = entry.path().filename().string();
      std::string out;
      for (std::size_t i = 0; i < name.size(); ++i) {
        unsigned value = 0;
        if (name.compare(i, 2, "\\x") == 0 && i + 4 <= name.size() &&
            std::from_chars(name.data() + i + 2, name.data() + i + 4, value, 16).ptr ==
                name.data() + i + 4) {
          out += static_cast<char>(value);
          i += 3;
        } else {
          out += name[i];
        }
      }
      return out;
    }
  }
  return std::nullopt;
}

} // namespace

bool Mount::isLocalVolume() const {
  // Device numbers with major 0 belong to file systems without a device, except btrfs, whose
  // subvolumes get such numbers although they live on a disk.
  return major != 0 || source.rfind("/dev/", 0) == 0;
}

std::vector<Mount> MountTable::parse(std::string_view mountinfo) {
  std::vector<Mount> mounts;
  std::size_t at = 0;
  while (at < mountinfo.size()) {
    std::size_t end = mountinfo.find('\n', at);
    if (end == std::string_view::npos) {
      end = mountinfo.size();
    }
    // id parent major:minor root mount-point options [optional fields...] - type source super
    auto line = fields(mountinfo.substr(at, end - at));
    at = end + 1;
    std::size_t separator = 6;
    while (separator < line.size() && line[separator] != "-") {
      ++separator;
    }
    Mount mount;
    if (separator + 3 > line.size() || !parseDevice(line[2], mount.major, mount.minor) ||
        line[4].empty() || line[4].front() != '/') {
      continue;
    }
    mount.mountPoint = unescaped(line[4]);
    mount.options = std::string(line[5]);
    mount.fileSystemType = unescaped(line[separator + 1]);
    mount.source = unescaped(line[separator + 2]);
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

std::vector<Mount> MountTable::current() {
  // Read in pieces: the file reports no size, and the table is usually a few kilobytes.
  std::ifstream in("/proc/self/mountinfo", std::ios::binary);
  std::string text;
  char buffer[16384];
  while (in && text.size() < kMountInfoLimit) {
    in.read(buffer, sizeof buffer);
    text.append(buffer, static_cast<std::size_t>(in.gcount()));
  }
  if (text.size() >= kMountInfoLimit) {
    return {};
  }
  return parse(text);
}

std::optional<VolumeSpace> MountTable::space(const std::string& mountPoint) {
  struct statvfs status {};
  if (::statvfs(mountPoint.c_str(), &status) != 0) {
    return std::nullopt;
  }
  VolumeSpace space;
  std::uint64_t unit = status.f_frsize != 0 ? status.f_frsize : status.f_bsize;
  space.totalBytes = static_cast<std::uint64_t>(status.f_blocks) * unit;
  space.availableBytes = static_cast<std::uint64_t>(status.f_bavail) * unit;
  space.blockSize = unit;
  space.readOnly = (status.f_flag & ST_RDONLY) != 0;
  return space;
}

std::optional<std::string> MountTable::volumeLabel(const std::string& device) {
  return linkTo("/dev/disk/by-label", device);
}

std::optional<std::string> MountTable::volumeUUID(const std::string& device) {
  return linkTo("/dev/disk/by-uuid", device);
}

} // namespace kestrin::platform
