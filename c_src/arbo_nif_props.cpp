// Node property functions: flags, type, attributes, values, the dump and key comparison.
#include "arbo_nif.h"
#include "arbo_alloc.h"
#include "arbo_filter.h"
#include "arbo_keys.h"
#include "arbo_store.h"

namespace arbo {

ARBO_NIF_FN(get_flags) {
  (void)argc;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  return enif_make_uint64(env, _arbo_nif_get_flags(env, node));
}

namespace {

using flag_op = uint64_t (*)(ErlNifEnv*, arbo_node*, uint64_t);

uint64_t do_set_flags(ErlNifEnv* env, arbo_node* n, uint64_t v) {
  return _arbo_nif_set_flags(env, n, v);
}
uint64_t do_set_flag(ErlNifEnv* env, arbo_node* n, uint64_t v) {
  return _arbo_nif_set_flag(env, n, v);
}
uint64_t do_clr_flag(ErlNifEnv* env, arbo_node* n, uint64_t v) {
  return _arbo_nif_clr_flag(env, n, v);
}

// set_flags, set_flag and clr_flag: one frame, the store operation decides
// what the mask does and what comes back.
ERL_NIF_TERM do_flag(ErlNifEnv* env, const ERL_NIF_TERM argv[], flag_op op) {
  arbo_node* node = nullptr;
  ErlNifUInt64 mask = 0;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  if (!enif_get_uint64(env, argv[2], &mask)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kExclusive, node);
  return enif_make_uint64(env, op(env, node, mask));
}

}  // namespace

ARBO_NIF_FN(set_flags) {
  (void)argc;
  return do_flag(env, argv, do_set_flags);
}

ARBO_NIF_FN(set_flag) {
  (void)argc;
  return do_flag(env, argv, do_set_flag);
}

ARBO_NIF_FN(clr_flag) {
  (void)argc;
  return do_flag(env, argv, do_clr_flag);
}

// {Type, Mode}: the type capped at 3 (all gen nodes alike), the ordering mode
// of a list node, 0 for anything else.
ARBO_NIF_FN(get_type) {
  (void)argc;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  const uint32_t type = node->type();
  if (type == 0) return ARBO_INVALID_TYPE(env);
  const unsigned mode = type == T_DYN_NODE ? as_dyn(node)->cmp : 0;
  return enif_make_tuple2(env, enif_make_uint(env, type < T_GEN_NODE_ONE ? type : T_GEN_NODE_ONE),
                          enif_make_uint(env, mode));
}

ARBO_NIF_FN(get_attr_root) {
  (void)argc;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  return make_node(env, node->attr);
}

ARBO_NIF_FN(get_attr) {
  (void)argc;
  arbo_node* node = nullptr;
  unsigned attr = 0;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[2], &attr)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  return _arbo_nif_attr_fetch(node, attr, env);
}

// The store's answer, the node's first attribute (0 for the inactive-count
// increment on a list node), goes back as a reference.
ARBO_NIF_FN(set_attr) {
  (void)argc;
  arbo_node* node = nullptr;
  unsigned attr = 0;
  ErlNifBinary bin;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[2], &attr)) return ARBO_BADARG(env);
  if (!enif_inspect_binary(env, argv[3], &bin)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kExclusive, node);
  store_ctx ctx{g.table(), env};
  return make_node(env, _arbo_nif_attr_set_with_gen(node, attr, bin.data, bin.size, &ctx));
}

ARBO_NIF_FN(get_val_raw) {
  (void)argc;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  return _arbo_nif_fetch_value(node, env);
}

// "ok" whatever the store did: a node that holds no value simply keeps none.
ARBO_NIF_FN(set_val) {
  (void)argc;
  arbo_node* node = nullptr;
  unsigned kind = 0;
  ErlNifBinary bin;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  if (!enif_get_uint(env, argv[2], &kind)) return ARBO_BADARG(env);
  if (!enif_inspect_binary(env, argv[3], &bin)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kExclusive, node);
  store_ctx ctx{g.table(), env};
  (void)_arbo_nif_set_val(node, &ctx, bin.data, bin.size, static_cast<int>(kind));
  return am_ok;
}

// Nodes a dump may hold and still be written on a normal scheduler.
constexpr uint32_t kPrintInline = 16;

// The dump is written whatever the printer meets; a path it cannot open
// leaves no file and still answers ok.
ARBO_NIF_FN(file_print) {
  (void)argc;
  const char* path = nullptr;
  if (!get_nul_path(env, argv[1], &path)) return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  // Opening a file and every line written are I/O: beyond a tiny tree the
  // dump is written from a dirty I/O scheduler.
  if (on_normal_scheduler() && g.table()->size > kPrintInline) return continue_dirty(env, true);
  _arbo_nif_print_nodes(env, g.table(), path);
  return am_ok;
}

// No handle, no lock: the keys are compared as terms.
ARBO_NIF_FN(cmp_keys_nif) {
  (void)argc;
  int kind1 = 0, kind2 = 0, mode = 0;
  if (!enif_get_int(env, argv[1], &kind1) || !enif_get_int(env, argv[3], &kind2) ||
      !enif_get_int(env, argv[4], &mode)) {
    return ARBO_BADARG(env);
  }
  int result = 0;
  if (!_arbo_nif_cmp_keys(env, argv[0], kind1, argv[2], kind2, mode, &result)) {
    return ARBO_BADARG(env);
  }
  return enif_make_int(env, result);
}

}  // namespace arbo
