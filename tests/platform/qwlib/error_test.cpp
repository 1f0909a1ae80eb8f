// The per-thread error chain, messages and assertions.
#include <string>
#include <thread>

#include "support/test_support.h"

namespace {

int FailInner() { return QWErrorThrow(2, QW_ERROR_CLASS_SYSTEM, "could not open \"%s\"", "a/b"); }

int FailMiddle() {
  if (!FailInner()) return QWErrorRethrow("reading index %d", 7);
  return 1;
}

int FailOuter() {
  if (!FailMiddle()) return QWErrorRethrow("opening arena");
  return 1;
}

TEST(ErrorChain, ReadsOutwardFromTheInnermostFailure) {
  EXPECT_EQ(FailOuter(), 0);
  EXPECT_TRUE(QWErrorIsSet());
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
  EXPECT_STREQ(QWErrorMessage(), "could not open \"a/b\"\nreading index 7\nopening arena");

  // A fresh throw forgets the previous chain entirely.
  QWErrorThrow(5, QW_ERROR_CLASS_DATA, "bad block");
  EXPECT_EQ(QWErrorCode(), 5);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  EXPECT_STREQ(QWErrorMessage(), "bad block");

  QWErrorClear();
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(QWErrorCode(), 0);
  EXPECT_STREQ(QWErrorMessage(), "");

  // Rethrow with nothing set starts a general error.
  QWErrorRethrow("only outer");
  EXPECT_EQ(QWErrorCode(), 0);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_GENERAL);
  EXPECT_STREQ(QWErrorMessage(), "only outer");
  QWErrorClear();
}

TEST(ErrorChain, ErrnoErrorsCarryCodeAndText) {
  QWErrorThrowErrno(2, "could not open file \"%s\"", "x");
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
  EXPECT_EQ(std::string(QWErrorMessage()), "could not open file \"x\": No such file or directory");
  QWErrorClear();
}

TEST(ErrorChain, SaveAndRestoreKeepTheFirstFailureThroughNestedCleanUp) {
  QWErrorThrow(2, QW_ERROR_CLASS_SYSTEM, "first");
  QWErrorSave();
  EXPECT_FALSE(QWErrorIsSet());
  QWErrorThrow(9, QW_ERROR_CLASS_GENERAL, "clean-up failed");
  QWErrorSave();
  QWErrorThrow(11, QW_ERROR_CLASS_GENERAL, "nested clean-up failed");
  QWErrorRestore();
  EXPECT_STREQ(QWErrorMessage(), "clean-up failed");
  QWErrorRestore();
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_STREQ(QWErrorMessage(), "first");
  QWErrorClear();
}

TEST(ErrorChain, LongMessagesAreNotTruncated) {
  std::string big(5000, 'x');
  QWErrorThrow(1, 0, "%s|", big.c_str());
  EXPECT_EQ(std::string(QWErrorMessage()), big + "|");
  QWErrorClear();
}

TEST(ErrorChainConcurrency, EachThreadHasItsOwnChain) {
  QWErrorThrow(3, 0, "main thread");
  std::string seenInOther;
  std::thread other([&] {
    seenInOther = QWErrorMessage();
    QWErrorThrow(4, 0, "other thread");
  });
  other.join();
  EXPECT_EQ(seenInOther, "");
  EXPECT_STREQ(QWErrorMessage(), "main thread");
  QWErrorClear();
}

TEST(Messages, HandlerReceivesLevelAndExactText) {
  qwtest::MessageCapture capture;
  QWMessage(QW_LEVEL_PROGRESS, "mounting arena generation[%u,%u] in directory %s", 1u, 2u, "/d");
  QWMessage(QW_LEVEL_WARNING, "careful");
  auto messages = capture.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].level, QW_LEVEL_PROGRESS);
  EXPECT_EQ(messages[0].text, "mounting arena generation[1,2] in directory /d");
  EXPECT_TRUE(capture.contains("careful", QW_LEVEL_WARNING));
  EXPECT_FALSE(capture.contains("careful", QW_LEVEL_ERROR));
}

TEST(Messages, SetMessageContextChoosesTheLevelOfQWMessage_) {
  qwtest::MessageCapture capture;
  QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_DEBUG, 0);
  QWMessage_(">>> new block: %u [%u]", 5u, 9u);
  EXPECT_TRUE(capture.contains(">>> new block: 5 [9]", QW_LEVEL_DEBUG));
}

TEST(Messages, HandlerCanBeRestored) {
  void *previousContext = nullptr;
  int calls = 0;
  auto counting = [](void *context, int, const char *, int, const char *) { ++*static_cast<int *>(context); };
  QWMessageHandler previous = QWSetMessageHandler(counting, &calls, &previousContext);
  QWMessage(QW_LEVEL_ERROR, "one");
  QWSetMessageHandler(previous, previousContext, nullptr);
  QWMessage(QW_LEVEL_DEBUG, "not counted");
  EXPECT_EQ(calls, 1);
}

TEST(AssertionDeathTest, PrintsExpressionFileAndLineThenAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int readOnly = 1;
  EXPECT_DEATH(qwassert_(!readOnly), "assertion failed: !readOnly, file .*error_test.cpp, line [0-9]+");
  qwassert_(readOnly == 1);  // a true assertion does nothing
}

}  // namespace
