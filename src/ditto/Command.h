#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "ditto/ArchiveExtractor.h"

namespace kestrin::ditto {

// One run of the program, as the agent's operations write it:
//
//   ditto -c -k [--sequesterRsrc] [--keepParent] SOURCE ARCHIVE     (or -ck)
//   ditto -x -k ARCHIVE FOLDER                                      (or -xk)
//
// Options may come in any order after the mode, and "--" may end them. Extraction also takes
// --max-entries=N and --max-bytes=N, which can only tighten the limits (tests use them to make
// small limits bite).
struct Command {
  enum class Mode { Compress, Extract };
  Mode mode = Mode::Compress;
  bool keepParent = false;
  std::string source;      // what is compressed, or the archive that is extracted
  std::string destination; // the archive written, or the folder extracted into
  ExtractionLimits limits;
};

// The command, or std::nullopt for anything else (the caller prints kUsage).
std::optional<Command> parseCommand(std::span<const std::string_view> arguments);

inline constexpr std::string_view kUsage =
    "usage: ditto -c -k [--sequesterRsrc] [--keepParent] source archive\n"
    "       ditto -x -k archive folder\n";

} // namespace kestrin::ditto
