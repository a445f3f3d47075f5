// Self-checks of the node store's structures. Read only, never abort.
#include <cstdarg>
#include <cstdio>

#include "arbo_keys.h"
#include "arbo_nif_node.h"
#include "arbo_store_check.h"
#include "arbo_walk.h"
#include "mirel_hashtable.h"

namespace arbo {

namespace {

// Longest chain a check follows before it calls the chain a cycle.
constexpr size_t kWalkLimit = size_t{1} << 28;

bool fail(check_msg* why, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
bool fail(check_msg* why, const char* fmt, ...) {
  if (why != nullptr) {
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(why->text, sizeof why->text, fmt, ap);
    va_end(ap);
  }
  return false;
}

const void* addr(const arbo_node* n) { return static_cast<const void*>(n); }

bool height_matches_type(const arbo_node* n) {
  int h = as_gen(n)->height;
  switch (n->type()) {
    case T_GEN_NODE_ONE: return h == 1;
    case T_GEN_NODE_TWO: return h == 2;
    case T_GEN_NODE_MAX: return h >= 3 && h <= kMaxHeight;
    default: return false;
  }
}

bool value_flags_ok(const arbo_node* n, check_msg* why) {
  const uint32_t vf = n->tw & kValFlags;
  if (vf == 0) return true;
  if (!n->is_gen()) return fail(why, "node %p of type %u has value flags", addr(n), n->type());
  if (n->has(F_KEY_IS_BIN)) return fail(why, "byte-keyed node %p has value flags", addr(n));
  if (!n->has(F_VAL_IS_BIN))
    return fail(why, "node %p: value flags 0x%x without F_VAL_IS_BIN", addr(n), vf);
  if (n->has(F_VAL_IS_SMALL) && n->has(F_VAL_IS_BIN_NOSTR))
    return fail(why, "node %p: both csval flags set", addr(n));
  return true;
}

}  // namespace

bool sl_check_invariants(const arbo_node* list, check_msg* why) {
  if (!list->is_dyn() || as_dyn(list)->cmp > 2) return fail(why, "%p is not a sorted list", addr(list));
  const dyn_node* d = as_dyn(list);
  const int mode = d->cmp;
  if (d->curh > kMaxHeight) return fail(why, "curh %d above %d", d->curh, kMaxHeight);
  for (int i = d->curh; i < kMaxLevels; ++i)
    if (d->head[i] != nullptr) return fail(why, "head[%d] set at curh %d", i, d->curh);
  if (d->curh > 0 && d->head[d->curh - 1] == nullptr)
    return fail(why, "curh %d but level %d is empty", d->curh, d->curh - 1);
  if (d->hd.child != d->head[0]) return fail(why, "child differs from head[0]");

  size_t count = 0;
  int tallest = 0;
  const arbo_node* prev = nullptr;
  for (const arbo_node* n = d->head[0]; n != nullptr; n = as_gen(n)->next[0]) {
    if (++count > kWalkLimit) return fail(why, "level 0 does not end");
    if (!n->is_gen() || !height_matches_type(n))
      return fail(why, "instance %zu: type %u with height %d", count - 1, n->type(),
                  n->is_gen() ? as_gen(n)->height : -1);
    if (as_gen(n)->height > tallest) tallest = as_gen(n)->height;
    if (prev != nullptr) {
      skey k = node_skey(n);
      if (cmp(prev, k.bytes, k.len, k.i, k.ns, mode) >= 0)
        return fail(why, "instance %zu does not sort after its predecessor (mode %d)", count - 1,
                    mode);
    }
    prev = n;
  }
  if (tallest != d->curh) return fail(why, "curh %d but tallest instance %d", d->curh, tallest);
  if (static_cast<int64_t>(count) != d->size)
    return fail(why, "size %d but %zu instances", d->size, count);
  // Each upper level must be exactly the instances taller than it, in order.
  for (int i = 1; i < d->curh; ++i) {
    const arbo_node* p = d->head[i];
    size_t idx = 0;
    for (const arbo_node* n = d->head[0]; n != nullptr; n = as_gen(n)->next[0], ++idx) {
      if (as_gen(n)->height <= i) continue;
      if (p != n) return fail(why, "level %d skips or misplaces instance %zu", i, idx);
      p = as_gen(n)->next[i];
    }
    if (p != nullptr) return fail(why, "level %d runs past the last tall instance", i);
  }
  return true;
}

bool dl_check_invariants(const arbo_node* list, check_msg* why) {
  if (!list->is_dyn() || as_dyn(list)->cmp != 3)
    return fail(why, "%p is not a user-ordered list", addr(list));
  const dyn_node* d = as_dyn(list);
  if (d->hd.child != d->head[0]) return fail(why, "child differs from head[0]");
  for (int i = 3; i < kMaxLevels; ++i)
    if (d->head[i] != nullptr) return fail(why, "unused head[%d] is set", i);
  size_t count = 0;
  const arbo_node* prev = nullptr;
  for (const arbo_node* n = d->head[0]; n != nullptr; n = as_gen(n)->next[0]) {
    if (++count > kWalkLimit) return fail(why, "list does not end");
    if (n->type() != T_GEN_NODE_TWO || as_gen(n)->height != 2)
      return fail(why, "instance %zu: type %u height %d", count - 1, n->type(),
                  n->is_gen() ? as_gen(n)->height : -1);
    if (as_gen(n)->next[1] != prev)
      return fail(why, "instance %zu: previous link disagrees", count - 1);
    prev = n;
  }
  if (d->head[1] != prev) return fail(why, "head[1] is not the last instance");
  if (static_cast<int64_t>(count) != d->size)
    return fail(why, "size %d but %zu instances", d->size, count);

  auto* idx = reinterpret_cast<mirel_hashtable*>(d->head[2]);
  if (idx == nullptr) {
    if (d->size >= 128) return fail(why, "%d instances and no index", d->size);
    return true;
  }
  if (d->size < 64) return fail(why, "index kept at %d instances", d->size);
  if (static_cast<int64_t>(_mirel_hashtable_count(idx)) != d->size)
    return fail(why, "index holds %u entries for %d instances", _mirel_hashtable_count(idx),
                d->size);
  size_t i = 0;
  for (const arbo_node* n = d->head[0]; n != nullptr; n = as_gen(n)->next[0], ++i) {
    ht_key k;
    fill_ht_key(&k, n);
    auto* found = static_cast<const arbo_node*>(_mirel_hashtable_search(idx, &k));
    if (found == nullptr) return fail(why, "index misses instance %zu", i);
    if (found != n) {
      // Only an instance with the same index key may answer for it.
      ht_key fk;
      fill_ht_key(&fk, found);
      if (!ht_keys_equal(&fk, &k)) return fail(why, "index maps instance %zu elsewhere", i);
    }
  }
  return true;
}

bool dn_check_invariants(const arbo_node* list, check_msg* why) {
  if (!list->is_dyn()) return fail(why, "%p is not a list node", addr(list));
  return as_dyn(list)->cmp == 3 ? dl_check_invariants(list, why) : sl_check_invariants(list, why);
}

bool int_list_check_invariants(const arbo_node* parent, check_msg* why) {
  if (parent->is_dyn()) return fail(why, "%p is a list node", addr(parent));
  const arbo_node* prev = nullptr;
  size_t count = 0;
  for (const arbo_node* c = parent->child; c != nullptr; c = sibling(c), ++count) {
    if (count > kWalkLimit) return fail(why, "child list does not end");
    if (c->has(F_KEY_IS_BIN)) return fail(why, "child %zu has a byte key", count);
    if (c->type() < T_INT_NODE || c->type() > T_GEN_NODE_MAX)
      return fail(why, "child %zu has type %u", count, c->type());
    if (prev != nullptr) {
      uint32_t pns = node_ns(prev), cns = node_ns(c);
      if (pns > cns || (pns == cns && prev->hkey() >= c->hkey()))
        return fail(why, "child %zu (%u, %u) does not follow (%u, %u)", count, cns, c->hkey(), pns,
                    prev->hkey());
    }
    prev = c;
  }
  return true;
}

bool attr_check_invariants(const arbo_node* node, check_msg* why) {
  const arbo_node* prev = nullptr;
  size_t count = 0;
  for (const arbo_node* a = node->attr; a != nullptr; a = as_gen(a)->next[0], ++count) {
    if (count > kWalkLimit) return fail(why, "attribute list does not end");
    if (a->type() != T_GEN_NODE_ONE || as_gen(a)->height != 1)
      return fail(why, "attribute %zu: type %u", count, a->type());
    if (a->child != nullptr || a->attr != nullptr || a->has(F_KEY_IS_BIN))
      return fail(why, "attribute %zu has children, attributes or a byte key", count);
    if (a->has(F_VAL_IS_SMALL | F_VAL_IS_BIN_NOSTR))
      return fail(why, "attribute %zu carries a csval flag", count);
    if (prev != nullptr && prev->hkey() >= a->hkey())
      return fail(why, "attribute %zu key %u after %u", count, a->hkey(), prev->hkey());
    prev = a;
  }
  return true;
}

namespace {
bool node_check_invariants(const arbo_node* n, check_msg* why) {
  if (!value_flags_ok(n, why) || !attr_check_invariants(n, why)) return false;
  return n->is_dyn() ? dn_check_invariants(n, why) : int_list_check_invariants(n, why);
}
}  // namespace

bool tree_check_invariants(const arbo_node* node, check_msg* why) {
  // Parents before children, children before later siblings, without
  // recursion: a checked tree may be as deep as any other.
  if (!node_check_invariants(node, why)) return false;
  return walk_below(node, sibling, [why](const arbo_node* c) {
    return node_check_invariants(c, why) ? Step::kEnter : Step::kStop;
  }, [] { return true; });
}

size_t subtree_node_count(const arbo_node* node) {
  size_t n = 0;
  WalkStack<const arbo_node*> stack;
  stack.push(node);
  while (!stack.empty()) {
    const arbo_node* at = stack.top();
    stack.pop();
    for (const arbo_node* a = at->attr; a != nullptr; a = sibling(a)) {
      ++n;
      stack.push(a);
    }
    for (const arbo_node* c = at->child; c != nullptr; c = sibling(c)) {
      ++n;
      stack.push(c);
    }
  }
  return n;
}

}  // namespace arbo
