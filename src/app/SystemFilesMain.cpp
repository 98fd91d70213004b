// Writes the system files that the Debian package ships, from the same text that "-setup"
// writes, so the package and set-up cannot drift apart: the user unit and the helper's PAM
// service. Run by the build, never installed.
//
// usage: kestrin-system-files FOLDER PROGRAM
//   FOLDER/com.quorvane.Kestrin.service   the unit, starting PROGRAM in PROGRAM's folder
//   FOLDER/kestrin-auth                    the PAM service

#include <filesystem>
#include <iostream>
#include <string>

#include "app/Installer.h"
#include "auth/PamService.h"
#include "platform/AtomicFile.h"

namespace {

bool write(const std::filesystem::path& path, std::string text) {
  return kestrin::platform::writeFileAtomically(path.string(), text, 0644).ok();
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: kestrin-system-files FOLDER PROGRAM\n";
    return 64;
  }
  std::filesystem::path folder(argv[1]);
  std::filesystem::path program(argv[2]);
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  std::string unit = kestrin::Installer::unitText(program.string(), program.parent_path().string());
  if (!write(folder / kestrin::Installer::kUnitName, unit) ||
      !write(folder / "kestrin-auth", std::string(kestrin::auth::kPamServiceText))) {
    std::cerr << "kestrin-system-files: cannot write in " << folder << "\n";
    return 1;
  }
  return 0;
}
