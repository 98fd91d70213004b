#include "ditto/ArchiveWriter.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ditto/EntryPath.h"
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
struct FreeEntry {
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

// Far deeper than any real tree; a walk that goes past it is going round in circles (a bind
// mount of a folder inside itself).
constexpr std::size_t kMaxDepth = 512;
constexpr int kOutputBlock = 64 * 1024;
// A zip carries none of these, so the walk need not read them.
constexpr int kWalkBehaviour = ARCHIVE_READDISK_NO_XATTR | ARCHIVE_READDISK_NO_ACL |
                               ARCHIVE_READDISK_NO_FFLAGS | ARCHIVE_READDISK_NO_SPARSE;

std::string errorOf(archive* handle) {
  const char* text = archive_error_string(handle);
  return text != nullptr ? text : "unknown error";
}

// The walk and the writing, from an open walk into an open archive.
class Compression {
public:
  Compression(archive* walk, archive* writer, std::string root, std::string base,
              const struct stat& output, const std::atomic<bool>* stop)
      : walk_(walk), writer_(writer), root_(std::move(root)), base_(std::move(base)),
        output_(output), stop_(stop) {}

  Expected<void> run() {
    std::unique_ptr<archive_entry, FreeEntry> entry(archive_entry_new());
    for (;;) {
      if (stopped()) {
        return Failure{"stopped before the end"};
      }
      archive_entry_clear(entry.get());
      int status = archive_read_next_header2(walk_, entry.get());
      if (status == ARCHIVE_EOF) {
        return {};
      }
      if (status < ARCHIVE_WARN) {
        return Failure{errorOf(walk_)};
      }
      auto added = add(entry.get());
      if (!added) {
        return added;
      }
    }
  }

private:
  bool stopped() const { return stop_ != nullptr && stop_->load(); }

  Expected<void> add(archive_entry* entry) {
    std::string path = archive_entry_pathname(entry);
    std::string relative = path.substr(std::min(path.size(), root_.size()));
    relative.erase(0, relative.find_first_not_of('/'));
    if (std::count(relative.begin(), relative.end(), '/') >= static_cast<long>(kMaxDepth)) {
      return Failure{quotedName(path) + ": folders nested deeper than " +
                     std::to_string(kMaxDepth)};
    }
    if (archive_read_disk_can_descend(walk_) && archive_read_disk_descend(walk_) != ARCHIVE_OK) {
      return Failure{quotedName(path) + ": " + errorOf(walk_)};
    }
    // The archive being written, when it lies inside the source.
    if (archive_entry_dev(entry) == output_.st_dev &&
        static_cast<ino_t>(archive_entry_ino64(entry)) == output_.st_ino) {
      return {};
    }
    std::string name = base_;
    if (!relative.empty()) {
      name += (name.empty() ? "" : "/") + relative;
    }
    if (name.empty()) {
      return {}; // the source folder itself, when its name is not kept
    }
    auto type = archive_entry_filetype(entry);
    if (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK) {
      std::fprintf(stderr, "ditto: %s: left out, not a file, folder or link\n",
                   quotedName(path).c_str());
      return {};
    }
    archive_entry_set_pathname(entry, name.c_str());
    if (archive_write_header(writer_, entry) < ARCHIVE_WARN) {
      return Failure{quotedName(path) + ": " + errorOf(writer_)};
    }
    if (type == AE_IFREG) {
      return copyData(path);
    }
    return {};
  }

  Expected<void> copyData(const std::string& path) {
    for (;;) {
      if (stopped()) {
        return Failure{"stopped before the end"};
      }
      const void* block = nullptr;
      std::size_t size = 0;
      la_int64_t offset = 0;
      int status = archive_read_data_block(walk_, &block, &size, &offset);
      if (status == ARCHIVE_EOF) {
        return {};
      }
      if (status < ARCHIVE_WARN) {
        return Failure{quotedName(path) + ": " + errorOf(walk_)};
      }
      if (archive_write_data(writer_, block, size) < 0) {
        return Failure{quotedName(path) + ": " + errorOf(writer_)};
      }
    }
  }

  archive* walk_;
  archive* writer_;
  std::string root_;
  std::string base_;
  struct stat output_;
  const std::atomic<bool>* stop_;
};

// The name a source goes by: its last component, or the folder's real name for "." and "..".
std::string ownName(const std::string& root) {
  fs::path path(root);
  std::string name = path.filename().string();
  if (name.empty() || name == "." || name == "..") {
    std::error_code ec;
    name = fs::canonical(path, ec).filename().string();
  }
  return name;
}

Expected<void> writeInto(const StagingFile& output, const std::string& root, bool keepParent,
                         const std::atomic<bool>* stop) {
  struct stat source {};
  if (::lstat(root.c_str(), &source) != 0) {
    return Failure{errnoMessage(quotedName(root))};
  }
  struct stat written {};
  if (::fstat(output.descriptor, &written) != 0) {
    return Failure{errnoMessage(quotedName(output.path.string()))};
  }
  std::unique_ptr<archive, FreeReader> walk(archive_read_disk_new());
  std::unique_ptr<archive, FreeWriter> writer(archive_write_new());
  if (!walk || !writer || archive_read_disk_set_symlink_physical(walk.get()) != ARCHIVE_OK ||
      archive_read_disk_set_behavior(walk.get(), kWalkBehaviour) != ARCHIVE_OK ||
      archive_write_set_format_zip(writer.get()) != ARCHIVE_OK ||
      archive_write_zip_set_compression_deflate(writer.get()) != ARCHIVE_OK ||
      archive_write_set_bytes_per_block(writer.get(), kOutputBlock) != ARCHIVE_OK ||
      archive_write_set_bytes_in_last_block(writer.get(), 1) != ARCHIVE_OK) {
    return Failure{"cannot set up compression"};
  }
  if (archive_write_open_fd(writer.get(), output.descriptor) != ARCHIVE_OK) {
    return Failure{quotedName(output.path.string()) + ": " + errorOf(writer.get())};
  }
  if (archive_read_disk_open(walk.get(), root.c_str()) != ARCHIVE_OK) {
    return Failure{quotedName(root) + ": " + errorOf(walk.get())};
  }
  std::string base = keepParent || !S_ISDIR(source.st_mode) ? ownName(root) : "";
  auto compressed = Compression(walk.get(), writer.get(), root, base, written, stop).run();
  if (!compressed) {
    return compressed;
  }
  // Writes the central directory, which is what makes the file a zip archive.
  if (archive_write_close(writer.get()) != ARCHIVE_OK) {
    return Failure{quotedName(output.path.string()) + ": " + errorOf(writer.get())};
  }
  return {};
}

} // namespace

Expected<void> writeZipArchive(const fs::path& source, const fs::path& archive, bool keepParent,
                               const std::atomic<bool>* stop) {
  std::string root = source.string();
  while (root.size() > 1 && root.back() == '/') {
    root.pop_back();
  }
  if (root.empty()) {
    return Failure{"no source"};
  }
  std::error_code ec;
  fs::path target = fs::absolute(archive, ec);
  std::string name = target.filename().string();
  if (ec || name.empty() || name == "." || name == "..") {
    return Failure{quotedName(archive.string()) + ": not a file name for an archive"};
  }
  auto output = createStagingFile(target.parent_path(), name);
  if (!output) {
    return output.failure();
  }
  auto written = writeInto(*output, root, keepParent, stop);
  if (::close(output->descriptor) != 0 && written) {
    written = Failure{errnoMessage(quotedName(output->path.string()))};
  }
  if (written && ::rename(output->path.c_str(), target.c_str()) != 0) {
    written = Failure{errnoMessage(quotedName(target.string()))};
  }
  if (!written) {
    ::unlink(output->path.c_str());
  }
  return written;
}

} // namespace kestrin::ditto
