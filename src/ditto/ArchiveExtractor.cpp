#include "ditto/ArchiveExtractor.h"

#include <cerrno>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ditto/EntryPath.h"
#include "ditto/Placement.h"
#include "ditto/Staging.h"
#include "support/Syscall.h"

namespace kestrin::ditto {

namespace fs = std::filesystem;

namespace {

struct FreeReader {
  void operator()(archive* reader) const { archive_read_free(reader); }
};
struct FreeWriter {
  void operator()(archive* writer) const { archive_write_free(writer); }
};
using Reader = std::unique_ptr<archive, FreeReader>;
using Writer = std::unique_ptr<archive, FreeWriter>;

constexpr std::size_t kReadBlock = 64 * 1024;

// Every name reaches the disk as the staging folder's absolute path plus the entry's checked
// name. That is why ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS is not among these flags: it would
// refuse every such name. entryComponents() refuses absolute names before the prefix is put on,
// and hard links, whose targets would need the same treatment, are refused outright. The two
// flags that remain still act on every entry: no "..", nothing written through a link.
constexpr int kExtractFlags = ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM |
                              ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NODOTDOT;

std::string errorOf(archive* handle) {
  const char* text = archive_error_string(handle);
  return text != nullptr ? text : "unknown error";
}

// Where the extracted tree goes, and where it is built before that.
struct Site {
  fs::path stagingFolder; // the folder the hidden staging folder is made in (no links in it)
  fs::path target;        // the destination, without links in its folders
  bool merge = false;     // the destination exists and the tree is merged into it
  std::vector<fs::path> madeParents; // missing parents made for it, outermost first
};

void removeMadeParents(const Site& site) {
  for (auto it = site.madeParents.rbegin(); it != site.madeParents.rend(); ++it) {
    ::rmdir(it->c_str());
  }
}

Expected<Site> prepareSite(const fs::path& destination) {
  std::error_code ec;
  fs::path target = fs::absolute(destination, ec);
  if (destination.empty() || ec) {
    return Failure{quotedName(destination.string()) + ": not a usable destination"};
  }
  while (target.has_relative_path() && target.filename().empty()) {
    target = target.parent_path(); // "dir/" names dir
  }
  Site site;
  struct stat info {};
  if (::stat(target.c_str(), &info) == 0) {
    if (!S_ISDIR(info.st_mode)) {
      return Failure{quotedName(target.string()) + ": there already and not a folder"};
    }
    site.target = fs::canonical(target, ec);
    if (ec) {
      return Failure{quotedName(target.string()) + ": " + ec.message()};
    }
    // Inside the destination: whoever may extract into it may make the staging folder there.
    site.stagingFolder = site.target;
    site.merge = true;
    return site;
  }
  if (errno != ENOENT || target.filename() == "." || target.filename() == "..") {
    return Failure{errnoMessage(quotedName(target.string()))};
  }
  std::vector<fs::path> missing;
  for (fs::path folder = target.parent_path(); ::stat(folder.c_str(), &info) != 0;
       folder = folder.parent_path()) {
    missing.insert(missing.begin(), folder);
  }
  for (const fs::path& folder : missing) {
    if (::mkdir(folder.c_str(), 0777) != 0) {
      auto failure = Failure{errnoMessage(quotedName(folder.string()))};
      removeMadeParents(site);
      return failure;
    }
    site.madeParents.push_back(folder);
  }
  site.stagingFolder = fs::canonical(target.parent_path(), ec);
  if (ec) {
    removeMadeParents(site);
    return Failure{quotedName(target.parent_path().string()) + ": " + ec.message()};
  }
  site.target = site.stagingFolder / target.filename();
  return site;
}

// One pass over the archive's entries into the staging folder.
class Extraction {
public:
  Extraction(archive* reader, fs::path staging, const ExtractionLimits& limits,
             const std::atomic<bool>* stop)
      : reader_(reader), staging_(std::move(staging)), limits_(limits), stop_(stop) {}

  Expected<void> run() {
    Writer writer(archive_write_disk_new());
    if (!writer || archive_write_disk_set_options(writer.get(), kExtractFlags) != ARCHIVE_OK) {
      return Failure{"cannot set up extraction"};
    }
    writer_ = writer.get();
    for (;;) {
      if (stopped()) {
        return Failure{"stopped before the end"};
      }
      archive_entry* entry = nullptr;
      int status = archive_read_next_header(reader_, &entry);
      if (status == ARCHIVE_EOF) {
        break;
      }
      if (status < ARCHIVE_WARN) {
        return Failure{entriesRead_ == 0 ? "not a zip archive (" + errorOf(reader_) + ")"
                                         : errorOf(reader_)};
      }
      // No name at all when the archive flags it as UTF-8 and it is not.
      const char* rawName = archive_entry_pathname(entry);
      std::string name = rawName != nullptr ? rawName : "";
      if (++entriesRead_ > limits_.maxEntries) {
        return Failure{quotedName(name) + ": the archive has more than " +
                       std::to_string(limits_.maxEntries) + " entries"};
      }
      auto extracted = extract(entry, name);
      if (!extracted) {
        return extracted;
      }
    }
    if (entriesWritten_ == 0) {
      return Failure{"the archive holds nothing to extract"};
    }
    // Now that every link is out, a chain of them is judged by where it really leads.
    for (const auto& link : links_) {
      if (!linkStaysInside(staging_, link.folder, link.target)) {
        return Failure{linkRefusal(link.name, link.target)};
      }
    }
    // Folders get their modes and times here, after their contents.
    if (archive_write_close(writer_) != ARCHIVE_OK) {
      return Failure{errorOf(writer_)};
    }
    return {};
  }

private:
  struct Link {
    std::string name;
    std::vector<std::string> folder;
    std::string target;
  };

  bool stopped() const { return stop_ != nullptr && stop_->load(); }

  static std::string linkRefusal(const std::string& name, const std::string& target) {
    return quotedName(name) + ": the link to " + quotedName(target) +
           " leads outside the destination";
  }

  Expected<void> extract(archive_entry* entry, const std::string& name) {
    auto components = entryComponents(name);
    if (!components) {
      return Failure{quotedName(name) + ": " + components.message()};
    }
    // The archive's root itself, and the resource forks a Mac sets aside: nothing to write.
    if (components->empty() || components->front() == "__MACOSX") {
      return {};
    }
    if (archive_entry_hardlink(entry) != nullptr) {
      return Failure{quotedName(name) + ": hard links are not extracted"};
    }
    auto type = archive_entry_filetype(entry);
    if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK) {
      return Failure{quotedName(name) + ": devices, FIFOs and sockets are not extracted"};
    }
    std::string path = staging_.string() + "/" + joinComponents(*components);
    // Longer paths would make libarchive change directory to reach them.
    if (path.size() >= PATH_MAX) {
      return Failure{quotedName(name) + ": the path is too long"};
    }
    if (type == AE_IFLNK) {
      const char* target = archive_entry_symlink(entry);
      Link link{name, {components->begin(), components->end() - 1}, target ? target : ""};
      if (!linkStaysInside(staging_, link.folder, link.target)) {
        return Failure{linkRefusal(name, link.target)};
      }
      links_.push_back(std::move(link));
    }
    if (type == AE_IFREG && archive_entry_size_is_set(entry) &&
        static_cast<std::uint64_t>(archive_entry_size(entry)) > limits_.maxBytes - bytes_) {
      return Failure{quotedName(name) + ": declares " + std::to_string(archive_entry_size(entry)) +
                     " bytes, more than the " + std::to_string(limits_.maxBytes) +
                     " bytes an archive may hold"};
    }
    archive_entry_set_pathname(entry, path.c_str());
    // Keep what the bits say about reading, writing and running; never hand out set-id bits
    // to files that whoever made the archive chose.
    archive_entry_set_perm(entry, archive_entry_perm(entry) & 0777);
    if (archive_write_header(writer_, entry) < ARCHIVE_WARN) {
      return Failure{quotedName(name) + ": " + errorOf(writer_)};
    }
    if (type == AE_IFREG) {
      auto copied = copyData(name);
      if (!copied) {
        return copied;
      }
    }
    if (archive_write_finish_entry(writer_) < ARCHIVE_WARN) {
      return Failure{quotedName(name) + ": " + errorOf(writer_)};
    }
    ++entriesWritten_;
    return {};
  }

  Expected<void> copyData(const std::string& name) {
    for (;;) {
      if (stopped()) {
        return Failure{"stopped before the end"};
      }
      const void* block = nullptr;
      std::size_t size = 0;
      la_int64_t offset = 0;
      int status = archive_read_data_block(reader_, &block, &size, &offset);
      if (status == ARCHIVE_EOF) {
        return {};
      }
      if (status < ARCHIVE_WARN) {
        return Failure{quotedName(name) + ": " + errorOf(reader_)};
      }
      bytes_ += size;
      if (bytes_ > limits_.maxBytes) {
        return Failure{quotedName(name) + ": more than the " + std::to_string(limits_.maxBytes) +
                       " bytes an archive may hold"};
      }
      if (archive_write_data_block(writer_, block, size, offset) < ARCHIVE_WARN) {
        return Failure{quotedName(name) + ": " + errorOf(writer_)};
      }
    }
  }

  archive* reader_;
  archive* writer_ = nullptr;
  fs::path staging_;
  ExtractionLimits limits_;
  const std::atomic<bool>* stop_;
  std::uint64_t entriesRead_ = 0;
  std::uint64_t entriesWritten_ = 0;
  std::uint64_t bytes_ = 0;
  std::vector<Link> links_;
};

template <typename Open>
Expected<void> extractFrom(Open&& open, const std::string& archiveName, const fs::path& destination,
                           const ExtractionLimits& limits, const std::atomic<bool>* stop) {
  Reader reader(archive_read_new());
  if (!reader || archive_read_support_format_zip(reader.get()) != ARCHIVE_OK) {
    return Failure{"cannot set up reading"};
  }
  if (open(reader.get()) != ARCHIVE_OK) {
    // The bytes are at hand by now, and the format is recognised while opening.
    return Failure{quotedName(archiveName) + ": not a zip archive (" + errorOf(reader.get()) + ")"};
  }
  auto site = prepareSite(destination);
  if (!site) {
    return site.failure();
  }
  auto staging = createStagingFolder(site->stagingFolder, site->target.filename().string());
  if (!staging) {
    removeMadeParents(*site);
    return staging.failure();
  }
  auto extracted = Extraction(reader.get(), *staging, limits, stop).run();
  if (extracted) {
    if (site->merge) {
      extracted = mergeInto(*staging, site->target);
    } else if (::rename(staging->c_str(), site->target.c_str()) != 0) {
      extracted = Failure{errnoMessage(quotedName(site->target.string()))};
    }
  }
  if (!extracted) {
    removeStaged(*staging);
    removeMadeParents(*site);
    return Failure{quotedName(archiveName) + ": " + extracted.message()};
  }
  if (site->merge) {
    removeStaged(*staging); // emptied by the merge
  }
  return {};
}

} // namespace

Expected<void> extractZipArchive(const fs::path& archive, const fs::path& destination,
                                 const ExtractionLimits& limits, const std::atomic<bool>* stop) {
  int descriptor = retryOnEintr([&] { return ::open(archive.c_str(), O_RDONLY | O_CLOEXEC); });
  if (descriptor < 0) {
    return Failure{errnoMessage(quotedName(archive.string()))};
  }
  auto extracted = extractFrom(
      [&](struct archive* reader) { return archive_read_open_fd(reader, descriptor, kReadBlock); },
      archive.string(), destination, limits, stop);
  ::close(descriptor);
  return extracted;
}

Expected<void> extractZipArchive(std::span<const std::byte> archive, const fs::path& destination,
                                 const ExtractionLimits& limits, const std::atomic<bool>* stop) {
  return extractFrom(
      [&](struct archive* reader) {
        return archive_read_open_memory(reader, archive.data(), archive.size());
      },
      "archive in memory", destination, limits, stop);
}

} // namespace kestrin::ditto
