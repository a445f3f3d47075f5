// Exported iterator-stack functions: push_iter_node, pop_iter_node,
// get_iter_node, and the process-down callback that frees a dead process's
// stack.
#include "arbo_nif.h"
#include "arbo_stack.h"

namespace arbo {

// ---- exported functions ------------------------------------------------------------

ARBO_NIF_FN(push_iter_node) {
  (void)argc;
  ErlNifUInt64 node = 0;
  if (!enif_get_uint64(env, argv[1], &node)) return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  arbo_t* t = g.table();
  iter_stack* s = iter_nodes_find_stack(env, t);
  if (s == nullptr) {
    ErlNifPid self;
    ErlNifMonitor monitor;
    enif_self(env, &self);
    const int rc = enif_monitor_process(env, t, &self, &monitor);
    // A caller killed while its call waited on a dirty scheduler is gone for
    // good: nobody reads this answer, and a stack it cannot own would leak.
    if (rc > 0 && !on_normal_scheduler()) return am_ok;
    ARBO_ASSERT_MSG(rc == 0, "0");
    s = iter_nodes_new_stack();
    s->owner_pid = self;
    s->monitor = monitor;
    s->next = t->iter_nodes;
    t->iter_nodes = s;
  }
  // Pushing node 0 aborts: the contract keeps that trap for the API to guard.
  iter_nodes_push(s, static_cast<uintptr_t>(node));
  return am_ok;
}

ARBO_NIF_FN(pop_iter_node) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  iter_stack* s = iter_nodes_find_stack(env, g.table());
  if (s != nullptr) {
    ARBO_ASSERT_MSG(s->pos >= 0, "0");
    s->nodes[s->pos] = 0;
    s->pos--;
  }
  return am_ok;
}

ARBO_NIF_FN(get_iter_node) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  iter_stack* s = iter_nodes_find_stack(env, g.table());
  if (s == nullptr) return enif_make_uint64(env, 0);
  ARBO_ASSERT_MSG(s->pos >= 0, "0");
  return enif_make_uint64(env, s->nodes[s->pos]);
}

// ---- process monitor ---------------------------------------------------------------

void iter_nodes_proc_down(ErlNifEnv* env, void* obj, ErlNifPid* pid, ErlNifMonitor* mon) {
  (void)env;
  (void)mon;
  auto* t = static_cast<arbo_t*>(obj);
  TableGuard g(t, Lock::kExclusive);
  // A closed table freed its stacks already.
  if (t->root != nullptr) iter_nodes_drop_stack(t, pid);
}

}  // namespace arbo
