// Node store: integer-keyed child lists. Every node that is not a list node
// keeps its children in one singly linked list sorted by (namespace, key),
// both compared as unsigned 32-bit numbers; a container counts as namespace
// 0. These lists are short by design, so lookups are linear with early exit.
#include "arbo_alloc.h"
#include "arbo_nif_node.h"
#include "arbo_stack.h"
#include "arbo_store.h"

namespace arbo {

namespace {

// Walks to the child holding (key, ns), stopping early once the order says it
// cannot follow. Returns the link that points at it (or null) and sets *prev
// to the child before it (null for the first).
arbo_node** find_link(arbo_node* parent, uint32_t key, uint32_t ns, arbo_node** prev) {
  arbo_node* before = nullptr;
  for (arbo_node** link = &parent->child; *link != nullptr; link = sibling_slot(*link)) {
    arbo_node* c = *link;
    uint32_t cns = node_ns(c);
    if (c->hkey() == key && cns == ns) {
      if (prev) *prev = before;
      return link;
    }
    if (cns > ns || (cns == ns && c->hkey() > key)) return nullptr;
    before = c;
  }
  return nullptr;
}

}  // namespace

arbo_node* _arbo_nif_add_hkey_int(arbo_node* parent, uint32_t key, uint32_t ns, store_ctx* ctx,
                                  int add_kind, uint8_t cmp) {
  arbo_node* node;
  if (add_kind == ADD_INSTANCE) {
    if (!parent->is_dyn()) return nullptr;
    node = _arbo_nif_dn_new(parent, ctx);
    set_node_ns(node, ns);
  } else {
    if (parent->is_dyn()) return nullptr;
    switch (add_kind) {
      case ADD_LEAF:
        node = _arbo_nif_node_alloc(ctx, T_GEN_NODE_ONE);
        as_gen(node)->height = 1;
        as_gen(node)->ns = ns;
        break;
      case ADD_CONTAINER:
        node = _arbo_nif_node_alloc(ctx, T_INT_NODE);
        break;
      case ADD_LIST:
        node = _arbo_nif_node_alloc(ctx, T_DYN_NODE);
        as_dyn(node)->cmp = cmp;
        as_dyn(node)->ns = ns;
        break;
      default:
        return nullptr;
    }
  }
  node->set_hkey(key);
  if (parent->is_dyn()) return _arbo_nif_dn_insert(parent, node, ctx);
  return _arbo_nif_put_hkey_int_ll(parent, node, add_kind, ctx);
}

arbo_node* _arbo_nif_put_hkey_int_ll(arbo_node* parent, arbo_node* node, int add_kind,
                                     store_ctx* ctx) {
  if (parent->child == nullptr) {
    parent->child = node;
    return node;
  }
  if (parent->child->has(F_KEY_IS_BIN)) {
    _arbo_nif_node_free(node, ctx);
    return nullptr;
  }
  const uint32_t key = node->hkey();
  const uint32_t ns = node_ns(node);
  arbo_node** link = &parent->child;
  while (*link != nullptr && node_ns(*link) < ns) link = sibling_slot(*link);
  while (*link != nullptr && node_ns(*link) == ns && (*link)->hkey() < key)
    link = sibling_slot(*link);
  arbo_node* at = *link;
  if (at != nullptr && at->hkey() == key && node_ns(at) == ns) {
    // The pair is taken. Only the record goes: a caller that re-inserts a
    // moved node (rename_ns) loses what the node owned, as it always has.
    _arbo_nif_node_free(node, ctx);
    // Asking again for the same list node yields it; asking for a list node
    // where another kind of node holds the pair is a failure.
    return (add_kind != ADD_LIST || at->is_dyn()) ? at : nullptr;
  }
  *sibling_slot(node) = at;
  *link = node;
  return node;
}

arbo_node* _arbo_nif_take_hkey_int_ll(arbo_node* parent, uint32_t key, uint32_t ns,
                                      store_ctx* ctx, int fix_iterators) {
  if (parent->is_dyn()) return nullptr;
  arbo_node* prev = nullptr;
  arbo_node** link = find_link(parent, key, ns, &prev);
  if (link == nullptr) return nullptr;
  arbo_node* node = *link;
  if (fix_iterators) {
    uintptr_t repl = prev ? reinterpret_cast<uintptr_t>(prev) : kBeforeFirst;
    iter_nodes_fixup(ctx->table, node, repl);
  }
  *link = sibling(node);
  *sibling_slot(node) = nullptr;
  return node;
}

arbo_node* _arbo_nif_find_child_int(arbo_node* parent, uint32_t key, uint32_t ns) {
  if (parent->is_dyn()) return dn_find(parent, nullptr, 0, static_cast<int32_t>(key), ns);
  arbo_node** link = find_link(parent, key, ns, nullptr);
  return link ? *link : nullptr;
}

arbo_node* _arbo_nif_find_child_bin(arbo_node* parent, int tuple, const unsigned char* bytes,
                                    size_t len) {
  if (parent->child == nullptr) return nullptr;
  return dn_find(parent, bytes, len, tuple, 0);
}

int _arbo_nif_del_hkey_int(arbo_node* parent, uint32_t key, uint32_t ns, store_ctx* ctx) {
  if (parent->is_dyn()) return dn_delete(parent, nullptr, 0, static_cast<int32_t>(key), ns, ctx);
  arbo_node* node = _arbo_nif_take_hkey_int_ll(parent, key, ns, ctx, 1);
  if (node == nullptr) return 0;
  _arbo_nif_do_del_node(node, ctx, 0, kNoFixup);
  return 1;
}

int _arbo_nif_del_hkey_bin(arbo_node* parent, int tuple, const unsigned char* bytes, size_t len,
                           store_ctx* ctx) {
  return dn_delete(parent, bytes, len, tuple, 0, ctx);
}

int _arbo_nif_del_ns_int(arbo_node* parent, uint32_t ns, store_ctx* ctx) {
  if (parent->is_dyn() || parent->child == nullptr) return 0;
  int deleted = 0;
  uintptr_t previous = kBeforeFirst;
  arbo_node** link = &parent->child;
  while (*link != nullptr) {
    arbo_node* c = *link;
    if (node_ns(c) == ns) {
      // Iterators that stood on it fall back to the previous survivor.
      *link = sibling(c);
      *sibling_slot(c) = nullptr;
      _arbo_nif_do_del_node(c, ctx, 0, previous);
      deleted = 1;
      continue;
    }
    // A container has no namespace field and never ends the walk.
    if (c->type() != T_INT_NODE && node_ns(c) > ns) break;
    previous = reinterpret_cast<uintptr_t>(c);
    link = sibling_slot(c);
  }
  return deleted;
}

int _arbo_nif_rename_ns(arbo_node* parent, arbo_node* node, uint32_t new_ns, store_ctx* ctx) {
  arbo_node* taken = _arbo_nif_take_hkey_int_ll(parent, node->hkey(), node_ns(node), ctx, 0);
  if (taken != node) {
    // Another child holds that pair (the node is not a child of `parent`):
    // put it back where it was.
    if (taken != nullptr) _arbo_nif_put_hkey_int_ll(parent, taken, ADD_LEAF, ctx);
    return 0;
  }
  set_node_ns(node, new_ns);
  // No check that the target pair is free: when it is taken, the insertion
  // frees the node's record only (its value, attributes and subtree stay
  // allocated and unreachable) and the rename fails. Callers count on it.
  return _arbo_nif_put_hkey_int_ll(parent, node, ADD_LEAF, ctx) == node ? 1 : 0;
}

}  // namespace arbo
