#include "admin/QVErrorCallback.h"

#include <gtest/gtest.h>

namespace kestrin::admin {
namespace {

using plist::ErrorRecord;
using plist::Value;

struct RecordingParent : QVErrorCallback::Parent {
  std::vector<std::string> forgotten, notifications, events;
  void removeStoredPasswordForHost(const std::string& host) override { forgotten.push_back(host); }
  void postLocalNotification(const std::string& name) override { notifications.push_back(name); }
  void serviceEvent(const std::string& selector, const std::vector<Value>&) override {
    events.push_back(selector);
  }
};

class QVErrorCallbackTest : public ::testing::Test {
protected:
  ErrorRecord error(std::int64_t code) { return {"ambrantDomain", code, {{"info", "Tibbet"}}}; }
  std::string descriptionAt(std::size_t i) {
    plist::Array queue = callback.errorQueue();
    const Value* d = queue.at(i).get("description");
    return d && d->asString() ? *d->asString() : "(null)";
  }

  RecordingParent parent;
  double clock = 1000;
  QVErrorCallback callback{&parent, [this] { return plist::Date{clock}; }};
};

TEST_F(QVErrorCallbackTest, DescribesEveryCodeOfTheAgentsDomain) {
  auto text = [](std::int64_t code, const char* info = "Tibbet") {
    return QVErrorCallback::descriptionForError({"ambrantDomain", code, {{"info", info}}});
  };
  EXPECT_EQ(text(0), std::nullopt);
  EXPECT_EQ(text(1000), "Application Tibbet not found.");
  EXPECT_EQ(text(1001), "Could not find Info.plist file for application Tibbet not found.");
  EXPECT_EQ(text(1002), "Application Tibbet is outdated. Please update this application.");
  EXPECT_EQ(text(1003), "Task not found for application Tibbet. Please update this application.");
  EXPECT_EQ(text(1006), "Incorrect username or password.");
  EXPECT_EQ(text(2008), "Connection timed out. Please make sure that you have the latest version "
                        "of the client software.");
  for (std::int64_t unknown : {-1, 1, 999, 1004, 1500, 2000}) {
    EXPECT_EQ(text(unknown), "Unknown error. Please check error logs on the local machine.");
  }
  EXPECT_EQ(QVErrorCallback::descriptionForError({"NSPOSIXErrorDomain", 2, {}}),
            "Error Domain=NSPOSIXErrorDomain Code=2");
  for (std::int64_t code : {1000, 1001, 1002, 1003, 2001, 2006, 2007}) {
    EXPECT_EQ(QVErrorCallback::actionType(code), 1) << code;
  }
  EXPECT_EQ(QVErrorCallback::actionType(1006), 0);
}

TEST_F(QVErrorCallbackTest, RepeatsOfTheTwoNewestEntriesWithinTwoMinutesAreDropped) {
  callback.addErrorToQueue(error(1000), "a.local.");
  clock += 30;
  callback.addErrorToQueue(error(1000), "a.local.");
  callback.addErrorToQueue(error(1000), "b.local."); // another host is not a repeat
  ASSERT_EQ(callback.errorQueue().size(), 2u);

  clock += 119; // 149 s after the first, 119 s after b's
  callback.addErrorToQueue(error(1000), "b.local.");
  EXPECT_EQ(callback.errorQueue().size(), 2u);
  clock += 2; // now b's entry is more than 120 s old
  callback.addErrorToQueue(error(1000), "b.local.");
  EXPECT_EQ(callback.errorQueue().size(), 3u);
}

TEST_F(QVErrorCallbackTest, OnlyTheTwoNewestEntriesAreCompared) {
  callback.addErrorToQueue(error(1000), "a.local.");
  callback.addErrorToQueue(error(1002), "a.local.");
  callback.addErrorToQueue(error(1003), "a.local.");
  callback.addErrorToQueue(error(1000), "a.local."); // third newest: not compared
  ASSERT_EQ(callback.errorQueue().size(), 4u);
  EXPECT_EQ(descriptionAt(0), "Application Tibbet not found.");
}

TEST_F(QVErrorCallbackTest, EntriesCarryTheDocumentedKeysAndAppNameTakesPartInDuplicates) {
  callback.addErrorToQueueUserInfo(
      error(1002), Value(plist::Dictionary{{"hostname", "a.local."}, {"appName", "Vantry"}}));
  callback.addErrorToQueueUserInfo(
      error(1002), Value(plist::Dictionary{{"hostname", "a.local."}, {"appName", "Orrick"}}));
  callback.addErrorToQueueUserInfo(
      error(1002), Value(plist::Dictionary{{"hostname", "a.local."}, {"appName", "Orrick"}}));
  auto queue = callback.errorQueue();
  ASSERT_EQ(queue.size(), 2u);
  EXPECT_EQ(*queue[0].get("appName"), Value("Orrick"));
  EXPECT_EQ(*queue[0].get("errorcode"), Value(1002));
  EXPECT_EQ(*queue[0].get("actionType"), Value(1));
  EXPECT_EQ(*queue[0].get("date"), Value(plist::Date{clock}));

  callback.addStringToQueue("Render node offline", "a.local.");
  callback.addStringToQueue("Render node offline", "a.local.");
  EXPECT_EQ(callback.errorQueue().size(), 3u);
  EXPECT_EQ(callback.errorQueue()[0].get("errorcode"), nullptr);
}

TEST_F(QVErrorCallbackTest, ARejectedPasswordIsForgottenAndEventsReachTheParent) {
  callback.invoke("addErrorToQueue:hostname:", {Value(error(1006)), Value("a.local.")});
  EXPECT_EQ(parent.forgotten, std::vector<std::string>{"a.local."});
  callback.invoke("incrementProgress", {});
  callback.invoke("willDisconnect:", {Value("a.local.")});
  callback.invoke("ping", {});
  EXPECT_EQ(parent.notifications,
            (std::vector<std::string>{"QVAmbrantErrorLabelRefresh", "QVAmbrantProgressIncrement"}));
  EXPECT_EQ(parent.events, std::vector<std::string>{"willDisconnect:"});
  EXPECT_TRUE(callback.respondsTo("tovellAddLogs:hostName:"));
  EXPECT_FALSE(callback.respondsTo("format:"));

  callback.addStringToQueue("Disk full", "b.local.");
  callback.removeErrorsForHost("a.local.");
  EXPECT_EQ(callback.stringRepresentation(),
            "b.local. - " + plist::Date{clock}.description() + " - Disk full\n");
}

} // namespace
} // namespace kestrin::admin
