#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Running the tasks that the maker's applications declare in their QVTasks.plist, as the
// agent's user or with an administrator's rights, finding those applications, and listing the
// tasks for the admin side.
class TaskOperations {
public:
  explicit TaskOperations(const Services& services);
  void registerIn(OperationTable& table);

  void executeTask(std::string taskId, std::string bundleId, std::optional<plist::Array> options);
  void authExecuteTask(const Caller& caller, std::string taskId, std::string bundleId,
                       std::optional<plist::Array> options, std::optional<std::string> user,
                       plist::Value password);
  // The same run, reporting to the call's own callback instead of the error channel: each
  // failure and, on success, the tool's output arrive under "output".
  void authExecuteTaskWithCallback(const Caller& caller, std::string taskId, std::string bundleId,
                                   std::optional<plist::Array> options,
                                   std::optional<std::string> user, plist::Value password,
                                   std::optional<plist::ObjectRef> callback,
                                   plist::Value callbackName);
  plist::Array qvAppTasks();
  std::optional<std::string> pathForAppWithBundleID(std::string bundleId);
  std::optional<std::string> exePathForAppWithBundleID(std::string bundleId);
  std::optional<std::string> pathForBundleIDInFolder(std::string bundleId, std::string folder);
  plist::Array qvAppsInFolder(std::string folder);
  void setupIconDict();
  plist::Value dictionaryFromData(plist::Data data);

private:
  struct Resolved;
  Resolved resolveTask(const std::string& taskId, const std::string& bundleId,
                       const plist::Array& options, const char* missingApplication);
  std::optional<plist::Data> iconOf(const std::string& bundlePath);

  const Services services_; // references: a copy is as good as the original

  // Converted icons by source file. Listing runs the converter once per icon file rather than
  // once per application and call: the generic icon alone serves most bundles.
  struct CachedIcon {
    std::filesystem::file_time_type modified;
    std::uintmax_t size = 0;
    plist::Data tiff;
  };
  std::mutex iconsMutex_;
  std::map<std::string, CachedIcon> icons_;
};

} // namespace kestrin::operations
