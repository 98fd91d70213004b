#include "foundation/QVException.h"

#include <gtest/gtest.h>

#include "unit/foundation/TaskTestTools.h"

namespace kestrin {
namespace {

TEST(QVException, LogsNameAndReasonOfANamedExceptionAndAnswersTheText) {
  testing::CapturedLog log;
  NamedException timeout(std::string(kPortTimeoutException),
                         "[NSPortCoder sendBeforeTime:] timed out");
  auto text = QVException::logException(timeout, "-[AppController feldaneBackup:type:]");
  EXPECT_EQ(text, "Exception in -[AppController feldaneBackup:type:]. NSPortTimeoutException - "
                  "[NSPortCoder sendBeforeTime:] timed out.");
  EXPECT_NE(log.text().find(text), std::string::npos);
}

TEST(QVException, NamesAStandardExceptionByItsType) {
  testing::CapturedLog log;
  EXPECT_EQ(QVException::logException(std::out_of_range("index 3"), "+[AppController bundlePath]"),
            "Exception in +[AppController bundlePath]. std::out_of_range - index 3.");
  EXPECT_EQ(QVException::name(std::bad_alloc()), "std::bad_alloc");
}

TEST(QVException, OnlyAPortTimeoutCountsAsATimeout) {
  EXPECT_TRUE(QVException::didTimeout(NamedException("NSPortTimeoutException", "late")));
  EXPECT_FALSE(QVException::didTimeout(
      NamedException(std::string(kInvalidSendPortException), "connection went away")));
  // The name decides, not the text of the reason.
  EXPECT_FALSE(QVException::didTimeout(std::runtime_error("NSPortTimeoutException")));
  EXPECT_FALSE(QVException::didTimeout(NamedException("NSPortTimeoutExceptionX", "")));
}

} // namespace
} // namespace kestrin
