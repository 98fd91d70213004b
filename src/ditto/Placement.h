#pragma once

#include <filesystem>

#include "support/Expected.h"

namespace kestrin::ditto {

// Moves the extracted tree in `staged` into the existing folder `folder`, as extracting into a
// folder that already holds things does: what is not there yet is renamed into place, folders on
// both sides are merged, and what is there but is no folder (a file, a link: never followed) is
// replaced. A folder is never replaced by something else; that refusal comes before anything
// moves. Both paths lie on one file system.
Expected<void> mergeInto(const std::filesystem::path& staged, const std::filesystem::path& folder);

} // namespace kestrin::ditto
