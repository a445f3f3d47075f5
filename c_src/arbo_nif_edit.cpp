// Tree-editing functions: add, delete, re-key and read the keys of nodes.
//
// Every function follows the common frame: plain arguments first, then the
// handle under the exclusive lock (shared for get_hkey), the type check, one
// store call, the result. `generation` moves by one on a successful delete
// (del_hkey, del_ns), rename_ns and on a del_all that found children; adds
// and rename_instance never move it.
#include <erl_nif.h>

#include "arbo_alloc.h"
#include "arbo_codes.h"
#include "arbo_nif.h"
#include "arbo_store.h"
#include "mirel_hashtable.h"

namespace arbo {

// On a normal scheduler: whether adding a child to `parent` may outlast the
// budget. An integer child chain is walked to find the place; a big
// user-ordered list's index may grow, which moves every entry at once.
static bool long_add(const arbo_node* parent) {
  if (!on_normal_scheduler()) return false;
  if (!parent->is_dyn()) return long_chain(parent->child);
  const dyn_node* d = as_dyn(parent);
  if (d->cmp != ORDER_USER || d->head[2] == nullptr) return false;
  const auto* h = reinterpret_cast<const mirel_hashtable*>(d->head[2]);
  return _mirel_hashtable_count(h) > kFreeBudget && _mirel_hashtable_grows_on_insert(h) != 0;
}

// On a normal scheduler: whether deleting `target` (null: not found) from
// `parent` may outlast the budget: the search along a long integer chain, or
// the nodes and index entries to free.
static bool long_delete(const arbo_node* parent, const arbo_node* target) {
  if (!on_normal_scheduler()) return false;
  if (!parent->is_dyn() && long_chain(parent->child)) return true;
  return target != nullptr && _arbo_nif_subtree_exceeds(target, 0, kFreeBudget);
}

ARBO_NIF_FN(add_hkey_dyn) {
  (void)argc;
  arbo_node* parent = nullptr;
  uint32_t ns = 0, tag = 0;
  unsigned mode = 0;
  if (!get_node(env, argv[1], &parent)) return ARBO_BADARG(env);
  if (!get_htag(env, argv[2], &ns, &tag)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[3], &mode)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kExclusive, parent);
  if (long_add(parent)) return continue_dirty(env);
  store_ctx ctx{g.table(), env};
  arbo_node* n =
      _arbo_nif_add_hkey_int(parent, tag, ns, &ctx, ADD_LIST, static_cast<uint8_t>(mode));
  if (n == nullptr) return ARBO_BADARG(env);
  return make_node(env, n);
}

ARBO_NIF_FN(add_hkey_internal) {
  (void)argc;
  arbo_node* parent = nullptr;
  unsigned tag = 0;
  if (!get_node(env, argv[1], &parent)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[2], &tag)) return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  if (parent->is_dyn()) return ARBO_BADARG(env);
  if (type_invalid(parent)) return ARBO_INVALID_TYPE(env);
  if (long_add(parent)) return continue_dirty(env);
  store_ctx ctx{g.table(), env};
  arbo_node* n = _arbo_nif_add_hkey_int(parent, tag, 0, &ctx, ADD_CONTAINER, 0);
  if (n == nullptr) return ARBO_BADARG(env);
  return make_node(env, n);
}

ARBO_NIF_FN(add_hkey) {
  (void)argc;
  arbo_node* parent = nullptr;
  unsigned code = 0;
  if (!get_node(env, argv[1], &parent)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[3], &code)) return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  store_ctx ctx{g.table(), env};

  uint32_t ns = 0, tag = 0;
  int add_kind = 0;
  uint32_t key_flag = 0;
  switch (code) {
    case KEY_TAG:
    case KEY_TAG_ALT:
      // Lenient on purpose: a key that is no tag form adds tag 0 in namespace 0.
      (void)get_htag(env, argv[2], &ns, &tag);
      add_kind = ADD_LEAF;
      break;
    case KEY_INT: {
      int k = 0;
      if (!enif_get_int(env, argv[2], &k)) return ARBO_BADARG(env);
      tag = static_cast<uint32_t>(k);
      add_kind = ADD_INSTANCE;
      key_flag = F_KEY_IS_TUPLE;
      break;
    }
    case KEY_TUPLE:
    case KEY_OPAQUE: {
      // Byte keys go straight to the list: no type check, the store sets the flags.
      ErlNifBinary bin;
      if (!enif_inspect_binary(env, argv[2], &bin)) return ARBO_BADARG(env);
      if (parent->is_dyn() && long_add(parent)) return continue_dirty(env);
      arbo_node* n =
          _arbo_nif_add_hkey_bin(parent, bin.data, bin.size, &ctx, static_cast<int>(code));
      if (n == nullptr) return ARBO_BADARG(env);
      return make_node(env, n);
    }
    case KEY_NS_INT:
      if (!get_ns_int(env, argv[2], &ns, &tag)) return ARBO_BADARG(env);
      add_kind = ADD_INSTANCE;
      key_flag = F_KEY_IS_BTUPLE;
      break;
    default:
      return ARBO_BADARG(env);
  }
  if (type_invalid(parent)) return ARBO_INVALID_TYPE(env);
  if (long_add(parent)) return continue_dirty(env);
  arbo_node* n = _arbo_nif_add_hkey_int(parent, tag, ns, &ctx, add_kind, 0);
  if (n == nullptr) return ARBO_BADARG(env);
  // Also on an existing node: the flag says how Erlang last named the key.
  n->set(key_flag);
  return make_node(env, n);
}

ARBO_NIF_FN(del_hkey) {
  (void)argc;
  arbo_node* parent = nullptr;
  unsigned code = 0;
  if (!get_node(env, argv[1], &parent)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[3], &code)) return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  store_ctx ctx{g.table(), env};

  uint32_t ns = 0, tag = 0;
  switch (code) {
    case DEL_TAG:
    case DEL_TAG_ALT:
      (void)get_htag(env, argv[2], &ns, &tag);  // lenient, as for add_hkey
      break;
    case DEL_TUPLE:
    case DEL_OPAQUE: {
      // Only lists hold byte keys; anything else answers false before the key is read.
      if (!parent->is_dyn()) return am_false;
      ErlNifBinary bin;
      if (!enif_inspect_binary(env, argv[2], &bin)) return ARBO_BADARG(env);
      if (long_delete(parent, _arbo_nif_find_child_bin(parent, code == DEL_OPAQUE, bin.data,
                                                       bin.size)))
        return continue_dirty(env);
      if (!_arbo_nif_del_hkey_bin(parent, code == DEL_OPAQUE, bin.data, bin.size, &ctx))
        return am_false;
      g.table()->generation++;
      return am_true;
    }
    case DEL_NS_INT:
      if (!get_ns_int(env, argv[2], &ns, &tag)) return ARBO_BADARG(env);
      break;
    default:
      return ARBO_BADARG(env);
  }
  if (type_invalid(parent)) return ARBO_INVALID_TYPE(env);
  if (long_delete(parent, _arbo_nif_find_child_int(parent, tag, ns))) return continue_dirty(env);
  if (!_arbo_nif_del_hkey_int(parent, tag, ns, &ctx)) return am_false;
  g.table()->generation++;
  return am_true;
}

// The key as Erlang named it: {Bin} / {binary, Bin} for byte keys, {{Ns, Tag}}
// or [Ns | Tag] for namespaced keys, {Tag} (signed) or Tag (unsigned) else.
ARBO_NIF_FN(get_hkey) {
  (void)argc;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);

  if (node->has(F_KEY_IS_BIN)) {
    ERL_NIF_TERM bin;
    if (_arbo_node_key_is_bin(node)) {
      bin = arbo_bin_to_binary(env, node->key_bin());
    } else if (node->is_gen()) {
      const gen_node* gn = as_gen(node);
      bin = arbo_bin_ref_to_binary(env, bin_ref{gn->small_len, gn->val});
    } else {
      return ARBO_INVALID_TYPE(env);
    }
    if (node->has(F_KEY_IS_TUPLE)) return enif_make_tuple1(env, bin);
    return enif_make_tuple2(env, am_binary, bin);
  }
  const uint32_t tag = node->hkey();
  const uint32_t ns = node_ns(node);
  if (node->type() >= T_DYN_NODE && ns != 0) {
    if (node->has(F_KEY_IS_BTUPLE))
      return enif_make_tuple1(
          env, enif_make_tuple2(env, enif_make_uint(env, ns), enif_make_uint(env, tag)));
    return enif_make_list_cell(env, enif_make_uint(env, ns), enif_make_uint(env, tag));
  }
  // A zero namespace reads back without the pair form, even for a key added
  // as {0, Tag}: callers rely on this asymmetry.
  if (node->has(F_KEY_IS_TUPLE))
    return enif_make_tuple1(env, enif_make_int(env, static_cast<int32_t>(tag)));
  return enif_make_uint(env, tag);
}

ARBO_NIF_FN(del_ns) {
  (void)argc;
  arbo_node* parent = nullptr;
  unsigned ns = 0;
  if (!get_node(env, argv[1], &parent)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[2], &ns)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kExclusive, parent);
  if (on_normal_scheduler() && _arbo_nif_subtree_exceeds(parent->child, 1, kFreeBudget))
    return continue_dirty(env);
  store_ctx ctx{g.table(), env};
  if (!_arbo_nif_del_ns_int(parent, ns, &ctx)) return am_false;
  g.table()->generation++;
  return am_true;
}

ARBO_NIF_FN(rename_ns) {
  (void)argc;
  arbo_node* parent = nullptr;
  arbo_node* child = nullptr;
  unsigned new_ns = 0;
  if (!get_node(env, argv[1], &parent)) return ARBO_BADARG(env);
  if (!get_node(env, argv[2], &child)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[3], &new_ns)) return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  // Only namespaced children of an integer list move; everything else is a
  // plain "false" (no type check here by contract).
  if (child->type() < T_DYN_NODE || node_ns(child) == 0 || parent->is_dyn()) return am_false;
  if (long_chain(parent->child)) return continue_dirty(env);
  store_ctx ctx{g.table(), env};
  if (!_arbo_nif_rename_ns(parent, child, new_ns, &ctx)) return am_false;
  g.table()->generation++;
  return am_true;
}

ARBO_NIF_FN(rename_instance) {
  (void)argc;
  arbo_node* list = nullptr;
  arbo_node* inst = nullptr;
  unsigned code = 0;
  if (!get_node(env, argv[1], &list)) return ARBO_BADARG(env);
  if (!get_node(env, argv[2], &inst)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[4], &code)) return ARBO_BADARG(env);
  // Checked before the code and before the lock is taken: callers have
  // always been answered so.
  if (!list->is_dyn()) return ARBO_BADARG(env);
  // An unknown code answers at once: no key is read, no lock taken (so even
  // with a closed table's handle it gets its "false").
  if (code != KEY_TUPLE && code != KEY_OPAQUE && code != KEY_NS_INT && code != KEY_INT)
    return am_false;

  int key_kind = 0;
  ErlNifBinary bin{};
  uint32_t ns = 0, tag = 0;
  switch (code) {
    case KEY_TUPLE:
    case KEY_OPAQUE:
      if (!enif_inspect_binary(env, argv[3], &bin)) return ARBO_BADARG(env);
      key_kind = code == KEY_TUPLE ? STORE_KEY_TUPLE : STORE_KEY_OPAQUE;
      break;
    case KEY_NS_INT:
      if (!get_ns_int(env, argv[3], &ns, &tag)) return ARBO_BADARG(env);
      key_kind = STORE_KEY_NS_INT;
      break;
    case KEY_INT:
      if (!get_htag(env, argv[3], &ns, &tag)) return ARBO_BADARG(env);
      key_kind = STORE_KEY_TAG;
      break;
  }
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  store_ctx ctx{g.table(), env};
  return make_bool(_arbo_nif_dn_rename_instance(list, inst, key_kind, bin.data, bin.size, ns,
                                                static_cast<int32_t>(tag), &ctx) != 0);
}

ARBO_NIF_FN(del_all) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  arbo_node* root = g.table()->root;
  if (on_normal_scheduler() && _arbo_nif_subtree_exceeds(root->child, 1, kFreeBudget))
    return continue_dirty(env);
  if (root->child != nullptr) {
    store_ctx ctx{g.table(), env};
    // The first child and every later sibling; iterators on them fall back to 0.
    _arbo_nif_do_del_node(root->child, &ctx, 1, 0);
    root->child = nullptr;
    g.table()->generation++;
  }
  return am_ok;
}

}  // namespace arbo
