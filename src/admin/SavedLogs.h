#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::admin {

// Saving what an agent's gatherLogs answers: one file per path, all directly in one folder.
// The paths come from the agent, so none of them decides where a file goes: each becomes a
// single file name, and files are opened without following links.

// The file name for an agent's path: the whole path with every "/" made "_" (the user's and the
// machine's "Kestrin.1.log" stay apart), control characters, bytes that are not UTF-8 and a
// leading dot made "_", cut to its last kMaxNameLength bytes.
std::string savedLogName(std::string_view path);
inline constexpr std::size_t kMaxNameLength = 200;

// Writes every data value of `logs` into `folder` (made when missing), calling `saved` with the
// path, the file written and its size for each; files of the same name in one run get " 2",
// " 3"... Entries that are not data are skipped with `skipped`. A Failure when the folder cannot
// be made or opened; a file that cannot be written is skipped too.
struct SaveReport {
  std::size_t saved = 0;
  std::size_t skipped = 0;
};
Expected<SaveReport> saveLogs(
    const std::string& folder, const plist::Dictionary& logs,
    const std::function<void(const std::string& path, const std::string& file, std::size_t bytes)>&
        saved,
    const std::function<void(const std::string& path, const std::string& why)>& skipped);

} // namespace kestrin::admin
