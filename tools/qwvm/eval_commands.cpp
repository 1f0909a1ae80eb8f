// `qwvm eval DIR add 'EXPR' VALUE | match [--weak ATOM]... ATOM... | stat`:
// stored boolean queries by hand. The queries live in a memory-mapped arena
// in DIR under the name "eval". `add` creates the arena when it is missing
// and commits before it returns; `match` and `stat` read the committed state
// of an existing one, read-only.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/qwvm/commands.h"
#include "tools/qwvm/eval_expression.h"

namespace qwtool {
namespace {

constexpr const char *kEvalPrefix = "eval";

int Fail(const char *what) { return FailWithChain("eval", what); }

int EvalUsage(FILE *out = stderr) {
  std::fprintf(out,
               "usage: qwvm eval DIR add 'EXPR' VALUE\n"
               "           store a query with the u32 VALUE and commit; EXPR combines atoms ID or ID:SUB\n"
               "           with ! (not), & (and), | (or) and parentheses; its disjunctive form may have at\n"
               "           most %zu conjunctions of at most %zu atoms\n"
               "       qwvm eval DIR match [--weak ATOM]... ATOM...\n"
               "           print the values of the queries the atoms satisfy, at each level (0: any atoms,\n"
               "           1: at least one strong atom, 2: strong atoms only); --weak marks one weak atom\n"
               "       qwvm eval DIR stat\n"
               "           print the numbers of stored conjunctions and atom nodes and their bytes\n",
               kMaxConjunctions, kMaxConjunctionAtoms);
  return out == stderr ? 2 : 0;
}

// The arena and the evaluator of DIR.
struct EvalStore {
  VMArena *arena = nullptr;
  BoolEval *eval = nullptr;
  uint8_t *pathBuffer = nullptr;

  bool Open(const std::string &directory, bool writable) {
    const uint32_t flags = VM_FLAG_MAPPED | (writable ? VM_FLAG_CREATE : VM_FLAG_READ_ONLY);
    arena = VMArenaOpen(directory.c_str(), flags, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
    if (arena == nullptr) return false;
    eval = BoolEvalNew(arena, &pathBuffer, kEvalPrefix, writable ? NEWGEN : OLDGEN, nullptr, 1);
    return eval != nullptr;
  }
  ~EvalStore() {
    BoolEvalFree(eval);
    if (arena) VMArenaClose(arena);
    ArrayFree(pathBuffer);
  }
};

int Add(const std::string &directory, const std::string &expression, const std::string &valueText) {
  Disjunction form;
  std::string error;
  uint32_t value = 0;
  if (!ParseExpression(expression, &form, &error)) {
    std::fprintf(stderr, "qwvm eval: %s\n  %s\n", error.c_str(), expression.c_str());
    return 1;
  }
  if (!ParseU32(valueText, &value)) {
    std::fprintf(stderr, "qwvm eval: the value \"%s\" is not an unsigned 32-bit number\n", valueText.c_str());
    return 1;
  }
  EvalStore store;
  if (!store.Open(directory, true)) return Fail(("cannot open the queries in \"" + directory + "\"").c_str());
  BoolQuery *query = BoolQueryNew();
  const bool stored = query && BuildQuery(form, query) && BoolEvalAdd(store.eval, query, value, NEWGEN);
  BoolQueryFree(query);
  // A query that failed half-way is dropped with the uncommitted generation.
  if (!stored) return Fail("cannot store the query");
  if (!VMArenaCommit(store.arena, nullptr, nullptr, 0) || !BoolEvalOnCommit(store.eval)) return Fail("cannot commit");
  std::printf("stored value %u: %zu conjunction(s)\n", value, form.size());
  return 0;
}

int Match(const std::string &directory, int argc, char **argv) {
  std::vector<std::pair<EvalAtom, bool>> atoms;  // atom, strong
  for (int i = 0; i < argc; ++i) {
    const bool weak = std::string(argv[i]) == "--weak";
    if (weak && ++i == argc) return EvalUsage();
    EvalAtom atom;
    std::string error;
    if (!ParseAtom(argv[i], &atom, &error)) {
      std::fprintf(stderr, "qwvm eval: %s\n", error.c_str());
      return 1;
    }
    atoms.emplace_back(atom, !weak);
  }
  EvalStore store;
  if (!store.Open(directory, false)) return Fail(("cannot open the queries in \"" + directory + "\"").c_str());
  BoolEvalRuntime *runtime = BoolEvalRuntimeNew(store.eval);
  bool ok = runtime && BoolEvalRuntimeStart(runtime, OLDGEN);
  for (const auto &[atom, strong] : atoms) ok = ok && BoolEvalRuntimeAtomAdd(runtime, atom.sub, atom.id, strong);
  ok = ok && BoolEvalRuntimeStop(runtime);
  for (uint32_t level = 0; ok && level < 3; ++level) {
    uint32_t count = 0;
    const uint32_t *values = BoolEvalRuntimeMatchGet(runtime, level, &count);
    std::printf("level %u:", level);
    for (uint32_t i = 0; i < count; ++i) std::printf(" %u", values[i]);
    std::printf("\n");
  }
  BoolEvalRuntimeFree(runtime);
  return ok ? 0 : Fail("cannot evaluate");
}

int Stat(const std::string &directory) {
  EvalStore store;
  if (!store.Open(directory, false)) return Fail(("cannot open the queries in \"" + directory + "\"").c_str());
  uint64_t conjunctions = 0, allNegative = 0, atomNodes = 0, bytes = 0;
  if (!BoolEvalStat(store.eval, OLDGEN, &conjunctions, &allNegative, &atomNodes, &bytes)) return Fail("cannot stat");
  std::printf("conjunctions:  %" PRIu64 " (%" PRIu64 " of negated atoms only)\natom nodes:    %" PRIu64
              "\nbytes used:    %" PRIu64 "\n",
              conjunctions, allNegative, atomNodes, bytes);
  return 0;
}

}  // namespace

int RunEval(int argc, char **argv) {
  if (argc == 1 && (std::string(argv[0]) == "--help" || std::string(argv[0]) == "help")) return EvalUsage(stdout);
  if (argc < 2) return EvalUsage();
  const std::string directory = argv[0], verb = argv[1];
  if (verb == "add" && argc == 4) return Add(directory, argv[2], argv[3]);
  if (verb == "match") return Match(directory, argc - 2, argv + 2);
  if (verb == "stat" && argc == 2) return Stat(directory);
  return EvalUsage();
}

}  // namespace qwtool
