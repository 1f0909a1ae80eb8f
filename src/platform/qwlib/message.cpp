// Messages and the replaceable process-wide handler.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/qwlib/context.h"
#include "platform/qwlib/format.h"
#include "qwvm/qwlib.h"

namespace qw {
namespace {

std::atomic<int> defaultThreshold{QW_LEVEL_PROGRESS};

void DefaultHandler(void *, int level, const char *, int, const char *text) {
  if (level < defaultThreshold.load(std::memory_order_relaxed)) return;
  size_t length = std::char_traits<char>::length(text);
  bool newline = length > 0 && text[length - 1] == '\n';
  std::fprintf(stderr, newline ? "%s" : "%s\n", text);
}

// The handler and its context change together; readers take the mutex only
// long enough to copy the pair.
std::mutex handlerMutex;
QWMessageHandler handler = DefaultHandler;
void *handlerContext = nullptr;

}  // namespace

// Returns true when a host-installed handler (not the default) took it.
bool Emit(int level, const char *file, int line, const char *text) {
  QWMessageHandler current;
  void *context;
  {
    std::lock_guard<std::mutex> lock(handlerMutex);
    current = handler;
    context = handlerContext;
  }
  current(context, level, file, line, text);
  return current != DefaultHandler;
}

}  // namespace qw

extern "C" {

QW_API void QWMessage_(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = qw::FormatV(format, args);
  va_end(args);
  const qw::MessageContext &context = qw::CurrentMessageContext();
  qw::Emit(context.level, context.file, context.line, text.c_str());
}

QW_API QWMessageHandler QWSetMessageHandler(QWMessageHandler newHandler, void *context, void **previousContext) {
  std::lock_guard<std::mutex> lock(qw::handlerMutex);
  QWMessageHandler previous = qw::handler;
  if (previousContext) *previousContext = qw::handlerContext;
  qw::handler = newHandler ? newHandler : qw::DefaultHandler;
  qw::handlerContext = newHandler ? context : nullptr;
  return previous;
}

QW_API void QWSetMessageThreshold(int level) { qw::defaultThreshold.store(level, std::memory_order_relaxed); }

QW_API void QWAssertFail_(const char *expression, const char *file, int line) {
  std::string text = qw::Format("assertion failed: %s, file %s, line %d", expression, file, line);
  // A host handler may only buffer the text: make sure it reaches stderr too,
  // since nothing else survives the abort.
  if (qw::Emit(QW_LEVEL_ERROR, file, line, text.c_str())) std::fprintf(stderr, "%s\n", text.c_str());
  std::fflush(stderr);
  std::abort();
}

}  // extern "C"
