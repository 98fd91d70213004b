#pragma once

#include <cstddef>
#include <string_view>

namespace kestrin::admin {

// A page, script or style sheet of the console, built into ambrant.
struct ConsoleFile {
  std::string_view name;
  const unsigned char* bytes;
  std::size_t size;
};

// The file of that name ("index.html"), null when there is none.
const ConsoleFile* consoleFile(std::string_view name);

} // namespace kestrin::admin
