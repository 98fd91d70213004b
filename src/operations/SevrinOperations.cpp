#include "operations/SevrinOperations.h"

#include "foundation/QVLog.h"
#include "foundation/QVSysInfo.h"
#include "operations/ErrorChannel.h"
#include "platform/SystemFacts.h"

namespace kestrin::operations {

void SevrinOperations::registerIn(OperationTable& table) {
  table.add("sevrinSystemInfo", *this, &SevrinOperations::sevrinSystemInfo);
}

plist::Dictionary SevrinOperations::sevrinSystemInfo() {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Getting system info for Sevrin...");
  return profile();
}

void SevrinOperations::cacheSevrinSystemInfo() {
  sevrinSystemInfo();
}

const plist::Dictionary& SevrinOperations::profile() {
  std::lock_guard lock(mutex_);
  if (!profile_) {
    profile_ = QVSysInfo(paths_, platform::SystemFacts::current()).systemProfile();
  }
  return *profile_;
}

} // namespace kestrin::operations
