// The per-thread error chain.
//
// Invariants: `chain` is empty exactly when no error is set; chain[0] is the
// innermost message. The save stack holds whole error states so that nested
// clean-up (QWErrorSave ... QWErrorRestore) cannot lose the first failure.
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/qwlib/context.h"
#include "platform/qwlib/format.h"
#include "qwvm/qwlib.h"

namespace qw {
namespace {

struct ErrorState {
  int code = 0;
  int errorClass = 0;
  std::vector<std::string> chain;
};

struct ThreadErrors {
  ErrorState current;
  std::vector<ErrorState> saved;
  std::string joined;  // backing store of QWErrorMessage()
};

ThreadErrors &Errors() {
  thread_local ThreadErrors errors;
  return errors;
}

void Start(int code, int errorClass, std::string text) {
  ErrorState &state = Errors().current;
  state.code = code;
  state.errorClass = errorClass;
  state.chain.clear();
  state.chain.push_back(std::move(text));
}

}  // namespace

MessageContext &CurrentMessageContext() {
  thread_local MessageContext context;
  return context;
}

}  // namespace qw

extern "C" {

QW_API void QWSetMessageContext_(const char *file, int line, int level, int /*flag*/) {
  qw::MessageContext &context = qw::CurrentMessageContext();
  context.file = file ? file : "";
  context.line = line;
  context.level = level;
}

QW_API int QWErrorThrow_(int code, int errorClass, const char *format, ...) {
  va_list args;
  va_start(args, format);
  qw::Start(code, errorClass, qw::FormatV(format, args));
  va_end(args);
  return 0;
}

QW_API int QWErrorThrowErrno_(int errnoValue, const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = qw::FormatV(format, args);
  va_end(args);
  char buffer[256];
  text += ": ";
  text += strerror_r(errnoValue, buffer, sizeof buffer);
  qw::Start(errnoValue, QW_ERROR_CLASS_SYSTEM, std::move(text));
  return 0;
}

QW_API int QWErrorRethrow_(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = qw::FormatV(format, args);
  va_end(args);
  qw::ErrorState &state = qw::Errors().current;
  if (state.chain.empty()) {
    state.code = 0;
    state.errorClass = QW_ERROR_CLASS_GENERAL;
  }
  state.chain.push_back(std::move(text));
  return 0;
}

QW_API int QWErrorCode(void) { return qw::Errors().current.code; }

QW_API int QWErrorClass(void) { return qw::Errors().current.errorClass; }

QW_API int QWErrorIsSet(void) { return !qw::Errors().current.chain.empty(); }

QW_API const char *QWErrorMessage(void) {
  qw::ThreadErrors &errors = qw::Errors();
  errors.joined.clear();
  for (const std::string &message : errors.current.chain) {
    if (!errors.joined.empty()) errors.joined += '\n';
    errors.joined += message;
  }
  return errors.joined.c_str();
}

QW_API void QWErrorClear(void) { qw::Errors().current = qw::ErrorState{}; }

QW_API void QWErrorSave(void) {
  qw::ThreadErrors &errors = qw::Errors();
  errors.saved.push_back(std::move(errors.current));
  errors.current = qw::ErrorState{};
}

QW_API void QWErrorRestore(void) {
  qw::ThreadErrors &errors = qw::Errors();
  qwassert_(!errors.saved.empty());
  errors.current = std::move(errors.saved.back());
  errors.saved.pop_back();
}

}  // extern "C"
