// Node store: values, attributes, the cached inactive count, deletion, the
// descendant-flag test and the value-length table of encoded values.
#include <array>
#include <cstring>

#include "arbo_alloc.h"
#include "arbo_atoms.h"
#include "arbo_nif_node.h"
#include "arbo_stack.h"
#include "arbo_store.h"
#include "arbo_walk.h"
#include "mirel_hashtable.h"

namespace arbo {

namespace {

constexpr int kKindCsval = 17;
constexpr int kKindBinary = 18;
constexpr int kKindCsvalBin = 37;

// The value bytes of a gen node (inline or in its arbo_bin); {0, null} when
// it holds none. Attributes use the same storage.
bin_ref value_bytes(const arbo_node* n) {
  if (!n->is_gen()) return {0, nullptr};
  if (n->has(F_VAL_IS_BIN)) {
    const arbo_bin* b = val_bin(n);
    return {static_cast<size_t>(b->len), b->bytes()};
  }
  if (n->has(F_KEY_IS_BIN) || as_gen(n)->small_len == 0) return {0, nullptr};
  return {as_gen(n)->small_len, as_gen(n)->val};
}

// Up to kSmallMax bytes, copied with two overlapping moves rather than a
// library call: values this short are most of what a tree holds.
inline void copy_small(unsigned char* dst, const unsigned char* src, size_t len) {
  if (len >= 8) {
    std::memcpy(dst, src, 8);
    std::memcpy(dst + len - 8, src + len - 8, 8);
  } else if (len >= 4) {
    std::memcpy(dst, src, 4);
    std::memcpy(dst + len - 4, src + len - 4, 4);
  } else if (len != 0) {
    dst[0] = src[0];
    dst[len / 2] = src[len / 2];
    dst[len - 1] = src[len - 1];
  }
}

// Stores `len` bytes as the value of a gen node that holds none: inline up to
// 10 bytes, else in a new arbo_bin with F_VAL_IS_BIN (plus `bin_flags`).
// False when the runtime refuses the binary; the node is then left empty.
bool store_value(arbo_node* n, store_ctx* ctx, const unsigned char* bytes, size_t len,
                 uint32_t bin_flags, bool inline_ok) {
  if (inline_ok && len <= static_cast<size_t>(kSmallMax)) {
    copy_small(as_gen(n)->val, bytes, len);
    as_gen(n)->small_len = static_cast<uint8_t>(len);
    return true;
  }
  arbo_bin* b = _arbo_nif_alloc_binary(len, bytes, ctx);
  if (b == nullptr) return false;
  set_val_bin(n, b);
  n->set(F_VAL_IS_BIN | bin_flags);
  return true;
}

// Clears whatever value a gen node holds, binary or inline.
void clear_value(arbo_node* n, store_ctx* ctx) {
  if (n->has(F_VAL_IS_BIN)) _arbo_nif_free_binary(val_bin(n), ctx);
  n->clear(kValFlags);
  std::memset(as_gen(n)->val, 0, kSmallMax);
  as_gen(n)->small_len = 0;
}

// Children (sibling order) that are instances with attribute key 0 first.
uint32_t count_inactive_children(const arbo_node* dnode) {
  uint32_t count = 0;
  for (const arbo_node* c = dnode->child; c != nullptr; c = sibling(c))
    if (is_inactive(c)) ++count;
  return count;
}

// The list node's cached inactive count: its first attribute when that has
// key 0.
arbo_node* cached_inactive(const arbo_node* dnode) {
  arbo_node* a = dnode->attr;
  return (a != nullptr && a->hkey() == 0) ? a : nullptr;
}

void store_inactive_count(store_ctx* ctx, arbo_node* dnode, uint32_t count) {
  unsigned char be[4];
  put_be32(be, count);
  int del = _arbo_nif_attr_set(ctx, dnode, 0, be, sizeof be);
  ARBO_ASSERT_MSG(del == 0, "del == 0");
}

}  // namespace

// ---- values ---------------------------------------------------------------------------

int _arbo_nif_set_val(arbo_node* node, store_ctx* ctx, const unsigned char* bytes, size_t len,
                      int kind) {
  if (!node->is_gen() || node->has(F_KEY_IS_BIN)) return 0;
  clear_value(node, ctx);
  switch (kind) {
    case kKindBinary:
      return store_value(node, ctx, bytes, len, 0, false) ? 1 : 0;
    case kKindCsvalBin:
      return store_value(node, ctx, bytes, len, F_VAL_IS_BIN_NOSTR, false) ? 1 : 0;
    case kKindCsval:
      return store_value(node, ctx, bytes, len, F_VAL_IS_SMALL, true) ? 1 : 0;
    default:
      return 1;  // any other kind just leaves the node without a value
  }
}

uint32_t _arbo_nif_free_val(arbo_node* node, store_ctx* ctx) {
  if (node->has(F_VAL_IS_BIN)) {
    release_bin_value(node, ctx);
  } else {
    node->clear(kValFlags);
    // An inline key shares `val`: only a node without one holds a value there.
    if (node->is_gen() && !node->has(F_KEY_IS_BIN)) {
      std::memset(as_gen(node)->val, 0, kSmallMax);
      as_gen(node)->small_len = 0;
    }
  }
  return node->type();
}

ERL_NIF_TERM _arbo_nif_fetch_value(const arbo_node* node, ErlNifEnv* env) {
  if (!node->is_gen()) return am_undefined;
  if (node->has(F_VAL_IS_BIN)) {
    const arbo_bin* b = val_bin(node);
    ERL_NIF_TERM copy = arbo_bin_ref_to_binary(env, {static_cast<size_t>(b->len), b->bytes()});
    if (!node->has(F_VAL_IS_SMALL | F_VAL_IS_BIN_NOSTR)) return copy;
    return enif_make_tuple2(env, am_csval, copy);
  }
  if (node->has(F_KEY_IS_BIN) || as_gen(node)->small_len == 0) return am_undefined;
  return enif_make_tuple2(
      env, am_csval, arbo_bin_ref_to_binary(env, {as_gen(node)->small_len, as_gen(node)->val}));
}

int _arbo_nif_fetch_bin_value(const arbo_node* node, bin_ref* out) {
  bin_ref v = value_bytes(node);
  if (v.ptr == nullptr) return 0;
  *out = v;
  if (!node->has(F_VAL_IS_BIN)) return 1;
  return node->has(F_VAL_IS_SMALL | F_VAL_IS_BIN_NOSTR) ? 1 : 2;
}

// ---- attributes -------------------------------------------------------------------------

int _arbo_nif_attr_set(store_ctx* ctx, arbo_node* node, uint32_t key, const unsigned char* bytes,
                       size_t len) {
  arbo_node** link = &node->attr;
  while (*link != nullptr && (*link)->hkey() < key) link = &as_gen(*link)->next[0];
  arbo_node* a = *link;
  if (a != nullptr && a->hkey() == key) {
    clear_value(a, ctx);
    if (len == 0) {
      *link = as_gen(a)->next[0];
      _arbo_nif_node_free(a, ctx);
      return 1;
    }
    // A refused binary leaves the attribute present without bytes.
    store_value(a, ctx, bytes, len, 0, true);
    return 0;
  }
  if (len == 0) return 0;
  a = _arbo_nif_node_alloc(ctx, T_GEN_NODE_ONE);
  as_gen(a)->height = 1;
  a->set_hkey(key);
  if (!store_value(a, ctx, bytes, len, 0, true)) {
    _arbo_nif_node_free(a, ctx);
    return 0;
  }
  as_gen(a)->next[0] = *link;
  *link = a;
  return 0;
}

arbo_node* _arbo_nif_attr_set_with_gen(arbo_node* node, uint32_t key, const unsigned char* bytes,
                                       size_t len, store_ctx* ctx) {
  if (key == 0 && node->is_dyn()) {
    // Attribute 0 of a list node is its inactive count: the call adds an
    // encoded 32-bit integer to it and stores nothing.
    if (cached_inactive(node) != nullptr && len == 5 && bytes[0] == 8)
      _arbo_nif_attr_inactive_inc(ctx, node, static_cast<int32_t>(get_be32(bytes + 1)));
    return nullptr;
  }
  if (_arbo_nif_attr_set(ctx, node, key, bytes, len)) ctx->table->generation++;
  return node->attr;
}

ERL_NIF_TERM _arbo_nif_attr_fetch(const arbo_node* node, uint32_t key, ErlNifEnv* env) {
  for (const arbo_node* a = node->attr; a != nullptr; a = as_gen(a)->next[0]) {
    if (a->hkey() == key) return _arbo_nif_fetch_value(a, env);
    if (a->hkey() > key) break;
  }
  return enif_make_list(env, 0);
}

// ---- the cached inactive count ----------------------------------------------------------

uint32_t _arbo_nif_attr_inactive_count(store_ctx* ctx, arbo_node* dnode) {
  if (dnode->is_dyn()) {
    if (const arbo_node* a = cached_inactive(dnode)) {
      bin_ref v = value_bytes(a);
      unsigned char be[4] = {};
      if (v.ptr) std::memcpy(be, v.ptr, v.len < 4 ? v.len : 4);
      return get_be32(be);
    }
  }
  uint32_t count = count_inactive_children(dnode);
  if (ctx != nullptr && dnode->is_dyn()) store_inactive_count(ctx, dnode, count);
  return count;
}

uint32_t _arbo_nif_attr_inactive_inc(store_ctx* ctx, arbo_node* dnode, int32_t delta) {
  ARBO_ASSERT_MSG(dnode && dnode->type() == T_DYN_NODE, "dnode && (dnode->type == T_DYN_NODE)");
  if (arbo_node* a = cached_inactive(dnode)) {
    unsigned char* p;
    if (a->has(F_VAL_IS_BIN)) {
      ARBO_ASSERT(val_bin(a)->len >= 4);
      p = val_bin(a)->bytes();
    } else {
      p = as_gen(a)->val;
      if (as_gen(a)->small_len < 4) as_gen(a)->small_len = 4;
    }
    uint32_t count = get_be32(p) + static_cast<uint32_t>(delta);
    put_be32(p, count);
    return count;
  }
  uint32_t count = count_inactive_children(dnode) + static_cast<uint32_t>(delta);
  store_inactive_count(ctx, dnode, count);
  return count;
}

// ---- deletion --------------------------------------------------------------------------------

namespace {

// Steps 1 to 4 of a deletion: everything the node owns except other nodes.
void release_owned(arbo_node* node, store_ctx* ctx, uintptr_t replacement) {
  // 1. Iterators standing on the node move to the replacement.
  iter_nodes_fixup(ctx->table, node, replacement);
  // 2. A user-ordered list's hash index and its key records.
  if (node->is_dyn() && as_dyn(node)->cmp == 3 && as_dyn(node)->head[2] != nullptr) {
    _mirel_hashtable_destroy(reinterpret_cast<mirel_hashtable*>(as_dyn(node)->head[2]), 0);
    as_dyn(node)->head[2] = nullptr;
  }
  // 3. A key held in an arbo_bin.
  if (_arbo_node_key_is_bin(node)) _arbo_node_free_bin_key(&node->key, ctx);
  // 4. A binary value.
  release_bin_value(node, ctx);
}

// One pending deletion: the node, whether its later siblings go too, and how
// far its own work has come.
struct DelFrame {
  arbo_node* node;
  arbo_node* cursor;  // the next sibling to delete (stage kSiblings)
  uint8_t stage;
  uint8_t with_siblings;
};
enum : uint8_t { kAttrs, kSiblings, kChildren, kRecord };

}  // namespace

// The order of work is that of the natural recursion (own data, attributes,
// later siblings one by one, children, the record), kept on an explicit stack
// so that a tree of any depth is freed without exhausting the C stack.
void _arbo_nif_do_del_node(arbo_node* node, store_ctx* ctx, int with_siblings,
                           uintptr_t replacement) {
  if (node == nullptr) return;
  WalkStack<DelFrame> stack;
  release_owned(node, ctx, replacement);
  stack.push({node, nullptr, kAttrs, static_cast<uint8_t>(with_siblings != 0)});
  while (!stack.empty()) {
    DelFrame& f = stack.top();
    arbo_node* n = f.node;
    switch (f.stage) {
      case kAttrs:
        // 5. Attributes, with their own later siblings.
        f.stage = kSiblings;
        if (n->attr != nullptr) {
          release_owned(n->attr, ctx, kNoFixup);
          stack.push({n->attr, nullptr, kAttrs, 1});
        }
        break;
      case kSiblings:
        // 6. Following siblings, each read before its predecessor's turn ends.
        if (f.with_siblings) {
          f.cursor = sibling(n);
          f.with_siblings = 0;
        }
        if (arbo_node* s = f.cursor; s != nullptr) {
          f.cursor = sibling(s);
          release_owned(s, ctx, kNoFixup);
          stack.push({s, nullptr, kAttrs, 0});
        } else {
          f.stage = kChildren;
        }
        break;
      case kChildren:
        // 7. Children, with their siblings.
        f.stage = kRecord;
        if (n->child != nullptr) {
          release_owned(n->child, ctx, kNoFixup);
          stack.push({n->child, nullptr, kAttrs, 1});
        }
        break;
      default:
        // 8. The record.
        stack.pop();
        _arbo_nif_node_free(n, ctx);
        break;
    }
  }
}

bool _arbo_nif_subtree_exceeds(const arbo_node* node, int with_siblings, uint64_t budget) {
  if (node == nullptr) return false;
  uint64_t seen = 0;
  auto weigh = [&](const arbo_node* n) {
    seen += 1;
    // A user-ordered list's index is freed entry by entry as well.
    if (n->is_dyn() && as_dyn(n)->cmp == 3 && as_dyn(n)->head[2] != nullptr)
      seen += static_cast<uint32_t>(as_dyn(n)->size);
    return seen > budget;
  };
  WalkStack<const arbo_node*> stack;
  if (weigh(node)) return true;
  if (node->attr != nullptr) stack.push(node->attr);
  if (node->child != nullptr) stack.push(node->child);
  if (with_siblings && sibling(node) != nullptr) stack.push(sibling(node));
  while (!stack.empty()) {
    const arbo_node* n = stack.top();
    stack.pop();
    if (weigh(n)) return true;
    if (sibling(n) != nullptr) stack.push(sibling(n));
    if (n->attr != nullptr) stack.push(n->attr);
    if (n->child != nullptr) stack.push(n->child);
  }
  return false;
}

void _arbo_nif_rehome_indexes(arbo_node* node, arbo_t* table) {
  WalkStack<arbo_node*> stack;
  stack.push(node);
  while (!stack.empty()) {
    arbo_node* n = stack.top();
    stack.pop();
    if (n->is_dyn() && as_dyn(n)->cmp == 3 && as_dyn(n)->head[2] != nullptr)
      _mirel_hashtable_set_freekey_arg(reinterpret_cast<mirel_hashtable*>(as_dyn(n)->head[2]),
                                       static_cast<uint64_t>(reinterpret_cast<uintptr_t>(table)));
    for (arbo_node* c = n->child; c != nullptr; c = sibling(c)) stack.push(c);
  }
}

// ---- descendant flags ----------------------------------------------------------------------

int _arbo_nif_has_descendant_budget(ErlNifEnv* env, const arbo_node* node, uint64_t mask,
                                    int include_self, uint64_t budget) {
  if (include_self && (_arbo_nif_get_flags(env, node) & mask) != 0) return 1;
  // Each node before its children, the children before the later siblings:
  // the order of the natural recursion.
  int found = 0;
  walk_below(node, sibling, [&](const arbo_node* c) {
    if (budget-- == 0) {
      found = -1;
      return Step::kStop;
    }
    if ((_arbo_nif_get_flags(env, c) & mask) != 0) {
      found = 1;
      return Step::kStop;
    }
    return Step::kEnter;
  }, [] { return true; });
  return found;
}

int _arbo_nif_has_descendant_with_flags(ErlNifEnv* env, const arbo_node* node, uint64_t mask,
                                        int include_self) {
  return _arbo_nif_has_descendant_budget(env, node, mask, include_self, kUnlimited);
}

}  // namespace arbo
