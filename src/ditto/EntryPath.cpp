#include "ditto/EntryPath.h"

#include <cerrno>
#include <cstdio>
#include <deque>
#include <optional>

#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrin::ditto {

namespace {

// The kernel's own limit on links followed while resolving one path.
constexpr int kMaxLinksInARow = 40;

std::deque<std::string> splitPath(std::string_view path) {
  std::deque<std::string> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) {
      end = path.size();
    }
    if (end > start) {
      parts.emplace_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  return parts;
}

std::optional<std::string> readLink(const std::string& path) {
  std::string target(PATH_MAX, '\0');
  ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length < 0 || static_cast<std::size_t>(length) >= target.size()) {
    return std::nullopt;
  }
  target.resize(static_cast<std::size_t>(length));
  return target;
}

} // namespace

Expected<std::vector<std::string>> entryComponents(std::string_view name) {
  if (name.empty()) {
    return Failure{"an entry without a readable name"};
  }
  if (name.front() == '/') {
    return Failure{"absolute path refused"};
  }
  std::vector<std::string> components;
  for (std::string& part : splitPath(name)) {
    if (part == ".") {
      continue;
    }
    if (part == "..") {
      return Failure{"path with \"..\" refused"};
    }
    if (part.size() > NAME_MAX) {
      return Failure{"a name in the path is longer than a file name may be"};
    }
    components.push_back(std::move(part));
  }
  return components;
}

bool linkStaysInside(const std::filesystem::path& root, std::vector<std::string> linkFolder,
                     std::string_view target) {
  if (target.empty() || target.front() == '/') {
    return false;
  }
  std::vector<std::string>& at = linkFolder;
  std::deque<std::string> pending = splitPath(target);
  int linksFollowed = 0;
  while (!pending.empty()) {
    std::string part = std::move(pending.front());
    pending.pop_front();
    if (part == ".") {
      continue;
    }
    if (part == "..") {
      if (at.empty()) {
        return false;
      }
      at.pop_back();
      continue;
    }
    at.push_back(std::move(part));
    std::string onDisk = root.string() + "/" + joinComponents(at);
    struct stat info {};
    if (::lstat(onDisk.c_str(), &info) != 0) {
      // Nothing there (yet): no link to follow, the rest resolves by name alone. A later entry
      // that puts a link there is judged again once the whole archive is out.
      if (errno == ENOENT || errno == ENOTDIR) {
        continue;
      }
      return false;
    }
    if (!S_ISLNK(info.st_mode)) {
      continue;
    }
    auto next = readLink(onDisk);
    if (++linksFollowed > kMaxLinksInARow || !next || next->empty() || next->front() == '/') {
      return false;
    }
    at.pop_back();
    auto nextParts = splitPath(*next);
    pending.insert(pending.begin(), nextParts.begin(), nextParts.end());
  }
  return true;
}

std::string joinComponents(const std::vector<std::string>& components) {
  std::string joined;
  for (const std::string& part : components) {
    if (!joined.empty()) {
      joined += '/';
    }
    joined += part;
  }
  return joined;
}

std::string quotedName(std::string_view name) {
  std::string out = "\"";
  for (char c : name) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f || c == '"' || c == '\\') {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

} // namespace kestrin::ditto
