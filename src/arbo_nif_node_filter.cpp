// The filter matcher: or / and / not over path existence, path comparisons
// (with the resumable instance scan over list nodes) and own-key comparisons.
// Text forms of values and the string/number comparison live in
// arbo_nif_node_filter_text.cpp.
#include <cstdio>
#include <cstring>

#include "arbo_alloc.h"
#include "arbo_atoms.h"
#include "arbo_filter.h"
#include "arbo_keys.h"
#include "arbo_store.h"

namespace arbo {

namespace {

// Left operands are evaluated by recursion; a filter nested deeper than this
// would exhaust a scheduler's stack, so it counts as unsupported instead.
constexpr int kMaxFilterDepth = 1000;

// Steps of one instance scan before the walk yields (counter 0 to 10).
constexpr int kScanStepLimit = 10;

constexpr int32_t kResultsInitial = 32;  // pairs

// Pending results of the or / and operators whose right operand is being
// evaluated: pairs (operator, result), created on the first push, freed when
// the matcher call that owns it returns.
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

struct PathCmp {
  int match_flag;
  uint32_t cmp_op;
  ERL_NIF_TERM value;
  uint64_t mask;
};

// Scans the instances below list node `dn` (and lists nested below them) for
// one whose node at `path` compares 1. The node stack is the backtrack
// stack; after kScanStepLimit + 1 steps the place to go on from is pushed
// and the scan answers kMatchYield.
int instance_scan(arbo_node* dn, ERL_NIF_TERM path, const PathCmp& pc, ErlNifEnv* env,
                  node_stack* stack) {
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
    arbo_node* found = find_node(cur, env, path, &rest);
    bool descended = false;
    if (found != nullptr) {
      if (found->is_dyn() && get_rest_length(env, rest) > 0) {
        path = rest;
        cur = found;
        descended = true;
      } else if (filter_cmp(found, pc.match_flag, pc.cmp_op, env, pc.value, -1, pc.mask) ==
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
int path_compare(arbo_node* node, ERL_NIF_TERM path, const PathCmp& pc, ErlNifEnv* env,
                 node_stack* stack) {
  arbo_node* reached;
  ERL_NIF_TERM rest;
  if (stack != nullptr && stack->pos > 0) reached = node_stack_pop(stack, &rest);
  else reached = find_node(node, env, path, &rest);
  if (reached != nullptr && reached->is_dyn() && get_rest_length(env, rest) > 0)
    return instance_scan(reached, rest, pc, env, stack);
  return filter_cmp(reached, pc.match_flag, pc.cmp_op, env, pc.value, -1, pc.mask);
}

int match(arbo_node* node, int match_flag, ErlNifEnv* env, ERL_NIF_TERM filter,
          node_stack* stack, int depth) {
  if (depth > kMaxFilterDepth) return kMatchUnsupported;
  PendingResults pending;
  result_stack** rs = pending.slot();
  // The right operands of or / and continue in this loop; only left operands
  // (and not) recurse.
  for (;;) {
    int arity = 0;
    const ERL_NIF_TERM* el = nullptr;
    int op = 0;
    if (!enif_get_tuple(env, filter, &arity, &el) || arity < 1 || !enif_get_int(env, el[0], &op))
      return unwind_results(rs, kMatchUnsupported);
    switch (op) {
      case 0: {  // or
        if (arity != 3) return unwind_results(rs, kMatchUnsupported);
        const int r = match(node, match_flag, env, el[1], stack, depth + 1);
        if (match_flag == 0 && r != kMatchNone) return unwind_results(rs, r);
        if (r == kMatchFull) return unwind_results(rs, kMatchFull);
        push_result(rs, 0, r);
        filter = el[2];
        continue;
      }
      case 1: {  // and
        if (arity != 3) return unwind_results(rs, kMatchUnsupported);
        const int r = match(node, match_flag, env, el[1], stack, depth + 1);
        if (r == kMatchNone) return unwind_results(rs, kMatchNone);
        push_result(rs, 1, r);
        filter = el[2];
        continue;
      }
      case 2: {  // not
        if (arity != 2) return unwind_results(rs, kMatchUnsupported);
        int r = match(node, match_flag, env, el[1], stack, depth + 1);
        if (r == kMatchFull) r = kMatchNone;
        else if (r == kMatchNone) r = kMatchFull;
        return unwind_results(rs, r);
      }
      case 3:
      case 5:
      case 7: {  // compare the node at a path
        unsigned cmp_op = 0;
        ErlNifUInt64 mask = 0;
        if (arity != (op == 7 ? 5 : 4) || !enif_get_uint(env, el[1], &cmp_op) ||
            (op == 7 && !enif_get_uint64(env, el[4], &mask)))
          return unwind_results(rs, kMatchUnsupported);
        const PathCmp pc{match_flag, cmp_op, el[3], mask};
        return unwind_results(rs, path_compare(node, el[2], pc, env, stack));
      }
      case 4: {  // a node exists at a path
        if (arity != 2) return unwind_results(rs, kMatchUnsupported);
        ERL_NIF_TERM rest;
        arbo_node* found = find_node(node, env, el[1], &rest);
        int r;
        if (found != nullptr) r = non_empty_list(env, rest) ? kMatchMissing : kMatchFull;
        else r = match_flag == 0 ? kMatchNone : kMatchMissing;
        return unwind_results(rs, r);
      }
      case 6:
        // Takes up the very same tuple again, for ever: the established
        // behaviour of this operator, kept as it is.
        continue;
      case 101:
      case 102: {  // compare an element of the node's own key
        unsigned cmp_op = 0, index = 0;
        if (arity != 4 || !enif_get_uint(env, el[1], &cmp_op) || !enif_get_uint(env, el[2], &index))
          return unwind_results(rs, kMatchUnsupported);
        return unwind_results(rs, filter_cmp(node, match_flag, cmp_op, env, el[3], index, 0));
      }
      default:
        return unwind_results(rs, kMatchUnsupported);
    }
  }
}

// ---- one comparison ------------------------------------------------------------------

constexpr int32_t kNoValue = -2;  // nothing to compare: no match
constexpr int32_t kNoText = -1;   // a value or key element without a text form

// Text scratch of max(64, pattern length) + 1 bytes: inline when it can be.
class TextBuf {
 public:
  explicit TextBuf(size_t pattern_len) {
    size_ = static_cast<int32_t>((pattern_len > 64 ? pattern_len : 64) + 1);
    if (static_cast<size_t>(size_) > sizeof small_) {
      heap_ = static_cast<char*>(enif_alloc(static_cast<size_t>(size_)));
      ARBO_ASSERT_MSG(heap_ != nullptr, "text");
    }
    data()[0] = '\0';
  }
  ~TextBuf() { enif_free(heap_); }
  TextBuf(const TextBuf&) = delete;
  TextBuf& operator=(const TextBuf&) = delete;
  char* data() { return heap_ != nullptr ? heap_ : small_; }
  int32_t size() const { return size_; }

 private:
  char small_[65];
  char* heap_ = nullptr;
  int32_t size_;
};

int32_t raw_text(TextBuf& buf, const unsigned char* bytes, size_t len) {
  const size_t n = len < static_cast<size_t>(buf.size() - 1) ? len : buf.size() - 1;
  if (n > 0) std::memcpy(buf.data(), bytes, n);
  buf.data()[n] = '\0';
  return static_cast<int32_t>(n);
}

int32_t element_text(TextBuf& buf, const unsigned char* e, size_t avail) {
  if (text_element_len(e, avail) == 0) return kNoText;
  return _arbo_nif_fmt_cs_val(e, buf.data(), buf.size());
}

// The node's value as text: encoded values through their element's text
// form, plain binaries as their bytes.
int32_t value_text(const arbo_node* node, TextBuf& buf) {
  if (!node->is_gen() || node->has(F_KEY_IS_BIN)) return kNoValue;
  bin_ref ref{0, nullptr};
  switch (_arbo_nif_fetch_bin_value(node, &ref)) {
    case 1: return ref.len == 0 ? kNoValue : element_text(buf, ref.ptr, ref.len);
    case 2: return raw_text(buf, ref.ptr, ref.len);
    default: return kNoValue;
  }
}

// Element `index` of the node's key as text; an integer key as "%d".
int32_t key_text(const arbo_node* node, uint32_t index, TextBuf& buf) {
  if (!node->has(F_KEY_IS_BIN)) {
    const int n = std::snprintf(buf.data(), static_cast<size_t>(buf.size()), "%d",
                                static_cast<int32_t>(node->hkey()));
    return n < buf.size() ? n : buf.size() - 1;
  }
  const key_bytes kb = node_key_bytes(node);
  const int single = node->has(F_KEY_IS_TUPLE) ? 1 : 0;
  const unsigned char* p = kb.ptr;
  int32_t left = kb.len;
  for (uint32_t i = 0;; ++i) {
    if (left <= 0) return kNoValue;  // the key has fewer elements
    int32_t hdr = 0, payload = 0;
    int type = 0, varlen = 0;
    get_tuple_key(single, p, left, &hdr, &payload, &type, &varlen);
    if (i == index) {
      // An opaque element (a whole single key, or an opaque rest) is its bytes.
      if (type == 204) return raw_text(buf, p + hdr, static_cast<size_t>(payload));
      return element_text(buf, p, static_cast<size_t>(hdr) + static_cast<size_t>(payload));
    }
    p += hdr + payload;
    left -= hdr + payload;
  }
}

bool holds_value(const arbo_node* node) {
  if (!node->is_gen() || node->has(F_KEY_IS_BIN)) return false;
  return node->has(F_VAL_IS_BIN) || as_gen(node)->small_len != 0;
}

}  // namespace

int filter_cmp(arbo_node* node, int match_flag, uint32_t cmp_op, ErlNifEnv* env,
               ERL_NIF_TERM value, int64_t index, uint64_t mask) {
  switch (cmp_op) {
    case 1000:    // every bit of the mask is set
    case 1001: {  // no bit of the mask is set
      ErlNifUInt64 m = 0;
      if (!enif_get_uint64(env, value, &m)) return kMatchUnsupported;
      if (node == nullptr) return cmp_op == 1000 ? kMatchNone : kMatchFull;
      const uint64_t f = _arbo_nif_get_flags(env, node);
      return (cmp_op == 1000 ? (f & m) == m : (f & m) == 0) ? kMatchFull : kMatchNone;
    }
    case 1003: {  // the flags under the operator's mask equal the value
      ErlNifUInt64 want = 0;
      if (!enif_get_uint64(env, value, &want)) return kMatchUnsupported;
      if (node == nullptr) return kMatchNone;
      return (_arbo_nif_get_flags(env, node) & mask) == want ? kMatchFull : kMatchNone;
    }
    default:
      break;
  }
  if (node == nullptr) return match_flag != 0 ? kMatchMissing : kMatchNone;
  if (cmp_op == 1002) return holds_value(node) ? kMatchFull : kMatchNone;
  if (cmp_op == 9 || cmp_op == 10) return kMatchUnsupported;
  ErlNifBinary pattern;
  if (!enif_inspect_binary(env, value, &pattern)) return kMatchUnsupported;
  TextBuf buf(pattern.size);
  const int32_t len =
      index < 0 ? value_text(node, buf) : key_text(node, static_cast<uint32_t>(index), buf);
  if (len == kNoValue) return kMatchNone;
  if (len == kNoText) return kMatchUnsupported;
  int r = filter_cmp_str(cmp_op, buf.data(), len, reinterpret_cast<const char*>(pattern.data),
                         static_cast<int32_t>(pattern.size));
  // A text that fills the buffer may have been cut: a match is then only
  // "missing", not "full".
  if (r == kMatchFull && len >= buf.size() - 1) r = kMatchMissing;
  return r;
}

uint32_t get_rest_length(ErlNifEnv* env, ERL_NIF_TERM list) {
  unsigned len = 0;
  return enif_get_list_length(env, list, &len) ? len : 0;
}

arbo_node* find_node(arbo_node* node, ErlNifEnv* env, ERL_NIF_TERM path,
                     ERL_NIF_TERM* remainder) {
  *remainder = enif_make_list(env, 0);
  if (node == nullptr) return nullptr;
  arbo_node* cur = node;
  ERL_NIF_TERM head, tail;
  while (enif_get_list_cell(env, path, &head, &tail)) {
    uint32_t ns = 0, tag = 0;
    if (!path_element(env, head, &ns, &tag)) return nullptr;
    if (cur->is_dyn()) {
      cur = cur->child != nullptr
                ? dn_find(cur, nullptr, 0, static_cast<int32_t>(tag), ns)
                : nullptr;
    } else {
      cur = find_int_child(cur, ns, tag);
    }
    if (cur == nullptr) return nullptr;
    path = tail;
    if (cur->is_dyn() && non_empty_list(env, path)) {
      *remainder = path;
      return cur;
    }
  }
  return cur;
}

int _arbo_nif_match_filter(arbo_node* node, int match_flag, ErlNifEnv* env, ERL_NIF_TERM filter,
                           node_stack* stack) {
  return match(node, match_flag, env, filter, stack, 0);
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
  arbo_node* n = start;
  for (int examined = 0;; ++examined) {
    if (options & kOptHideInactive) {
      while (is_inactive(n)) {
        n = sibling(n);
        if (n == nullptr) return enif_make_int(env, 0);
      }
    }
    if (!filtered) return answer(env, n, match_flag, kMatchFull);
    const int r = _arbo_nif_match_filter(n, match_flag, env, filter, stack);
    if (r == kMatchYield) return yield(env, stack, n);
    if (r != kMatchNone) return answer(env, n, match_flag, r);
    // The node that did not match is handed back: resumption starts at it.
    if (examined >= kWalkBudget - 1) return yield(env, stack, n);
    n = sibling(n);
    if (n == nullptr) return enif_make_int(env, 0);
  }
}

}  // namespace arbo
