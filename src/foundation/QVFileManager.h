#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "foundation/DigestContext.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVTaskEx.h"
#include "platform/Clock.h"
#include "plist/Value.h"

namespace kestrin {

class QVLocalPaths;
namespace platform {
class ToolTable;
} // namespace platform

// The agent's one toolbox for touching the file system: every remote operation that trashes,
// copies, moves, compresses, locks or inspects files comes through here. Class-level and
// stateless; any thread may call it. Nothing raises: operations answer false, nullopt or an
// empty list.
//
// Changes climb a ladder: the ordinary attempt first, with the agent's own rights; when that
// fails and the caller allows it (shouldAuth), the same change again with the administrator
// rights the caller hands in (`rights`), and the log says so. Without rights (null) that second
// step fails, but its log lines are still written. The log lines and their deliberate
// differences between operations are relied on by whoever reads the agent's log:
//   trash:       nothing logged before escalating;
//   move:        "Error moving file: <why>." and, only when escalating, "Authorizing...";
//   remove, create folder, copy: "Error ...: <why>. Authorizing..." even when not escalating.
//
// The timeout variants do the change (escalating) and then poll, on the environment's clock,
// until its end state shows or the time is up. Walks never enter a link to a folder, never enter
// a folder twice and stop at FileTree::kDepthLimit.
//
// The copies that report their progress to a delegate are QVFileCopier's.
//
// Paths are byte strings: names with new lines, colons or bytes that are not UTF-8 are handled
// like any other, and written to the log with such characters escaped.
class QVFileManager {
public:
  // What the operations that reach beyond the paths they are given use: the trash folder and
  // temporary names, the programs they run, and the clock they wait on.
  struct Environment {
    const QVLocalPaths& paths;
    const platform::ToolTable& tools;
    const platform::Clock& clock;

    // This process's: QVLocalPaths::shared(), ToolTable::shared(), Clock::system().
    static const Environment& shared();
  };

  // How long a timeout variant waits for its end state; only whole seconds are meant.
  using Timeout = std::chrono::seconds;

  // What a file-system reference is on this platform: the path of an existing item together
  // with its identity, so that a reference no longer resolves once the item is replaced.
  struct FileReference {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
  };

  // A Finder label colour as hue, saturation and brightness (each 0 to 1), fully opaque.
  struct FinderColor {
    double hue = 0;
    double saturation = 0;
    double brightness = 0;
    double alpha = 1.0;
    friend bool operator==(const FinderColor&, const FinderColor&) = default;
  };

  QVFileManager() = delete;

  // ---- Tests

  // Anything at the path (a link counts as what it points to: a dangling link is nothing).
  static bool fileExistsAtPath(const std::string& path);
  // A folder, packages included (followed when a link).
  static bool isDirectoryAtPath(const std::string& path);
  // A folder that the Finder shows as one file: a known bundle extension (.app, .bundle,
  // .framework, .plugin ...) or the bundle bit of its Finder information.
  static bool isPackageAtPath(const std::string& path);
  static bool isSymbolicLinkAtPath(const std::string& path);
  // A path outside "/Volumes", or with fewer than three components, counts as mounted;
  // otherwise whether "/Volumes/<name>" exists. The drive form tests the prefix "/Volumes/" and
  // prints "mountpoint: <mount point>" on the console first.
  static bool isVolumeMountedForPath(const std::string& path);
  static bool isDriveMountedForPath(const std::string& path);
  // The mount point of a local volume that holds the path ("/" itself is never answered from
  // the list): the deepest of them, since mounts nest here. Otherwise nullopt for a path under
  // "/Volumes" and "/" for any other.
  static std::optional<std::string> volumeMountPointForPath(const std::string& path);
  // The same against a given list of mounted local volumes.
  static std::optional<std::string>
  volumeMountPointForPath(const std::string& path, const std::vector<std::string>& volumes);
  static bool isFileLocked(const std::string& path);
  // Empty: nothing in it but ".DS_Store", "Icon\r" and folders that are empty by the same rule.
  // An unreadable folder lists nothing and so is empty; a tree too deep to look through, or one
  // that contains itself, is not.
  static bool isFolderEmpty(const std::string& path);
  // A file's size; for a folder the sum over everything inside it (0 when unreadable).
  static std::uint64_t fileSize(const std::string& path);
  // What this machine knows about the volume mounted at mountPoint, under the keys of the
  // platform's disk report: "MountPoint", "VolumeName", "FilesystemType", "TotalSize",
  // "VolumeSize", "FreeSpace", "VolumeAllocationBlockSize", "WritableVolume", "Writable", and
  // when the volume lives on a device "DeviceNode", "DeviceIdentifier", "VolumeUUID".
  // Nullopt when nothing is mounted exactly there.
  static std::optional<plist::Dictionary> infoForDiskAtMountpoint(const std::string& mountPoint);

  // ---- Changes that escalate (see the class comment)

  // Moves the item into the trash folder, under its own name, or with "_<YYYYmmddHHMMSS>"
  // before its extension when the name is taken there. A missing path is trashed already.
  static bool trashFile(const std::string& path, bool shouldAuth = true,
                        QVAuthorization::Session* rights = nullptr,
                        const Environment& environment = Environment::shared());
  static bool trashFile(const std::string& path, Timeout timeout,
                        QVAuthorization::Session* rights = nullptr,
                        const Environment& environment = Environment::shared());
  // A missing path counts as removed.
  static bool removeFile(const std::string& path, bool shouldAuth = true,
                         QVAuthorization::Session* rights = nullptr);
  static bool removeFile(const std::string& path, Timeout timeout,
                         QVAuthorization::Session* rights = nullptr,
                         const Environment& environment = Environment::shared());
  // With every missing parent. Refused without escalating when the path's drive is not
  // mounted ("Unable to create directory. Drive is not mounted." on the console).
  static bool createDirectory(const std::string& path, bool shouldAuth = true,
                              QVAuthorization::Session* rights = nullptr);
  static bool createDirectory(const std::string& path, Timeout timeout,
                              QVAuthorization::Session* rights = nullptr,
                              const Environment& environment = Environment::shared());
  // Copies to a path where nothing is yet. A missing source or destination path is logged and
  // printed and fails at once.
  static bool copyFile(const std::optional<std::string>& from, const std::optional<std::string>& to,
                       bool shouldAuth = true, QVAuthorization::Session* rights = nullptr);
  static bool copyFile(const std::optional<std::string>& from, const std::optional<std::string>& to,
                       Timeout timeout, QVAuthorization::Session* rights = nullptr,
                       const Environment& environment = Environment::shared());
  // Moves to a path where nothing is yet; a move that changes only the case of the name goes
  // through a temporary name, as a file system that ignores case needs.
  static bool moveFile(const std::string& from, const std::string& to, bool shouldAuth = true,
                       QVAuthorization::Session* rights = nullptr);
  static bool moveFile(const std::string& from, const std::string& to, Timeout timeout,
                       QVAuthorization::Session* rights = nullptr,
                       const Environment& environment = Environment::shared());
  // Trashes every entry, going on after a failure; true when all went (or there were none).
  static bool trashDirectoryContents(const std::string& path, bool shouldAuth = true,
                                     QVAuthorization::Session* rights = nullptr,
                                     const Environment& environment = Environment::shared());
  // Copies every entry with copyFile's timeout variant ("File: <name>" in the log for each),
  // stopping at the first failure; true for an empty or unreadable source.
  static bool copyContentsOfDirectory(const std::string& from, const std::string& to,
                                      Timeout timeout, QVAuthorization::Session* rights = nullptr,
                                      const Environment& environment = Environment::shared());

  // ---- Walks

  // Trashes (escalating) every file below the folder whose extension, or whose whole name,
  // matches; answers every matching path, trashed or not. Folders are searched, never trashed.
  static std::vector<std::string>
  trashFilesOfType(const std::string& extension, const std::string& folder,
                   QVAuthorization::Session* rights = nullptr,
                   const Environment& environment = Environment::shared());
  static std::vector<std::string>
  trashFilesNamed(const std::string& name, const std::string& folder,
                  QVAuthorization::Session* rights = nullptr,
                  const Environment& environment = Environment::shared());
  static bool removeFolderIfEmpty(const std::string& path,
                                  QVAuthorization::Session* rights = nullptr);
  // The folder of `path` (itself when it is a folder and not a package, else its parent)
  // recreated under destinationRoot, escalating; answers that path whether or not it could be
  // made. ".." in the path never climbs above destinationRoot.
  static std::string createDirectoryStructure(const std::string& path,
                                              const std::string& destinationRoot,
                                              QVAuthorization::Session* rights = nullptr);
  // Locks or unlocks everything inside the folder, at any depth; the folder itself stays.
  static void lockFolder(const std::string& path);
  static void unlockFolder(const std::string& path);

  // ---- Attributes

  // Sets the file system's immutable flag (needs root; a failure is logged with the words
  // "Unable to unlock file", for locking too). Links carry no flag: unlocking one succeeds.
  static bool lockFile(const std::string& path);
  static bool unlockFile(const std::string& path);
  static bool setPosixPermissions(unsigned long mode, const std::string& path);
  static bool setModificationDate(const plist::Date& date, const std::string& path);
  // When the file was born where the file system records it, else when it was last modified.
  static std::optional<plist::Date> creationDateForFile(const std::string& path);
  // Extended attributes holding UTF-8 text. A key without a namespace ("com.quorvane.x") is
  // the user's: "user.com.quorvane.x". Values longer than 255 bytes are not read (nullopt).
  static std::optional<std::string> metadataValueForKey(const std::string& key,
                                                        const std::string& path);
  static bool setMetadataValue(std::string_view value, const std::string& key,
                               const std::string& path);
  // The whole Finder-flags word (0 without Finder information or for a missing file); its
  // label is bits 1-3 (FinderInfo::kColorMask).
  static std::uint16_t finderColorIndexForPath(const std::string& path);
  // Replaces the label bits of the flags word, keeping every other bit.
  static bool setFinderColorIndex(std::uint16_t index, const std::optional<std::string>& path);
  // Nullopt for an index outside 2..14; bit 0 is ignored inside it. The path form reads the whole
  // flags word, so a file with other Finder flags set has no colour: deliberately so.
  static std::optional<FinderColor> finderColorForColorIndex(std::uint16_t index);
  static std::optional<FinderColor> finderColorForPath(const std::string& path);
  static void disableFileSystemCachingForFile(const std::string& path);
  // There is no Launch Services database here: bundles are found by scanning the Applications
  // folders on every lookup, so a new one is known at once. True when the path holds a bundle
  // with a readable Info.plist, as registration succeeds only for one.
  static bool registerApplicationWithLaunchServices(const std::string& path);
  // There is no Finder to tell: file browsers here watch folders themselves. Answers the
  // status the notification would have had: 0 for an existing item, -43 (file not found) for
  // a missing one, -50 (parameter error) for none.
  static int notifyFileSystemChanged(const std::optional<std::string>& path);
  static std::optional<FileReference> stringToFSRef(const std::string& path);
  static std::optional<std::string> stringWithFSRef(const FileReference& reference);

  // ---- Compression, with the bundle's ditto

  // Zips source into destination ("-ck" ["--keepParent"] source destination), trashing an
  // existing archive there first (escalating). True when the archive exists afterwards.
  static bool compressFile(const std::string& source, const std::string& destination,
                           bool includeParent = true, QVAuthorization::Session* rights = nullptr,
                           const Environment& environment = Environment::shared(),
                           QVTaskEx::TimeLimit limit = kArchiveTimeLimit);
  // Unzips archive into folder ("-xk" archive folder), first moving an existing folder there
  // into the trash (without unlocking or escalating). True when the folder exists afterwards.
  static bool decompressFile(const std::string& archive, const std::string& folder,
                             const Environment& environment = Environment::shared(),
                             QVTaskEx::TimeLimit limit = kArchiveTimeLimit);
  // The longest any operation gives ditto.
  static constexpr QVTaskEx::TimeLimit kArchiveTimeLimit = std::chrono::seconds(30);

  // ---- Names and paths

  // A file name made safe: "" for ".", otherwise one leading dot dropped, white space and line
  // breaks trimmed at both ends, every "/" and ":" removed.
  static std::string validateFilename(std::string_view name);
  // The path itself when nothing is there, else the first free "<path less extension> <n>.<ext>"
  // for n = 2, 3, ... (no dot for a path without extension).
  static std::string uniqueFilename(const std::string& path);
  // The first match of the pattern, or base/pattern when nothing matches.
  static std::string decodeWildcardPath(const std::string& pattern,
                                        const std::optional<std::string>& base);
  // The existing paths that a pattern with "*" and "?" in its components matches, one
  // component at a time, in name order. A pattern without "*" answers base/pattern whether or
  // not it exists. Without base, the search starts at "/"; an absolute pattern also starts at
  // base. searchSubdirs is accepted and has no effect. Entries that "*" matched are never
  // followed when they are links to folders; a match stops after kWildcardMatchLimit paths.
  static std::vector<std::string>
  filesMatchingWildcardPath(const std::string& pattern,
                            const std::optional<std::string>& base = std::nullopt,
                            bool searchSubdirs = false);
  static constexpr std::size_t kWildcardMatchLimit = 1'000'000;
  // A path fit for one log line: control characters and bytes that are not UTF-8 escaped.
  static std::string printable(std::string_view path);

  // ---- Formatting, creating, touching, waiting, hashing

  // "1023 B", "1.00 KB", "1.00 MB", "1.00 GB": each threshold belongs to the larger unit.
  static std::string formatFileSize(double bytes);
  // An empty file at path, moved there (escalating) from a fresh temporary file.
  static bool createEmptyFile(const std::string& path, QVAuthorization::Session* rights = nullptr,
                              const Environment& environment = Environment::shared());
  // touch -c through the tool table: directly when the path is writable (true then), else
  // with rights (true when they ran it). A creation date cannot be set on this platform: the
  // flag is accepted and the file keeps the birth date its file system recorded.
  static bool touchFile(const std::optional<std::string>& path, bool setCreationDate = false,
                        QVAuthorization::Session* rights = nullptr,
                        const Environment& environment = Environment::shared());
  // Looks once: a file that is missing or empty is logged as not yet created and waited for
  // 500 microseconds. Only once, whatever the timeout: callers rely on the brief pause.
  static void waitForFileCreation(const std::string& path, Timeout timeout,
                                  const platform::Clock& clock = platform::Clock::system());
  // Waits, in 500-microsecond steps, while the file was modified less than 4 seconds ago (or
  // was not, but lockFile exists beside it), logging the start and the end of the wait. A file
  // that disappears ends the wait; a date more than 4 seconds ahead is a skewed clock, not a
  // writer, and is not waited for.
  static void waitForFileWrites(const std::string& path,
                                const std::optional<std::string>& lockFile = std::nullopt,
                                const platform::Clock& clock = platform::Clock::system());
  // Finish a copy of a running digest: lower-case hexadecimal, 32 and 40 characters.
  static std::string md5HashWithContext(Md5Context context);
  static std::string sha1HashWithContext(Sha1Context context);

private:
  // The plain form's end state, polled on the clock until it holds or the time is up.
  template <typename EndState>
  static bool pollUntil(const Environment& environment, Timeout timeout, EndState&& endState);
  // Moves into the trash without unlocking or escalating.
  static bool recycle(const std::string& path, const Environment& environment);
};

} // namespace kestrin
