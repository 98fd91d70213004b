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

TEST(QVException, OnlyTheTransportsOwnTimeoutCountsAsATimeout) {
  EXPECT_TRUE(QVException::didTimeout(PortTimeoutException("late")));
  // A peer can name its exception anything; the name proves nothing.
  EXPECT_FALSE(QVException::didTimeout(NamedException("NSPortTimeoutException", "forged")));
  EXPECT_FALSE(QVException::didTimeout(
      NamedException(std::string(kInvalidSendPortException), "connection went away")));
  EXPECT_FALSE(QVException::didTimeout(std::runtime_error("NSPortTimeoutException")));
}

} // namespace
} // namespace kestrin
