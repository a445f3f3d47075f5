// Filtered walks: node stacks, the filter matcher and the stepping loop that
// the navigation functions hand over to, plus the diagnostic tree dump.
//
// Contract
// - Everything here runs under the caller's table lock (shared is enough):
//   nothing changes the tree. The matcher allocates only the decoded form of
//   its filter, its pending-result stacks and text buffers, all freed before
//   it returns. A walk decodes its filter once and evaluates the decoded form
//   for every sibling it examines; the answers are those of evaluating the
//   term itself.
// - A node stack belongs to one native call. It does not own its nodes; its
//   terms belong to the environment of the running call. The caller creates
//   it with node_stack_init and frees it with node_stack_clear.
// - Kept traps, not guarded here: filter operator 6 re-reads its own tuple for
//   ever (the scheduler thread never returns), an unknown string comparison
//   operator aborts (assertion "0"), a corrupt encoded key aborts in the key
//   parser. The Erlang API layer keeps such filters away.
// - Matcher result codes: 0 no match, 1 match ("full"), 2 undecidable from
//   what the tree holds ("missing"), 3 unsupported or malformed filter
//   ("unsupported"), 99 the instance scan hit its step limit: the walk yields
//   and resumes from the node stack.
#ifndef ARBO_FILTER_H
#define ARBO_FILTER_H

#include <erl_nif.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "arbo_node.h"

namespace arbo {

// ---- node stacks ------------------------------------------------------------------
// Pairs (node, term): the node a walk must come back to and the filter or
// path that applied when it was pushed. Bottom entry at index 0.
struct node_stack {
  arbo_node** nodes;
  ERL_NIF_TERM* filter;
  int32_t pos;   // top index, -1 when empty
  int32_t size;  // capacity of both arrays
};

// pos -1, size 2. Allocation failure aborts ("node_stack", ...).
node_stack* node_stack_init();
// Frees both arrays and the stack itself.
void node_stack_clear(node_stack* stack);
// Returns the new pos; grows both arrays by 2 entries when full.
int32_t node_stack_push(node_stack* stack, arbo_node* node, ERL_NIF_TERM filter);
// The top node (and its term in *filter), or null for an empty stack, in
// which case *filter is left alone.
arbo_node* node_stack_pop(node_stack* stack, ERL_NIF_TERM* filter);
// {Nodes, Filters}, both bottom first; {[], []} for an empty stack.
ERL_NIF_TERM node_stack_to_erl(ErlNifEnv* env, const node_stack* stack);
// Pushes the pairs of {Nodes, Filters} bottom first. 0 when done (also when
// Nodes ends first), 1 when Filters ends first or a node is not an unsigned
// integer; pairs pushed before the failure stay. `term` must be a 2-tuple.
int erl_to_node_stack(ErlNifEnv* env, ERL_NIF_TERM term, node_stack* stack);
// Debug dump to stdout. Node entries are handed to "%T" as stored.
void node_stack_print(const node_stack* stack);

// ---- the filter matcher -------------------------------------------------------------
constexpr int kMatchNone = 0;
constexpr int kMatchFull = 1;
constexpr int kMatchMissing = 2;
constexpr int kMatchUnsupported = 3;
constexpr int kMatchYield = 99;

// Evaluates `filter` against `node` (may be null). match_flag 0 lets an or
// stop at any non-zero left result; otherwise only a full match stops it.
// `stack` is the walk's node stack: path comparisons resume from it.
int _arbo_nif_match_filter(arbo_node* node, int match_flag, ErlNifEnv* env, ERL_NIF_TERM filter,
                           node_stack* stack);
// One comparison of a node (null when its path did not resolve) against a
// pattern; index -1 compares the value, index >= 0 that element of the key.
int filter_cmp(arbo_node* node, int match_flag, uint32_t cmp_op, ErlNifEnv* env,
               ERL_NIF_TERM value, int64_t index, uint64_t mask);
// Text against pattern: 1 equal, 2 different, 3..6 greater, greater or equal,
// less, less or equal (as integers when both parse, else as doubles, else 3).
// Any other operator aborts (assertion "0").
int filter_cmp_str(uint32_t cmp_op, const char* text, int32_t text_len, const char* pattern,
                   int32_t pattern_len);
// Text of one encoded element (type byte first) into dst (cap bytes, NUL
// terminated); the text length, or -1 for a type without a text form. The
// caller has checked that the element lies within its buffer.
int32_t _arbo_nif_fmt_cs_val(const unsigned char* element, char* dst, int32_t cap);
// Length of a well-formed element of a type that has a text form, or 0 when
// the type has none or the element does not fit in `avail` bytes (values are
// not validated on entry, so they are checked before they are formatted).
size_t text_element_len(const unsigned char* element, size_t avail);
// Resolves a relative path (a list of Tag or [Ns | Tag]) from `node`. Stops
// at a list node when elements remain: *remainder gets them (else []). Null
// with *malformed set when the walk reads an element that is neither form,
// or a tail that is not []; what lies past where the walk stops is not read.
arbo_node* find_node(arbo_node* node, ErlNifEnv* env, ERL_NIF_TERM path,
                     ERL_NIF_TERM* remainder, bool* malformed);
// Length of a proper list, 0 for anything else.
uint32_t get_rest_length(ErlNifEnv* env, ERL_NIF_TERM list);

// ---- filtered stepping ----------------------------------------------------------------
constexpr uint32_t kOptHideInactive = 0x100;
// Siblings examined per call before a walk yields.
constexpr int kWalkBudget = 1002;

// Steps from `start` through its siblings until the filter matches. Returns
// 0 (none), the node (match_flag 0) or {Node, full | missing | unsupported},
// or {yield, Stack, Node} to be resumed with next_sibling_nif/5.
ERL_NIF_TERM filter_match_next(ErlNifEnv* env, arbo_node* start, int match_flag, uint32_t options,
                               ERL_NIF_TERM filter, node_stack* stack);

// ---- diagnostic dump -------------------------------------------------------------------
// Writes the whole tree to `path` (truncating, unbuffered); quietly does
// nothing when the file cannot be opened.
void _arbo_nif_print_nodes(ErlNifEnv* env, const arbo_t* table, const char* path);
// Prints node, its later siblings, their attributes and subtrees; null
// stream means stdout.
void print_node(ErlNifEnv* env, FILE* stream, const arbo_node* node, int indent);

}  // namespace arbo

#endif  // ARBO_FILTER_H
