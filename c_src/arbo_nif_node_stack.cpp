// Node stacks: the per-call backtrack stack of filtered walks and its
// Erlang form {Nodes, Filters}, which carries a yielded walk to its resumption.
#include <cstring>

#include "arbo_filter.h"

namespace arbo {

namespace {

constexpr int32_t kNodeStackInitial = 2;
constexpr int32_t kNodeStackGrowth = 2;

}  // namespace

node_stack* node_stack_init() {
  auto* s = static_cast<node_stack*>(enif_alloc(sizeof(node_stack)));
  ARBO_ASSERT_MSG(s != nullptr, "node_stack");
  s->nodes = static_cast<arbo_node**>(enif_alloc(kNodeStackInitial * sizeof(arbo_node*)));
  ARBO_ASSERT_MSG(s->nodes != nullptr, "node_stack->nodes");
  s->filter = static_cast<ERL_NIF_TERM*>(enif_alloc(kNodeStackInitial * sizeof(ERL_NIF_TERM)));
  ARBO_ASSERT_MSG(s->filter != nullptr, "node_stack->filter");
  std::memset(static_cast<void*>(s->nodes), 0, kNodeStackInitial * sizeof(arbo_node*));
  std::memset(static_cast<void*>(s->filter), 0, kNodeStackInitial * sizeof(ERL_NIF_TERM));
  s->pos = -1;
  s->size = kNodeStackInitial;
  return s;
}

void node_stack_clear(node_stack* s) {
  if (s == nullptr) return;
  std::memset(static_cast<void*>(s->nodes), 0, static_cast<size_t>(s->size) * sizeof(arbo_node*));
  enif_free(s->nodes);
  enif_free(s->filter);
  enif_free(s);
}

int32_t node_stack_push(node_stack* s, arbo_node* node, ERL_NIF_TERM filter) {
  s->pos++;
  if (s->pos == s->size) {
    // Small fixed steps: a walk's backtrack stack is as deep as the nesting
    // of lists its filter paths cross, a handful of entries.
    const int32_t cap = s->pos + kNodeStackGrowth;
    auto* n = static_cast<arbo_node**>(
        enif_realloc(static_cast<void*>(s->nodes), static_cast<size_t>(cap) * sizeof(arbo_node*)));
    ARBO_ASSERT_MSG(n != nullptr, "node_stack->nodes");
    auto* f = static_cast<ERL_NIF_TERM*>(enif_realloc(
        static_cast<void*>(s->filter), static_cast<size_t>(cap) * sizeof(ERL_NIF_TERM)));
    ARBO_ASSERT_MSG(f != nullptr, "node_stack->filter");
    s->nodes = n;
    s->filter = f;
    s->size = cap;
    s->nodes[s->pos] = nullptr;
    s->nodes[s->pos + 1] = nullptr;
  }
  s->nodes[s->pos] = node;
  s->filter[s->pos] = filter;
  return s->pos;
}

arbo_node* node_stack_pop(node_stack* s, ERL_NIF_TERM* filter) {
  if (s->pos < 0) return nullptr;
  arbo_node* n = s->nodes[s->pos];
  *filter = s->filter[s->pos];
  s->pos--;
  return n;
}

ERL_NIF_TERM node_stack_to_erl(ErlNifEnv* env, const node_stack* s) {
  ERL_NIF_TERM nodes = enif_make_list(env, 0);
  ERL_NIF_TERM filters = enif_make_list(env, 0);
  // Built from the top down so that both lists read bottom first.
  for (int32_t i = s->pos; i >= 0; --i) {
    nodes = enif_make_list_cell(env, enif_make_uint64(env, reinterpret_cast<uintptr_t>(s->nodes[i])),
                                nodes);
    filters = enif_make_list_cell(env, s->filter[i], filters);
  }
  return enif_make_tuple2(env, nodes, filters);
}

int erl_to_node_stack(ErlNifEnv* env, ERL_NIF_TERM term, node_stack* s) {
  int arity = 0;
  const ERL_NIF_TERM* el = nullptr;
  if (!enif_get_tuple(env, term, &arity, &el) || arity != 2) return 1;
  ERL_NIF_TERM nodes = el[0];
  ERL_NIF_TERM filters = el[1];
  ERL_NIF_TERM node_term, filter_term;
  while (enif_get_list_cell(env, nodes, &node_term, &nodes)) {
    if (!enif_get_list_cell(env, filters, &filter_term, &filters)) return 1;
    ErlNifUInt64 addr = 0;
    if (!enif_get_uint64(env, node_term, &addr)) return 1;
    node_stack_push(s, reinterpret_cast<arbo_node*>(static_cast<uintptr_t>(addr)), filter_term);
  }
  return 0;
}

void node_stack_print(const node_stack* s) {
  if (s->pos == -1) {
    enif_fprintf(stdout, "## EMPTY NODE STACK\n");
    return;
  }
  enif_fprintf(stdout, "## NODE STACK ----- START pos %d size %d\n", s->pos, s->size);
  for (int32_t i = 0; i <= s->pos; ++i) {
    // The node entry goes to %T exactly as stored: this dump is a debugging
    // aid for people who know what they are looking at.
    enif_fprintf(stdout, "## %d %T %T\n", i, reinterpret_cast<ERL_NIF_TERM>(s->nodes[i]),
                 s->filter[i]);
  }
  enif_fprintf(stdout, "## NODE STACK ----- END\n");
}

}  // namespace arbo
