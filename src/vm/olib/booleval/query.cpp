// BoolQuery: a disjunction of conjunctions built in memory.
#include <new>

#include "vm/olib/booleval/booleval_internal.h"

extern "C" {

QW_API BoolQuery *BoolQueryNew(void) {
  BoolQuery *query = new (std::nothrow) BoolQuery;
  if (query == nullptr) QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "BoolQueryNew: out of memory");
  return query;
}

QW_API void BoolQueryFree(BoolQuery *query) { delete query; }

QW_API int BoolQueryDisjStart(BoolQuery *query) {
  qwassert_(query->level == 0);
  qw::booleval::Reset(&query->atoms);
  qw::booleval::Reset(&query->ends);
  return qw::booleval::Guarded("BoolQueryDisjStart", [&] {
    query->ends.push_back(0);
    query->level = 1;
    return 1;
  });
}

QW_API int BoolQueryConjStart(BoolQuery *query) {
  qwassert_(query->level == 1);
  query->level = 2;
  return 1;
}

QW_API int BoolQueryAtomAdd(BoolQuery *query, uint32_t sub, uint32_t atomID, int neg) {
  const uint32_t UINT_MAX_VALUE = UINT32_MAX;
  qwassert_(atomID != UINT_MAX_VALUE);
  return qw::booleval::Guarded("BoolQueryAtomAdd", [&] {
    query->atoms.push_back({atomID, sub, neg ? 1u : 0u});
    return 1;
  });
}

QW_API int BoolQueryConjStop(BoolQuery *query) {
  const int ok = qw::booleval::Guarded("BoolQueryConjStop", [&] {
    query->ends.push_back(uint32_t(query->atoms.size()));
    return 1;
  });
  qwassert_(query->level == 2);
  query->level = 1;
  return ok;
}

QW_API int BoolQueryDisjStop(BoolQuery *query) {
  qwassert_(query->level == 1);
  query->level = 0;
  return 1;
}

}  // extern "C"
