// `qwvm strtable DIR get KEY | set KEY VALUE | rm KEY | list [PREFIX] |
// checkpoint | stat`: use and inspect a string table by hand.
//
// Keys and values are byte strings. Without `--hex` KEY, VALUE and PREFIX
// are taken as they are, `get` writes the raw value, and `list` prints one
// "key<TAB>value" line per pair with every byte outside printable ASCII (and
// the backslash) written as \xHH (a backslash as \\), so a line never holds
// a raw tab or newline. With `--hex` KEY, VALUE and PREFIX are hexadecimal
// and every key and value printed is hexadecimal (lower case).
//
// `set`, `rm` and `checkpoint` open the table writable (which recovers it)
// and close it after a committing checkpoint, so what they did is durable
// when they return. `get`, `list` and `stat` open it read-only and see its
// last commit. The table is opened as the tool creates it: 4 box buckets,
// arena parameter 1, one stripe, no page cache.
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

constexpr uint32_t kBuckets = 4;
constexpr char kHexDigits[] = "0123456789abcdef";

int Fail(const std::string &what) { return FailWithChain("strtable", what); }

void StrTableUsage(FILE *out) {
  std::fprintf(out,
               "usage: qwvm strtable DIR [--hex] set KEY VALUE  store VALUE under KEY and commit (creates the table)\n"
               "       qwvm strtable DIR [--hex] get KEY        write the value of KEY to standard output (exit 1\n"
               "                                                when absent)\n"
               "       qwvm strtable DIR [--hex] rm KEY         remove KEY and commit (exit 1 when absent)\n"
               "       qwvm strtable DIR [--hex] list [PREFIX]  print \"key<TAB>value\" for every key (starting with\n"
               "                                                PREFIX), in key order\n"
               "       qwvm strtable DIR checkpoint             recover the table (replay its logs) and commit\n"
               "       qwvm strtable DIR stat                   print the number of keys and the box's buckets\n"
               "Keys are at least one byte. Without --hex, get writes the raw value and list escapes every byte\n"
               "outside printable ASCII as \\xHH (a backslash as \\\\); with --hex (anywhere among the arguments),\n"
               "KEY, VALUE and PREFIX are hexadecimal and keys and values are printed in hexadecimal.\n"
               "set, rm and checkpoint are durable when they return; get, list and stat read the last commit\n"
               "read-only. The table is opened with %u box buckets, arena parameter 1, one stripe and no page\n"
               "cache.\n",
               kBuckets);
}

int Usage() {
  StrTableUsage(stderr);
  return 2;
}

std::string Hex(const uint8_t *bytes, size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    text += kHexDigits[bytes[i] >> 4];
    text += kHexDigits[bytes[i] & 15];
  }
  return text;
}

std::string Escaped(const uint8_t *bytes, size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    if (bytes[i] == '\\') text += "\\\\";
    else if (bytes[i] >= 0x20 && bytes[i] < 0x7f) text += char(bytes[i]);
    else text += "\\x" + Hex(bytes + i, 1);
  }
  return text;
}

// The bytes an argument names: itself, or with `hex` its hexadecimal digits
// decoded (false when they are not an even number of hex digits).
bool Decode(const std::string &text, bool hex, std::string *bytes) {
  if (!hex) {
    *bytes = text;
    return true;
  }
  if (text.size() % 2) return false;
  bytes->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    unsigned value = 0;
    for (size_t j = i; j < i + 2; ++j) {
      const char *digit = std::strchr(kHexDigits, std::tolower(static_cast<unsigned char>(text[j])));
      if (!digit || !*digit) return false;
      value = value * 16 + unsigned(digit - kHexDigits);
    }
    *bytes += char(value);
  }
  return true;
}

struct Options {
  std::string dir;
  bool hex = false;
  std::string Show(const std::string &bytes) const {
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    return hex ? Hex(data, bytes.size()) : "\"" + Escaped(data, bytes.size()) + "\"";
  }
};

// Opens the table; a writable open creates a missing table, which only
// `set` may do.
LoggedStrTable *Open(const Options &options, bool writable, bool create = false) {
  if (writable && !create && !FileExists((options.dir + "/dict").c_str())) {
    std::fprintf(stderr, "qwvm strtable: no string table in \"%s\"\n", options.dir.c_str());
    return nullptr;
  }
  LoggedStrTable *table = writable ? LoggedStrTableOpen(options.dir.c_str(), kBuckets, 1, 1, 0, nullptr)
                                   : OpenStrTableReadOnly(options.dir);
  if (!table) Fail("cannot open the string table in \"" + options.dir + "\"");
  return table;
}

// Closes a writable table after a committing checkpoint; 1 when that fails.
int CloseDurably(LoggedStrTable *table) {
  if (LoggedStrTableCheckpoint(table, 1)) return LoggedStrTableClose(table, 0) ? 0 : Fail("cannot close the table");
  const int status = Fail("cannot checkpoint the string table");
  QWErrorSave();
  (void)LoggedStrTableClose(table, 0);
  QWErrorRestore();
  return status;
}

// Looks `key` up: 1 when present (value in *value), 0 when absent, -1 on
// an error (reported).
int Lookup(LoggedStrTable *table, LoggedStrTableThreadData *threadData, const Options &options,
           const std::string &key, std::string *value) {
  const uint8_t *bytes = nullptr;
  uint32_t length = 0;
  QWErrorClear();
  if (LoggedStrTableGet(table, threadData, key.data(), uint32_t(key.size()), &bytes, &length)) {
    value->assign(reinterpret_cast<const char *>(bytes), length);
    return 1;
  }
  if (QWErrorIsSet()) return Fail("cannot read key " + options.Show(key)), -1;
  return 0;
}

int NoKey(const Options &options, const std::string &key) {
  std::fprintf(stderr, "qwvm strtable: no key %s\n", options.Show(key).c_str());
  return 1;
}

// set and rm: one change, then a committing checkpoint.
int Change(const Options &options, const std::string &key, const std::string *value) {
  LoggedStrTable *table = Open(options, true, value != nullptr);
  if (!table) return 1;
  LoggedStrTableThreadData *threadData = LoggedStrTableThreadDataNew();
  std::string old;
  int status = threadData ? 0 : Fail("out of memory");
  const int present = status ? -1 : Lookup(table, threadData, options, key, &old);
  if (present < 0) status = 1;
  else if (!value && !present) status = NoKey(options, key);
  else if (value && !LoggedStrTableSet(table, threadData, key.data(), uint32_t(key.size()), value->data(),
                                       uint32_t(value->size())))
    status = Fail("cannot set key " + options.Show(key));
  else if (!value && !LoggedStrTableDelete(table, threadData, key.data(), uint32_t(key.size())))
    status = Fail("cannot remove key " + options.Show(key));
  LoggedStrTableThreadDataFree(threadData);
  if (status) {
    QWErrorSave();
    LoggedStrTableClose(table, 0);
    QWErrorRestore();
    return status;
  }
  if (CloseDurably(table) != 0) return 1;
  if (value) std::printf("%s: %zu bytes (%s)\n", options.Show(key).c_str(), value->size(), present ? "replaced" : "new");
  else std::printf("%s: removed\n", options.Show(key).c_str());
  return 0;
}

int Get(LoggedStrTable *table, const Options &options, const std::string &key) {
  LoggedStrTableThreadData *threadData = LoggedStrTableThreadDataNew();
  if (!threadData) return Fail("out of memory");
  std::string value;
  const int present = Lookup(table, threadData, options, key, &value);
  LoggedStrTableThreadDataFree(threadData);
  if (present < 0) return 1;
  if (!present) return NoKey(options, key);
  if (options.hex) std::printf("%s\n", Hex(reinterpret_cast<const uint8_t *>(value.data()), value.size()).c_str());
  else std::fwrite(value.data(), 1, value.size(), stdout);
  return 0;
}

// Calls `visit` on every pair whose key starts with `prefix`; false on an
// error (reported).
template <typename Visit>
bool Enumerate(LoggedStrTable *table, const std::string &prefix, Visit visit) {
  QWErrorClear();
  LoggedStrTableEnumeration *enumeration =
      LoggedStrTableEnumerationNew(table, prefix.data(), uint32_t(prefix.size()));
  if (!enumeration) return Fail("cannot enumerate the keys"), false;
  const uint8_t *key = nullptr, *value = nullptr;
  uint32_t keyLength = 0, valueLength = 0;
  while (LoggedStrTableEnumerationGetNext(enumeration, &key, &keyLength, &value, &valueLength))
    visit(key, keyLength, value, valueLength);
  LoggedStrTableEnumerationFree(enumeration);
  return !QWErrorIsSet() || (Fail("cannot enumerate the keys"), false);
}

int List(LoggedStrTable *table, const Options &options, const std::string &prefix) {
  const auto show = options.hex ? Hex : Escaped;
  const bool done = Enumerate(table, prefix, [&](const uint8_t *key, uint32_t keyLength, const uint8_t *value,
                                                 uint32_t valueLength) {
    std::printf("%s\t%s\n", show(key, keyLength).c_str(), show(value, valueLength).c_str());
  });
  return done ? 0 : 1;
}

// Counts the keys and closes `table`, then opens the box under it read-only
// on its own and prints its buckets and entries (removed keys' empty
// entries included).
int Stat(LoggedStrTable *table, const Options &options) {
  StrTableCounts counts;
  const bool counted = CountStrTableKeys(table, &counts);
  QWErrorSave();
  LoggedStrTableClose(table, 0);
  QWErrorRestore();
  if (!counted) return 1;
  std::printf("string table %s: %" PRIu64 " keys, %" PRIu64 " key bytes, %" PRIu64 " value bytes\n",
              options.dir.c_str(), counts.keys, counts.keyBytes, counts.valueBytes);
  const std::string boxDir = options.dir + "/box";
  BoxLVM *box = BoxLVMOpen(boxDir.c_str(), kBuckets, 1, 1, 0, 1, nullptr);
  if (!box) return Fail("cannot open the box in \"" + boxDir + "\"");
  std::printf("box %s: %u buckets, %" PRIu64 " entries\n", boxDir.c_str(), BoxLVMBucketCount(box), BoxLVMSize(box));
  BoxLVMClose(box, 0);
  return 0;
}

}  // namespace

bool CountStrTableKeys(LoggedStrTable *table, StrTableCounts *counts) {
  return Enumerate(table, "", [&](const uint8_t *, uint32_t keyLength, const uint8_t *, uint32_t valueLength) {
    ++counts->keys;
    counts->keyBytes += keyLength;
    counts->valueBytes += valueLength;
  });
}

LoggedStrTable *OpenStrTableReadOnly(const std::string &dir) {
  return LoggedStrTableOpen(dir.c_str(), kBuckets, 1, 1, 1, nullptr);
}

int RunStrTable(int argc, char **argv) {
  std::vector<std::string> args(argv, argv + argc);
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "help")) {
    StrTableUsage(stdout);
    return 0;
  }
  Options options;
  for (size_t i = 0; i < args.size(); ++i)
    if (args[i] == "--hex") {
      options.hex = true;
      args.erase(args.begin() + long(i));
      break;
    }
  if (args.size() < 2) return Usage();
  options.dir = args[0];
  const std::string verb = args[1];
  const size_t operands = args.size() - 2;
  bool fits = false;
  if (verb == "set") fits = operands == 2;
  else if (verb == "get" || verb == "rm") fits = operands == 1;
  else if (verb == "list") fits = operands <= 1;
  else if (verb == "checkpoint" || verb == "stat") fits = operands == 0 && !options.hex;
  if (!fits) return Usage();
  std::vector<std::string> bytes(operands);
  for (size_t i = 0; i < operands; ++i)
    if (!Decode(args[2 + i], options.hex, &bytes[i])) {
      std::fprintf(stderr, "qwvm strtable: \"%s\" is not an even number of hexadecimal digits\n", args[2 + i].c_str());
      return 2;
    }
  if (verb != "list" && operands > 0 && bytes[0].empty()) {
    std::fprintf(stderr, "qwvm strtable: a key is at least one byte\n");
    return 2;
  }
  for (const std::string &operand : bytes)
    if (operand.size() > UINT32_MAX - 16) {
      std::fprintf(stderr, "qwvm strtable: an argument is too long\n");
      return 2;
    }
  // The table reports its recoveries and commits; the verbs print their own lines.
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  if (verb == "set") return Change(options, bytes[0], &bytes[1]);
  if (verb == "rm") return Change(options, bytes[0], nullptr);
  const bool writable = verb == "checkpoint";
  LoggedStrTable *table = Open(options, writable);
  if (!table) return 1;
  if (writable) {
    if (CloseDurably(table) != 0) return 1;
    std::printf("string table %s: recovered and checkpointed\n", options.dir.c_str());
    return 0;
  }
  if (verb == "stat") return Stat(table, options);
  const int status = verb == "get" ? Get(table, options, bytes[0]) : List(table, options, operands ? bytes[0] : "");
  QWErrorSave();
  LoggedStrTableClose(table, 0);
  QWErrorRestore();
  return status;
}

}  // namespace qwtool
