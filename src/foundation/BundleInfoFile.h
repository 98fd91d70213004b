#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin {

// Small files found while looking through folders that other people fill: read whole, within a
// limit, and only when they are regular files, so a pipe or a device put in their place is
// refused instead of waited on.

// The whole file; a Failure when it is missing, not a regular file or longer than `limit`.
Expected<plist::Data> readSmallFile(const std::string& path, std::size_t limit);

// The largest Info.plist read from a bundle on disk: real ones are a few kilobytes.
inline constexpr std::size_t kBundleInfoLimit = std::size_t{1} << 20;

// The dictionary of an Info.plist (XML or binary); nullopt when it is missing, too large,
// malformed or not a dictionary.
std::optional<plist::Dictionary> readBundleInfo(const std::string& infoPlistPath);

// A string member of a dictionary; nullopt when absent or of another kind.
std::optional<std::string> stringMember(const plist::Dictionary& dictionary, std::string_view key);

} // namespace kestrin
