// Private helpers shared by the node store's source files
// (arbo_nif_node*.cpp). Nothing outside the store includes this.
//
// Contract
// - Same locking as arbo_store.h: the caller holds the table lock.
// - A gen node's `val` area is not pointer-aligned, so an arbo_bin pointer
//   kept there is always read and written with memcpy.
#ifndef ARBO_NIF_NODE_H
#define ARBO_NIF_NODE_H

#include <cstdint>
#include <cstring>

#include "arbo_alloc.h"
#include "arbo_bytes.h"
#include "arbo_node.h"

namespace arbo {

// ---- values kept in `val` -------------------------------------------------------
inline arbo_bin* val_bin(const arbo_node* n) {
  arbo_bin* b;
  std::memcpy(&b, as_gen(n)->val, sizeof b);
  return b;
}
inline void set_val_bin(arbo_node* n, arbo_bin* b) {
  std::memset(as_gen(n)->val, 0, kSmallMax);
  std::memcpy(as_gen(n)->val, &b, sizeof b);
  as_gen(n)->small_len = 0;
}

// The value bytes of a gen node (inline or in its arbo_bin), read in place;
// {0, null} when it holds none (an out-of-line value may be empty: its
// pointer is not null). Attributes use the same storage.
inline bin_ref value_bytes(const arbo_node* n) {
  if (!n->is_gen()) return {0, nullptr};
  if (n->has(F_VAL_IS_BIN)) {
    const arbo_bin* b = val_bin(n);
    return {static_cast<size_t>(b->len), b->bytes()};
  }
  if (n->has(F_KEY_IS_BIN) || as_gen(n)->small_len == 0) return {0, nullptr};
  return {as_gen(n)->small_len, as_gen(n)->val};
}

// Releases a binary value, clears the three value flags, and zeroes `val`
// and `small_len` of a gen node that held a binary value.
inline void release_bin_value(arbo_node* n, store_ctx* ctx) {
  if (!n->has(F_VAL_IS_BIN)) return;
  _arbo_nif_free_binary(val_bin(n), ctx);
  n->clear(kValFlags);
  if (n->is_gen()) {
    std::memset(as_gen(n)->val, 0, kSmallMax);
    as_gen(n)->small_len = 0;
  }
}

// Releases the arbo_bin a key slot points to and clears the slot.
inline void _arbo_node_free_bin_key(uintptr_t* slot, store_ctx* ctx) {
  if (*slot == 0) return;
  _arbo_nif_free_binary(reinterpret_cast<arbo_bin*>(*slot), ctx);
  *slot = 0;
}

// ---- search keys -------------------------------------------------------------------
// The tuple handed to cmp: (bytes, len, indicator, 0) for byte keys,
// (null, 0, key, ns) for integer keys.
struct skey {
  const unsigned char* bytes;
  int32_t len;
  int32_t i;
  uint32_t ns;
};
inline skey node_skey(const arbo_node* n) {
  if (n->has(F_KEY_IS_BIN)) {
    key_bytes kb = node_key_bytes(n);
    return {kb.ptr, kb.len, n->has(F_KEY_IS_TUPLE) ? 1 : 0, 0};
  }
  return {nullptr, 0, static_cast<int32_t>(n->hkey()), node_ns(n)};
}

// ---- list internals (arbo_nif_node_dyn*.cpp) ------------------------------------------
// Search path of a sorted list: update[i] is the last node on level i whose
// key sorts before the search key (the header view when none does).
using sl_path = gen_node* [kMaxLevels];

// Fills `update` for the key; returns the candidate update[0]->next[0].
arbo_node* sl_search(arbo_node* parent, const skey& k, sl_path update);
// Unlinks `node` given its search path; returns the iterator replacement
// (the predecessor, kBeforeFirst, or 0 for an empty list).
uintptr_t sl_take2(arbo_node* parent, arbo_node* node, sl_path update, store_ctx* ctx);
// Gives `node` a new key (bytes, or int_key in ns) and key flags without
// moving it; `key_flags` holds F_KEY_IS_* bits as they sit in the type word.
void rename_child(arbo_node* node, const unsigned char* bytes, size_t len, uint32_t ns,
                  int32_t int_key, uint32_t key_flags, store_ctx* ctx);
// Re-keys an instance and puts it where its new key belongs.
void _arbo_nif_dn_rename_child(arbo_node* parent, arbo_node* node, const unsigned char* bytes,
                               size_t len, uint32_t ns, int32_t int_key, uint32_t key_flags,
                               store_ctx* ctx);

// Hash key record of a node's own key, or of a search key. The integer is
// widened without sign so that records made either way compare equal.
inline void fill_ht_key(ht_key* k, const unsigned char* bytes, size_t len, int32_t int_key) {
  k->bytes = bytes;
  k->len_or_int = bytes ? static_cast<uint32_t>(len) : static_cast<uint32_t>(int_key);
}
inline void fill_ht_key(ht_key* k, const arbo_node* n) {
  if (n->has(F_KEY_IS_BIN)) {
    key_bytes kb = node_key_bytes(n);
    k->bytes = kb.ptr;
    k->len_or_int = static_cast<uint32_t>(kb.len);
  } else {
    k->bytes = nullptr;
    k->len_or_int = n->hkey();
  }
}

}  // namespace arbo

#endif  // ARBO_NIF_NODE_H
