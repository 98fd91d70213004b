#include "operations/SoftwareUpdateOperations.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include <fmt/format.h>

#include "foundation/DigestContext.h"
#include "foundation/PreferenceFile.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "foundation/WorkerPool.h"
#include "operations/AgentControl.h"
#include "operations/ApplicationCatalog.h"
#include "operations/CredentialOperations.h"
#include "operations/ErrorChannel.h"
#include "operations/ExceptionGuard.h"
#include "operations/MakerApplications.h"
#include "operations/MakerTool.h"
#include "platform/AtomicFile.h"
#include "platform/ToolTable.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

using namespace std::chrono_literals;

constexpr auto kCountInterval = 24h;
constexpr double kCountIntervalSeconds = 86400;
constexpr QVTaskEx::TimeLimit kListLimit = 60s;
constexpr QVTaskEx::TimeLimit kKillLimit = 10s;
constexpr QVTaskEx::TimeLimit kUnpackLimit = 30s;
constexpr double kInstallDeadlineSeconds = 360;
// Updaters up to this build cannot list for the agent: they are replaced first.
constexpr std::int64_t kLastTooOldVersion = 1269;
constexpr const char* kInvalidURL = "Unable to initiate manual download - invalid URL.";
constexpr const char* kMissingUpdater =
    "Cannot find the location of the Quorvane Software Update application";

std::string hexOf(const plist::Data& bytes) {
  std::string hex;
  for (std::uint8_t byte : bytes) {
    hex += fmt::format("{:02x}", byte);
  }
  return hex;
}

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Control characters and blanks have no place in an address handed to the desktop.
bool isPlainURL(const std::string& url) {
  return std::none_of(url.begin(), url.end(),
                      [](unsigned char c) { return c <= ' ' || c == 0x7f; });
}

} // namespace

// The timer that refreshes the count a day later: at most one pending.
struct SoftwareUpdateOperations::Schedule {
  std::mutex mutex;
  Timer::Id pending = 0; // under mutex
  SoftwareUpdateOperations* owner = nullptr;
};

platform::HttpLimits SoftwareUpdateOperations::defaultFeedLimits() {
  platform::HttpLimits limits;
  limits.total = 60s;
  limits.maxBytes = std::size_t{1} << 20;
  return limits;
}

platform::HttpLimits SoftwareUpdateOperations::defaultArchiveLimits() {
  platform::HttpLimits limits;
  limits.total = 30min;
  limits.maxBytes = std::size_t{512} << 20;
  return limits;
}

SoftwareUpdateOperations::SoftwareUpdateOperations(const Services& services,
                                                   platform::HttpLimits feedLimits,
                                                   platform::HttpLimits archiveLimits)
    : services_(services), feedLimits_(feedLimits), archiveLimits_(archiveLimits),
      schedule_(std::make_shared<Schedule>()) {
  schedule_->owner = this;
}

SoftwareUpdateOperations::~SoftwareUpdateOperations() {
  std::lock_guard lock(schedule_->mutex);
  services_.timer.cancel(schedule_->pending);
  schedule_->owner = nullptr;
}

void SoftwareUpdateOperations::registerIn(OperationTable& table) {
  using S = SoftwareUpdateOperations;
  table.add("softwareUpdateAvailableUpdateCount", *this, &S::availableUpdateCountUnforced, 0);
  table.add("softwareUpdateAvailableUpdateCount:", *this, &S::availableUpdateCount, 0);
  table.add("forceSoftwareUpdateCheck", *this, &S::forceSoftwareUpdateCheck);
  table.add("fetchSoftwareUpdateAvailableUpdateCount", *this, &S::fetchAvailableUpdateCount);
  table.add("listQuorvaneSoftwareUpdates", *this, &S::listUpdates);
  table.add("installQuorvaneSoftwareUpdate:settings:", *this, &S::installUpdate);
  table.add("softwareUpdateManualInstall:", *this, &S::manualInstall);
}

std::string SoftwareUpdateOperations::setting(const char* key, const char* fallback) const {
  plist::Value value = services_.settings.object(key);
  if (const std::string* text = value.asString(); text != nullptr && !text->empty()) {
    return *text;
  }
  return fallback;
}

plist::Value SoftwareUpdateOperations::availableUpdateCount(bool force) {
  services_.errorChannel.setProcessingCancelled(false);
  plist::Value automatic = services_.settings.object("autoUpdateCheck");
  if (automatic.integerValue() == 0 && (automatic.asInteger() || automatic.asBool())) {
    return 0;
  }
  plist::Value count = services_.agent.availableUpdateCount();
  auto date = services_.agent.availableUpdateCountLastUpdate().asDate();
  double age = date ? services_.timer.clock().date().seconds - date->seconds : 0;
  if (force || count.isNull() || !date || age > kCountIntervalSeconds) {
    listUpdates();
  }
  scheduleNextCount();
  services_.errorChannel.performErrorCallbackSelector("updateConfig:", services_.agent.hostName());
  return services_.agent.availableUpdateCount();
}

void SoftwareUpdateOperations::scheduleNextCount() {
  std::lock_guard lock(schedule_->mutex);
  services_.timer.cancel(schedule_->pending);
  std::weak_ptr<Schedule> weak = schedule_;
  WorkerPool& workers = services_.workers;
  // The count runs the updater: never on the timer's own thread.
  schedule_->pending = services_.timer.runAfter(kCountInterval, [weak, &workers] {
    workers.submit([weak] {
      auto schedule = weak.lock();
      if (!schedule) {
        return;
      }
      SoftwareUpdateOperations* owner = nullptr;
      {
        std::lock_guard lock(schedule->mutex);
        owner = schedule->owner;
      }
      if (owner != nullptr) {
        owner->services_.guard.run("-[AppController softwareUpdateAvailableUpdateCount]",
                                   [owner] { owner->availableUpdateCount(false); });
      }
    });
  });
}

void SoftwareUpdateOperations::fetchAvailableUpdateCount() {
  plist::Value count = availableUpdateCount(false);
  services_.errorChannel.performErrorCallbackSelector("setSoftwareUpdateCount:hostname:", count,
                                                      services_.agent.hostName());
}

std::optional<plist::Dictionary> SoftwareUpdateOperations::listUpdates() {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Getting Quorvane software updates...");
  std::optional<std::string> executable;
  if (auto bundle = services_.applications.pathForAppWithBundleID(kUpdaterIdentifier)) {
    executable = executableOfBundle(*bundle);
    auto info = plist::readFile(*bundle + "/Contents/Info.plist");
    if (info) {
      const plist::Value* version = info->get("CFBundleVersion");
      auto build = version != nullptr ? version->integerValue() : std::nullopt;
      if (!build || *build <= kLastTooOldVersion) {
        std::string folder = std::filesystem::path(*bundle).parent_path().string();
        executable = downloadAndInstallSoftwareUpdater(folder);
      }
    }
  } else {
    executable = downloadAndInstallSoftwareUpdater(std::nullopt);
  }
  if (!executable) {
    QVLog::appendLog("{}", kMissingUpdater);
    return std::nullopt;
  }
  QVLog::appendLog("Found application at path {} for bundle ID {}", *executable,
                   kUpdaterIdentifier);
  QVLog::appendLog("Killing existing tasks...");
  // Waited for, briefly: a killall still running would end the updater started next.
  QVTaskEx::terminationCodeFromTask(services_.tools.path(platform::Tool::Killall), {kUpdaterName},
                                    kKillLimit, services_.timer);
  QVLog::appendLog("Launching task...");
  auto output = QVTaskEx::dataFromTask(*executable, {"-list", "-forceIDs", "com.quorvane.ambrant"},
                                       kListLimit, services_.timer);
  if (!output || output->empty()) {
    QVLog::appendLog("No data from Software Update task");
    return std::nullopt;
  }
  auto list = MakerTool::dictionaryFromOutput(*output);
  if (!list) {
    QVLog::appendLog("Could not convert data to dictionary: {}", list.message());
    return std::nullopt;
  }
  plist::Dictionary result = std::move(*list);
  const plist::Value* updates = result.find("updates");
  const plist::Array* entries = updates != nullptr ? updates->asArray() : nullptr;
  if (entries != nullptr) {
    for (const plist::Value& entry : *entries) {
      const plist::Value* identifier = entry.get("bundleid");
      // Lowercased, then compared with a capital letter: never equal, so the whole list is
      // answered. This is the behaviour admins have always seen, and it stays.
      if (identifier != nullptr && identifier->asString() &&
          lowercase(*identifier->asString()) == "com.quorvane.Kestrin") {
        result = plist::Dictionary{{"updates", plist::Array{entry}}};
        break;
      }
    }
  }
  const plist::Value* kept = result.find("updates");
  std::int64_t count =
      kept != nullptr && kept->asArray() ? static_cast<std::int64_t>(kept->asArray()->size()) : 0;
  plist::Date now = services_.timer.clock().date();
  services_.agent.setAvailableUpdateCount(count, now);
  for (auto [key, value] : {std::pair{"availableUpdateCount", plist::Value(count)},
                            std::pair{"availableUpdateCountLastUpdate", plist::Value(now)}}) {
    if (auto stored = services_.settings.setObject(value, key); !stored) {
      QVLog::appendLog("Unable to store {}: {}", key, stored.message());
    }
  }
  return result;
}

void SoftwareUpdateOperations::installUpdate(const Caller& caller,
                                             std::optional<plist::Dictionary> credentials,
                                             plist::Dictionary settings) {
  services_.errorChannel.setProcessingCancelled(false);
  constexpr const char* kSelector = "installQuorvaneSoftwareUpdate:settings:";
  const plist::Value* type = settings.find("obj1");
  auto identifier = settingsArgument<std::optional<std::string>>(settings, "obj2", kSelector);
  QVLog::appendLog("Installing update for {}", identifier.value_or("(null)"));
  std::optional<std::string> typeText =
      type != nullptr && !type->isNull() ? argumentText(*type) : std::nullopt;
  if (type != nullptr && !type->isNull() && !typeText) {
    throwWrongSetting("obj1", kSelector, "a string or a number", *type);
  }
  if (!typeText) {
    QVLog::appendLog("Error: no type data found");
    return;
  }
  if (!identifier || identifier->empty()) {
    QVLog::appendLog("Error: no bundle ID specified");
    return;
  }
  auto session = CredentialOperations(services_.credentials, services_.errorChannel)
                     .sessionFor(caller, credentials);
  if (!session.isAuthorized()) {
    services_.errorChannel.postErrorWithCode(1006, std::nullopt);
    return;
  }
  auto executable = MakerTool(services_, kUpdaterName, kUpdaterIdentifier).find(true);
  if (!executable) {
    return;
  }
  QVLog::appendLog("Launching task...");
  services_.errorChannel.shouldPostFinishedTaskWithTimeout(kInstallDeadlineSeconds);
  QVLog::appendLog("Executing auth task...");
  session.authExecTask(*executable, {"-install", *typeText, *identifier});
  QVLog::appendLog("Ending authorization...");
  session.authEnd();
}

void SoftwareUpdateOperations::manualInstall(std::string url) {
  services_.errorChannel.setProcessingCancelled(false);
  std::string site = setting("softwareUpdateSiteURL", kDefaultSiteURL);
  // The prefix ends at a folder, so that "https://maker.example" never admits
  // "https://maker.example.evil/".
  if (site.empty() || site.back() != '/') {
    site += '/';
  }
  if (url.size() <= site.size() || url.compare(0, site.size(), site) != 0 || !isPlainURL(url) ||
      !platform::isFetchableUrl(url)) {
    QVLog::appendLog("{}", kInvalidURL);
    services_.errorChannel.postErrorString(kInvalidURL, plist::Value());
    return;
  }
  QVLog::appendLog("Beginning manual download of {}...", url);
  QVTaskEx::runTaskAndReturn(services_.tools.path(platform::Tool::XdgOpen), {url});
}

std::optional<std::string> SoftwareUpdateOperations::downloadAndInstallSoftwareUpdater(
    std::optional<std::string> destination) {
  QVLog::appendLog("Downloading and installing Quorvane software updater...");
  std::string folder = destination.value_or(
      services_.paths.applicationDirectory(false).value_or("/Applications") + "/Quorvane");
  const char* environmentFeed = std::getenv("KESTRIN_SOFTWARE_UPDATE_FEED");
  std::string feedURL = setting(
      "softwareUpdateFeedURL",
      environmentFeed != nullptr && environmentFeed[0] != '\0' ? environmentFeed : kDefaultFeedURL);
  auto feedBytes = platform::httpGet(feedURL, feedLimits_);
  if (!feedBytes) {
    QVLog::appendLog("Unable to read the software update feed: {}", feedBytes.message());
    return std::nullopt;
  }
  auto feed = plist::parse(*feedBytes);
  const plist::Value* archiveURL = feed ? feed->get("alternateURL") : nullptr;
  if (archiveURL == nullptr || archiveURL->asString() == nullptr) {
    QVLog::appendLog("Unable to read the software update feed: {} holds no \"alternateURL\"",
                     feedURL);
    return std::nullopt;
  }
  auto archive = platform::httpGet(*archiveURL->asString(), archiveLimits_);
  if (!archive || archive->empty()) {
    QVLog::appendLog("Unable to download the software updater: {}",
                     archive ? "the archive is empty" : archive.message());
    return std::nullopt;
  }
  if (const plist::Value* expected = feed->get("alternateSHA256")) {
    Sha256Context digest;
    digest.update(*archive);
    std::string actual = hexOf(digest.digest());
    std::string wanted = lowercase(expected->asString() ? *expected->asString() : "");
    if (actual != wanted) {
      QVLog::appendLog("Refusing the downloaded software updater: its SHA-256 is {}, the feed "
                       "says {}",
                       actual, wanted);
      return std::nullopt;
    }
  }
  std::string archivePath = folder + "/Quorvane Software Update.zip";
  std::string bundlePath = folder + "/Quorvane Software Update.app";
  std::string executablePath = bundlePath + "/Contents/MacOS/Quorvane Software Update";
  if (!QVFileManager::isDirectoryAtPath(folder)) {
    QVFileManager::createDirectory(folder, false);
  }
  if (auto written = platform::writeFileAtomically(archivePath, *archive, 0644); !written) {
    QVLog::appendLog("Unable to install software updater: {}", written.message());
    return std::nullopt;
  }
  if (QVFileManager::fileExistsAtPath(executablePath)) {
    QVFileManager::removeFile(executablePath, false);
  }
  int status = QVTaskEx::terminationCodeFromTask(services_.tools.path(platform::Tool::Ditto),
                                                 {"-x", "-k", archivePath, folder}, kUnpackLimit,
                                                 services_.timer);
  QVFileManager::removeFile(archivePath, false);
  if (!QVFileManager::fileExistsAtPath(executablePath)) {
    QVLog::appendLog("Unable to install software updater - error code {}", status);
    return std::nullopt;
  }
  QVFileManager::notifyFileSystemChanged(bundlePath);
  return executablePath;
}

} // namespace kestrin::operations
