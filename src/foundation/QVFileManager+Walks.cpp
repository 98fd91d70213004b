// The recursive walks: trashing by extension or name, folder structure, locking whole folders.

#include <filesystem>
#include <functional>

#include "foundation/FileTree.h"
#include "foundation/QVFileManager.h"

namespace kestrin {

namespace {

using Matches = std::function<bool(const std::string& name)>;

void trashMatching(const std::string& folder, const Matches& matches,
                   QVAuthorization::Session* rights, const QVFileManager::Environment& environment,
                   FileTree::Walk& walk, int depth, std::vector<std::string>& trashed) {
  auto listing = walk.enter(folder, depth);
  if (!listing) {
    return;
  }
  for (const auto& entry : listing->entries) {
    std::string path = FileTree::join(folder, entry.name);
    if (entry.type == FileTree::Type::Folder) {
      trashMatching(path, matches, rights, environment, walk, depth + 1, trashed);
    } else if (matches(entry.name)) {
      // Listed whether or not the trash took it: callers report what they found.
      QVFileManager::trashFile(path, true, rights, environment);
      trashed.push_back(std::move(path));
    }
  }
}

std::string lowercaseExtension(const std::string& name) {
  std::string extension = std::filesystem::path(name).extension().string();
  if (!extension.empty()) {
    extension.erase(0, 1);
  }
  for (char& c : extension) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return extension;
}

void setLockedBelow(const std::string& folder, bool locked, FileTree::Walk& walk, int depth) {
  auto listing = walk.enter(folder, depth);
  if (!listing) {
    return;
  }
  for (const auto& entry : listing->entries) {
    std::string path = FileTree::join(folder, entry.name);
    if (entry.type == FileTree::Type::Folder) {
      setLockedBelow(path, locked, walk, depth + 1);
    } else if (entry.type == FileTree::Type::File) {
      locked ? QVFileManager::lockFile(path) : QVFileManager::unlockFile(path);
    }
  }
}

} // namespace

std::vector<std::string> QVFileManager::trashFilesOfType(const std::string& extension,
                                                         const std::string& folder,
                                                         QVAuthorization::Session* rights,
                                                         const Environment& environment) {
  std::string wanted = lowercaseExtension("x." + extension);
  std::vector<std::string> trashed;
  FileTree::Walk walk;
  trashMatching(
      folder, [&](const std::string& name) { return lowercaseExtension(name) == wanted; }, rights,
      environment, walk, 0, trashed);
  return trashed;
}

std::vector<std::string> QVFileManager::trashFilesNamed(const std::string& name,
                                                        const std::string& folder,
                                                        QVAuthorization::Session* rights,
                                                        const Environment& environment) {
  std::vector<std::string> trashed;
  FileTree::Walk walk;
  trashMatching(
      folder, [&](const std::string& entry) { return entry == name; }, rights, environment, walk, 0,
      trashed);
  return trashed;
}

bool QVFileManager::removeFolderIfEmpty(const std::string& path, QVAuthorization::Session* rights) {
  return isFolderEmpty(path) && removeFile(path, true, rights);
}

std::string QVFileManager::createDirectoryStructure(const std::string& path,
                                                    const std::string& destinationRoot,
                                                    QVAuthorization::Session* rights) {
  std::string folder =
      isDirectoryAtPath(path) && !isPackageAtPath(path) ? path : FileTree::split(path).first;
  // Normalised as an absolute path, ".." stops at the top: it cannot climb out of the root.
  std::string inside = std::filesystem::path(folder.starts_with("/") ? folder : "/" + folder)
                           .lexically_normal()
                           .string();
  while (!inside.empty() && inside.back() == '/') {
    inside.pop_back();
  }
  std::string result =
      inside.empty() ? destinationRoot : FileTree::join(destinationRoot, inside.substr(1));
  if (!fileExistsAtPath(result)) {
    createDirectory(result, true, rights);
  }
  return result;
}

void QVFileManager::lockFolder(const std::string& path) {
  FileTree::Walk walk;
  setLockedBelow(path, true, walk, 0);
}

void QVFileManager::unlockFolder(const std::string& path) {
  FileTree::Walk walk;
  setLockedBelow(path, false, walk, 0);
}

} // namespace kestrin
