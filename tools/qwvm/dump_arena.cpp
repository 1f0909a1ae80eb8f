// The arena part of `qwvm dump` and `qwvm load`; see dump_arena.h.
#include "tools/qwvm/dump_arena.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vm/arena/arena.h"  // the committed layout type of each array

namespace qwtool {
namespace {

constexpr uint32_t kBlock = ARENA_MAX_BLOCK_SIZE;
const char kLarge[] = "/ldbarray/";

// Names of arrays 1, 2, ... as array 0 keeps them (NUL-terminated).
std::vector<std::string> ArrayNames(VMArena *arena) {
  std::vector<std::string> names(1);
  std::string current;
  const uint32_t length = VMAArrayLength_(arena, 0, OLDGEN);
  for (uint32_t index = 0; index < length;) {
    uint32_t end = index;
    auto *bytes = static_cast<const char *>(VMAArrayRange_(arena, 0, 0, kBlock, index, &end, OLDGEN, 1, 1, 0));
    if (!bytes) break;
    for (uint32_t i = index; i < end; ++i) {
      if (bytes[i - index]) current.push_back(bytes[i - index]);
      else names.push_back(std::move(current)), current.clear();
    }
    VMAArrayRelease_(arena, 0, const_cast<char *>(bytes), 1);
    index = end;
  }
  return names;
}

// The bytes without their trailing zeros (the size field restores them).
std::string Trimmed(const char *bytes, size_t size) {
  while (size > 0 && bytes[size - 1] == 0) --size;
  return Escape(bytes, size);
}

bool Selected(const std::string &name, const std::string &only) {
  return only.empty() || name == only || name.rfind(only + "/", 0) == 0;
}

bool DumpArray(VMArena *arena, uint32_t id, const std::string &name, DumpWriter *out) {
  const uint32_t blocks = VMABlockArrayBlockCount_(arena, id, OLDGEN);
  const uint32_t length = VMAArrayLength_(arena, id, OLDGEN);
  const bool blockArray = arena->view.types[id] == FULL_BLOCK_ARRAY_TYPE;
  std::string bytes;
  if (blockArray) out->Record({"blockarray", Escape(name), std::to_string(length), std::to_string(blocks)});
  for (uint32_t n = 0; n < blocks; ++n) {
    uint32_t size = 0;
    auto *data = static_cast<const char *>(VMABlockArrayGet_(arena, id, 0, n, OLDGEN, 1, &size));
    if (!data) return QWErrorRethrow("cannot read block %u of array \"%s\"", n, name.c_str()) != 0;
    if (blockArray) out->Record({"block", Escape(name), std::to_string(size), Trimmed(data, size)});
    else bytes.append(data, size);
    VMAArrayRelease_(arena, id, const_cast<char *>(data), 1);
  }
  if (!blockArray)
    out->Record({"array", Escape(name), std::to_string(length), std::to_string(bytes.size()),
                 Trimmed(bytes.data(), bytes.size())});
  return true;
}

bool DumpLarge(VMArena *arena, const std::string &path, DumpWriter *out) {
  uint8_t *pathBuffer = nullptr;
  int created = 0;
  LDBArray *array = LDBArrayNew(arena, &pathBuffer, path.c_str(), &created, 0, 1);
  uint8_t *value = nullptr;
  bool ok = array != nullptr;
  if (ok) {
    const uint32_t buckets = LDBArrayBucketCount(array);
    out->Record({"ldbarray", Escape(path), std::to_string(buckets)});
    for (uint32_t b = 0; ok && b < buckets; ++b) {
      const uint32_t size = LDBArraySize(array, b, OLDGEN);
      for (uint32_t h = 0; ok && h < size; ++h) {
        ok = LDBArrayGetArray(array, b, h, &value, 0, OLDGEN) != 0;
        if (ok)
          out->Record(
              {"element", Escape(path), std::to_string(b), std::to_string(h), Escape(value, ArrayLength(value))});
      }
    }
  }
  if (!ok) QWErrorRethrow("cannot read the large-element array \"%s\"", path.c_str());
  ArrayFree(value);
  LDBArrayFree(array);
  ArrayFree(pathBuffer);
  return ok;
}

}  // namespace

bool DumpArena(VMArena *arena, const std::string &only, const std::vector<std::string> &skip, DumpWriter *out) {
  const std::vector<std::string> names = ArrayNames(arena);
  if (QWErrorIsSet()) return QWErrorRethrow("cannot read the array names") != 0;
  // Sorted by name; a large-element array stands for all its arrays.
  std::map<std::string, uint32_t> arrays;  // id, or 0 for a large-element array
  for (uint32_t id = 1; id < names.size() && id < arena->view.ArrayCount(); ++id) {
    const std::string &name = names[id];
    if (name.empty() || name[0] == '#' || std::find(skip.begin(), skip.end(), name) != skip.end()) continue;
    const size_t large = name.find(kLarge);
    const std::string key = large == std::string::npos ? name : name.substr(0, large);
    if (Selected(key, only)) arrays[key] = large == std::string::npos ? id : 0;
  }
  for (const auto &[name, id] : arrays)
    if (!(id ? DumpArray(arena, id, name, out) : DumpLarge(arena, name, out))) return false;
  return true;
}

ArenaLoader::~ArenaLoader() {
  for (auto &[path, array] : large_) LDBArrayFree(array);
  LDBArrayThreadDataFree(threadData_);
  ArrayFree(pathBuffer_);
}

bool ArenaLoader::Add(const std::vector<std::string> &fields, const DumpReader &reader) {
  const std::string &kind = fields[0];
  if (blocksLeft_ > 0 && kind != "block")
    return reader.Bad("block array \"%s\" still expects %u blocks", blockArray_.c_str(), blocksLeft_);
  if (kind == "array") return Array(fields, reader);
  if (kind == "blockarray") return BlockArray(fields, reader);
  if (kind == "block") return Block(fields, reader);
  if (kind == "ldbarray") return LargeArray(fields, reader);
  if (kind == "element") return Element(fields, reader);
  return reader.Bad("unknown record \"%s\" in an arena dump", kind.c_str());
}

bool ArenaLoader::Finish(const DumpReader &reader) {
  if (blocksLeft_ > 0)
    return reader.Bad("block array \"%s\" still expects %u blocks", blockArray_.c_str(), blocksLeft_);
  return true;
}

namespace {

// The name field of a record: an escaped, new name.
bool NewName(const std::string &field, VMArena *arena, const DumpReader &reader, std::string *name) {
  if (!Unescape(field, name) || name->empty() || name->find('\0') != std::string::npos || (*name)[0] == '#')
    return reader.Bad("bad structure name \"%s\"", field.c_str());
  if (VMAArrayFind(arena, NEWGEN, name->data(), uint32_t(name->size()), 0, nullptr, 0, kBlock) != VMA_NO_ARRAY)
    return reader.Bad("\"%s\" is defined twice", name->c_str());
  QWErrorClear();
  return true;
}

// Writes `bytes` and zeros up to `size` at `out`.
void Fill(void *out, size_t size, const std::string &bytes) {
  std::memcpy(out, bytes.data(), bytes.size());
  std::memset(static_cast<char *>(out) + bytes.size(), 0, size - bytes.size());
}

}  // namespace

bool ArenaLoader::Array(const std::vector<std::string> &fields, const DumpReader &reader) {
  std::string name, bytes;
  uint64_t length = 0, capacity = 0;
  if (fields.size() != 5) return reader.Bad("an array record has 5 fields");
  if (!NewName(fields[1], arena_, reader, &name) || !ParseNumber(reader, fields[2], UINT32_MAX, &length) ||
      !ParseNumber(reader, fields[3], UINT32_MAX, &capacity))
    return false;
  if (!Unescape(fields[4], &bytes) || bytes.size() > capacity || length > capacity)
    return reader.Bad("the bytes of array \"%s\" do not fit its capacity", name.c_str());
  VMAArrayHandle handle{};
  if (!VMAArrayInitFromPath(&handle, arena_, name.c_str(), nullptr)) return false;
  const uint32_t id = handle.id[NEWGEN];
  if (capacity > 0 && (!VMAArrayEnsureCapacity_(arena_, id, 0, kBlock, uint32_t(capacity), NEWGEN, 0, 1) ||
                       !VMAArrayLengthSet_(arena_, id, uint32_t(capacity), NEWGEN, 1)))
    return QWErrorRethrow("line %llu: cannot make array \"%s\"", (unsigned long long)reader.Line(), name.c_str()) != 0;
  bytes.resize(capacity);
  for (uint32_t index = 0; index < capacity;) {
    uint32_t end = index;
    auto *out = static_cast<char *>(VMAArrayRange_(arena_, id, 0, kBlock, index, &end, NEWGEN, 0, 1, 0));
    if (!out) return false;
    std::memcpy(out, bytes.data() + index, end - index);
    VMAArrayRelease_(arena_, id, out, 0);
    index = end;
  }
  return VMAArrayLengthSet_(arena_, id, uint32_t(length), NEWGEN, 1) != 0;
}

bool ArenaLoader::BlockArray(const std::vector<std::string> &fields, const DumpReader &reader) {
  uint64_t length = 0, blocks = 0;
  if (fields.size() != 4) return reader.Bad("a blockarray record has 4 fields");
  if (!NewName(fields[1], arena_, reader, &blockArray_) || !ParseNumber(reader, fields[2], UINT32_MAX, &length) ||
      !ParseNumber(reader, fields[3], UINT32_MAX, &blocks))
    return false;
  VMAArrayHandle handle{};
  if (!VMABlockArrayInitFromPath(&handle, arena_, blockArray_.c_str(), nullptr)) return false;
  blockArrayId_ = handle.id[NEWGEN];
  blocksLeft_ = uint32_t(blocks);
  blockIndex_ = 0;
  blockArrayLength_ = uint32_t(length);
  return blocks > 0 || VMAArrayLengthSet_(arena_, blockArrayId_, blockArrayLength_, NEWGEN, 1);
}

bool ArenaLoader::Block(const std::vector<std::string> &fields, const DumpReader &reader) {
  std::string name, bytes;
  uint64_t size = 0;
  if (fields.size() != 4) return reader.Bad("a block record has 4 fields");
  if (blocksLeft_ == 0 || !Unescape(fields[1], &name) || name != blockArray_)
    return reader.Bad("a block record outside its block array");
  if (!ParseNumber(reader, fields[2], kBlock, &size)) return false;
  if (!Unescape(fields[3], &bytes) || bytes.size() > size) return reader.Bad("the bytes do not fit the block");
  uint32_t actual = 0;
  void *out = nullptr;
  if (!VMABlockArrayInsert_(arena_, blockArrayId_, 0, kBlock, blockIndex_, uint32_t(size), NEWGEN) ||
      !(out = VMABlockArrayGet_(arena_, blockArrayId_, 0, blockIndex_, NEWGEN, 0, &actual)))
    return QWErrorRethrow("line %llu: cannot add a block", (unsigned long long)reader.Line()) != 0;
  if (actual != size) {
    VMAArrayRelease_(arena_, blockArrayId_, out, 0);
    return reader.Bad("%llu is not a block size", (unsigned long long)size);
  }
  Fill(out, actual, bytes);
  VMAArrayRelease_(arena_, blockArrayId_, out, 0);
  ++blockIndex_;
  return --blocksLeft_ > 0 || VMAArrayLengthSet_(arena_, blockArrayId_, blockArrayLength_, NEWGEN, 1);
}

bool ArenaLoader::LargeArray(const std::vector<std::string> &fields, const DumpReader &reader) {
  std::string path;
  uint64_t buckets = 0;
  if (fields.size() != 3) return reader.Bad("an ldbarray record has 3 fields");
  if (!NewName(fields[1], arena_, reader, &path) || !ParseNumber(reader, fields[2], 65536, &buckets)) return false;
  if (buckets == 0 || large_.count(path)) return reader.Bad("bad or repeated large-element array \"%s\"", path.c_str());
  if (!threadData_ && !(threadData_ = LDBArrayThreadDataNew())) return false;
  int created = 1;
  LDBArray *array = LDBArrayNew(arena_, &pathBuffer_, path.c_str(), &created, 0, uint32_t(buckets));
  if (!array)
    return QWErrorRethrow("line %llu: cannot make \"%s\"", (unsigned long long)reader.Line(), path.c_str()) != 0;
  large_[path] = array;
  return true;
}

bool ArenaLoader::Element(const std::vector<std::string> &fields, const DumpReader &reader) {
  std::string path, bytes;
  uint64_t bucket = 0, handle = 0;
  if (fields.size() != 5) return reader.Bad("an element record has 5 fields");
  if (!Unescape(fields[1], &path) || !large_.count(path)) return reader.Bad("an element of an undeclared array");
  LDBArray *array = large_[path];
  if (!ParseNumber(reader, fields[2], LDBArrayBucketCount(array) - 1, &bucket) ||
      !ParseNumber(reader, fields[3], UINT32_MAX - 1, &handle))
    return false;
  if (handle != LDBArraySize(array, uint32_t(bucket), NEWGEN))
    return reader.Bad("element %llu of bucket %llu comes out of order", (unsigned long long)handle,
                      (unsigned long long)bucket);
  if (!Unescape(fields[4], &bytes)) return reader.Bad("bad bytes \"%s\"", fields[4].c_str());
  if (LDBArrayAdd(array, threadData_, uint32_t(bucket), bytes.data(), uint32_t(bytes.size()), NEWGEN) ==
      LDBARRAY_INVALID_HANDLE)
    return QWErrorRethrow("line %llu: cannot add the element", (unsigned long long)reader.Line()) != 0;
  return true;
}

}  // namespace qwtool
