# Writes OUTPUT, a C++ source holding FILES (a |-separated list) as byte arrays, for the console's pages:
# they ship inside ambrant, so nothing is read from disk or built at run time.
#   cmake -DOUTPUT=... -DFILES=... -P EmbedFiles.cmake
string(REPLACE "|" ";" FILES "${FILES}")
set(arrays "")
set(entries "")
set(index 0)
foreach(file IN LISTS FILES)
  get_filename_component(name "${file}" NAME)
  file(READ "${file}" bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "const unsigned char file${index}[] = {${bytes}};\n")
  string(APPEND entries "    {\"${name}\", file${index}, sizeof file${index}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Made by cmake/EmbedFiles.cmake from src/admin/console/web.
#include \"admin/console/ConsoleFiles.h\"

namespace kestrin::admin {
namespace {
${arrays}
const ConsoleFile kFiles[] = {
${entries}};
} // namespace

const ConsoleFile* consoleFile(std::string_view name) {
  for (const ConsoleFile& file : kFiles) {
    if (file.name == name) {
      return &file;
    }
  }
  return nullptr;
}

} // namespace kestrin::admin
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
