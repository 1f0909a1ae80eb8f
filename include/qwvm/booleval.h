/*
 * qwvm/booleval.h: stored boolean queries and their evaluator.
 *
 * The evaluator answers the inverse of a search: many stored queries, one
 * set of atoms (say the terms of one document), and the question which
 * stored queries that set satisfies. A query is a disjunction of
 * conjunctions of atoms, each atom possibly negated; an atom is a pair of
 * u32 words (atomID, sub). Each stored query carries a u32 value returned
 * when it matches. Atoms order by atomID, then sub, then negation.
 *
 * Storage, under the caller's path P (the path buffer's content followed by
 * `prefix` and "/"):
 *   "P/atomNodesAttr"   large-element array, element atomID: the atom node;
 *   "P/andTotalAttr"    large-element array, element c: the number of atoms
 *                       conjunction c needs (one varint);
 *   "P/allNegAttr"      large-element array, element i: the id of the i-th
 *                       conjunction made only of negated atoms (one varint);
 *   "P/andNodesLookup/" ID tree: sorted atom list of a conjunction -> its id;
 *   "P/andNodesAttr"    large-element array, element c: conjunction node c.
 * All arrays have one bucket; conjunction ids are dense from 0.
 * Varints are the program's own (7-bit groups lowest first, each byte the
 * group shifted left by one, bit 0 set when more bytes follow).
 *
 * Atom node of atomID: one entry per sub used with that atomID, in ascending
 * sub order; an entry is
 *   varint sub, varint payloadBytes, then the payload:
 *   varint valueCount, valueCount varints (the values of the single-atom
 *   conjunctions (atomID, sub), in order of addition), then the links to the
 *   end of the payload: ascending u32 links, the first as a varint, each
 *   next one as a varint of its difference from the previous.
 * A link is conjunctionID * 4 + 2 for a positive atom of the conjunction and
 * conjunctionID * 4 + 0 for a negated one (tag 3 marks, during an
 * evaluation only, a weak positive atom or an all-negative candidate).
 * Conjunction node: varint atomCount; atomCount pairs (varint atomID * 2 +
 * neg, varint sub + 1) in sorted order; varint andTotal (the number of
 * non-negated atoms, or 1 when all are negated); then the values of the
 * queries that contain the conjunction, one varint each, to the end.
 * ID tree key of a conjunction: two symbols per sorted atom, atomID * 2 +
 * neg and sub.
 *
 * Atom ids: atomID is never all ones (assertion "atomID != UINT_MAX_VALUE").
 * Atom nodes are indexed by atomID, so stored queries use ids up to
 * BOOLEVAL_MAX_ATOM_ID (a larger one fails BoolEvalAdd with code 22 before
 * anything is stored); evaluations accept any id (one beyond the stored
 * nodes simply matches nothing). Callers number their atoms densely, as a
 * dictionary (qwvm/idtree.h) does.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on
 * success, 0 or NULL on failure with the calling thread's error chain set.
 * Stored data found malformed tags the arena corrupted and fails the call
 * with an error of class QW_ERROR_CLASS_DATA, code 74.
 *
 * Threads: queries are added (and cleared) in NEWGEN by one writer.
 * Evaluations of OLDGEN may run on any number of threads, each with its own
 * runtime, bracketed by VMArenaOldGenAcquire/Release when a commit may run
 * beside them. Such readers see exactly one committed state when the writer
 * holds them off from the arena's memory commit until BoolEvalOnCommit has
 * run: VMArenaFlushStart, VMArenaFlushExec, VMArenaFlushCommitDisk, then
 * VMArenaFlushCommitMemoryAcquire, VMArenaFlushCommitMemory(arena, 0),
 * BoolEvalOnCommit, VMArenaFlushCommitMemoryRelease, VMArenaFlushStop. The
 * in-memory mirror and the node entry cache are read under the evaluator's
 * cache lock (shared) and rebuilt under it (exclusive) by BoolEvalOnCommit.
 * An evaluation of NEWGEN must not run beside the writer.
 */
#ifndef QWVM_BOOLEVAL_H
#define QWVM_BOOLEVAL_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Largest atomID a stored query may use. */
#define BOOLEVAL_MAX_ATOM_ID 0x00FFFFFFu
/* Match levels: any atoms; at least one strong atom; strong atoms only. */
#define BOOLEVAL_LEVEL_ANY 0u
#define BOOLEVAL_LEVEL_SOME_STRONG 1u
#define BOOLEVAL_LEVEL_ALL_STRONG 2u
/* Node entry cache slots used by BoolEvalNew. */
#define BOOLEVAL_CACHE_SLOTS 65536u

typedef struct BoolQuery BoolQuery;
typedef struct BoolEval BoolEval;
typedef struct BoolEvalRuntime BoolEvalRuntime;
typedef struct NodeEntryCache NodeEntryCache;

/* ------------------------------------------------------------------------ */
/* Queries, built in memory                                                  */
/* ------------------------------------------------------------------------ */

/*
 * A query is built as
 *   DisjStart, { ConjStart, AtomAdd..., ConjStop }..., DisjStop
 * Level 0 is outside, 1 inside the disjunction, 2 inside a conjunction; the
 * level checks are assertions: "query->level == 0" (DisjStart), "query->level
 * == 1" (ConjStart, DisjStop), "query->level == 2" (ConjStop).
 */
QW_API BoolQuery *BoolQueryNew(void);
QW_API void BoolQueryFree(BoolQuery *query);
/* Empties the query (buffers grown past 10000 elements are made afresh). */
QW_API int BoolQueryDisjStart(BoolQuery *query);
QW_API int BoolQueryConjStart(BoolQuery *query);
/* Appends an atom to the current conjunction ("atomID != UINT_MAX_VALUE"). */
QW_API int BoolQueryAtomAdd(BoolQuery *query, uint32_t sub, uint32_t atomID, int neg);
QW_API int BoolQueryConjStop(BoolQuery *query);
QW_API int BoolQueryDisjStop(BoolQuery *query);

/* ------------------------------------------------------------------------ */
/* The evaluator                                                             */
/* ------------------------------------------------------------------------ */

/*
 * Opens, or creates, the stored queries under P = pathBuffer's content +
 * prefix + "/".
 *  pathBuffer    [in/out] the caller's growable byte array (NULL is
 *                initialised and then owned by the caller); its length is
 *                restored before return.
 *  prefix        [in] non-empty name of the evaluator.
 *  genID         NEWGEN: missing structures are created (on a writable
 *                arena); OLDGEN: they must exist (code 2 otherwise).
 *  created       [out, may be NULL] 1 when a structure was created.
 *  keepInMemory  non-zero: the committed conjunction totals, all-negative
 *                list and conjunction values are mirrored in memory (about
 *                12 bytes per conjunction and 4 per value), so that an
 *                evaluation of OLDGEN reads only atom nodes (through the
 *                node entry cache). One BoolEval per prefix should do the
 *                writing: it tracks the conjunctions whose values it
 *                changed, for its next BoolEvalOnCommit.
 * Then loads the in-memory mirror and empties the node entry cache as
 * BoolEvalOnCommit does (the structures' committed generation is the one
 * they were opened with). Returns the evaluator (BoolEvalFree), or NULL with
 * an error; whatever was opened is freed again.
 */
QW_API BoolEval *BoolEvalNew(VMArena *arena, uint8_t **pathBuffer, const char *prefix, uint32_t genID, int *created,
                             int keepInMemory);

/* Frees the in-memory record (NULL is ignored); the stored queries stay. */
QW_API void BoolEvalFree(BoolEval *eval);

/*
 * Stores `query` (finished: level 0) with `value`. genID must be NEWGEN
 * (assertion "genID==NEWGEN"). Empty conjunctions are skipped; a conjunction
 * already stored by another query is shared. Returns 1, or 0 with an error:
 * code 22 for an unfinished query or an atom id beyond BOOLEVAL_MAX_ATOM_ID
 * (nothing is stored then), or the error of a structure (the new
 * generation may then hold part of the query: do not commit it).
 */
QW_API int BoolEvalAdd(BoolEval *eval, BoolQuery *query, uint32_t value, uint32_t genID);

/* Removes every stored query (assertion "genID == NEWGEN"). Returns 1, or 0
 * with an error. */
QW_API int BoolEvalClear(BoolEval *eval, uint32_t genID);

/*
 * Call after VMArenaCommit succeeded (with readers of OLDGEN held off, as
 * for the structures of qwvm/ldbarray.h): the structures' committed
 * generation becomes the one just committed; the new elements of
 * "andTotalAttr" and "allNegAttr", and the values of new and changed
 * conjunctions, are mirrored in memory (all of them after BoolEvalClear);
 * the node entry cache is emptied. Returns 1, or 0 with an
 * error (the mirror is then empty and evaluations read the arrays).
 */
QW_API int BoolEvalOnCommit(BoolEval *eval);

/* Counts in genID: stored conjunctions, all-negative ones among them, atom
 * nodes, and the bytes the five structures use (any out may be NULL).
 * Returns 1, or 0 with an error. */
QW_API int BoolEvalStat(BoolEval *eval, uint32_t genID, uint64_t *conjunctions, uint64_t *allNegative,
                        uint64_t *atomNodes, uint64_t *bytes);

/* ------------------------------------------------------------------------ */
/* Evaluation                                                                */
/* ------------------------------------------------------------------------ */

/*
 * One evaluation at a time, on one thread:
 *   Start(genID), AtomAdd/AtomsAdd..., Stop, MatchGet(level)...
 * AtomAdd records (atomID, sub) with strength 2 (strong) or 1 (weak); a key
 * added twice keeps the larger strength; a non-zero sub also records
 * (atomID, 0). A conjunction matches when all its positive atoms and none of
 * its negated atoms are recorded. Its values go to level 0; to level 1 too
 * when one of its positive atoms is strong; to level 2 too when all of them
 * are (a conjunction of negated atoms only matches at level 0). The values
 * of single-atom conjunctions follow the strength of their atom.
 */
QW_API BoolEvalRuntime *BoolEvalRuntimeNew(BoolEval *eval);
QW_API void BoolEvalRuntimeFree(BoolEvalRuntime *runtime);
/* Resets the runtime for an evaluation of genID (buffers grown past 10000
 * elements are made afresh). The all-negative conjunctions are collected by
 * Stop, under the same hold of the cache lock as the rest of the
 * evaluation, from the mirror when keepInMemory is set and genID is OLDGEN,
 * else from "allNegAttr"; so a commit between Start and Stop cannot mix two
 * states. */
QW_API int BoolEvalRuntimeStart(BoolEvalRuntime *runtime, uint32_t genID);
/* "atomID != UINT_MAX_VALUE". Returns 1, or 0 with code 12. */
QW_API int BoolEvalRuntimeAtomAdd(BoolEvalRuntime *runtime, uint32_t sub, uint32_t atomID, int strong);
QW_API int BoolEvalRuntimeAtomsAdd(BoolEvalRuntime *runtime, uint32_t sub, const uint32_t *atomIDs, uint32_t count,
                                   int strong);
/* Evaluates the recorded atoms. Returns 1, or 0 with an error. */
QW_API int BoolEvalRuntimeStop(BoolEvalRuntime *runtime);
/*
 * The values matched at `level` (below 3: assertion "matchType < 3"),
 * ascending and without duplicates, valid until the next Start; *count gets
 * their number. May return NULL when *count is 0.
 */
QW_API const uint32_t *BoolEvalRuntimeMatchGet(BoolEvalRuntime *runtime, uint32_t level, uint32_t *count);

/* ------------------------------------------------------------------------ */
/* Node entry cache                                                          */
/* ------------------------------------------------------------------------ */

/*
 * A cache of decoded atom-node entries (the values and links of one
 * (atomID, sub)) of the committed generation, shared by the runtimes of one
 * evaluator. It is direct-mapped: `slots` slots (rounded up to a power of
 * two, at least 64), an entry going to the slot its key hashes to and
 * replacing what was there. Absent entries are cached too. Slots are
 * guarded by 64 striped mutexes; entries handed out stay valid while in use
 * even when replaced. NodeEntryCacheReInit empties it (after a commit).
 */
QW_API NodeEntryCache *NodeEntryCacheInit(uint32_t slots);
QW_API void NodeEntryCacheReInit(NodeEntryCache *cache);
QW_API void NodeEntryCacheFree(NodeEntryCache *cache);

QW_END_DECLS

#endif /* QWVM_BOOLEVAL_H */
