// The node store: integer-keyed child lists, list nodes (skip lists and
// user-ordered lists with a hash index), values, attributes and deletion.
//
// Contract
// - Callers hold the table lock: shared for lookups, exclusive for changes.
// - The store never builds error terms. Refusal is a null or 0 result; broken
//   invariants abort (ARBO_ASSERT).
// - Removals repair the table's iterator stacks (arbo_stack.h) with the
//   replacement value they choose: the predecessor, kBeforeFirst (2) for
//   "before the first child", 0, or kNoFixup (1) for no repair.
// - Byte keys are passed as (bytes, len, tuple indicator): indicator 1 means
//   one opaque element, 0 a buffer of encoded elements. Integer keys as
//   (null, 0, key, ns).
#ifndef ARBO_STORE_H
#define ARBO_STORE_H

#include <erl_nif.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "arbo_codes.h"
#include "arbo_node.h"

namespace arbo {

// ---- integer-keyed child lists -------------------------------------------------
// add_kind: what to make (enum add_kind, arbo_codes.h); cmp for ADD_LIST.
arbo_node* _arbo_nif_add_hkey_int(arbo_node* parent, uint32_t key, uint32_t ns, store_ctx* ctx,
                                  int add_kind, uint8_t cmp);
arbo_node* _arbo_nif_put_hkey_int_ll(arbo_node* parent, arbo_node* node, int add_kind,
                                     store_ctx* ctx);
arbo_node* _arbo_nif_take_hkey_int_ll(arbo_node* parent, uint32_t key, uint32_t ns,
                                      store_ctx* ctx, int fix_iterators);
arbo_node* _arbo_nif_find_child_int(arbo_node* parent, uint32_t key, uint32_t ns);
arbo_node* _arbo_nif_find_child_bin(arbo_node* parent, int tuple, const unsigned char* bytes,
                                    size_t len);
int _arbo_nif_del_hkey_int(arbo_node* parent, uint32_t key, uint32_t ns, store_ctx* ctx);
int _arbo_nif_del_hkey_bin(arbo_node* parent, int tuple, const unsigned char* bytes, size_t len,
                           store_ctx* ctx);
int _arbo_nif_del_ns_int(arbo_node* parent, uint32_t ns, store_ctx* ctx);
int _arbo_nif_rename_ns(arbo_node* parent, arbo_node* node, uint32_t new_ns, store_ctx* ctx);

// ---- list nodes ------------------------------------------------------------------
arbo_node* _arbo_nif_dn_new(arbo_node* parent, store_ctx* ctx);
arbo_node* _arbo_nif_dn_insert(arbo_node* parent, arbo_node* node, store_ctx* ctx);
arbo_node* sl_insert(arbo_node* parent, arbo_node* node, store_ctx* ctx);
arbo_node* dn_find(arbo_node* parent, const unsigned char* bytes, size_t len, int32_t int_key,
                   uint32_t ns);
int dn_delete(arbo_node* parent, const unsigned char* bytes, size_t len, int32_t int_key,
              uint32_t ns, store_ctx* ctx);
arbo_node* _arbo_nif_dn_find_next(arbo_node* parent, const unsigned char* bytes, size_t len,
                                  int32_t int_key, uint32_t ns, int inclusive);
// Last instance; an empty sorted list answers its header view (not null).
arbo_node* _arbo_nif_dn_last_child(arbo_node* parent);
int _arbo_nif_dl_move_to(arbo_node* parent, arbo_node* node, int pos);
int _arbo_nif_dl_move_rel(arbo_node* parent, arbo_node* node, int before, arbo_node* ref);
// -1 (0xffffffff) parent not a user-ordered list, 0 refused, 1 moved.
int _arbo_nif_move_rel(arbo_node* parent, arbo_node* node, int before, arbo_node* ref,
                       store_ctx* ctx);
// key_kind: a store_key_kind (arbo_codes.h).
int _arbo_nif_dn_rename_instance(arbo_node* parent, arbo_node* node, int key_kind,
                                 const unsigned char* bytes, size_t len, uint32_t ns,
                                 int32_t int_key, store_ctx* ctx);
// key_type KEY_OPAQUE sets F_KEY_IS_TUPLE (one opaque element), KEY_TUPLE
// does not.
arbo_node* _arbo_nif_add_hkey_bin(arbo_node* parent, const unsigned char* bytes, size_t len,
                                  store_ctx* ctx, int key_type);
// The instance _arbo_nif_add_hkey_bin would link, made but not linked; null
// when `parent` is no list node or the key's binary is refused.
arbo_node* _arbo_nif_dn_new_bin(arbo_node* parent, const unsigned char* bytes, size_t len,
                                store_ctx* ctx, int key_type);

// Appending a run of instances in ascending key order (the loader fills a
// saved sorted list this way): the hint remembers the last instance reached
// on each level of `list`, so an instance whose key is greater than the
// list's last one links in O(1). The result is identical to sl_insert (same
// links, curh, size, duplicate handling); any other key falls back to it.
// A hint whose `list` differs from `parent`, or whose `size` no longer matches
// the list's, is rebuilt first (O(log n)); after any other change to the list
// reset it (`hint = {}`) before the next call.
//
// The hint also keeps the search path of the last key it met that was
// already in the list (a finger): a later key that sorts after that path's
// bottom node is searched from the path instead of from the top, which
// finds the same path, so a run of ascending keys that are mostly present
// costs O(1) each instead of O(log n).
struct sl_append_hint {
  arbo_node* list = nullptr;
  arbo_node* last[kMaxLevels] = {};
  int32_t size = -1;  // the list's size when `last` was right
  bool has_path = false;  // `path` is the search path of a key at `size`
  gen_node* path[kMaxLevels] = {};
};
arbo_node* sl_insert_hinted(arbo_node* parent, arbo_node* node, store_ctx* ctx,
                            sl_append_hint* hint);
// The instance with integer key `key` in namespace 0 and key flags
// `key_flags`, made and linked when `parent` is a sorted list whose last
// instance sorts before that key: the node, links and counters that
// _arbo_nif_add_hkey_int_hinted would give. Null, with nothing made or
// drawn, for any other list or key.
arbo_node* sl_append_hkey_int(arbo_node* parent, uint32_t key, uint32_t key_flags,
                              store_ctx* ctx, sl_append_hint* hint);
// Instance creation with an append hint: the same nodes, keys and results as
// _arbo_nif_add_hkey_int (add_kind 1) and _arbo_nif_add_hkey_bin, but a
// sorted list (cmp 0 to 2) links through sl_insert_hinted; other lists take
// the ordinary insertion. Defined beside the loader (arbo_nif_io_load.cpp),
// which rebuilds saved lists with them.
arbo_node* _arbo_nif_add_hkey_int_hinted(arbo_node* parent, uint32_t key, uint32_t ns,
                                         store_ctx* ctx, sl_append_hint* hint);
arbo_node* _arbo_nif_add_hkey_bin_hinted(arbo_node* parent, const unsigned char* bytes,
                                         size_t len, store_ctx* ctx, int key_type,
                                         sl_append_hint* hint);

// ---- values, attributes, deletion --------------------------------------------
// kind: a val_kind (arbo_codes.h): an encoded value (inline up to 10 bytes),
// a plain binary, an encoded value kept as a binary; any other kind clears
// the value. 0 for nodes that cannot hold one.
int _arbo_nif_set_val(arbo_node* node, store_ctx* ctx, const unsigned char* bytes, size_t len,
                      int kind);
uint32_t _arbo_nif_free_val(arbo_node* node, store_ctx* ctx);
ERL_NIF_TERM _arbo_nif_fetch_value(const arbo_node* node, ErlNifEnv* env);
// 0 no value, 1 encoded value, 2 plain binary.
int _arbo_nif_fetch_bin_value(const arbo_node* node, bin_ref* out);
// len 0 removes; returns 1 exactly when an existing attribute was removed.
int _arbo_nif_attr_set(store_ctx* ctx, arbo_node* node, uint32_t key, const unsigned char* bytes,
                       size_t len);
arbo_node* _arbo_nif_attr_set_with_gen(arbo_node* node, uint32_t key, const unsigned char* bytes,
                                       size_t len, store_ctx* ctx);
ERL_NIF_TERM _arbo_nif_attr_fetch(const arbo_node* node, uint32_t key, ErlNifEnv* env);
uint32_t _arbo_nif_attr_inactive_inc(store_ctx* ctx, arbo_node* dnode, int32_t delta);
uint32_t _arbo_nif_attr_inactive_count(store_ctx* ctx, arbo_node* dnode);
void _arbo_nif_do_del_node(arbo_node* node, store_ctx* ctx, int with_siblings,
                           uintptr_t replacement);
int _arbo_nif_has_descendant_with_flags(ErlNifEnv* env, const arbo_node* node, uint64_t mask,
                                        int include_self);
// The same search, giving up after `budget` nodes looked at: -1 then.
int _arbo_nif_has_descendant_budget(ErlNifEnv* env, const arbo_node* node, uint64_t mask,
                                    int include_self, uint64_t budget);
// Points the key-release argument of every user-ordered list index in the
// subtree at `table`: a tree whose nodes move to another handle record (a
// dropped tree freed in the background) releases its keys through it.
void _arbo_nif_rehome_indexes(arbo_node* node, arbo_t* table);
// True when deleting `node` (with its later siblings when `with_siblings`)
// would free more than `budget` nodes and index entries; stops counting there.
bool _arbo_nif_subtree_exceeds(const arbo_node* node, int with_siblings, uint64_t budget);
// ---- value-length table of encoded values -----------------------------------
// Inline: the loader asks it once per value record.

// Payload lengths of fixed-size value tags; kVariable marks the others.
inline constexpr int8_t kVariable = -1;
constexpr std::array<int8_t, 256> make_val_len_table() {
  std::array<int8_t, 256> t{};
  for (auto& v : t) v = kVariable;
  t[0] = 0;
  for (int tag : {6, 10, 17}) t[tag] = 1;
  for (int tag : {7, 11}) t[tag] = 2;
  for (int tag : {24, 26}) t[tag] = 3;
  for (int tag : {8, 12, 15, 22, 25, 28, 29, 46}) t[tag] = 4;
  for (int tag : {21, 40, 48}) t[tag] = 5;
  t[20] = 6;
  for (int tag : {2, 9, 13, 30, 44, 209}) t[tag] = 8;
  for (int tag : {23, 43}) t[tag] = 9;
  t[19] = 13;
  t[16] = 16;
  for (int tag : {41, 49}) t[tag] = 17;
  t[27] = 28;
  return t;
}
inline constexpr std::array<int8_t, 256> kValLen = make_val_len_table();

// Fixed payload length of a tag, or (with is_variable set) the width of the
// length prefix.
inline int _arbo_nif_val_len(uint8_t tag, int* is_variable, int* is_nested) {
  *is_variable = 0;
  *is_nested = 0;
  if (kValLen[tag] != kVariable) return kValLen[tag];
  *is_variable = 1;
  switch (tag) {
    case 14: return 1;
    case 34: case 38: case 208: return 2;
    case 18: case 31: case 39: case 47: case 50: return 4;
    case 200: case 201: *is_nested = 1; return 1;
    case 202: *is_nested = 1; return 2;
    case 203: case 205: case 206: *is_nested = 1; return 4;
    default: return 0;
  }
}

}  // namespace arbo

#endif  // ARBO_STORE_H
