// The tour's stored boolean queries: a few expressions stored, committed,
// and one document matched against them at the three levels.
#include <cstdio>
#include <string>
#include <vector>

#include "tools/qwvm/commands.h"
#include "tools/qwvm/eval_expression.h"

namespace qwtool {

int TourQueries(const char *directory) {
  const std::string queryDir = std::string(directory) + "/queries";
  std::printf("\n6. Queries: stored boolean queries, matched against the atoms of a document\n");
  const std::pair<const char *, uint32_t> queries[] = {
      {"1 & 2", 1}, {"1 & !4", 2}, {"3 | 2:5", 3}, {"!(1 | 9)", 4}, {"3 & 1", 5}};
  VMArena *arena = VMArenaOpen(queryDir.c_str(), VM_FLAG_MAPPED | VM_FLAG_CREATE, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                               nullptr, nullptr);
  if (!arena) return TourFail("VMArenaOpen");
  uint8_t *pathBuffer = nullptr;
  BoolEval *eval = BoolEvalNew(arena, &pathBuffer, "eval", NEWGEN, nullptr, 1);
  BoolQuery *query = BoolQueryNew();
  BoolEvalRuntime *runtime = eval ? BoolEvalRuntimeNew(eval) : nullptr;
  bool ok = runtime && query;
  for (const auto &[text, value] : queries) {
    Disjunction form;
    std::string error;
    ok = ok && ParseExpression(text, &form, &error) && BuildQuery(form, query) &&
         BoolEvalAdd(eval, query, value, NEWGEN);
    if (ok) std::printf("   stored %-10s as value %u (%zu conjunction(s))\n", text, value, form.size());
  }
  ok = ok && VMArenaCommit(arena, nullptr, nullptr, 0) && BoolEvalOnCommit(eval);
  std::printf("   committed; the document: strong atoms 1 and 2:5 (which also stands for 2), weak atom 3\n");
  ok = ok && BoolEvalRuntimeStart(runtime, OLDGEN) && BoolEvalRuntimeAtomAdd(runtime, 0, 1, 1) &&
       BoolEvalRuntimeAtomAdd(runtime, 5, 2, 1) && BoolEvalRuntimeAtomAdd(runtime, 0, 3, 0) &&
       BoolEvalRuntimeStop(runtime);
  const std::vector<std::vector<uint32_t>> expected = {{1, 2, 3, 5}, {1, 2, 3, 5}, {1, 2, 3}};
  const char *meaning[] = {"any atoms", "at least one strong atom", "strong atoms only"};
  bool asExpected = ok;
  for (uint32_t level = 0; ok && level < 3; ++level) {
    uint32_t count = 0;
    const uint32_t *values = BoolEvalRuntimeMatchGet(runtime, level, &count);
    std::printf("   level %u (%s):", level, meaning[level]);
    for (uint32_t i = 0; i < count; ++i) std::printf(" %u", values[i]);
    std::printf("\n");
    asExpected = asExpected && std::vector<uint32_t>(values, values + count) == expected[level];
  }
  if (!ok) TourFail("storing or matching queries");
  if (ok && !asExpected) std::fprintf(stderr, "qwvm tour: the matches are not the expected ones\n");
  if (ok)
    std::printf("   use it by hand: qwvm eval %s match 1 2:5 --weak 3; qwvm eval %s stat\n", queryDir.c_str(),
                queryDir.c_str());
  BoolEvalRuntimeFree(runtime);
  BoolQueryFree(query);
  BoolEvalFree(eval);
  ArrayFree(pathBuffer);
  VMArenaClose(arena);
  return ok && asExpected ? 0 : 1;
}

}  // namespace qwtool
