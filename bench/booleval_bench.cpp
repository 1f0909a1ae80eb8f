// The boolean evaluator against an in-memory counting index of the same
// semantics and against a brute-force scan of the stored queries.
//
// Data (fixed seed): N stored queries (QWVM_BENCH_BOOLEVAL_QUERIES, default
// 1000000), each of 1 to 4 conjunctions of 1 to 5 atoms drawn from 100000
// atom ids, 10% of the atoms negated; a conjunction's first atom is never
// negated unless QWVM_BENCH_BOOLEVAL_NEG_FIRST=1 (with it, about 2% of the
// conjunctions are negated atoms only, and such a conjunction matches almost
// every document, so every document then matches tens of thousands of
// queries). Documents: 1024 sets of 20 distinct strong atoms (sub 0).
//
// The evaluator stores the queries in a memory-mapped arena (keepInMemory
// on) and evaluates in the committed generation: one iteration is Start,
// AtomsAdd, Stop and MatchGet(0). The counting index (the practical limit)
// keeps, in a hash map, each atom's list of (conjunction, negated) and, per
// conjunction, the number of positive atoms it needs and its query value;
// per document it counts hits, kills conjunctions with a negated atom
// present, and sorts and de-duplicates the matched values. The brute-force
// scan checks every conjunction of every query against the document.
//
// The summary prints documents per second, the ratios, the time to store the
// queries, and the query store's bytes per stored query.
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <unordered_map>
#include <vector>

#include "bench_summary.h"
#include "qwvm/qwvm.h"

namespace {

constexpr uint32_t kAtomIds = 100000;
constexpr uint32_t kDocs = 1024;
constexpr uint32_t kDocAtoms = 20;
constexpr uint32_t kNegBit = 0x80000000u;

// The queries, flattened: atoms (id | kNegBit when negated) of conjunction c
// are atoms[conjStart[c], conjStart[c + 1]); conjunctions of query q are
// [queryStart[q], queryStart[q + 1]).
struct Queries {
  std::vector<uint32_t> atoms, conjStart{0}, queryStart{0};
};

struct Globals {
  std::string root;
  uint32_t queryCount = 1000000;
  bool negFirst = false;
  Queries queries;
  std::vector<std::vector<uint32_t>> docs;
  VMArena *arena = nullptr;
  BoolEval *eval = nullptr;
  double storeSeconds = 0;
  uint64_t diskBytes = 0, structureBytes = 0, conjunctions = 0;
} g;

// The counting index.
struct CountingIndex {
  std::unordered_map<uint32_t, std::vector<uint32_t>> postings;  // atom -> conj * 2 + negated
  std::vector<uint8_t> need;                                     // positive atoms per conjunction
  std::vector<uint32_t> value;                                   // query value per conjunction
  std::vector<uint32_t> allNegative;
  std::vector<uint8_t> count;  // per document; kKilled when a negated atom is present
  std::vector<uint32_t> touched;
  static constexpr uint8_t kKilled = 0xFF;

  void Build(const Queries &q) {
    const uint32_t conjs = uint32_t(q.conjStart.size() - 1);
    need.assign(conjs, 0);
    value.assign(conjs, 0);
    count.assign(conjs, 0);
    for (uint32_t query = 0; query + 1 < q.queryStart.size(); ++query) {
      for (uint32_t c = q.queryStart[query]; c < q.queryStart[query + 1]; ++c) {
        value[c] = query;
        for (uint32_t i = q.conjStart[c]; i < q.conjStart[c + 1]; ++i) {
          const bool neg = (q.atoms[i] & kNegBit) != 0;
          postings[q.atoms[i] & ~kNegBit].push_back(c * 2 + neg);
          need[c] += neg ? 0 : 1;
        }
        if (need[c] == 0) allNegative.push_back(c);
      }
    }
  }

  void Match(const std::vector<uint32_t> &doc, std::vector<uint32_t> *out) {
    out->clear();
    for (uint32_t atom : doc) {
      auto found = postings.find(atom);
      if (found == postings.end()) continue;
      for (uint32_t entry : found->second) {
        uint8_t &n = count[entry >> 1];
        if (n == 0) touched.push_back(entry >> 1);
        if (entry & 1) {
          n = kKilled;
        } else if (n != kKilled) {
          ++n;
        }
      }
    }
    for (uint32_t c : touched) {
      if (count[c] == need[c]) out->push_back(value[c]);
    }
    for (uint32_t c : allNegative) {
      if (count[c] != kKilled) out->push_back(value[c]);
    }
    for (uint32_t c : touched) count[c] = 0;
    touched.clear();
    std::sort(out->begin(), out->end());
    out->erase(std::unique(out->begin(), out->end()), out->end());
  }
} peer;

void MakeData() {
  std::mt19937 random(42);
  for (uint32_t query = 0; query < g.queryCount; ++query) {
    const uint32_t conjs = 1 + random() % 4;
    for (uint32_t c = 0; c < conjs; ++c) {
      const uint32_t atoms = 1 + random() % 5;
      for (uint32_t i = 0; i < atoms; ++i) {
        const bool neg = (i > 0 || g.negFirst) && random() % 10 == 0;
        g.queries.atoms.push_back(uint32_t(random() % kAtomIds) | (neg ? kNegBit : 0));
      }
      g.queries.conjStart.push_back(uint32_t(g.queries.atoms.size()));
    }
    g.queries.queryStart.push_back(uint32_t(g.queries.conjStart.size() - 1));
  }
  g.docs.resize(kDocs);
  for (auto &doc : g.docs) {
    while (doc.size() < kDocAtoms) {  // distinct atoms
      const uint32_t atom = random() % kAtomIds;
      if (std::find(doc.begin(), doc.end(), atom) == doc.end()) doc.push_back(atom);
    }
  }
}

bool Fail(const char *what) {
  std::fprintf(stderr, "%s failed:\n%s\n", what, QWErrorMessage());
  return false;
}

bool StoreQueries() {
  const std::string directory = g.root + "/queries";
  g.arena = VMArenaOpen(directory.c_str(), VM_FLAG_MAPPED | VM_FLAG_CREATE, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                        nullptr, nullptr);
  if (!g.arena) return Fail("VMArenaOpen");
  uint8_t *pathBuffer = nullptr;
  g.eval = BoolEvalNew(g.arena, &pathBuffer, "bench", NEWGEN, nullptr, 1);
  ArrayFree(pathBuffer);
  BoolQuery *query = BoolQueryNew();
  if (!g.eval || !query) return Fail("BoolEvalNew");
  const auto start = std::chrono::steady_clock::now();
  const Queries &q = g.queries;
  bool ok = true;
  for (uint32_t n = 0; ok && n < g.queryCount; ++n) {
    BoolQueryDisjStart(query);
    for (uint32_t c = q.queryStart[n]; c < q.queryStart[n + 1]; ++c) {
      BoolQueryConjStart(query);
      for (uint32_t i = q.conjStart[c]; i < q.conjStart[c + 1]; ++i)
        BoolQueryAtomAdd(query, 0, q.atoms[i] & ~kNegBit, (q.atoms[i] & kNegBit) != 0);
      BoolQueryConjStop(query);
    }
    BoolQueryDisjStop(query);
    ok = BoolEvalAdd(g.eval, query, n, NEWGEN) == 1;
    if (ok && n % 100000 == 99999) ok = VMArenaCommit(g.arena, nullptr, nullptr, 0) && BoolEvalOnCommit(g.eval);
  }
  BoolQueryFree(query);
  if (!ok || !VMArenaCommit(g.arena, nullptr, nullptr, 0) || !BoolEvalOnCommit(g.eval)) return Fail("storing");
  g.storeSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  BoolEvalStat(g.eval, OLDGEN, &g.conjunctions, nullptr, nullptr, &g.structureBytes);
  std::error_code error;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory, error)) {
    struct stat info;
    if (lstat(entry.path().c_str(), &info) == 0 && S_ISREG(info.st_mode)) g.diskBytes += uint64_t(info.st_blocks) * 512;
  }
  return true;
}

// Our level-0 matches of `doc`.
bool Evaluate(BoolEvalRuntime *runtime, const std::vector<uint32_t> &doc, std::vector<uint32_t> *out) {
  if (!BoolEvalRuntimeStart(runtime, OLDGEN) ||
      !BoolEvalRuntimeAtomsAdd(runtime, 0, doc.data(), uint32_t(doc.size()), 1) || !BoolEvalRuntimeStop(runtime)) {
    return false;
  }
  uint32_t count = 0;
  const uint32_t *values = BoolEvalRuntimeMatchGet(runtime, 0, &count);
  out->assign(values, values + count);
  return true;
}

void BruteForce(const std::vector<uint32_t> &doc, std::vector<uint8_t> *present, std::vector<uint32_t> *out) {
  out->clear();
  for (uint32_t atom : doc) (*present)[atom] = 1;
  const Queries &q = g.queries;
  for (uint32_t n = 0; n + 1 < q.queryStart.size(); ++n) {
    for (uint32_t c = q.queryStart[n]; c < q.queryStart[n + 1]; ++c) {
      bool holds = true;
      for (uint32_t i = q.conjStart[c]; holds && i < q.conjStart[c + 1]; ++i)
        holds = (*present)[q.atoms[i] & ~kNegBit] != ((q.atoms[i] & kNegBit) != 0);
      if (holds) {
        out->push_back(n);
        break;
      }
    }
  }
  for (uint32_t atom : doc) (*present)[atom] = 0;
}

// Thread CPU time, for a ratio that load from other processes does not
// distort.
double ThreadCpuNs() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return double(now.tv_sec) * 1e9 + double(now.tv_nsec);
}

// Runs `body(i)` per iteration; records the CPU time per iteration.
template <typename Body>
void Timed(benchmark::State &state, Body body) {
  const double start = ThreadCpuNs();
  uint64_t i = 0;
  for (auto _ : state) {
    if (!body(i++)) break;
  }
  state.counters["cpu_ns"] = (ThreadCpuNs() - start) / double(std::max<uint64_t>(i, 1));
}

void BM_BoolEval(benchmark::State &state) {
  BoolEvalRuntime *runtime = BoolEvalRuntimeNew(g.eval);
  std::vector<uint32_t> out;
  uint64_t matches = 0, docs = 0;
  Timed(state, [&](uint64_t i) {
    if (!Evaluate(runtime, g.docs[i % kDocs], &out)) {
      state.SkipWithError(QWErrorMessage());
      return false;
    }
    matches += out.size();
    ++docs;
    return true;
  });
  state.counters["matches/doc"] = double(matches) / double(std::max<uint64_t>(docs, 1));
  BoolEvalRuntimeFree(runtime);
}

void BM_CountingIndex(benchmark::State &state) {
  std::vector<uint32_t> out;
  Timed(state, [&](uint64_t i) {
    peer.Match(g.docs[i % kDocs], &out);
    benchmark::DoNotOptimize(out.data());
    return true;
  });
}

void BM_BruteForce(benchmark::State &state) {
  std::vector<uint8_t> present(kAtomIds, 0);
  std::vector<uint32_t> out;
  Timed(state, [&](uint64_t i) {
    BruteForce(g.docs[i % kDocs], &present, &out);
    benchmark::DoNotOptimize(out.data());
    return true;
  });
}

BENCHMARK(BM_BoolEval)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CountingIndex)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BruteForce)->Unit(benchmark::kMillisecond);

bool Prepare() {
  if (const char *n = std::getenv("QWVM_BENCH_BOOLEVAL_QUERIES")) g.queryCount = uint32_t(std::strtoul(n, nullptr, 10));
  if (const char *neg = std::getenv("QWVM_BENCH_BOOLEVAL_NEG_FIRST")) g.negFirst = std::string(neg) == "1";
  if (g.queryCount == 0) return false;
  char pattern[] = "/tmp/qwvm-booleval-bench-XXXXXX";
  if (!mkdtemp(pattern)) return false;
  g.root = pattern;
  MakeData();
  peer.Build(g.queries);
  if (!StoreQueries()) return false;
  // The three must agree before anything is timed.
  BoolEvalRuntime *runtime = BoolEvalRuntimeNew(g.eval);
  std::vector<uint8_t> present(kAtomIds, 0);
  std::vector<uint32_t> ours, counted, brute;
  bool agree = runtime != nullptr;
  for (uint32_t d = 0; agree && d < 16; ++d) {
    agree = Evaluate(runtime, g.docs[d], &ours);
    peer.Match(g.docs[d], &counted);
    BruteForce(g.docs[d], &present, &brute);
    agree = agree && ours == counted && ours == brute;
    if (!agree)
      std::fprintf(stderr, "document %u: %zu matches, %zu counted, %zu scanned\n", d, ours.size(), counted.size(),
                   brute.size());
  }
  BoolEvalRuntimeFree(runtime);
  if (!agree) std::fprintf(stderr, "the evaluator, the counting index and the scan disagree\n");
  return agree;
}

void Summary(const qwbench::SummaryReporter &reporter) {
  std::printf("\n%u queries (%llu distinct conjunctions), documents of %u atoms%s\n", g.queryCount,
              static_cast<unsigned long long>(g.conjunctions), kDocAtoms,
              g.negFirst ? ", negated first atoms allowed" : "");
  if (const auto *ours = reporter.Find("BM_BoolEval")) std::printf("documents per second: %.0f\n", 1e9 / ours->nsPerOp);
  reporter.PrintRatio("evaluator / counting index", "BM_BoolEval", "BM_CountingIndex", 1);
  reporter.PrintRatio("evaluator / brute-force scan", "BM_BoolEval", "BM_BruteForce", 1);
  // The same in CPU time of the measuring thread.
  const auto *ours = reporter.Find("BM_BoolEval");
  for (const char *peerName : {"BM_CountingIndex", "BM_BruteForce"}) {
    const auto *other = reporter.Find(peerName);
    if (!ours || !other || !ours->counters.count("cpu_ns") || !other->counters.count("cpu_ns")) continue;
    const double a = ours->counters.at("cpu_ns"), b = other->counters.at("cpu_ns");
    std::printf("CPU time, evaluator / %s: %.3f  (%s vs %s; %.0f documents per CPU second)\n", peerName + 3, a / b,
                qwbench::SummaryReporter::FormatTime(a).c_str(), qwbench::SummaryReporter::FormatTime(b).c_str(),
                1e9 / a);
  }
  std::printf("stored in %.1f s (%.0f queries per second)\n", g.storeSeconds, g.queryCount / g.storeSeconds);
  std::printf("bytes per stored query: %.1f on disk (allocated), %.1f in the evaluator's arrays\n",
              double(g.diskBytes) / g.queryCount, double(g.structureBytes) / g.queryCount);
}

void Cleanup() {
  BoolEvalFree(g.eval);
  if (g.arena) VMArenaClose(g.arena);
  std::error_code ignored;
  if (!g.root.empty()) std::filesystem::remove_all(g.root, ignored);
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(argc, argv, 30, Prepare, Summary, Cleanup, [] {
    return "cannot prepare the data (QWVM_BENCH_BOOLEVAL_QUERIES must be positive)";
  });
}
