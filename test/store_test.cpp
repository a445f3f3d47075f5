// Node store cases the random list model in store_model_test.cpp does not
// reach: iterator stacks of several entries over an integer child list, a
// leaf renamed onto a taken pair, the user-ordered list's index ignoring
// namespaces, and the loader's hinted insertion against the plain one.
// Child lists, values, attributes and moves are pinned through the NIF by
// the EUnit suites (edit_tests, props_tests, nav_tests).
#include <gtest/gtest.h>

#include <random>

#include "arbo_stack.h"
#include "store_test_util.h"

using namespace arbo;
using namespace store_test;
using arbo_shim::TestTable;

namespace {

// Record kinds: 0 a list (mode picks its order), 1 an integer instance,
// 3 a leaf.
arbo_node* add(TestTable& t, arbo_node* p, uint32_t key, int kind, uint32_t ns = 0, uint8_t mode = 0) {
  return _arbo_nif_add_hkey_int(p, key, ns, &t.ctx, kind, mode);
}
uintptr_t addr(const void* n) { return reinterpret_cast<uintptr_t>(n); }

// Removing a list's first child steps a stack standing on it to "before the
// first" and clears the entries above it; removing a namespace steps one
// back to the previous survivor. A leaf renamed onto a taken pair is dropped
// and what it owned stays allocated, on purpose.
TEST(IntList, IteratorRepairAndRenameOntoATakenPair) {
  TestTable t;
  arbo_node* p = add(t, t.root(), 1, ADD_LEAF);
  const Counters c0 = counters(t);
  arbo_node* c5 = add(t, p, 5, ADD_LEAF);
  arbo_node* c12 = add(t, p, 12, ADD_LEAF);
  arbo_node* d4 = add(t, p, 4, ADD_LEAF, 1);
  const std::string long_value(30, 'x');
  _arbo_nif_attr_set(&t.ctx, add(t, p, 3, ADD_LEAF, 1), 2, bytes_of(long_value), long_value.size());
  add(t, d4, 1, ADD_LEAF);
  std::vector<iter_stack*> st;
  for (auto nodes : {std::vector<const void*>{p, c5, c12}, {p, d4}}) {
    st.push_back(iter_nodes_new_stack());
    for (const void* n : nodes) iter_nodes_push(st.back(), addr(n));
    st.back()->next = t.table.iter_nodes;
    t.table.iter_nodes = st.back();
  }
  EXPECT_EQ(_arbo_nif_del_hkey_int(p, 5, 0, &t.ctx), 1);
  EXPECT_TRUE(st[0]->nodes[1] == kBeforeFirst && st[0]->nodes[2] == 0u && st[0]->pos == 2);
  EXPECT_EQ(_arbo_nif_del_ns_int(p, 1, &t.ctx), 1);
  EXPECT_EQ(st[1]->nodes[1], addr(c12));
  iter_nodes_free_all(&t.table);

  arbo_node* e = add(t, p, 1, ADD_LEAF, 4);
  _arbo_nif_attr_set(&t.ctx, e, 3, bytes_of(long_value), long_value.size());
  arbo_node* kept_attr = e->attr;
  add(t, p, 1, ADD_LEAF, 2);
  const Counters c1 = counters(t);
  EXPECT_EQ(_arbo_nif_rename_ns(p, e, 2, &t.ctx), 0);
  EXPECT_EQ(children(p).size(), 2u);
  EXPECT_TRUE(t.table.mem == c1.mem - node_size(T_GEN_NODE_ONE) && arbo_shim::live_resources() == c1.resources);
  _arbo_nif_do_del_node(kept_attr, &t.ctx, 1, kNoFixup);  // tidy up by hand
  for (uint32_t ns : {0, 2}) EXPECT_EQ(_arbo_nif_del_ns_int(p, ns, &t.ctx), 1);
  EXPECT_TRUE(t.table.mem == c0.mem && t.table.size == c0.size);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
}

// The index comes at 128 instances (its thresholds are followed by the list
// model); it knows keys, not namespaces, so while it exists a key in another
// namespace finds the first holder of the key.
TEST(UserList, IndexIgnoresNamespaces) {
  TestTable t;
  KeptRecords kept;
  arbo_node* l = add(t, t.root(), 1, ADD_LIST, 0, ORDER_USER);
  for (uint32_t i = 0; i < 128; ++i) add(t, l, i, ADD_INSTANCE);
  ASSERT_NE(as_dyn(l)->head[2], nullptr);
  EXPECT_EQ(add(t, l, 5, ADD_INSTANCE, 1), _arbo_nif_find_child_int(l, 5, 0));
  EXPECT_EQ(_arbo_nif_find_child_int(l, 5, 7), _arbo_nif_find_child_int(l, 5, 0));
  for (uint32_t i = 127; i >= 64; --i) ASSERT_EQ(_arbo_nif_del_hkey_int(l, i, 0, &t.ctx), 1);
  EXPECT_EQ(_arbo_nif_del_hkey_int(l, 0, 0, &t.ctx), 1);
  ASSERT_EQ(as_dyn(l)->head[2], nullptr);
  EXPECT_NE(add(t, l, 5, ADD_INSTANCE, 1), _arbo_nif_find_child_int(l, 5, 0));  // namespaces count again
  ASSERT_TRUE(TreeOk(l));
}

// An integer instance of the given height, made without a draw, so that two
// lists can be built from the same heights.
arbo_node* instance_of_height(TestTable& t, uint32_t key, int h) {
  const uint32_t type = h == 1 ? T_GEN_NODE_ONE : (h == 2 ? T_GEN_NODE_TWO : T_GEN_NODE_MAX);
  arbo_node* n = _arbo_nif_node_alloc(&t.ctx, type);
  as_gen(n)->height = static_cast<uint8_t>(h);
  n->set_hkey(key);
  return n;
}

// Keys level by level, bottom up.
std::vector<std::vector<uint32_t>> levels(arbo_node* l) {
  std::vector<std::vector<uint32_t>> out(kMaxLevels);
  for (int i = 0; i < kMaxLevels; ++i)
    for (arbo_node* n = as_dyn(l)->head[i]; n != nullptr; n = as_gen(n)->next[i])
      out[i].push_back(n->hkey());
  return out;
}

// The loader's hinted insertion (an append past the end, a search from the
// last path found, or the full search) links every node where the plain
// insertion does and finds the same existing nodes, whatever the order of
// the keys: ascending runs over present keys (the path is reused), steps
// back, new keys between present ones, and the same key twice.
TEST(SortedList, HintedInsertLinksAsThePlainOne) {
  std::mt19937 rng(7);
  std::vector<uint32_t> asc, mixed, rnd;
  for (uint32_t k = 0; k < 3000; k += 2) asc.push_back(k);        // appends
  for (uint32_t k = 0; k < 3000; k += 3) asc.push_back(k);        // present ascending, some new
  for (uint32_t k = 0; k < 3000; k += 7) mixed.push_back(k), mixed.push_back(k), mixed.push_back(k / 2);
  for (int i = 0; i < 4000; ++i) rnd.push_back(rng() % 3500);
  int o = 0;
  for (const auto& order : {asc, mixed, rnd}) {
    TestTable t;
    arbo_node* plain = add(t, t.root(), 1, 0);
    arbo_node* hinted = add(t, t.root(), 2, 0);
    for (uint32_t k = 0; k < 3000; k += 5) {  // a list that already holds keys
      const int h = 1 + static_cast<int>(rng() % 7);
      sl_insert(plain, instance_of_height(t, k, h), &t.ctx);
      sl_insert(hinted, instance_of_height(t, k, h), &t.ctx);
    }
    sl_append_hint hint;
    for (uint32_t k : order) {
      const int h = 1 + static_cast<int>(rng() % 7);
      arbo_node* a = instance_of_height(t, k, h);
      arbo_node* b = instance_of_height(t, k, h);
      const bool a_new = sl_insert(plain, a, &t.ctx) == a;
      arbo_node* got = sl_insert_hinted(hinted, b, &t.ctx, &hint);
      ASSERT_EQ(got == b, a_new) << o << " key " << k;
      ASSERT_EQ(got->hkey(), k) << o;
      ASSERT_EQ(as_dyn(hinted)->size, as_dyn(plain)->size) << o;
    }
    EXPECT_EQ(levels(hinted), levels(plain)) << o;
    EXPECT_EQ(as_dyn(hinted)->curh, as_dyn(plain)->curh) << o;
    EXPECT_TRUE(TreeOk(t.root()));
    ++o;
  }
}

}  // namespace
