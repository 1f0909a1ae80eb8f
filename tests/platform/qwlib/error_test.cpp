// The per-thread error chain, messages and assertions.
#include <thread>

#include "support/test_support.h"

namespace {

int FailInner() { return QWErrorThrow(2, QW_ERROR_CLASS_SYSTEM, "could not open \"%s\"", "a/b"); }

int FailMiddle() { return FailInner() ? 1 : QWErrorRethrow("reading index %d", 7); }

int FailOuter() { return FailMiddle() ? 1 : QWErrorRethrow("opening arena"); }

void ExpectChain(int code, int errorClass, const char *message) {
  EXPECT_TRUE(QWErrorIsSet());
  EXPECT_EQ(QWErrorCode(), code);
  EXPECT_EQ(QWErrorClass(), errorClass);
  EXPECT_STREQ(QWErrorMessage(), message);
}

TEST(ErrorChain, ReadsOutwardFromTheInnermostFailure) {
  EXPECT_EQ(FailOuter(), 0);
  ExpectChain(2, QW_ERROR_CLASS_SYSTEM, "could not open \"a/b\"\nreading index 7\nopening arena");
  // A fresh throw forgets the previous chain entirely.
  QWErrorThrow(5, QW_ERROR_CLASS_DATA, "bad block");
  ExpectChain(5, QW_ERROR_CLASS_DATA, "bad block");
  QWErrorClear();
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(QWErrorCode(), 0);
  EXPECT_STREQ(QWErrorMessage(), "");
  // Rethrow with nothing set starts a general error.
  QWErrorRethrow("only outer");
  ExpectChain(0, QW_ERROR_CLASS_GENERAL, "only outer");
  // Errno errors carry the code and the system's text.
  QWErrorThrowErrno(2, "could not open file \"%s\"", "x");
  ExpectChain(2, QW_ERROR_CLASS_SYSTEM, "could not open file \"x\": No such file or directory");
  // Long messages are not truncated.
  const std::string big(5000, 'x');
  QWErrorThrow(1, 0, "%s|", big.c_str());
  EXPECT_EQ(std::string(QWErrorMessage()), big + "|");
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
  ExpectChain(9, QW_ERROR_CLASS_GENERAL, "clean-up failed");
  QWErrorRestore();
  ExpectChain(2, QW_ERROR_CLASS_SYSTEM, "first");
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

TEST(Messages, HandlerGetsLevelAndExactTextAndCanBeRestored) {
  {
    qwtest::MessageCapture capture;
    QWMessage(QW_LEVEL_PROGRESS, "mounting arena generation[%u,%u] in directory %s", 1u, 2u, "/d");
    QWMessage(QW_LEVEL_WARNING, "careful");
    // The message context chooses the level of QWMessage_.
    QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_DEBUG, 0);
    QWMessage_(">>> new block: %u [%u]", 5u, 9u);
    const auto messages = capture.messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].level, QW_LEVEL_PROGRESS);
    EXPECT_EQ(messages[0].text, "mounting arena generation[1,2] in directory /d");
    EXPECT_TRUE(capture.contains("careful", QW_LEVEL_WARNING));
    EXPECT_FALSE(capture.contains("careful", QW_LEVEL_ERROR));
    EXPECT_TRUE(capture.contains(">>> new block: 5 [9]", QW_LEVEL_DEBUG));
  }
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
