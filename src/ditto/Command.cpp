#include "ditto/Command.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace kestrin::ditto {

namespace {

// A limit given on the command line, kept only when it is tighter than the one in force.
bool tighten(std::string_view argument, std::string_view option, std::uint64_t& limit) {
  if (!argument.starts_with(option)) {
    return false;
  }
  std::string_view digits = argument.substr(option.size());
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
    return false;
  }
  limit = std::min(limit, value);
  return true;
}

} // namespace

std::optional<Command> parseCommand(std::span<const std::string_view> arguments) {
  Command command;
  std::size_t next = 0;
  auto take = [&] { return next < arguments.size() ? arguments[next++] : std::string_view(); };
  std::string_view mode = take();
  if (mode == "-c" || mode == "-x") {
    if (take() != "-k") {
      return std::nullopt; // without -k the archive would be a CPIO one, which is not ours
    }
  } else if (mode != "-ck" && mode != "-xk") {
    return std::nullopt;
  }
  command.mode = mode.starts_with("-c") ? Command::Mode::Compress : Command::Mode::Extract;
  bool compress = command.mode == Command::Mode::Compress;
  while (next < arguments.size() && arguments.size() - next > 2) {
    std::string_view option = arguments[next];
    if (option == "--") {
      ++next;
      break;
    }
    // Linux files have no resource forks to set aside: accepted, and nothing to do.
    bool known = (compress && option == "--sequesterRsrc") ||
                 (compress && option == "--keepParent") ||
                 (!compress && tighten(option, "--max-entries=", command.limits.maxEntries)) ||
                 (!compress && tighten(option, "--max-bytes=", command.limits.maxBytes));
    if (!known) {
      return std::nullopt;
    }
    command.keepParent = command.keepParent || option == "--keepParent";
    ++next;
  }
  if (arguments.size() - next != 2 || arguments[next].empty() || arguments[next + 1].empty()) {
    return std::nullopt;
  }
  command.source = arguments[next];
  command.destination = arguments[next + 1];
  return command;
}

} // namespace kestrin::ditto
