#include "fault/workloads.h"

namespace faulttest {

std::unique_ptr<Workload> MakeArenaBlocksCached();
std::unique_ptr<Workload> MakeArenaBlocksMapped();
std::unique_ptr<Workload> MakeDBArray();
std::unique_ptr<Workload> MakeLDBArray();
std::unique_ptr<Workload> MakePITree();
std::unique_ptr<Workload> MakeBTree();
std::unique_ptr<Workload> MakeAVL();
std::unique_ptr<Workload> MakeSFS();
std::unique_ptr<Workload> MakeBoolEval();
std::unique_ptr<Workload> MakeLvmReplayed();
std::unique_ptr<Workload> MakeLvmCommitted();
std::unique_ptr<Workload> MakeBoxReplayed();
std::unique_ptr<Workload> MakeBoxCommitted();
std::unique_ptr<Workload> MakeStrTable();
std::unique_ptr<Workload> MakeSort();

const std::vector<WorkloadKind> &AllWorkloads() {
  static const std::vector<WorkloadKind> kinds = {
      {"arena_blocks_cached", MakeArenaBlocksCached},
      {"arena_blocks_mapped", MakeArenaBlocksMapped},
      {"dbarray", MakeDBArray},
      {"ldbarray", MakeLDBArray},
      {"pitree_names", MakePITree},
      {"btree", MakeBTree},
      {"avl", MakeAVL},
      {"sfs", MakeSFS},
      {"booleval", MakeBoolEval},
      {"lvm_replayed", MakeLvmReplayed},
      {"lvm_committed", MakeLvmCommitted},
      {"box_replayed", MakeBoxReplayed},
      {"box_committed", MakeBoxCommitted},
      {"strtable", MakeStrTable},
      {"sort", MakeSort},
  };
  return kinds;
}

}  // namespace faulttest
