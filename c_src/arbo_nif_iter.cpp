// Iterator stacks as data: lookup by process, push, repair when nodes leave
// the tree, freeing. The exported functions that use them and the
// process-down callback (which needs the table guard) are in
// arbo_nif_stack.cpp.
#include <cstring>

#include "arbo_stack.h"

namespace arbo {

namespace {

constexpr int32_t kIterInitial = 8;
constexpr int32_t kIterGrowth = 8;

void iter_nodes_free_stack(iter_stack* s) {
  enif_free(s->nodes);
  enif_free(s);
}

// Unlinks the stack of `pid`; caller frees it.
iter_stack* iter_nodes_del_stack(arbo_t* t, const ErlNifPid* pid) {
  iter_stack* prev = nullptr;
  for (iter_stack* s = t->iter_nodes; s != nullptr; prev = s, s = s->next) {
    if (enif_compare_pids(&s->owner_pid, pid) != 0) continue;
    if (s == t->iter_nodes) {
      t->iter_nodes = s->next;
    } else {
      ARBO_ASSERT(prev);
      prev->next = s->next;
    }
    return s;
  }
  return nullptr;
}

}  // namespace

iter_stack* iter_nodes_find_stack(ErlNifEnv* env, arbo_t* t) {
  ErlNifPid self;
  enif_self(env, &self);
  for (iter_stack* s = t->iter_nodes; s != nullptr; s = s->next)
    if (enif_compare_pids(&s->owner_pid, &self) == 0) return s;
  return nullptr;
}

iter_stack* iter_nodes_new_stack() {
  auto* s = static_cast<iter_stack*>(enif_alloc(sizeof(iter_stack)));
  ARBO_ASSERT_MSG(s != nullptr, "stack");
  std::memset(static_cast<void*>(s), 0, sizeof(iter_stack));
  s->nodes = static_cast<uintptr_t*>(enif_alloc(kIterInitial * sizeof(uintptr_t)));
  ARBO_ASSERT_MSG(s->nodes != nullptr, "stack->nodes");
  std::memset(s->nodes, 0, kIterInitial * sizeof(uintptr_t));
  s->pos = -1;
  s->size = kIterInitial;
  return s;
}

void iter_nodes_push(iter_stack* s, uintptr_t node) {
  ARBO_ASSERT(node);
  s->pos++;
  if (s->pos == s->size) {
    int32_t cap = s->pos + kIterGrowth;
    auto* n = static_cast<uintptr_t*>(enif_realloc(s->nodes, cap * sizeof(uintptr_t)));
    ARBO_ASSERT_MSG(n != nullptr, "stack->nodes");
    s->nodes = n;
    s->size = cap;
    std::memset(s->nodes + s->pos, 0, kIterGrowth * sizeof(uintptr_t));
  }
  s->nodes[s->pos] = node;
}

int64_t iter_nodes_find(iter_stack* stack, uintptr_t node) {
  ARBO_ASSERT(stack);
  ARBO_ASSERT(node);
  for (int32_t i = 0; i <= stack->pos; ++i)
    if (stack->nodes[i] == node) return i;
  return -1;
}

void iter_nodes_replace_at(iter_stack* stack, int64_t idx, uintptr_t node) {
  ARBO_ASSERT(stack);
  ARBO_ASSERT(stack->pos != -1);
  ARBO_ASSERT(idx >= 0 && idx <= stack->pos);
  stack->nodes[idx] = node;
  for (int64_t i = idx + 1; i <= stack->pos; ++i) stack->nodes[i] = 0;
}

void iter_nodes_fixup(arbo_t* table, const arbo_node* node, uintptr_t replacement) {
  if (replacement == kNoFixup) return;
  auto addr = reinterpret_cast<uintptr_t>(node);
  for (iter_stack* s = table->iter_nodes; s != nullptr; s = s->next) {
    int64_t idx = iter_nodes_find(s, addr);
    if (idx >= 0 && idx < 0xffffffff) iter_nodes_replace_at(s, idx, replacement);
  }
}

void iter_nodes_free_all(arbo_t* table) {
  iter_stack* s = table->iter_nodes;
  while (s != nullptr) {
    iter_stack* next = s->next;
    iter_nodes_free_stack(s);
    s = next;
  }
  table->iter_nodes = nullptr;
}

void iter_nodes_drop_stack(arbo_t* t, const ErlNifPid* pid) {
  if (t->iter_nodes == nullptr) return;
  iter_stack* s = iter_nodes_del_stack(t, pid);
  if (s != nullptr) iter_nodes_free_stack(s);
}

}  // namespace arbo
