// Self-checks of the node store's structures, for tests and debugging.
//
// Contract
// - Read only; the caller holds the table lock (shared is enough).
// - They never abort: a broken structure yields false and, when `why` is not
//   null, a one-line reason in it. Walks are bounded, so a cycle is reported
//   rather than followed forever.
// - Key order is checked with cmp in the list's own mode, between each
//   instance and its successor (mode 2 is not symmetric for every key pair;
//   lists built from such pairs may be reported).
#ifndef ARBO_STORE_CHECK_H
#define ARBO_STORE_CHECK_H

#include <cstddef>

#include "arbo_node.h"

namespace arbo {

struct check_msg {
  char text[200] = {};
};

// Sorted list (cmp 0 to 2): every level ascending and a sub-chain of the one
// below, heights 1 to 7 matching the node types, curh the number of levels
// in use, size the length of level 0, child == head[0].
bool sl_check_invariants(const arbo_node* list, check_msg* why);
// User-ordered list (cmp 3): next/prev links agree, head[0] first, head[1]
// last, instances are T_GEN_NODE_TWO of height 2, size the walk's length;
// an index, when present, counts and finds every instance; an index exists
// from 128 instances on and never below 64.
bool dl_check_invariants(const arbo_node* list, check_msg* why);
// Either of the two above, by the list's mode.
bool dn_check_invariants(const arbo_node* list, check_msg* why);
// Integer child list of a node that is not a list node: strictly ascending
// by (namespace, key), no byte-keyed children.
bool int_list_check_invariants(const arbo_node* parent, check_msg* why);
// Attribute chain: T_GEN_NODE_ONE records of height 1 with strictly
// ascending integer keys, no children or attributes of their own.
bool attr_check_invariants(const arbo_node* node, check_msg* why);
// Every check above, over the node and its whole subtree.
bool tree_check_invariants(const arbo_node* node, check_msg* why);
// Nodes in the subtree below `node` (attributes included, `node` excluded):
// what the table's `size` counts when `node` is the root.
size_t subtree_node_count(const arbo_node* node);

}  // namespace arbo

#endif  // ARBO_STORE_CHECK_H
