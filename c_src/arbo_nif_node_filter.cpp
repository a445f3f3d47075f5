// The filter matcher: or / and / not over path existence, path comparisons
// (with the resumable instance scan over list nodes) and own-key comparisons,
// and the stepping loop of filtered walks.
//
// A filter term is decoded once per call into a compact form (a Prepared
// filter) that is then evaluated for every sibling the walk examines. The
// form keeps the term's meaning exactly: a malformed part becomes a leaf
// that answers "unsupported" when, and only when, evaluation reaches it (a
// malformed path element or list tail, when path resolution gets that far);
// operator 6 becomes a leaf that re-reads its own tuple for ever.
// The comparisons themselves are in arbo_nif_node_filter_cmp.cpp.
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "arbo_alloc.h"
#include "arbo_atoms.h"
#include "arbo_nif_node_filter.h"
#include "arbo_store.h"

namespace arbo {

namespace {

// Left operands are evaluated by recursion; a filter nested deeper than this
// would exhaust a scheduler's stack, so it counts as unsupported instead.
constexpr int kMaxFilterDepth = 1000;

// Steps of one instance scan before the walk yields (counter 0 to 10).
constexpr int kScanStepLimit = 10;

constexpr int32_t kResultsInitial = 32;  // pairs

// Containers of the prepared form take their memory from the runtime.
template <typename T>
struct EnifAllocator {
  using value_type = T;
  EnifAllocator() = default;
  template <typename U>
  EnifAllocator(const EnifAllocator<U>&) {}
  T* allocate(size_t n) {
    void* p = enif_alloc(n * sizeof(T));
    ARBO_ASSERT_MSG(p != nullptr, "filter");
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t) { enif_free(p); }
  template <typename U>
  bool operator==(const EnifAllocator<U>&) const { return true; }
};
template <typename T>
using EVec = std::vector<T, EnifAllocator<T>>;

// ---- pending results of or / and ----------------------------------------------------

// Pairs (operator, result) of the or / and operators whose right operand is
// being evaluated; created on the first push, freed when the evaluation
// that owns it returns.
struct result_stack {
  int32_t count;
  int32_t capacity;  // pairs
  uint8_t* pairs;    // 2 bytes per pair
};

class PendingResults {
 public:
  PendingResults() = default;
  PendingResults(const PendingResults&) = delete;
  PendingResults& operator=(const PendingResults&) = delete;
  ~PendingResults() {
    if (rs_ == nullptr) return;
    enif_free(rs_->pairs);
    enif_free(rs_);
  }
  result_stack** slot() { return &rs_; }

 private:
  result_stack* rs_ = nullptr;
};

void push_result(result_stack** slot, int op, int result) {
  result_stack* rs = *slot;
  if (rs == nullptr) {
    rs = static_cast<result_stack*>(enif_alloc(sizeof(result_stack)));
    ARBO_ASSERT_MSG(rs != nullptr, "results");
    rs->pairs = static_cast<uint8_t*>(enif_alloc(2 * kResultsInitial));
    ARBO_ASSERT_MSG(rs->pairs != nullptr, "results->pairs");
    rs->count = 0;
    rs->capacity = kResultsInitial;
    *slot = rs;
  }
  if (rs->count == rs->capacity) {
    const int32_t cap = rs->capacity * 2;
    auto* p = static_cast<uint8_t*>(enif_realloc(rs->pairs, 2 * static_cast<size_t>(cap)));
    ARBO_ASSERT_MSG(p != nullptr, "results->pairs");
    rs->pairs = p;
    rs->capacity = cap;
  }
  rs->pairs[2 * rs->count] = static_cast<uint8_t>(op);
  rs->pairs[2 * rs->count + 1] = static_cast<uint8_t>(result);
  rs->count++;
}

// Folds the pending pairs into r, top first. "unsupported" and "yield" end
// the fold at once; a left "missing" or "unsupported" survives unless the
// right side settles the operator.
int unwind_results(result_stack** slot, int r) {
  result_stack* rs = *slot;
  if (rs == nullptr) return r;
  while (rs->count > 0 && r != kMatchUnsupported && r != kMatchYield) {
    rs->count--;
    const int op = rs->pairs[2 * rs->count];
    const int res = rs->pairs[2 * rs->count + 1];
    if (r == kMatchFull && op == 0) r = kMatchFull;
    else if (r == kMatchNone && op == 1) r = kMatchNone;
    else if (res == kMatchUnsupported) r = kMatchUnsupported;
    else if (r != kMatchMissing && res == kMatchMissing) r = kMatchMissing;
  }
  return r;
}

// ---- paths --------------------------------------------------------------------------

bool non_empty_list(ErlNifEnv* env, ERL_NIF_TERM t) {
  ERL_NIF_TERM h, tl;
  return enif_get_list_cell(env, t, &h, &tl) != 0;
}

// A path element: Tag (namespace 0) or [Ns | Tag], both unsigned.
bool path_element(ErlNifEnv* env, ERL_NIF_TERM el, uint32_t* ns, uint32_t* tag) {
  unsigned u = 0, n = 0;
  if (enif_get_uint(env, el, &u)) {
    *ns = 0;
    *tag = u;
    return true;
  }
  ERL_NIF_TERM h, t;
  if (enif_get_list_cell(env, el, &h, &t) && enif_get_uint(env, h, &n) &&
      enif_get_uint(env, t, &u)) {
    *ns = n;
    *tag = u;
    return true;
  }
  return false;
}

// Integer-keyed child of a container, scanned in its (ns, key) order with
// early exit. A container child has no namespace and matches only Ns 0.
arbo_node* find_int_child(arbo_node* parent, uint32_t ns, uint32_t tag) {
  for (arbo_node* c = parent->child; c != nullptr; c = sibling(c)) {
    if (c->has(F_KEY_IS_BIN)) continue;
    const uint32_t key = c->hkey();
    if (c->type() == T_INT_NODE) {
      if (ns != 0) continue;
      if (key == tag) return c;
      if (key > tag) return nullptr;
      continue;
    }
    const uint32_t cns = node_ns(c);
    if (cns == ns && key == tag) return c;
    if (cns > ns || (cns == ns && key > tag)) return nullptr;
  }
  return nullptr;
}

// One step of a path: an instance of a list node, else a child by (ns, tag).
arbo_node* path_step(arbo_node* cur, uint32_t ns, uint32_t tag) {
  if (cur->is_dyn())
    return cur->child != nullptr ? dn_find(cur, nullptr, 0, static_cast<int32_t>(tag), ns)
                                 : nullptr;
  return find_int_child(cur, ns, tag);
}

// ---- the prepared form --------------------------------------------------------------

enum class Op : uint8_t { kOr, kAnd, kNot, kExists, kPathCmp, kKeyCmp, kStall, kBad };

// A decoded path element; `rest` is the list after it (the remainder when
// the walk stops at a list node there). A path that does not end in [] gets
// one more entry for its tail, with `cell` false: reaching it is reading a
// malformed path.
struct PathElem {
  uint32_t ns;
  uint32_t tag;
  bool ok;
  bool cell;
  ERL_NIF_TERM rest;
};

struct PathRef {
  uint32_t first = 0;  // index of the first element in Prepared::elems
  uint32_t count = 0;  // list cells of the path, and its tail when malformed
  bool proper = false;  // the path is a proper list
};

struct FNode {
  Op op = Op::kBad;
  uint32_t a = 0, b = 0;  // operands of or / and / not
  uint32_t cmp_op = 0;
  int64_t index = -1;
  uint64_t mask = 0;
  ERL_NIF_TERM term = 0;  // the tuple itself (operator 6)
  PathRef path;
  CmpPattern pat;
};

struct Prepared {
  EVec<FNode> nodes;
  EVec<PathElem> elems;
  ERL_NIF_TERM nil = 0;
};

PathRef compile_path(ErlNifEnv* env, ERL_NIF_TERM path, Prepared* pf) {
  PathRef ref;
  ref.first = static_cast<uint32_t>(pf->elems.size());
  ERL_NIF_TERM head, tail;
  while (enif_get_list_cell(env, path, &head, &tail)) {
    PathElem e{0, 0, false, true, tail};
    e.ok = path_element(env, head, &e.ns, &e.tag);
    pf->elems.push_back(e);
    path = tail;
  }
  ref.proper = enif_is_empty_list(env, path) != 0;
  if (!ref.proper) pf->elems.push_back(PathElem{0, 0, false, false, path});
  ref.count = static_cast<uint32_t>(pf->elems.size()) - ref.first;
  return ref;
}

uint32_t new_node(Prepared* pf) {
  pf->nodes.emplace_back();
  return static_cast<uint32_t>(pf->nodes.size() - 1);
}

// Decodes `term` into the node `at` and, along the chain of right operands,
// further nodes. Left operands recurse one level deeper.
void compile(ErlNifEnv* env, ERL_NIF_TERM term, int depth, uint32_t at, Prepared* pf) {
  for (;;) {
    int arity = 0;
    const ERL_NIF_TERM* el = nullptr;
    int op = 0;
    if (depth > kMaxFilterDepth || !enif_get_tuple(env, term, &arity, &el) || arity < 1 ||
        !enif_get_int(env, el[0], &op)) {
      pf->nodes[at].op = Op::kBad;
      return;
    }
    switch (op) {
      case 0:
      case 1: {
        if (arity != 3) break;
        const uint32_t a = new_node(pf);
        compile(env, el[1], depth + 1, a, pf);
        const uint32_t b = new_node(pf);
        FNode& f = pf->nodes[at];
        f.op = op == 0 ? Op::kOr : Op::kAnd;
        f.a = a;
        f.b = b;
        at = b;
        term = el[2];
        continue;
      }
      case 2: {
        if (arity != 2) break;
        const uint32_t a = new_node(pf);
        compile(env, el[1], depth + 1, a, pf);
        pf->nodes[at].op = Op::kNot;
        pf->nodes[at].a = a;
        return;
      }
      case 3:
      case 5:
      case 7: {
        unsigned cmp_op = 0;
        ErlNifUInt64 mask = 0;
        if (arity != (op == 7 ? 5 : 4) || !enif_get_uint(env, el[1], &cmp_op) ||
            (op == 7 && !enif_get_uint64(env, el[4], &mask)))
          break;
        const PathRef path = compile_path(env, el[2], pf);
        FNode& f = pf->nodes[at];
        f.op = Op::kPathCmp;
        f.cmp_op = cmp_op;
        f.mask = mask;
        f.path = path;
        prepare_pattern(env, el[3], &f.pat);
        return;
      }
      case 4: {
        if (arity != 2) break;
        const PathRef path = compile_path(env, el[1], pf);
        pf->nodes[at].op = Op::kExists;
        pf->nodes[at].path = path;
        return;
      }
      case 6:
        pf->nodes[at].op = Op::kStall;
        pf->nodes[at].term = term;
        return;
      case 101:
      case 102: {
        unsigned cmp_op = 0, index = 0;
        if (arity != 4 || !enif_get_uint(env, el[1], &cmp_op) || !enif_get_uint(env, el[2], &index))
          break;
        FNode& f = pf->nodes[at];
        f.op = Op::kKeyCmp;
        f.cmp_op = cmp_op;
        f.index = index;
        prepare_pattern(env, el[3], &f.pat);
        return;
      }
      default:
        break;
    }
    pf->nodes[at].op = Op::kBad;
    return;
  }
}

void prepare(ErlNifEnv* env, ERL_NIF_TERM filter, Prepared* pf) {
  pf->nil = enif_make_list(env, 0);
  compile(env, filter, 0, new_node(pf), pf);
}

// Resolves a prepared path from `node`; as find_node. *rest is the remainder
// when the walk stopped at a list node with elements to spare.
arbo_node* find_prepared(arbo_node* node, const Prepared& pf, const PathRef& path, bool* has_rest,
                         ERL_NIF_TERM* rest, bool* malformed) {
  *has_rest = false;
  *malformed = false;
  *rest = pf.nil;
  if (node == nullptr) return nullptr;
  arbo_node* cur = node;
  for (uint32_t i = 0; i < path.count; ++i) {
    const PathElem& e = pf.elems[path.first + i];
    if (!e.ok) {
      *malformed = true;
      return nullptr;
    }
    cur = path_step(cur, e.ns, e.tag);
    if (cur == nullptr) return nullptr;
    if (cur->is_dyn() && i + 1 < path.count && pf.elems[path.first + i + 1].cell) {
      *has_rest = true;
      *rest = e.rest;
      return cur;
    }
  }
  return cur;
}

// ---- evaluation ---------------------------------------------------------------------

// Pops entries until one holds a node; false when the stack ran out.
bool pop_to_node(node_stack* stack, arbo_node** cur, ERL_NIF_TERM* path) {
  while (stack->pos >= 0) {
    ERL_NIF_TERM p;
    arbo_node* n = node_stack_pop(stack, &p);
    if (n != nullptr) {
      *cur = n;
      *path = p;
      return true;
    }
  }
  return false;
}

// Scans the instances below list node `dn` (and lists nested below them) for
// one whose node at `path` compares 1. The node stack is the backtrack
// stack; after kScanStepLimit + 1 steps the place to go on from is pushed
// and the scan answers kMatchYield.
int instance_scan(arbo_node* dn, ERL_NIF_TERM path, const FNode& f, int match_flag,
                  ErlNifEnv* env, node_stack* stack) {
  ARBO_ASSERT(stack);
  arbo_node* cur = dn;
  for (int step = 0;; ++step) {
    while (cur->is_dyn()) {
      arbo_node* first = cur->child;
      if (first != nullptr) {
        node_stack_push(stack, sibling(first), path);
        cur = first;
      } else {
        cur = sibling(cur);
        if (cur == nullptr && !pop_to_node(stack, &cur, &path)) return kMatchNone;
      }
    }
    ERL_NIF_TERM rest;
    bool malformed = false;
    arbo_node* found = find_node(cur, env, path, &rest, &malformed);
    if (malformed) return kMatchUnsupported;
    bool descended = false;
    if (found != nullptr) {
      if (found->is_dyn() && get_rest_length(env, rest) > 0) {
        path = rest;
        cur = found;
        descended = true;
      } else if (filter_cmp_prepared(found, match_flag, f.cmp_op, env, f.pat, -1, f.mask) ==
                 kMatchFull) {
        return kMatchFull;
      }
    }
    if (!descended) {
      cur = sibling(cur);
      if (cur == nullptr && !pop_to_node(stack, &cur, &path)) return kMatchNone;
    }
    if (step == kScanStepLimit && cur != nullptr) {
      node_stack_push(stack, cur, path);
      return kMatchYield;
    }
  }
}

// {3|5, CmpOp, Path, Value} and {7, CmpOp, Path, Value, Mask}. A stack with
// two entries or more means a scan is being resumed: its top says where.
// A single entry does not count; that threshold is part of the contract.
// A path stopped at a list node is read on as the scan's path: one that
// does not end in [] is malformed there.
int path_compare(arbo_node* node, const FNode& f, const Prepared& pf, int match_flag,
                 ErlNifEnv* env, node_stack* stack) {
  arbo_node* reached;
  ERL_NIF_TERM rest;
  bool scan;
  if (stack != nullptr && stack->pos > 0) {
    reached = node_stack_pop(stack, &rest);
    scan = reached != nullptr && reached->is_dyn() && get_rest_length(env, rest) > 0;
  } else {
    bool has_rest = false, malformed = false;
    reached = find_prepared(node, pf, f.path, &has_rest, &rest, &malformed);
    if (malformed || (has_rest && !f.path.proper)) return kMatchUnsupported;
    scan = has_rest;
  }
  if (scan) return instance_scan(reached, rest, f, match_flag, env, stack);
  return filter_cmp_prepared(reached, match_flag, f.cmp_op, env, f.pat, -1, f.mask);
}

// Operator 6 takes up the very same tuple again, reads its operator anew,
// and so on for ever: the established behaviour of that operator.
[[noreturn]] void stall(ErlNifEnv* env, ERL_NIF_TERM term) {
  for (;;) {
    int arity = 0;
    const ERL_NIF_TERM* el = nullptr;
    int op = 0;
    if (enif_get_tuple(env, term, &arity, &el) && arity >= 1) (void)enif_get_int(env, el[0], &op);
  }
}

int eval(const Prepared& pf, uint32_t at, arbo_node* node, int match_flag, ErlNifEnv* env,
         node_stack* stack) {
  PendingResults pending;
  result_stack** rs = pending.slot();
  // The right operands of or / and continue in this loop; only left operands
  // (and not) recurse.
  for (;;) {
    const FNode& f = pf.nodes[at];
    switch (f.op) {
      case Op::kOr: {
        const int r = eval(pf, f.a, node, match_flag, env, stack);
        if (match_flag == 0 && r != kMatchNone) return unwind_results(rs, r);
        if (r == kMatchFull) return unwind_results(rs, kMatchFull);
        push_result(rs, 0, r);
        at = f.b;
        continue;
      }
      case Op::kAnd: {
        const int r = eval(pf, f.a, node, match_flag, env, stack);
        if (r == kMatchNone) return unwind_results(rs, kMatchNone);
        push_result(rs, 1, r);
        at = f.b;
        continue;
      }
      case Op::kNot: {
        int r = eval(pf, f.a, node, match_flag, env, stack);
        if (r == kMatchFull) r = kMatchNone;
        else if (r == kMatchNone) r = kMatchFull;
        return unwind_results(rs, r);
      }
      case Op::kExists: {
        bool has_rest = false, malformed = false;
        ERL_NIF_TERM rest;
        const arbo_node* found = find_prepared(node, pf, f.path, &has_rest, &rest, &malformed);
        int r;
        if (malformed) r = kMatchUnsupported;
        else if (found != nullptr) r = has_rest ? kMatchMissing : kMatchFull;
        else r = match_flag == 0 ? kMatchNone : kMatchMissing;
        return unwind_results(rs, r);
      }
      case Op::kPathCmp:
        return unwind_results(rs, path_compare(node, f, pf, match_flag, env, stack));
      case Op::kKeyCmp:
        return unwind_results(
            rs, filter_cmp_prepared(node, match_flag, f.cmp_op, env, f.pat, f.index, 0));
      case Op::kStall:
        stall(env, f.term);
      case Op::kBad:
        return unwind_results(rs, kMatchUnsupported);
    }
  }
}

// A filter that is one comparison of the node itself (the common case) goes
// straight to the comparison: no operand to fold, no path to resolve, and
// no resumption pending on the stack. Same answers as eval.
int eval_root(const Prepared& pf, arbo_node* node, int match_flag, ErlNifEnv* env,
              node_stack* stack) {
  const FNode& f = pf.nodes[0];
  if (f.op == Op::kKeyCmp)
    return filter_cmp_prepared(node, match_flag, f.cmp_op, env, f.pat, f.index, 0);
  if (f.op == Op::kPathCmp && f.path.count == 0 && (stack == nullptr || stack->pos <= 0))
    return filter_cmp_prepared(node, match_flag, f.cmp_op, env, f.pat, -1, f.mask);
  return eval(pf, 0, node, match_flag, env, stack);
}

}  // namespace

uint32_t get_rest_length(ErlNifEnv* env, ERL_NIF_TERM list) {
  unsigned len = 0;
  return enif_get_list_length(env, list, &len) ? len : 0;
}

arbo_node* find_node(arbo_node* node, ErlNifEnv* env, ERL_NIF_TERM path,
                     ERL_NIF_TERM* remainder, bool* malformed) {
  *remainder = enif_make_list(env, 0);
  *malformed = false;
  if (node == nullptr) return nullptr;
  arbo_node* cur = node;
  ERL_NIF_TERM head, tail;
  while (enif_get_list_cell(env, path, &head, &tail)) {
    uint32_t ns = 0, tag = 0;
    if (!path_element(env, head, &ns, &tag)) {
      *malformed = true;
      return nullptr;
    }
    cur = path_step(cur, ns, tag);
    if (cur == nullptr) return nullptr;
    path = tail;
    if (cur->is_dyn() && non_empty_list(env, path)) {
      *remainder = path;
      return cur;
    }
  }
  if (!enif_is_empty_list(env, path)) {
    *malformed = true;
    return nullptr;
  }
  return cur;
}

int _arbo_nif_match_filter(arbo_node* node, int match_flag, ErlNifEnv* env, ERL_NIF_TERM filter,
                           node_stack* stack) {
  Prepared pf;
  prepare(env, filter, &pf);
  return eval(pf, 0, node, match_flag, env, stack);
}

// ---- filtered stepping ----------------------------------------------------------------

namespace {

ERL_NIF_TERM answer(ErlNifEnv* env, const arbo_node* node, int match_flag, int outcome) {
  ERL_NIF_TERM ref = enif_make_uint64(env, reinterpret_cast<uintptr_t>(node));
  if (match_flag == 0) return ref;
  ERL_NIF_TERM atom = outcome == kMatchFull      ? am_match_full
                      : outcome == kMatchMissing ? am_match_missing
                                                 : am_match_unsupported;
  return enif_make_tuple2(env, ref, atom);
}

ERL_NIF_TERM yield(ErlNifEnv* env, const node_stack* stack, const arbo_node* node) {
  return enif_make_tuple3(env, am_yield, node_stack_to_erl(env, stack),
                          enif_make_uint64(env, reinterpret_cast<uintptr_t>(node)));
}

}  // namespace

ERL_NIF_TERM filter_match_next(ErlNifEnv* env, arbo_node* start, int match_flag, uint32_t options,
                               ERL_NIF_TERM filter, node_stack* stack) {
  if (start == nullptr) return enif_make_int(env, 0);
  const bool filtered = enif_is_tuple(env, filter);
  // Decoded once for all the siblings this call examines.
  Prepared pf;
  if (filtered) prepare(env, filter, &pf);
  arbo_node* n = start;
  for (int examined = 0;; ++examined) {
    if (options & kOptHideInactive) {
      while (is_inactive(n)) {
        n = sibling(n);
        if (n == nullptr) return enif_make_int(env, 0);
      }
    }
    if (!filtered) return answer(env, n, match_flag, kMatchFull);
    const int r = eval_root(pf, n, match_flag, env, stack);
    if (r == kMatchYield) return yield(env, stack, n);
    if (r != kMatchNone) return answer(env, n, match_flag, r);
    // The node that did not match is handed back: resumption starts at it.
    if (examined >= kWalkBudget - 1) return yield(env, stack, n);
    n = sibling(n);
    if (n == nullptr) return enif_make_int(env, 0);
  }
}

}  // namespace arbo
