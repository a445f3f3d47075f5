// The diagnostic dump: every node with every field, for people. The text is
// fixed so that dumps stay comparable between builds and over time.
#include <cstdio>

#include "arbo_alloc.h"
#include "arbo_filter.h"
#include "arbo_store.h"
#include "arbo_walk.h"
#include "mirel_string.h"

namespace arbo {

namespace {

constexpr int32_t kFlagsText = 128;

const char* type_name(uint32_t type) {
  switch (type) {
    case T_INT_NODE: return "T_INT_NODE";
    case T_DYN_NODE: return "T_DYN_NODE";
    case T_GEN_NODE_ONE: return "T_GEN_NODE_ONE";
    case T_GEN_NODE_TWO: return "T_GEN_NODE_TWO";
    case T_GEN_NODE_MAX: return "T_GEN_NODE_MAX";
    default: return nullptr;
  }
}

unsigned long addr(const void* p) { return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)); }

// The gen-node part of the key line: the value (integer-keyed nodes) or the
// byte key, then the namespace.
void print_gen_tail(FILE* f, const arbo_node* n, int indent) {
  const gen_node* g = as_gen(n);
  if (!n->has(F_KEY_IS_BIN)) {
    if (n->has(F_VAL_IS_BIN)) {
      bin_ref ref{0, nullptr};
      _arbo_nif_fetch_bin_value(n, &ref);
      enif_fprintf(f, " val=<<%lu bytes>>", static_cast<unsigned long>(ref.len));
    } else {
      enif_fprintf(f, " val=<<");
      for (int i = 0; i < g->small_len; ++i) enif_fprintf(f, "%u,", unsigned{g->val[i]});
      enif_fprintf(f, ">>");
    }
  } else if (g->small_len != 0) {
    enif_fprintf(f, "%*skey=<<", indent, "");
    for (int i = 0; i < g->small_len; ++i) {
      if (i > 0) enif_fprintf(f, ",");
      enif_fprintf(f, "%u", unsigned{g->val[i]});
    }
    enif_fprintf(f, ">>");
  } else {
    std::fflush(f);
    if (n->key != 0)
      enif_fprintf(f, "%*skey=<<%lu bytes>>", indent, "",
                   static_cast<unsigned long>(n->key_bin()->len));
    else
      enif_fprintf(f, "%*skey=NULL", indent, "");
  }
  enif_fprintf(f, " ns=%u", g->ns);
}

}  // namespace

namespace {

// One sibling chain being printed: the node at hand, the chain's indent, the
// write position of the chain's flags buffer, and how far the node has come
// (its head lines, then its attributes, then the rest, then its children).
struct PrintFrame {
  const arbo_node* node;
  int64_t at;
  int indent;
  uint8_t stage;
};
enum : uint8_t { kHead, kBody, kChildren };

// The node's lines up to its attributes, with the chain's flags buffer.
void print_head(FILE* f, const arbo_node* n, int indent, int64_t* at) {
  // One flags buffer per chain, not per node: each node clears only its
  // first byte and the write position carries on from the previous sibling,
  // so after the first sibling that printed a flag the later ones print
  // none. Dumps have always read this way and are compared by that text.
  char flags[kFlagsText];
  flags[0] = '\0';
  auto append = [&](const char* text) {
    char* dst = *at < kFlagsText ? flags + *at : flags + kFlagsText;
    const int32_t room = *at < kFlagsText ? static_cast<int32_t>(kFlagsText - *at) : 0;
    *at += mirel_strlcpy(dst, text, room);
  };
  if (n->has(F_KEY_IS_TUPLE)) append(" F_KEY_IS_TUPLE");
  if (n->has(F_KEY_IS_BTUPLE)) append(" F_KEY_IS_BTUPLE");
  if (n->has(F_KEY_IS_BIN)) append(" F_KEY_IS_BIN");
  if (n->has(F_VAL_IS_BIN)) append(" F_VAL_IS_BIN");
  if (n->has(F_VAL_IS_BIN_NOSTR)) append(" F_VAL_IS_BIN_NOSTR");
  if (n->has(F_VAL_IS_SMALL)) append(" F_VAL_IS_SMALL");

  enif_fprintf(f, "%*sNODE: %lu @ %p\n", indent, "", addr(n), static_cast<const void*>(n));
  enif_fprintf(f, "%*sflags:%s\n", indent, "", flags);
  if (n->attr != nullptr) enif_fprintf(f, "%*sattribute nodes:\n", indent, "");
}

// The node's lines after its attributes.
void print_body(ErlNifEnv* env, FILE* f, const arbo_node* n, int indent) {
  const uint32_t type = n->type();
  if (const char* name = type_name(type)) enif_fprintf(f, "%*stype: %s\n", indent, "", name);
  else enif_fprintf(f, "%*stype: unknown (%d)\n", indent, "", static_cast<int>(type));

  if (!n->has(F_KEY_IS_BIN)) {
    // Signed values go out as long: the runtime's "%d" misprints INT_MIN.
    if (n->has(F_KEY_IS_TUPLE | F_KEY_IS_BTUPLE))
      enif_fprintf(f, "%*skey=%ld", indent, "", long{static_cast<int32_t>(n->hkey())});
    else
      enif_fprintf(f, "%*skey=%u", indent, "", n->hkey());
  }
  const bool gen = type >= T_GEN_NODE_ONE && type <= T_GEN_NODE_MAX;
  if (gen) print_gen_tail(f, n, indent);
  enif_fprintf(f, " uflags=0x%02llx\n",
               static_cast<unsigned long long>(_arbo_nif_get_flags(env, n)));
  const arbo_node* next = sibling(n);
  enif_fprintf(f, "%*snext: %lu @ %p child: %lu @ %p\n", indent, "", addr(next),
               static_cast<const void*>(next), addr(n->child),
               static_cast<const void*>(n->child));
  if (type == T_DYN_NODE) {
    const dyn_node* d = as_dyn(n);
    enif_fprintf(f, "%*scmp=%d\n", indent, "", int{d->cmp});
    enif_fprintf(f, "%*ssize=%ld\n", indent, "", long{d->size});
    enif_fprintf(f, "%*scurh=%d\n", indent, "", int{d->curh});
    for (int i = 0; i < kMaxLevels; ++i)
      enif_fprintf(f, "%*snext[%d]=%lu @ %p\n", indent, "", i, addr(d->head[i]),
                   static_cast<const void*>(d->head[i]));
  } else if (gen) {
    const gen_node* g = as_gen(n);
    enif_fprintf(f, "%*sheight=%u\n", indent, "", unsigned{g->height});
    for (int i = 0; i < g->height; ++i)
      enif_fprintf(f, "%*snext[%d]=%lu @ %p\n", indent, "", i, addr(g->next[i]),
                   static_cast<const void*>(g->next[i]));
  }
  enif_fprintf(f, "\n");
}

}  // namespace

// Attributes print inside a node's lines and children after them, nested to
// any depth: the chains in progress live on an explicit stack.
void print_node(ErlNifEnv* env, FILE* stream, const arbo_node* node, int indent) {
  FILE* f = stream != nullptr ? stream : stdout;
  WalkStack<PrintFrame> stack;
  stack.push({node, 0, indent, kHead});
  while (!stack.empty()) {
    PrintFrame& fr = stack.top();
    const arbo_node* n = fr.node;
    if (n == nullptr) {
      stack.pop();
      continue;
    }
    const int in = fr.indent;
    switch (fr.stage) {
      case kHead:
        print_head(f, n, in, &fr.at);
        fr.stage = kBody;
        if (n->attr != nullptr) stack.push({n->attr, 0, in + 2, kHead});
        break;
      case kBody:
        print_body(env, f, n, in);
        fr.stage = kChildren;
        if (n->child != nullptr) stack.push({n->child, 0, in + 4, kHead});
        break;
      default:
        fr.node = sibling(n);
        fr.stage = kHead;
        break;
    }
  }
}

void _arbo_nif_print_nodes(ErlNifEnv* env, const arbo_t* table, const char* path) {
  FILE* f = std::fopen(path, "w");
  if (f == nullptr) return;
  // Fully buffered: the text is the same, written in large blocks rather
  // than a system call per field.
  std::setvbuf(f, nullptr, _IOFBF, 1 << 16);
  print_node(env, f, table->root, 0);
  std::fclose(f);
}

}  // namespace arbo
