// Navigation functions: count, test, step through, look up and reorder children.
//
// All follow the common frame (plain arguments, handle under the shared lock,
// exclusive for the two moves, type check, store call, result). Bit 0x100 of
// the view options hides inactive children where a function honours it.
// Filtered stepping hands over to filter_match_next with a node stack made
// for the call.
#include <erl_nif.h>

#include <memory>

#include "arbo_alloc.h"
#include "arbo_codes.h"
#include "arbo_filter.h"
#include "arbo_nif.h"
#include "arbo_store.h"
#include "arbo_walk.h"

namespace arbo {

namespace {

struct StackFree {
  void operator()(node_stack* s) const { node_stack_clear(s); }
};
using StackPtr = std::unique_ptr<node_stack, StackFree>;

StackPtr new_stack() {
  node_stack* s = node_stack_init();
  ARBO_ASSERT_MSG(s != nullptr, "nstack");
  return StackPtr(s);
}


bool hidden(uint32_t options, const arbo_node* n) {
  return (options & kOptHideInactive) != 0 && is_inactive(n);
}

// A list node that keeps its count of inactive instances in attribute 0.
bool has_cached_inactive(const arbo_node* n) {
  return n->is_dyn() && n->attr != nullptr && n->attr->hkey() == 0;
}

bool user_ordered(const arbo_node* n) { return n->is_dyn() && as_dyn(n)->cmp == ORDER_USER; }

ERL_NIF_TERM zero(ErlNifEnv* env) { return enif_make_uint64(env, 0); }

// On a normal scheduler, with inactive nodes hidden: whether the run of
// inactive siblings from `start` is longer than the budget (the walk skips
// such a run in one go, before it examines anything).
bool long_hidden_run(const arbo_node* start, uint32_t options) {
  if ((options & kOptHideInactive) == 0 || !on_normal_scheduler()) return false;
  uint64_t steps = 0;
  for (const arbo_node* n = start; n != nullptr && is_inactive(n); n = sibling(n))
    if (++steps > kStepBudget) return true;
  return false;
}

// The filtered walk, charged to the caller: every call reports the time it
// took (at least 1% of a time slice), so that a long select made of many
// calls is descheduled like any busy process, whether its calls end in a
// yield or in a match.
ERL_NIF_TERM walk(ErlNifEnv* env, arbo_node* start, int match_flag, uint32_t options,
                  ERL_NIF_TERM filter, node_stack* stack) {
  const ErlNifTime t0 = enif_monotonic_time(ERL_NIF_USEC);
  ERL_NIF_TERM r = filter_match_next(env, start, match_flag, options, filter, stack);
  if (on_normal_scheduler()) {
    // A time slice is about a millisecond: one percent per 10 us begun.
    const ErlNifTime us = enif_monotonic_time(ERL_NIF_USEC) - t0;
    const int pct = us >= 1000 ? 100 : static_cast<int>(us / 10) + 1;
    (void)enif_consume_timeslice(env, pct);
  }
  return r;
}

// Shared by first_child_nif and next_sibling_nif/4: the plain step when
// nothing is filtered or hidden, else the filtered walk from `start`.
ERL_NIF_TERM step_or_walk(ErlNifEnv* env, arbo_node* start, ERL_NIF_TERM filter, int match_flag,
                          uint32_t options) {
  if ((options & kOptHideInactive) == 0 && !enif_is_tuple(env, filter)) {
    if (match_flag != 0 && start != nullptr)
      return enif_make_tuple2(env, make_node(env, start), am_match_full);
    return make_node(env, start);
  }
  if (long_hidden_run(start, options)) return continue_dirty(env);
  StackPtr stack = new_stack();
  return walk(env, start, match_flag, options, filter, stack.get());
}

// has_child_with_flags / has_child_without_flags: the first visible child
// whose (mask AND flags != 0) equals `wanted`.
ERL_NIF_TERM has_child_flags(ErlNifEnv* env, const ERL_NIF_TERM argv[], bool wanted) {
  arbo_node* node = nullptr;
  ErlNifUInt64 mask = 0;
  if (!get_node(env, argv[1], &node) || !enif_get_uint64(env, argv[2], &mask))
    return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  StepBudget budget;
  for (arbo_node* c = node->child; c != nullptr; c = sibling(c)) {
    if (!budget.step()) return continue_dirty(env);
    const bool any = (mask & _arbo_nif_get_flags(env, c)) != 0;
    if (any == wanted && !hidden(g.options(), c)) return am_true;
  }
  return am_false;
}

}  // namespace

ARBO_NIF_FN(num_children) {
  (void)argc;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  uint32_t count = 0;
  const bool hide = (g.options() & kOptHideInactive) != 0;
  // Counting walks the chain, and so does counting the inactive children
  // unless a list caches that number.
  if ((!node->is_dyn() || (hide && !has_cached_inactive(node))) && long_chain(node->child))
    return continue_dirty(env);
  if (node->is_dyn()) {
    count = static_cast<uint32_t>(as_dyn(node)->size);
  } else {
    for (arbo_node* c = node->child; c != nullptr; c = sibling(c)) ++count;
  }
  if (hide) count -= _arbo_nif_attr_inactive_count(nullptr, node);
  return enif_make_uint(env, count);
}

ARBO_NIF_FN(num_children_with_flag) {
  (void)argc;
  arbo_node* node = nullptr;
  ErlNifUInt64 mask = 0;
  if (!get_node(env, argv[1], &node) || !enif_get_uint64(env, argv[2], &mask))
    return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  uint32_t count = 0;
  StepBudget budget;
  for (arbo_node* c = node->child; c != nullptr; c = sibling(c)) {
    if (!budget.step()) return continue_dirty(env);
    if ((mask & _arbo_nif_get_flags(env, c)) != 0 && !hidden(g.options(), c)) ++count;
  }
  return enif_make_uint(env, count);
}

ARBO_NIF_FN(has_descendant_with_flags4) {
  (void)argc;
  arbo_node* node = nullptr;
  ErlNifUInt64 mask = 0;
  unsigned arg = 0;
  if (!get_node(env, argv[1], &node) || !enif_get_uint64(env, argv[2], &mask) ||
      !enif_get_uint(env, argv[3], &arg))
    return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  const uint64_t budget = on_normal_scheduler() ? kStepBudget : kUnlimited;
  const int found =
      _arbo_nif_has_descendant_budget(env, node, mask, static_cast<int>(arg), budget);
  if (found < 0) return continue_dirty(env);
  return make_bool(found != 0);
}

ARBO_NIF_FN(has_child_with_flags3) {
  (void)argc;
  return has_child_flags(env, argv, true);
}

ARBO_NIF_FN(has_child_without_flags3) {
  (void)argc;
  return has_child_flags(env, argv, false);
}

ARBO_NIF_FN(first_child_nif) {
  (void)argc;
  arbo_node* node = nullptr;
  int match_flag = 0;
  if (!get_node(env, argv[1], &node) || !enif_get_int(env, argv[3], &match_flag))
    return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  return step_or_walk(env, node->child, argv[2], match_flag, g.options());
}

// Arity 4 steps from Node's sibling; arity 5 resumes a yielded walk at Node
// itself, from the node stack the yield handed out.
ARBO_NIF_FN(next_sibling_nif) {
  arbo_node* node = nullptr;
  int match_flag = 0;
  if (!get_node(env, argv[1], &node) || !enif_get_int(env, argv[3], &match_flag))
    return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  if (argc == 4) return step_or_walk(env, sibling(node), argv[2], match_flag, g.options());

  StackPtr stack = new_stack();
  if (!enif_is_tuple(env, argv[4]) || erl_to_node_stack(env, argv[4], stack.get()) != 0) {
    // Kept contract: a bad stack term leaves the shared lock held and the
    // stack allocated; the API layer validates stacks before they get here.
    g.leak();
    stack.release();
    return ARBO_BADARG(env);
  }
  if (long_hidden_run(node, g.options())) return continue_dirty(env);
  return walk(env, node, match_flag, g.options(), argv[2], stack.get());
}

ARBO_NIF_FN(last_child) {
  (void)argc;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &node)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  // An empty sorted list answers its header view, not 0: callers know it.
  if (node->is_dyn()) return make_node(env, _arbo_nif_dn_last_child(node));
  arbo_node* last = node->child;
  StepBudget budget;
  if (last != nullptr)
    while (sibling(last) != nullptr) {
      if (!budget.step()) return continue_dirty(env);
      last = sibling(last);
    }
  return make_node(env, last);
}

ARBO_NIF_FN(prev_sibling) {
  (void)argc;
  arbo_node* parent = nullptr;
  arbo_node* node = nullptr;
  if (!get_node(env, argv[1], &parent) || !get_node(env, argv[2], &node))
    return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  if (user_ordered(parent)) return make_node(env, as_gen(node)->next[1]);
  arbo_node* prev = nullptr;
  StepBudget budget;
  for (arbo_node* c = parent->child; c != nullptr; prev = c, c = sibling(c)) {
    if (!budget.step()) return continue_dirty(env);
    if (c == node) return make_node(env, prev);
  }
  return zero(env);
}

ARBO_NIF_FN(get_child) {
  (void)argc;
  arbo_node* node = nullptr;
  unsigned n = 0;
  if (!get_node(env, argv[1], &node) || !enif_get_uint(env, argv[2], &n)) return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  const uint32_t opts = g.options();
  StepBudget budget;
  arbo_node* c = node->child;
  while (c != nullptr && hidden(opts, c)) {
    if (!budget.step()) return continue_dirty(env);
    c = sibling(c);
  }
  // N counts from 1; N = 0 wraps to 2^32 - 1 steps, which runs off the end.
  for (uint32_t steps = n - 1; c != nullptr && steps > 0; --steps) {
    if (!budget.step()) return continue_dirty(env);
    c = sibling(c);
    while (c != nullptr && hidden(opts, c)) {
      if (!budget.step()) return continue_dirty(env);
      c = sibling(c);
    }
  }
  return make_node(env, c);
}

ARBO_NIF_FN(find_child) {
  (void)argc;
  arbo_node* node = nullptr;
  unsigned code = 0;
  if (!get_node(env, argv[1], &node) || !enif_get_uint(env, argv[3], &code))
    return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, node);
  // Integer keys are looked up along the child chain outside lists.
  const bool walks =
      !node->is_dyn() && (code == FIND_TAG || code == FIND_TAG_ALT || code == FIND_NS_INT);
  if (walks && long_chain(node->child)) return continue_dirty(env);
  arbo_node* found = nullptr;
  switch (code) {
    case FIND_TAG:
    case FIND_TAG_ALT: {
      uint32_t ns = 0, tag = 0;
      (void)get_htag(env, argv[2], &ns, &tag);  // lenient: a bad tag looks up (0, 0)
      found = _arbo_nif_find_child_int(node, tag, ns);
      break;
    }
    case FIND_TUPLE:
    case FIND_OPAQUE: {
      if (!node->is_dyn()) break;
      ErlNifBinary key;
      if (!enif_inspect_binary(env, argv[2], &key)) return ARBO_BADARG(env);
      found = _arbo_nif_find_child_bin(node, code == FIND_OPAQUE ? 1 : 0, key.data, key.size);
      break;
    }
    case FIND_NS_INT: {
      uint32_t ns = 0, tag = 0;
      (void)get_ns_int(env, argv[2], &ns, &tag);  // lenient: a bad pair looks up (0, 0)
      found = _arbo_nif_find_child_int(node, tag, ns);
      break;
    }
    default:
      break;  // unknown codes find nothing
  }
  if (found != nullptr && hidden(g.options(), found)) found = nullptr;
  return make_node(env, found);
}

ARBO_NIF_FN(find_next_nif) {
  (void)argc;
  arbo_node* list = nullptr;
  unsigned code = 0, mode = 0;
  if (!get_node(env, argv[1], &list) || !enif_get_uint(env, argv[3], &code) ||
      !enif_get_uint(env, argv[4], &mode))
    return ARBO_BADARG(env);
  ARBO_LOCK_NODE(env, argv[0], Lock::kShared, list);
  arbo_node* found = nullptr;
  const int inclusive = static_cast<int>(mode);
  if (list->is_dyn() && list->child != nullptr) {
    switch (code) {
      case NEXT_INT: {
        int key = 0;
        (void)enif_get_int(env, argv[2], &key);
        found = _arbo_nif_dn_find_next(list, nullptr, 0, key, 0, inclusive);
        break;
      }
      case NEXT_NS_INT: {
        int a = 0, b = 0;
        (void)get_int_pair(env, argv[2], &a, &b);
        found = _arbo_nif_dn_find_next(list, nullptr, 0, b, static_cast<uint32_t>(a), inclusive);
        break;
      }
      case NEXT_TUPLE:
      case NEXT_OPAQUE: {
        ErlNifBinary key{};
        (void)enif_inspect_binary(env, argv[2], &key);
        found = _arbo_nif_dn_find_next(list, key.data, key.size, code == NEXT_OPAQUE ? 1 : 0, 0,
                                       inclusive);
        break;
      }
      default:
        break;
    }
  }
  if ((g.options() & kOptHideInactive) == 0 && !enif_is_tuple(env, argv[5]))
    return make_node(env, found);
  if (long_hidden_run(found, g.options())) return continue_dirty(env);
  StackPtr stack = new_stack();
  return walk(env, found, 0, g.options(), argv[5], stack.get());
}

ARBO_NIF_FN(move_to) {
  (void)argc;
  arbo_node* list = nullptr;
  arbo_node* instance = nullptr;
  int pos = 0;
  if (!get_node(env, argv[1], &list) || !get_node(env, argv[2], &instance) ||
      !enif_get_int(env, argv[3], &pos))
    return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  if (!user_ordered(list)) return ARBO_BADARG(env);
  // The target position is reached by walking from the first instance.
  if (pos > 0 && static_cast<uint64_t>(pos) > kStepBudget && long_chain(list->child))
    return continue_dirty(env);
  if (_arbo_nif_dl_move_to(list, instance, pos) == 0) return am_false;
  g.table()->generation++;
  return am_true;
}

ARBO_NIF_FN(move_rel_internal) {
  (void)argc;
  arbo_node* list = nullptr;
  arbo_node* instance = nullptr;
  arbo_node* other = nullptr;
  int where = 0;
  if (!get_node(env, argv[1], &list) || !get_node(env, argv[2], &instance) ||
      !enif_get_int(env, argv[3], &where) || !get_node(env, argv[4], &other))
    return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  store_ctx ctx{g.table(), env};
  const int r = _arbo_nif_move_rel(list, instance, where, other, &ctx);
  if (r == -1) return ARBO_BADARG(env);
  // Inverted on purpose: "false" means moved. The Erlang module relies on it.
  return r == 1 ? am_false : am_true;
}

ARBO_NIF_FN(child_index) {
  (void)argc;
  arbo_node* parent = nullptr;
  ErlNifUInt64 child = 0;
  if (!get_node(env, argv[1], &parent) || !enif_get_uint64(env, argv[2], &child))
    return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  if (child == 0) return enif_make_uint(env, 0);
  if (type_invalid(parent)) return ARBO_INVALID_TYPE(env);
  uint32_t pos = 1;
  StepBudget budget;
  for (arbo_node* c = parent->child; c != nullptr; c = sibling(c), ++pos) {
    if (!budget.step()) return continue_dirty(env);
    if (reinterpret_cast<uintptr_t>(c) == child) return enif_make_uint(env, pos);
  }
  return enif_make_uint(env, 0);
}

}  // namespace arbo
