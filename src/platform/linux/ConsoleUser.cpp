#include "platform/ConsoleUser.h"

#include <cstdlib>

#include <pwd.h>
#include <systemd/sd-login.h>
#include <unistd.h>

namespace kestrin::platform {

std::optional<std::string> consoleUserName() {
  char* session = nullptr;
  uid_t uid = 0;
  if (sd_seat_get_active("seat0", &session, &uid) < 0) {
    return std::nullopt;
  }
  std::free(session);
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buffer(size > 0 ? static_cast<std::size_t>(size) : 16384, '\0');
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return std::string(found->pw_name);
}

} // namespace kestrin::platform
