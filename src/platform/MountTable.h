#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::platform {

// One mounted file system, as the kernel lists it for this process.
struct Mount {
  unsigned major = 0; // of the device; 0 for file systems without one (tmpfs, proc, overlay)
  unsigned minor = 0;
  std::string mountPoint;
  std::string fileSystemType; // "ext4", "vfat", "tmpfs"
  std::string source;         // "/dev/sda1", or whatever names a device-less file system
  std::string options;        // the mount's own options: "rw,nosuid,relatime"

  // A volume on a disk of this machine (what a file browser lists as a drive), not a
  // pseudo-file system or a folder of memory.
  bool isLocalVolume() const;
};

// Size and state of a mounted file system.
struct VolumeSpace {
  std::uint64_t totalBytes = 0;
  std::uint64_t availableBytes = 0; // what an ordinary user may still write
  std::uint64_t blockSize = 0;      // the allocation unit
  bool readOnly = false;
};

class MountTable {
public:
  // The mounts of /proc/self/mountinfo text, in its order (later mounts over earlier ones).
  // Malformed lines are skipped; escaped characters in paths (\040 for a blank) are decoded.
  static std::vector<Mount> parse(std::string_view mountinfo);
  // This process's mounts, read afresh; empty when they cannot be read.
  static std::vector<Mount> current();

  static std::optional<VolumeSpace> space(const std::string& mountPoint);
  // The name and identifier that the file system on a device carries, from the links the
  // device manager keeps under /dev/disk; nullopt when it has none or the device is unknown.
  static std::optional<std::string> volumeLabel(const std::string& device);
  static std::optional<std::string> volumeUUID(const std::string& device);
};

} // namespace kestrin::platform
