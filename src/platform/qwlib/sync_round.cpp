// SyncRound (design in sync_round.h).
#include "platform/qwlib/sync_round.h"

#include <exception>
#include <thread>
#include <utility>

#include "qwvm/qwlib.h"

namespace qw {
namespace {

// An error chain carried from a worker thread to the caller.
struct CarriedError {
  bool failed = false;
  int code = 0;
  int errorClass = 0;
  std::string chain;  // QWErrorMessage(): innermost first, one message per line
};

void RunItem(const std::function<int()> &sync, CarriedError *out) {
  if (sync()) return;
  out->failed = true;
  out->code = QWErrorCode();
  out->errorClass = QWErrorClass();
  out->chain = QWErrorMessage();
  QWErrorClear();
}

void Rethrow(const CarriedError &error) {
  size_t start = 0;
  bool first = true;
  while (start <= error.chain.size()) {
    size_t end = error.chain.find('\n', start);
    if (end == std::string::npos) end = error.chain.size();
    const std::string line = error.chain.substr(start, end - start);
    if (first)
      QWErrorThrow(error.code, error.errorClass, "%s", line.c_str());
    else
      QWErrorRethrow("%s", line.c_str());
    first = false;
    start = end + 1;
  }
}

}  // namespace

void SyncRound::AddFile(QWFILE file, std::string failure) {
  items_.push_back({[file] { return QWFileSync(file); }, std::move(failure), {}});
}

void SyncRound::AddChannel(QWChannel *channel, std::string failure) {
  items_.push_back({[channel] { return ChannelSync(channel); }, std::move(failure), {}});
}

void SyncRound::AddDirectory(const std::string &path, std::string failure) {
  for (const Item &item : items_)
    if (item.directory == path) return;
  items_.push_back({[path] { return DirectorySync(path.c_str()); }, std::move(failure), path});
}

void SyncRound::Add(std::function<int()> sync, std::string failure) {
  items_.push_back({std::move(sync), std::move(failure), {}});
}

bool SyncRound::Run() {
  std::vector<Item> items;
  items.swap(items_);
  std::vector<CarriedError> errors(items.size());
  std::vector<std::thread> threads;
  size_t started = 1;  // items 1 .. started-1 run on threads of their own
  try {
    threads.reserve(items.size());
    for (; started < items.size(); ++started)
      threads.emplace_back(RunItem, std::cref(items[started].sync), &errors[started]);
  } catch (const std::exception &) {
    // No more threads to be had: the rest run here, one after the other.
  }
  if (!items.empty()) RunItem(items[0].sync, &errors[0]);
  for (size_t i = started; i < items.size(); ++i) RunItem(items[i].sync, &errors[i]);
  for (std::thread &thread : threads) thread.join();
  for (size_t i = 0; i < errors.size(); ++i) {
    if (!errors[i].failed) continue;
    Rethrow(errors[i]);
    if (!items[i].failure.empty()) QWErrorRethrow("%s", items[i].failure.c_str());
    return false;
  }
  return true;
}

}  // namespace qw
