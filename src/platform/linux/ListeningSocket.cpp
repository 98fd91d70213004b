#include "platform/ListeningSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrin::platform {

FileDescriptor listenOnAnyAddress(int port) {
  FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!fd) {
    return fd;
  }
  enableSocketOption(fd, SO_REUSEADDR);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd.get(), SOMAXCONN) != 0) {
    return {};
  }
  return fd;
}

FileDescriptor listenOnAddress(const std::string& ip, int port) {
  FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    return fd;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  (void)::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  (void)::listen(fd.get(), 10);
  return fd;
}

FileDescriptor listenOnSocketPath(const std::string& path) {
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  if (!fd || path.size() >= sizeof address.sun_path) {
    return {};
  }
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  ::unlink(path.c_str());
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd.get(), 16) != 0) {
    return {};
  }
  ::chmod(path.c_str(), 0600); // tools of the same user only
  return fd;
}

std::optional<int> boundPort(const FileDescriptor& socket) {
  sockaddr_in bound{};
  socklen_t length = sizeof bound;
  if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    return std::nullopt;
  }
  return ntohs(bound.sin_port);
}

bool enableSocketOption(const FileDescriptor& socket, int option) {
  int on = 1;
  return ::setsockopt(socket.get(), SOL_SOCKET, option, &on, sizeof on) == 0;
}

} // namespace kestrin::platform
