// The per-thread error chain, messages and assertions.
#include <thread>

#include "support/test_support.h"

namespace {

void ExpectChain(int code, int errorClass, const std::string &message) {
  EXPECT_TRUE(QWErrorIsSet());
  EXPECT_EQ(QWErrorCode(), code);
  EXPECT_EQ(QWErrorClass(), errorClass);
  EXPECT_EQ(QWErrorMessage(), message);
}

TEST(ErrorChain, ReadsOutwardSavesAndRestores) {
  auto middle = [] {
    return QWErrorThrow(2, QW_ERROR_CLASS_SYSTEM, "could not open \"%s\"", "a/b") ? 1
                                                                                     : QWErrorRethrow("reading index %d", 7);
  };
  EXPECT_EQ(middle() ? 1 : QWErrorRethrow("opening arena"), 0);
  ExpectChain(2, QW_ERROR_CLASS_SYSTEM, "could not open \"a/b\"\nreading index 7\nopening arena");
  QWErrorThrow(5, QW_ERROR_CLASS_DATA, "bad block");  // a fresh throw forgets the previous chain
  ExpectChain(5, QW_ERROR_CLASS_DATA, "bad block");
  QWErrorClear();
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(QWErrorCode(), 0);
  EXPECT_STREQ(QWErrorMessage(), "");
  QWErrorRethrow("only outer");  // with nothing set: a general error
  ExpectChain(0, QW_ERROR_CLASS_GENERAL, "only outer");
  QWErrorThrowErrno(2, "could not open file \"%s\"", "x");
  ExpectChain(2, QW_ERROR_CLASS_SYSTEM, "could not open file \"x\": No such file or directory");
  const std::string big(5000, 'x');  // long messages are not truncated
  QWErrorThrow(1, 0, "%s|", big.c_str());
  EXPECT_EQ(std::string(QWErrorMessage()), big + "|");
  // Save and restore keep the first failure through nested clean-up.
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
    QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_DEBUG, 0);  // chooses the level of QWMessage_
    QWMessage_(">>> new block: %u [%u]", 5u, 9u);
    ASSERT_EQ(capture.messages().size(), 3u);
    EXPECT_TRUE(capture.contains("mounting arena generation[1,2] in directory /d", QW_LEVEL_PROGRESS));
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
