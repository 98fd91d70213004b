#include "ditto/Staging.h"

#include <cerrno>
#include <random>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "ditto/EntryPath.h"
#include "support/Syscall.h"

namespace kestrin::ditto {

namespace fs = std::filesystem;

namespace {

constexpr int kAttempts = 100;

// Runs `create` on fresh hidden names until one does not exist yet.
template <typename Create>
Expected<fs::path> createUnique(const fs::path& folder, std::string_view finalName,
                                Create&& create) {
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device seed;
  std::mt19937 random(seed());
  std::uniform_int_distribution<std::size_t> letter(0, sizeof kLetters - 2);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    // Cut so that the hidden name still fits in a file name.
    // Built by appending: g++ 12 at -O3 misreads "." + std::string(...) as an overlapping copy.
    std::string name(".");
    name.append(finalName.substr(0, 200)).append(".ditto-");
    for (int i = 0; i < 6; ++i) {
      name += kLetters[letter(random)];
    }
    fs::path candidate = folder / name;
    if (create(candidate)) {
      return candidate;
    }
    if (errno != EEXIST) {
      return Failure{errnoMessage(quotedName(folder.string()))};
    }
  }
  return Failure{quotedName(folder.string()) + ": no free name for work in progress"};
}

} // namespace

Expected<fs::path> createStagingFolder(const fs::path& folder, std::string_view finalName) {
  return createUnique(folder, finalName,
                      [](const fs::path& path) { return ::mkdir(path.c_str(), 0777) == 0; });
}

Expected<StagingFile> createStagingFile(const fs::path& folder, std::string_view finalName) {
  int descriptor = -1;
  auto path = createUnique(folder, finalName, [&](const fs::path& candidate) {
    descriptor = retryOnEintr([&] {
      return ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    });
    return descriptor >= 0;
  });
  if (!path) {
    return path.failure();
  }
  return StagingFile{std::move(*path), descriptor};
}

void removeStaged(const fs::path& path) {
  std::error_code ignored;
  // Each folder is seen before it is entered, so its owner permission is back in time.
  fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, ignored);
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(path, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    if (it->symlink_status(ignored).type() == fs::file_type::directory) {
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
  }
  fs::remove_all(path, ignored);
}

} // namespace kestrin::ditto
