#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/FileDescriptor.h"
#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::transport {

// The machine-local name server: a name belongs to the live process that registered it, and
// says how to reach that process (an address and port, or a socket path). One lock file per
// name in a per-user folder; the lock is held by an open descriptor, so a name whose holder died
// is free again at once, without anyone cleaning up.
class NameRegistry {
public:
  // Holds a name until destroyed.
  class Registration {
  public:
    Registration(std::string path, platform::FileDescriptor lock)
        : path_(std::move(path)), lock_(std::move(lock)) {}
    ~Registration();
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

  private:
    std::string path_;
    platform::FileDescriptor lock_;
  };

  explicit NameRegistry(std::string directory) : directory_(std::move(directory)) {}

  // $XDG_RUNTIME_DIR/kestrin-names, or kestrin-names-<uid> in the temporary folder.
  static std::string defaultDirectory();

  // Both refuse to work in a folder that is a link, that another user owns or that others may
  // write in; the folder is made with mode 0700 when it is missing.

  // Fails when a live process holds the name. contact is stored with the holder's "pid".
  Expected<std::unique_ptr<Registration>> registerName(const std::string& name,
                                                       const plist::Dictionary& contact) const;
  // The live holder's contact (with "pid"), or nullopt when nobody holds the name.
  std::optional<plist::Dictionary> lookup(const std::string& name) const;
  // "pid 4242 at 192.168.1.20:49152" and the like, for messages about a taken name.
  static std::string describeHolder(const plist::Dictionary& contact);

  std::string pathForName(const std::string& name) const;

private:
  std::string directory_;
};

} // namespace kestrin::transport
