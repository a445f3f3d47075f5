// Node store: values, attributes and deletion.
#include "arbo_alloc.h"
#include "arbo_stack.h"
#include "arbo_store.h"

namespace arbo {

void _arbo_nif_do_del_node(arbo_node* node, store_ctx* ctx, int with_siblings,
                           uintptr_t replacement) {
  if (node == nullptr) return;
  iter_nodes_fixup(ctx->table, node, replacement);
  if (node->attr) _arbo_nif_do_del_node(node->attr, ctx, 1, kNoFixup);
  if (with_siblings) {
    arbo_node* s = sibling(node);
    while (s != nullptr) {
      arbo_node* next = sibling(s);
      _arbo_nif_do_del_node(s, ctx, 0, kNoFixup);
      s = next;
    }
  }
  if (node->child) _arbo_nif_do_del_node(node->child, ctx, 1, kNoFixup);
  _arbo_nif_node_free(node, ctx);
}

}  // namespace arbo
