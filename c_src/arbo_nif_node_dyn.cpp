// Node store: list nodes. Sorted lists (cmp 0 to 2) keep their instances in
// a skip list whose heads live in the list node; user-ordered lists (cmp 3)
// in a doubly linked list with a hash index from the 128th instance on.
//
// Sorted lists: level i chains head[i], next[i], ... over the instances taller
// than i in ascending key order. The list node seen through dn_header() is
// the header node, so searches treat head[i] as header->next[i]. A search
// starts at index curh, one above the top level in use (its head is null).
//
// User-ordered lists: next[0] follows, next[1] precedes; head[0] is the
// first instance, head[1] the last, head[2] the hash index or null.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "arbo_alloc.h"
#include "arbo_keys.h"
#include "arbo_nif_node.h"
#include "arbo_stack.h"
#include "arbo_store.h"
#include "mirel_hashtable.h"

namespace arbo {

namespace {

// A user-ordered list gets its index at this many instances and drops it
// when a removal starts at kIndexDrop or fewer. The gap is intended.
constexpr int32_t kIndexCreate = 128;
constexpr int32_t kIndexDrop = 64;

// Two random bits per level step, shared by every table. Races on it only
// change which heights are drawn; relaxed atomics keep them well defined.
std::atomic<int64_t> g_level_bits{0};
std::atomic<int> g_level_reset{0};

int sl_rlevel(store_ctx* ctx) {
  for (int s = 0;; ++s) {
    if (g_level_reset.load(std::memory_order_relaxed) <= 0) {
      g_level_bits.store(_arbo_nif_random(ctx->env), std::memory_order_relaxed);
      g_level_reset.store(30, std::memory_order_relaxed);
    }
    int64_t v = g_level_bits.load(std::memory_order_relaxed);
    g_level_bits.store(v >> 2, std::memory_order_relaxed);
    g_level_reset.store(g_level_reset.load(std::memory_order_relaxed) - 2,
                        std::memory_order_relaxed);
    if (s == kMaxHeight - 1 || (v & 3) != 0) return s + 1;
  }
}

inline int sl_cmp(const arbo_node* n, const skey& k, int mode) {
  return cmp(n, k.bytes, k.len, k.i, k.ns, mode);
}

inline mirel_hashtable* dl_index(const dyn_node* d) {
  return reinterpret_cast<mirel_hashtable*>(d->head[2]);
}

// Links `node` on its levels after the nodes of `update` (complete for the
// levels below curh), raising curh when the node is taller.
void sl_link(dyn_node* d, gen_node* g, sl_path update) {
  gen_node* header = dn_header(&d->hd);
  if (g->height > d->curh) {
    for (int i = d->curh; i < g->height; ++i) update[i] = header;
    d->curh = g->height;
  }
  for (int i = 0; i < g->height; ++i) {
    g->next[i] = update[i]->next[i];
    update[i]->next[i] = &g->hd;
  }
  d->hd.child = d->head[0];
  d->size++;
}

void check_height(const arbo_node* node) {
  ARBO_ASSERT(node->is_gen() && as_gen(node)->height >= 1 &&
              as_gen(node)->height <= kMaxHeight);
}

// ---- user-ordered lists ---------------------------------------------------------------

void dl_unlink(dyn_node* d, arbo_node* n) {
  arbo_node* prev = as_gen(n)->next[1];
  arbo_node* next = as_gen(n)->next[0];
  if (prev) as_gen(prev)->next[0] = next;
  else d->head[0] = next;
  if (next) as_gen(next)->next[1] = prev;
  else d->head[1] = prev;
  as_gen(n)->next[0] = as_gen(n)->next[1] = nullptr;
}

// Links `n` in front of `ref`, or at the end when `ref` is null.
void dl_link_before(dyn_node* d, arbo_node* n, arbo_node* ref) {
  arbo_node* prev = ref ? as_gen(ref)->next[1] : d->head[1];
  as_gen(n)->next[0] = ref;
  as_gen(n)->next[1] = prev;
  if (ref) as_gen(ref)->next[1] = n;
  else d->head[1] = n;
  if (prev) as_gen(prev)->next[0] = n;
  else d->head[0] = n;
}

arbo_node* dl_find(dyn_node* d, const unsigned char* bytes, size_t len, int32_t int_key,
                   uint32_t ns) {
  if (d->hd.child == nullptr) return nullptr;
  if (mirel_hashtable* idx = dl_index(d)) {
    // The index knows keys only: the namespace of an integer key is ignored.
    ht_key k;
    fill_ht_key(&k, bytes, len, int_key);
    return static_cast<arbo_node*>(_mirel_hashtable_search(idx, &k));
  }
  const auto ilen = static_cast<int32_t>(len);
  for (arbo_node* n = d->head[0]; n != nullptr; n = as_gen(n)->next[0])
    if (cmp(n, bytes, ilen, int_key, ns, ORDER_USER) == 0) return n;
  return nullptr;
}

void dl_index_add(dyn_node* d, arbo_node* n, store_ctx* ctx) {
  ht_key* k = _arbo_alloc_ht_key(ctx->table);
  fill_ht_key(k, n);
  ARBO_ASSERT(_mirel_hashtable_insert(dl_index(d), k, n));
}

arbo_node* dl_insert(dyn_node* d, arbo_node* node, store_ctx* ctx) {
  gen_node* g = as_gen(node);
  if (d->hd.child == nullptr) {
    d->head[0] = d->head[1] = node;
    g->next[0] = g->next[1] = nullptr;
  } else {
    arbo_node* found;
    if (mirel_hashtable* idx = dl_index(d)) {
      ht_key k;
      fill_ht_key(&k, node);
      found = static_cast<arbo_node*>(_mirel_hashtable_search(idx, &k));
    } else {
      skey k = node_skey(node);
      found = nullptr;
      for (arbo_node* n = d->head[0]; n != nullptr && !found; n = as_gen(n)->next[0])
        if (sl_cmp(n, k, ORDER_USER) == 0) found = n;
    }
    if (found) {
      _arbo_nif_do_del_node(node, ctx, 0, kNoFixup);
      return found;
    }
    dl_link_before(d, node, nullptr);
    if (dl_index(d) != nullptr) {
      dl_index_add(d, node, ctx);
    } else if (d->size + 1 >= kIndexCreate) {
      mirel_hashtable* idx = _mirel_create_hashtable_mallf(
          static_cast<uint32_t>(d->size + 1), ht_hash_from_key, ht_keys_equal, ::malloc, ::free,
          free_key, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ctx->table)));
      // Without an index the list still works, by walking.
      if (idx != nullptr) {
        d->head[2] = reinterpret_cast<arbo_node*>(idx);
        for (arbo_node* n = d->head[0]; n != nullptr; n = as_gen(n)->next[0])
          dl_index_add(d, n, ctx);
      }
    }
  }
  d->hd.child = d->head[0];
  d->size++;
  return node;
}

int dl_delete(dyn_node* d, const unsigned char* bytes, size_t len, int32_t int_key, uint32_t ns,
              store_ctx* ctx) {
  arbo_node* n = dl_find(d, bytes, len, int_key, ns);
  if (n == nullptr) return 0;
  arbo_node* prev = as_gen(n)->next[1];
  uintptr_t repl = (n == d->head[0]) ? kBeforeFirst : 0;
  if (prev) repl = reinterpret_cast<uintptr_t>(prev);
  dl_unlink(d, n);
  if (arbo_node* a = d->hd.attr; a && a->hkey() == 0 && is_inactive(n))
    _arbo_nif_attr_inactive_inc(ctx, &d->hd, -1);
  if (mirel_hashtable* idx = dl_index(d)) {
    // The lookup record is not released: every indexed removal leaves 16
    // bytes counted in mem. Kept as it is; the accounting shows it.
    ht_key* k = _arbo_alloc_ht_key(ctx->table);
    fill_ht_key(k, n);
    _mirel_hashtable_remove(idx, k);
    if (d->size <= kIndexDrop) {
      _mirel_hashtable_destroy(idx, 0);
      d->head[2] = nullptr;
    }
  }
  _arbo_nif_do_del_node(n, ctx, 0, repl);
  d->hd.child = d->head[0];
  d->size--;
  return 1;
}

bool is_user_list(const arbo_node* parent) {
  return parent->is_dyn() && as_dyn(parent)->cmp == ORDER_USER;
}

}  // namespace

// ---- sorted lists -------------------------------------------------------------------------

arbo_node* sl_search(arbo_node* parent, const skey& k, sl_path update) {
  dyn_node* d = as_dyn(parent);
  const int mode = d->cmp;
  gen_node* x = dn_header(parent);
  // The node that ended the level above compares >= k; met again one level
  // down it ends that level too, without a second comparison.
  arbo_node* stop = nullptr;
  for (int i = d->curh; i >= 0; --i) {
    // The candidate after a step down is x->next[i - 1]: start fetching it
    // while this level is still being compared.
    if (i > 0) __builtin_prefetch(x->next[i - 1]);
    for (arbo_node* nx = x->next[i]; nx != stop; nx = x->next[i]) {
      if (sl_cmp(nx, k, mode) >= 0) {
        stop = nx;
        break;
      }
      x = as_gen(nx);
      if (i > 0) __builtin_prefetch(x->next[i - 1]);
    }
    update[i] = x;
  }
  return update[0]->next[0];
}

arbo_node* sl_insert(arbo_node* parent, arbo_node* node, store_ctx* ctx) {
  check_height(node);
  sl_path update;
  skey k = node_skey(node);
  arbo_node* cand = sl_search(parent, k, update);
  if (cand != nullptr && sl_cmp(cand, k, as_dyn(parent)->cmp) == 0) {
    _arbo_nif_do_del_node(node, ctx, 0, kNoFixup);
    return cand;
  }
  sl_link(as_dyn(parent), as_gen(node), update);
  return node;
}

uintptr_t sl_take2(arbo_node* parent, arbo_node* node, sl_path update, store_ctx* ctx) {
  dyn_node* d = as_dyn(parent);
  uintptr_t repl = 0;
  if (d->curh != 0) {
    repl = update[0] == dn_header(parent) ? kBeforeFirst : reinterpret_cast<uintptr_t>(update[0]);
    if (update[0]->next[0] == node) {
      for (int i = 0;; ++i) {
        update[i]->next[i] = as_gen(node)->next[i];
        if (!(i + 1 < d->curh && update[i + 1]->next[i + 1] == node)) break;
      }
    }
  }
  if (arbo_node* a = parent->attr; a && a->hkey() == 0 && is_inactive(node))
    _arbo_nif_attr_inactive_inc(ctx, parent, -1);
  while (d->curh > 0 && d->head[d->curh - 1] == nullptr) d->curh--;
  parent->child = d->head[0];
  d->size--;
  return repl;
}

namespace {

// Makes the hint right for `parent`: when it served another list or the
// list's size moved since, the last node of each level, from the top down.
void hint_refresh(arbo_node* parent, sl_append_hint* hint) {
  dyn_node* d = as_dyn(parent);
  if (hint->list == parent && hint->size == d->size) return;
  *hint = sl_append_hint{};
  hint->list = parent;
  hint->size = d->size;
  gen_node* header = dn_header(parent);
  gen_node* x = header;
  for (int i = kMaxLevels - 1; i >= 0; --i) {
    while (x->next[i] != nullptr) x = as_gen(x->next[i]);
    hint->last[i] = (x == header) ? nullptr : &x->hd;
  }
}

// Whether `k` sorts after the list's last instance (an empty list: yes).
bool past_end(const dyn_node* d, const sl_append_hint* hint, const skey& k) {
  return hint->last[0] == nullptr || sl_cmp(hint->last[0], k, d->cmp) < 0;
}

// Links `g`, whose key is past every key of the list: the search path of
// sl_insert would be the last node of each level (the header on empty
// levels), and nothing follows it, so each new link goes at a level's end.
void sl_append(arbo_node* parent, gen_node* g, sl_append_hint* hint) {
  dyn_node* d = as_dyn(parent);
  gen_node* header = dn_header(parent);
  const int h = g->height;
  if (h > d->curh) d->curh = static_cast<uint8_t>(h);
  for (int i = 0; i < h; ++i) {
    gen_node* prev = hint->last[i] ? as_gen(hint->last[i]) : header;
    g->next[i] = nullptr;
    prev->next[i] = &g->hd;
    hint->last[i] = &g->hd;
  }
  d->hd.child = d->head[0];
  d->size++;
  hint->size = d->size;
}

}  // namespace

namespace {

// The search path of `k` from the finger: levels whose next node already
// sorts at or after `k` keep the finger's node; the search starts at the
// lowest of them (climbing stops there: a taller node after the finger's
// node is at or after the next node of every level below it). The caller
// has checked that the finger's bottom node sorts before `k`, so every
// node of the path does.
void sl_search_from(dyn_node* d, const skey& k, const sl_path finger, sl_path update) {
  const int mode = d->cmp;
  int top = 0;
  while (top + 1 < d->curh) {
    arbo_node* nx = finger[top]->next[top];
    if (nx == nullptr || sl_cmp(nx, k, mode) >= 0) break;
    ++top;
  }
  for (int i = d->curh - 1; i > top; --i) update[i] = finger[i];
  gen_node* x = finger[top];
  bool moved = false;
  for (int i = top; i >= 0; --i) {
    // Until the search has left the finger's nodes, the finger's own node
    // of this level is the furthest known start; once it has, the node
    // reached sorts after every finger node below (they sort before the
    // finger's key, it does not).
    if (!moved) x = finger[i];
    for (arbo_node* nx = x->next[i]; nx != nullptr; nx = x->next[i]) {
      if (sl_cmp(nx, k, mode) >= 0) break;
      x = as_gen(nx);
      moved = true;
    }
    update[i] = x;
  }
}

}  // namespace

arbo_node* sl_insert_hinted(arbo_node* parent, arbo_node* node, store_ctx* ctx,
                            sl_append_hint* hint) {
  dyn_node* d = as_dyn(parent);
  if (d->cmp == ORDER_USER) return _arbo_nif_dn_insert(parent, node, ctx);
  check_height(node);
  hint_refresh(parent, hint);
  const skey k = node_skey(node);
  if (past_end(d, hint, k)) {
    hint->has_path = false;
    sl_append(parent, as_gen(node), hint);
    return node;
  }
  // The same search path as sl_insert's: from the finger when the key
  // sorts after it, else from the top.
  sl_path update;
  gen_node* header = dn_header(parent);
  if (hint->has_path && d->curh > 0 &&
      (hint->path[0] == header || sl_cmp(&hint->path[0]->hd, k, d->cmp) < 0))
    sl_search_from(d, k, hint->path, update);
  else
    sl_search(parent, k, update);
  arbo_node* cand = update[0]->next[0];
  if (cand != nullptr && sl_cmp(cand, k, d->cmp) == 0) {
    // The list is unchanged: the hint stays right, and the path is the
    // next search's finger.
    _arbo_nif_do_del_node(node, ctx, 0, kNoFixup);
    for (int i = 0; i < d->curh; ++i) hint->path[i] = update[i];
    hint->has_path = true;
    return cand;
  }
  sl_link(d, as_gen(node), update);
  // The hint is rebuilt next time (the size moved).
  hint->has_path = false;
  return node;
}

arbo_node* sl_append_hkey_int(arbo_node* parent, uint32_t key, uint32_t key_flags,
                              store_ctx* ctx, sl_append_hint* hint) {
  if (parent->type() != T_DYN_NODE || as_dyn(parent)->cmp == ORDER_USER) return nullptr;
  hint_refresh(parent, hint);
  if (!past_end(as_dyn(parent), hint, skey{nullptr, 0, static_cast<int32_t>(key), 0}))
    return nullptr;
  arbo_node* n = _arbo_nif_dn_new(parent, ctx);
  n->set_hkey(key);
  n->set(key_flags);
  sl_append(parent, as_gen(n), hint);
  return n;
}

// ---- list nodes: both kinds -------------------------------------------------------------

arbo_node* _arbo_nif_dn_new(arbo_node* parent, store_ctx* ctx) {
  if (as_dyn(parent)->cmp == ORDER_USER) {
    arbo_node* n = _arbo_nif_node_alloc(ctx, T_GEN_NODE_TWO);
    as_gen(n)->height = 2;
    return n;
  }
  int h = sl_rlevel(ctx);
  uint32_t type = h == 1 ? T_GEN_NODE_ONE : (h == 2 ? T_GEN_NODE_TWO : T_GEN_NODE_MAX);
  arbo_node* n = _arbo_nif_node_alloc(ctx, type);
  as_gen(n)->height = static_cast<uint8_t>(h);
  return n;
}

arbo_node* _arbo_nif_dn_insert(arbo_node* parent, arbo_node* node, store_ctx* ctx) {
  ARBO_ASSERT(parent->is_dyn());
  if (as_dyn(parent)->cmp == ORDER_USER) return dl_insert(as_dyn(parent), node, ctx);
  return sl_insert(parent, node, ctx);
}

arbo_node* dn_find(arbo_node* parent, const unsigned char* bytes, size_t len, int32_t int_key,
                   uint32_t ns) {
  if (!parent->is_dyn()) return nullptr;
  if (as_dyn(parent)->cmp == ORDER_USER) return dl_find(as_dyn(parent), bytes, len, int_key, ns);
  sl_path update;
  skey k{bytes, static_cast<int32_t>(len), int_key, ns};
  arbo_node* cand = sl_search(parent, k, update);
  return (cand != nullptr && sl_cmp(cand, k, as_dyn(parent)->cmp) == 0) ? cand : nullptr;
}

int dn_delete(arbo_node* parent, const unsigned char* bytes, size_t len, int32_t int_key,
              uint32_t ns, store_ctx* ctx) {
  if (!parent->is_dyn()) return 0;
  if (as_dyn(parent)->cmp == ORDER_USER)
    return dl_delete(as_dyn(parent), bytes, len, int_key, ns, ctx);
  sl_path update;
  skey k{bytes, static_cast<int32_t>(len), int_key, ns};
  arbo_node* cand = sl_search(parent, k, update);
  if (cand == nullptr || sl_cmp(cand, k, as_dyn(parent)->cmp) != 0) return 0;
  uintptr_t repl = sl_take2(parent, cand, update, ctx);
  _arbo_nif_do_del_node(cand, ctx, 0, repl);
  return 1;
}

arbo_node* _arbo_nif_dn_find_next(arbo_node* parent, const unsigned char* bytes, size_t len,
                                  int32_t int_key, uint32_t ns, int inclusive) {
  if (!parent->is_dyn() || as_dyn(parent)->cmp == ORDER_USER) return nullptr;
  sl_path update;
  skey k{bytes, static_cast<int32_t>(len), int_key, ns};
  arbo_node* n = sl_search(parent, k, update);
  if (n == nullptr) return nullptr;
  if (inclusive || sl_cmp(n, k, as_dyn(parent)->cmp) != 0) return n;
  return as_gen(n)->next[0];
}

arbo_node* _arbo_nif_dn_last_child(arbo_node* parent) {
  dyn_node* d = as_dyn(parent);
  if (d->cmp == ORDER_USER) return d->head[1];
  // An empty sorted list answers its header view: stable, and never an
  // instance's address.
  gen_node* x = dn_header(parent);
  for (int i = d->curh; i >= 0; --i)
    while (x->next[i] != nullptr) x = as_gen(x->next[i]);
  return &x->hd;
}

// ---- moves (user-ordered lists) ----------------------------------------------------------

int _arbo_nif_dl_move_to(arbo_node* parent, arbo_node* node, int pos) {
  if (!is_user_list(parent) || node == nullptr || node->type() != T_GEN_NODE_TWO) return 0;
  dyn_node* d = as_dyn(parent);
  // Positions count the node itself where it stands now: moving the first of
  // A, B, C to position 2 gives B, A, C.
  arbo_node* target = nullptr;
  if (pos >= 0) {
    target = d->head[0];
    for (int step = 0; step < pos; ++step) {
      if (target == nullptr) return 0;
      target = as_gen(target)->next[0];
    }
  }
  if (target == node) return 0;
  if (target != nullptr && as_gen(target)->next[1] == node) return 0;
  if (target == nullptr && d->head[1] == node) return 0;
  dl_unlink(d, node);
  dl_link_before(d, node, target);
  d->hd.child = d->head[0];
  return 1;
}

int _arbo_nif_dl_move_rel(arbo_node* parent, arbo_node* node, int before, arbo_node* ref) {
  if (!is_user_list(parent) || node == nullptr || ref == nullptr || node == ref) return 0;
  if (node->type() != T_GEN_NODE_TWO || ref->type() != T_GEN_NODE_TWO) return 0;
  dyn_node* d = as_dyn(parent);
  dl_unlink(d, node);
  dl_link_before(d, node, before ? ref : as_gen(ref)->next[0]);
  d->hd.child = d->head[0];
  return 1;
}

int _arbo_nif_move_rel(arbo_node* parent, arbo_node* node, int before, arbo_node* ref,
                       store_ctx* ctx) {
  if (!is_user_list(parent)) return -1;
  int moved = _arbo_nif_dl_move_rel(parent, node, before, ref);
  if (moved) ctx->table->generation++;
  return moved;
}

// ---- byte-keyed instances ------------------------------------------------------------------

arbo_node* _arbo_nif_dn_new_bin(arbo_node* parent, const unsigned char* bytes, size_t len,
                                store_ctx* ctx, int key_type) {
  if (!parent->is_dyn()) return nullptr;
  arbo_node* node = _arbo_nif_dn_new(parent, ctx);
  if (len > static_cast<size_t>(kSmallMax)) {
    arbo_bin* b = _arbo_nif_alloc_binary(len, bytes, ctx);
    if (b == nullptr) {
      _arbo_nif_node_free(node, ctx);
      return nullptr;
    }
    node->key = reinterpret_cast<uintptr_t>(b);
  } else {
    if (len) std::memcpy(as_gen(node)->val, bytes, len);
    as_gen(node)->small_len = static_cast<uint8_t>(len);
  }
  node->set(F_KEY_IS_BIN | (key_type == KEY_OPAQUE ? F_KEY_IS_TUPLE : 0));
  return node;
}

arbo_node* _arbo_nif_add_hkey_bin(arbo_node* parent, const unsigned char* bytes, size_t len,
                                  store_ctx* ctx, int key_type) {
  arbo_node* node = _arbo_nif_dn_new_bin(parent, bytes, len, ctx, key_type);
  return node == nullptr ? nullptr : _arbo_nif_dn_insert(parent, node, ctx);
}

// ---- renaming -----------------------------------------------------------------------------

void rename_child(arbo_node* node, const unsigned char* bytes, size_t len, uint32_t ns,
                  int32_t int_key, uint32_t key_flags, store_ctx* ctx) {
  if (node == nullptr) return;
  const bool byte_key = bytes != nullptr || (key_flags & F_KEY_IS_BIN) != 0;
  arbo_bin* nb = nullptr;
  if (byte_key && len > static_cast<size_t>(kSmallMax)) {
    // Allocate first: a refused binary leaves the node as it was.
    nb = _arbo_nif_alloc_binary(len, bytes, ctx);
    if (nb == nullptr) return;
  }
  const bool inline_key = node->has(F_KEY_IS_BIN) && !_arbo_node_key_is_bin(node);
  if (_arbo_node_key_is_bin(node)) _arbo_node_free_bin_key(&node->key, ctx);
  if (byte_key) {
    // A byte-keyed node holds no value; `val` now carries the key.
    release_bin_value(node, ctx);
    node->clear(kValFlags);
    std::memset(as_gen(node)->val, 0, kSmallMax);
    as_gen(node)->small_len = 0;
    if (nb != nullptr) {
      node->key = reinterpret_cast<uintptr_t>(nb);
    } else {
      node->key = 0;
      if (len) std::memcpy(as_gen(node)->val, bytes, len);
      as_gen(node)->small_len = static_cast<uint8_t>(len);
    }
  } else {
    if (inline_key && node->is_gen()) {
      // The old key's bytes in `val` must not turn into a value.
      std::memset(as_gen(node)->val, 0, kSmallMax);
      as_gen(node)->small_len = 0;
    }
    set_node_ns(node, ns);
    node->key = static_cast<uint32_t>(int_key);
  }
  node->tw = (node->tw & ~kKeyFlags) | (key_flags & kKeyFlags);
}

void _arbo_nif_dn_rename_child(arbo_node* parent, arbo_node* node, const unsigned char* bytes,
                               size_t len, uint32_t ns, int32_t int_key, uint32_t key_flags,
                               store_ctx* ctx) {
  dyn_node* d = as_dyn(parent);
  if (d->cmp != ORDER_USER) {
    // sl_take2 lowers a cached inactive count and sl_insert does not raise
    // it again: renaming an inactive instance leaves the count one lower.
    // Kept as it is.
    sl_path update;
    if (sl_search(parent, node_skey(node), update) == node) sl_take2(parent, node, update, ctx);
    rename_child(node, bytes, len, ns, int_key, key_flags, ctx);
    sl_insert(parent, node, ctx);
    return;
  }
  mirel_hashtable* idx = dl_index(d);
  if (idx == nullptr) {
    rename_child(node, bytes, len, ns, int_key, key_flags, ctx);
    return;
  }
  ht_key* k = _arbo_alloc_ht_key(ctx->table);
  fill_ht_key(k, node);
  _mirel_hashtable_remove(idx, k);
  rename_child(node, bytes, len, ns, int_key, key_flags, ctx);
  fill_ht_key(k, node);
  ARBO_ASSERT(_mirel_hashtable_insert(idx, k, node));
}

int _arbo_nif_dn_rename_instance(arbo_node* parent, arbo_node* node, int key_kind,
                                 const unsigned char* bytes, size_t len, uint32_t ns,
                                 int32_t int_key, store_ctx* ctx) {
  uint32_t flags;
  switch (key_kind) {
    case STORE_KEY_TAG: flags = F_KEY_IS_TUPLE; break;
    case STORE_KEY_NS_INT: flags = F_KEY_IS_BTUPLE; break;
    case STORE_KEY_OPAQUE: flags = F_KEY_IS_BIN | F_KEY_IS_TUPLE; break;
    case STORE_KEY_TUPLE: flags = F_KEY_IS_BIN; break;
    default: return 0;
  }
  const bool int_kind = key_kind <= STORE_KEY_NS_INT;
  arbo_node* dup;
  if (!int_kind) dup = dn_find(parent, bytes, len, key_kind == STORE_KEY_OPAQUE ? 1 : 0, 0);
  else if (parent->is_dyn()) dup = dn_find(parent, nullptr, 0, int_key, ns);
  else dup = _arbo_nif_find_child_int(parent, static_cast<uint32_t>(int_key), ns);
  if (dup != nullptr) return 0;
  // Only a list node knows how to re-place its instance.
  if (!parent->is_dyn()) return 0;
  _arbo_nif_dn_rename_child(parent, node, int_kind ? nullptr : bytes, int_kind ? 0 : len, ns,
                            int_key, flags, ctx);
  return 1;
}

}  // namespace arbo
