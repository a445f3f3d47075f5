// Per-process iterator stacks kept in the table handle.
//
// Contract
// - One `iter_stack` per process per table, found by the owner's pid; the
//   process is monitored and its stack freed when it dies.
// - Every function here runs under the table lock: push, pop, repair and
//   dropping a dead process's stack exclusive, reads shared. Nothing here
//   takes the lock itself.
// - Entries are node addresses as Erlang sees them. The node store repairs
//   the stacks when a node leaves the tree (iter_nodes_fixup).
#ifndef ARBO_STACK_H
#define ARBO_STACK_H

#include <erl_nif.h>

#include <cstdint>

#include "arbo_node.h"

namespace arbo {

struct iter_stack {
  uintptr_t* nodes;
  int32_t pos;   // top index, -1 when empty
  int32_t size;  // capacity of nodes
  ErlNifPid owner_pid;
  ErlNifMonitor monitor;
  iter_stack* next;
};

// The calling process's stack on this table, or null.
iter_stack* iter_nodes_find_stack(ErlNifEnv* env, arbo_t* table);
// A fresh stack: pos -1, room for 8 entries.
iter_stack* iter_nodes_new_stack();
// Pushes a node; node 0 is a fatal assertion (kept: the API guards it).
void iter_nodes_push(iter_stack* stack, uintptr_t node);
// Index of the lowest entry equal to `node`, or -1.
int64_t iter_nodes_find(iter_stack* stack, uintptr_t node);
// Stores `node` at idx and nulls every entry above it (pos is kept).
void iter_nodes_replace_at(iter_stack* stack, int64_t idx, uintptr_t node);
// The store's repair: in every stack of the table, the entry holding `node`
// becomes `replacement`. kNoFixup means nothing to do.
void iter_nodes_fixup(arbo_t* table, const arbo_node* node, uintptr_t replacement);
// Frees every stack of the table (close and destructor).
void iter_nodes_free_all(arbo_t* table);
// Unlinks and frees the stack owned by `pid`, if any. The process-down
// callback of "arbo_type" (arbo_nif_stack.cpp) calls it under the
// exclusive lock once it knows the table is open.
void iter_nodes_drop_stack(arbo_t* table, const ErlNifPid* pid);

}  // namespace arbo

#endif  // ARBO_STACK_H
