// Node store: values, attributes, the cached inactive count, deletion and
// the descendant-flag test. (The value-length table of encoded values is
// inline in arbo_store.h.)
#include <cstring>

#include "arbo_alloc.h"
#include "arbo_atoms.h"
#include "arbo_nif_node.h"
#include "arbo_stack.h"
#include "arbo_store.h"
#include "mirel_hashtable.h"

namespace arbo {

namespace {

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
    case VAL_BINARY:
      return store_value(node, ctx, bytes, len, 0, false) ? 1 : 0;
    case VAL_CSVAL_BIN:
      return store_value(node, ctx, bytes, len, F_VAL_IS_BIN_NOSTR, false) ? 1 : 0;
    case VAL_CSVAL:
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
      _arbo_nif_attr_inactive_inc(ctx, node, static_cast<int32_t>(be32(bytes + 1)));
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
      return be32(be);
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
    uint32_t count = be32(p) + static_cast<uint32_t>(delta);
    put_be32(p, count);
    return count;
  }
  uint32_t count = count_inactive_children(dnode) + static_cast<uint32_t>(delta);
  store_inactive_count(ctx, dnode, count);
  return count;
}

// ---- deletion --------------------------------------------------------------------------------

void _arbo_nif_do_del_node(arbo_node* node, store_ctx* ctx, int with_siblings,
                           uintptr_t replacement) {
  if (node == nullptr) return;
  // 1. Iterators standing on the node move to the replacement.
  iter_nodes_fixup(ctx->table, node, replacement);
  // 2. A user-ordered list's hash index and its key records.
  if (node->is_dyn() && as_dyn(node)->cmp == ORDER_USER && as_dyn(node)->head[2] != nullptr) {
    _mirel_hashtable_destroy(reinterpret_cast<mirel_hashtable*>(as_dyn(node)->head[2]), 0);
    as_dyn(node)->head[2] = nullptr;
  }
  // 3. A key held in an arbo_bin.
  if (_arbo_node_key_is_bin(node)) _arbo_node_free_bin_key(&node->key, ctx);
  // 4. A binary value.
  release_bin_value(node, ctx);
  // 5. Attributes.
  if (node->attr != nullptr) _arbo_nif_do_del_node(node->attr, ctx, 1, kNoFixup);
  // 6. Following siblings, iteratively: lists can be long.
  if (with_siblings) {
    arbo_node* s = sibling(node);
    while (s != nullptr) {
      arbo_node* next = sibling(s);
      _arbo_nif_do_del_node(s, ctx, 0, kNoFixup);
      s = next;
    }
  }
  // 7. Children.
  if (node->child != nullptr) _arbo_nif_do_del_node(node->child, ctx, 1, kNoFixup);
  // 8. The record.
  _arbo_nif_node_free(node, ctx);
}

// ---- descendant flags ----------------------------------------------------------------------

int _arbo_nif_has_descendant_with_flags(ErlNifEnv* env, const arbo_node* node, uint64_t mask,
                                        int include_self) {
  if (include_self && (_arbo_nif_get_flags(env, node) & mask) != 0) return 1;
  for (const arbo_node* c = node->child; c != nullptr; c = sibling(c))
    if (_arbo_nif_has_descendant_with_flags(env, c, mask, 1)) return 1;
  return 0;
}

}  // namespace arbo
