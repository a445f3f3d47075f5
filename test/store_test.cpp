// Node store: integer child lists, values, attributes, inactive counts,
// deletion with its accounting and iterator repair, list specifics, the
// append hint.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "arbo_stack.h"
#include "mirel_hashtable.h"
#include "store_test_util.h"

using namespace arbo;
using namespace store_test;
using arbo_shim::TestTable;

namespace {

arbo_node* leaf(TestTable& t, arbo_node* p, uint32_t key, uint32_t ns = 0) {
  return _arbo_nif_add_hkey_int(p, key, ns, &t.ctx, 3, 0);
}
arbo_node* make_list(TestTable& t, arbo_node* p, uint32_t key, uint8_t mode) {
  return _arbo_nif_add_hkey_int(p, key, 0, &t.ctx, 0, mode);
}
arbo_node* inst(TestTable& t, arbo_node* l, int32_t key, uint32_t ns = 0) {
  return _arbo_nif_add_hkey_int(l, static_cast<uint32_t>(key), ns, &t.ctx, 1, 0);
}
arbo_node* binst(TestTable& t, arbo_node* l, const std::string& k) {
  return _arbo_nif_add_hkey_bin(l, bytes_of(k), k.size(), &t.ctx, 6);
}
// A sorted-list instance of a chosen height, linked with sl_insert.
arbo_node* tall(TestTable& t, arbo_node* l, int32_t key, int height) {
  uint32_t type = height == 1 ? T_GEN_NODE_ONE : height == 2 ? T_GEN_NODE_TWO : T_GEN_NODE_MAX;
  arbo_node* n = _arbo_nif_node_alloc(&t.ctx, type);
  as_gen(n)->height = static_cast<uint8_t>(height);
  n->set_hkey(static_cast<uint32_t>(key));
  return sl_insert(l, n, &t.ctx);
}
void set_attr(TestTable& t, arbo_node* n, uint32_t key, const std::string& v) {
  _arbo_nif_attr_set(&t.ctx, n, key, bytes_of(v), v.size());
}
std::vector<uint32_t> keys_of(const std::vector<arbo_node*>& v) {
  std::vector<uint32_t> out;
  for (arbo_node* n : v) out.push_back(n->hkey());
  return out;
}

// Iterator stacks hung into the table by hand; freed before the table.
struct Stacks {
  TestTable& t;
  explicit Stacks(TestTable& tt) : t(tt) {}
  ~Stacks() { iter_nodes_free_all(&t.table); }
  iter_stack* add(std::initializer_list<const void*> nodes) {
    iter_stack* s = iter_nodes_new_stack();
    for (const void* n : nodes) iter_nodes_push(s, reinterpret_cast<uintptr_t>(n));
    s->next = t.table.iter_nodes;
    t.table.iter_nodes = s;
    return s;
  }
};
uintptr_t addr(const void* n) { return reinterpret_cast<uintptr_t>(n); }

}  // namespace

// ---- integer child lists --------------------------------------------------------------

TEST(IntList, OrderedByNamespaceThenKeyWhateverTheInsertionOrder) {
  const std::vector<std::pair<uint32_t, uint32_t>> pairs = {{0, 5}, {0, 9}, {1, 2}, {1, 0}, {2, 7}};
  std::vector<int> perm = {0, 1, 2, 3, 4};
  do {
    TestTable t;
    arbo_node* p = _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 2, 0);
    for (int i : perm) ASSERT_NE(leaf(t, p, pairs[i].second, pairs[i].first), nullptr);
    ASSERT_NE(_arbo_nif_add_hkey_int(p, 7, 0, &t.ctx, 2, 0), nullptr);  // container: ns 0
    std::vector<std::pair<uint32_t, uint32_t>> got;
    for (arbo_node* c : children(p)) got.emplace_back(node_ns(c), c->hkey());
    EXPECT_EQ(got, (std::vector<std::pair<uint32_t, uint32_t>>{
                       {0, 5}, {0, 7}, {0, 9}, {1, 0}, {1, 2}, {2, 7}}));
    ASSERT_TRUE(TreeOk(t.root()));
  } while (std::next_permutation(perm.begin(), perm.end()));
}

TEST(IntList, TakenPairYieldsTheHolderOrNothing) {
  // {kind of the holder, kind asked for, holder returned?}
  const struct { int have, ask; bool yields; } rows[] = {
      {3, 3, true}, {3, 2, true}, {3, 0, false}, {2, 3, true}, {2, 0, false},
      {0, 0, true}, {0, 3, true}, {0, 2, true},
  };
  for (const auto& r : rows) {
    TestTable t;
    arbo_node* holder = _arbo_nif_add_hkey_int(t.root(), 7, 0, &t.ctx, r.have, 1);
    const Counters c0 = counters(t);
    arbo_node* got = _arbo_nif_add_hkey_int(t.root(), 7, 0, &t.ctx, r.ask, 1);
    EXPECT_EQ(got, r.yields ? holder : nullptr) << r.have << " then " << r.ask;
    EXPECT_EQ(t.table.mem, c0.mem);  // the new record was freed
    EXPECT_EQ(t.table.size, c0.size);
  }
  TestTable t;  // a byte-keyed first child refuses integer children
  arbo_node* p = leaf(t, t.root(), 1);
  leaf(t, p, 4)->set(F_KEY_IS_BIN);
  const Counters c0 = counters(t);
  EXPECT_EQ(leaf(t, p, 9), nullptr);
  EXPECT_EQ(t.table.mem, c0.mem);
  p->child->clear(F_KEY_IS_BIN);
  // Instances only under list nodes, other kinds never under them.
  arbo_node* l = make_list(t, t.root(), 2, 0);
  EXPECT_EQ(inst(t, p, 1), nullptr);
  EXPECT_EQ(leaf(t, l, 1), nullptr);
  EXPECT_EQ(_arbo_nif_add_hkey_bin(p, bytes_of("k"), 1, &t.ctx, 6), nullptr);
}

TEST(IntList, FindDeleteAndDeleteNamespaceRepairIterators) {
  TestTable t;
  Stacks st(t);
  arbo_node* p = leaf(t, t.root(), 1);
  const Counters c0 = counters(t);
  arbo_node* c5 = leaf(t, p, 5);
  arbo_node* c7 = _arbo_nif_add_hkey_int(p, 7, 0, &t.ctx, 2, 0);
  arbo_node* c12 = leaf(t, p, 12);
  arbo_node* d3 = leaf(t, p, 3, 1);
  arbo_node* d4 = leaf(t, p, 4, 1);
  arbo_node* e1 = leaf(t, p, 1, 2);
  set_attr(t, d3, 2, std::string(30, 'x'));
  leaf(t, d4, 1);
  EXPECT_EQ(_arbo_nif_find_child_int(p, 9, 0), nullptr);
  EXPECT_EQ(_arbo_nif_find_child_int(p, 12, 0), c12);
  EXPECT_EQ(_arbo_nif_find_child_int(p, 4, 1), d4);
  EXPECT_EQ(_arbo_nif_find_child_int(p, 0, 3), nullptr);

  iter_stack* s1 = st.add({p, c5, c12});
  iter_stack* s2 = st.add({d3});
  iter_stack* s3 = st.add({p, d4});
  iter_stack* s4 = st.add({e1});
  EXPECT_EQ(_arbo_nif_del_hkey_int(p, 5, 0, &t.ctx), 1);  // the first child
  EXPECT_EQ(s1->nodes[0], addr(p));
  EXPECT_EQ(s1->nodes[1], kBeforeFirst);
  EXPECT_EQ(s1->nodes[2], 0u);  // entries above are cleared, pos is kept
  EXPECT_EQ(s1->pos, 2);
  EXPECT_EQ(_arbo_nif_del_hkey_int(p, 5, 0, &t.ctx), 0);

  EXPECT_EQ(_arbo_nif_del_ns_int(p, 1, &t.ctx), 1);  // d3 and d4
  EXPECT_EQ(s2->nodes[0], addr(c12));  // back to the previous survivor
  EXPECT_EQ(s3->nodes[1], addr(c12));
  EXPECT_EQ(s4->nodes[0], addr(e1));
  EXPECT_EQ(_arbo_nif_del_ns_int(p, 1, &t.ctx), 0);
  EXPECT_EQ(keys_of(children(p)), (std::vector<uint32_t>{7, 12, 1}));
  EXPECT_EQ(_arbo_nif_del_ns_int(p, 0, &t.ctx), 1);  // the container counts as ns 0
  EXPECT_EQ(children(p), std::vector<arbo_node*>{e1});
  (void)c7;
  EXPECT_EQ(_arbo_nif_del_hkey_int(p, 1, 2, &t.ctx), 1);
  EXPECT_EQ(t.table.mem, c0.mem);
  EXPECT_EQ(t.table.size, c0.size);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
}

TEST(IntList, RenameNamespace) {
  TestTable t;
  arbo_node* p = leaf(t, t.root(), 1);
  arbo_node* a = leaf(t, p, 1);
  arbo_node* b = leaf(t, p, 2);
  leaf(t, p, 1, 1);
  EXPECT_EQ(_arbo_nif_rename_ns(p, b, 2, &t.ctx), 1);
  EXPECT_EQ(as_gen(b)->ns, 2u);
  EXPECT_EQ(children(p).back(), b);
  ASSERT_TRUE(TreeOk(p));
  // Onto an occupied pair: the record goes, what it owned stays allocated.
  set_attr(t, a, 3, std::string(20, 'v'));
  arbo_node* kept_attr = a->attr;
  const Counters c0 = counters(t);
  EXPECT_EQ(_arbo_nif_rename_ns(p, a, 1, &t.ctx), 0);
  EXPECT_EQ(children(p).size(), 2u);
  EXPECT_EQ(t.table.mem, c0.mem - node_size(T_GEN_NODE_ONE));
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
  _arbo_nif_do_del_node(kept_attr, &t.ctx, 1, kNoFixup);  // tidy up by hand
  // A node that is not a child of p: nothing moves, nothing is lost.
  arbo_node* other = leaf(t, t.root(), 9);
  as_gen(other)->ns = 1;
  other->set_hkey(1);
  EXPECT_EQ(_arbo_nif_rename_ns(p, other, 4, &t.ctx), 0);
  EXPECT_EQ(children(p).size(), 2u);
  other->set_hkey(9);
  as_gen(other)->ns = 0;
}

// ---- values and attributes --------------------------------------------------------------

TEST(Values, KindsFlagsAndAccounting) {
  const struct {
    int kind;
    size_t len;
    uint32_t flags;
    int fetched;  // _arbo_nif_fetch_bin_value
    bool in_bin;
  } rows[] = {
      {17, 0, 0, 0, false},  {17, 10, 0, 1, false},
      {17, 11, F_VAL_IS_BIN | F_VAL_IS_SMALL, 1, true},
      {18, 3, F_VAL_IS_BIN, 2, true},  {37, 3, F_VAL_IS_BIN | F_VAL_IS_BIN_NOSTR, 1, true},
      {99, 5, 0, 0, false},
  };
  std::string bytes(40, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + 1);
  for (const auto& r : rows) {
    TestTable t;
    arbo_node* n = leaf(t, t.root(), 1);
    const Counters c0 = counters(t);
    ASSERT_EQ(_arbo_nif_set_val(n, &t.ctx, bytes_of(bytes), 30, 18), 1);  // replaced below
    EXPECT_EQ(_arbo_nif_set_val(n, &t.ctx, bytes_of(bytes), r.len, r.kind), 1);
    EXPECT_EQ(n->tw & kValFlags, r.flags) << r.kind << "/" << r.len;
    EXPECT_EQ(t.table.mem, c0.mem + (r.in_bin ? r.len + 8 : 0));
    bin_ref v{};
    EXPECT_EQ(_arbo_nif_fetch_bin_value(n, &v), r.fetched);
    if (r.fetched) {
      ASSERT_EQ(v.len, r.len);
      EXPECT_EQ(std::memcmp(v.ptr, bytes.data(), r.len), 0);
    }
    EXPECT_EQ(_arbo_nif_free_val(n, &t.ctx), T_GEN_NODE_ONE);
    EXPECT_EQ(_arbo_nif_fetch_bin_value(n, &v), 0);
    EXPECT_EQ(t.table.mem, c0.mem);
    EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
  }
  TestTable t;
  arbo_node* l = make_list(t, t.root(), 1, 0);
  arbo_node* bi = binst(t, l, "key");
  for (arbo_node* n : {_arbo_nif_add_hkey_int(t.root(), 2, 0, &t.ctx, 2, 0), l, bi})
    EXPECT_EQ(_arbo_nif_set_val(n, &t.ctx, bytes_of(bytes), 4, 17), 0);
  _arbo_nif_free_val(bi, &t.ctx);  // an inline key shares `val` and survives
  EXPECT_EQ(key_string(bi), "key");
  arbo_node* n = leaf(t, t.root(), 3);
  arbo_shim::refuse_resources(true);
  EXPECT_EQ(_arbo_nif_set_val(n, &t.ctx, bytes_of(bytes), 20, 18), 0);
  arbo_shim::refuse_resources(false);
  EXPECT_EQ(n->tw & kValFlags, 0u);
}

TEST(Attributes, SortedChainSetReplaceRemoveAndGeneration) {
  TestTable t;
  arbo_node* n = leaf(t, t.root(), 1);
  const Counters c0 = counters(t);
  for (uint32_t k : {5u, 1u, 9u, 3u}) set_attr(t, n, k, std::string(k, 'a'));
  set_attr(t, n, 5, std::string(25, 'b'));  // replace, now out of line
  std::vector<uint32_t> keys;
  for (arbo_node* a = n->attr; a; a = as_gen(a)->next[0]) keys.push_back(a->hkey());
  EXPECT_EQ(keys, (std::vector<uint32_t>{1, 3, 5, 9}));
  ASSERT_TRUE(TreeOk(n));
  bin_ref v{};
  // Short attribute values read back as encoded values, long ones as binaries.
  EXPECT_EQ(_arbo_nif_fetch_bin_value(n->attr, &v), 1);
  EXPECT_EQ(_arbo_nif_fetch_bin_value(as_gen(as_gen(n->attr)->next[0])->next[0], &v), 2);
  EXPECT_EQ(v.len, 25u);

  const uint32_t g0 = t.table.generation;
  EXPECT_NE(_arbo_nif_attr_set_with_gen(n, 4, bytes_of("x"), 1, &t.ctx), nullptr);
  EXPECT_EQ(t.table.generation, g0);
  EXPECT_EQ(_arbo_nif_attr_set(&t.ctx, n, 8, nullptr, 0), 0);  // absent
  _arbo_nif_attr_set_with_gen(n, 3, nullptr, 0, &t.ctx);
  EXPECT_EQ(t.table.generation, g0 + 1);
  for (uint32_t k : {1u, 4u, 5u, 9u}) EXPECT_EQ(_arbo_nif_attr_set(&t.ctx, n, k, nullptr, 0), 1);
  EXPECT_EQ(n->attr, nullptr);
  EXPECT_EQ(t.table.mem, c0.mem);
  EXPECT_EQ(t.table.size, c0.size);
}

TEST(Attributes, InactiveCountCacheAndItsDecrements) {
  TestTable t;
  for (uint8_t mode : {0, 3}) {
    arbo_node* l = make_list(t, t.root(), 10 + mode, mode);
    std::vector<arbo_node*> in;
    for (int k = 0; k < 6; ++k) in.push_back(inst(t, l, k));
    set_attr(t, in[1], 0, "i");
    set_attr(t, in[4], 0, "i");
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 2u);
    EXPECT_EQ(l->attr, nullptr);  // no context: nothing cached
    EXPECT_EQ(_arbo_nif_attr_inactive_count(&t.ctx, l), 2u);
    ASSERT_NE(l->attr, nullptr);
    set_attr(t, in[5], 0, "i");  // not seen by the cache
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 2u);
    EXPECT_EQ(_arbo_nif_attr_inactive_inc(&t.ctx, l, 1), 3u);
    const unsigned char add2[] = {8, 0, 0, 0, 2};
    EXPECT_EQ(_arbo_nif_attr_set_with_gen(l, 0, add2, 5, &t.ctx), nullptr);
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 5u);
    EXPECT_EQ(_arbo_nif_attr_set_with_gen(l, 0, add2, 4, &t.ctx), nullptr);  // not an int32
    EXPECT_EQ(_arbo_nif_del_hkey_int(l, 4, 0, &t.ctx), 1);  // inactive leaves: -1
    EXPECT_EQ(_arbo_nif_del_hkey_int(l, 0, 0, &t.ctx), 1);  // active: unchanged
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 4u);
    // Renaming an inactive instance of a sorted list lowers the count for
    // good; in a user-ordered list it stays.
    EXPECT_EQ(_arbo_nif_dn_rename_instance(l, in[1], 2, nullptr, 0, 0, 40, &t.ctx), 1);
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), mode == 3 ? 4u : 3u);
    EXPECT_EQ(as_dyn(l)->size, 4);
    ASSERT_TRUE(TreeOk(l));
  }
  // Without a cache the increment counts, adds and caches.
  arbo_node* l = make_list(t, t.root(), 20, 0);
  set_attr(t, inst(t, l, 1), 0, "i");
  EXPECT_EQ(_arbo_nif_attr_set_with_gen(l, 0, bytes_of("\x08\0\0\0\x05"), 5, &t.ctx), nullptr);
  EXPECT_EQ(l->attr, nullptr);
  EXPECT_EQ(_arbo_nif_attr_inactive_inc(&t.ctx, l, 2), 3u);
  EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 3u);
}

// ---- deletion ----------------------------------------------------------------------------

TEST(Delete, SubtreeAccountingIsExact) {
  TestTable t;
  const Counters c0 = counters(t);
  arbo_node* top = _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 2, 0);
  arbo_node* sorted = make_list(t, top, 1, 1);
  arbo_node* user = make_list(t, top, 2, 3);
  const std::string val(50, 'v');
  for (int i = 0; i < 60; ++i) {
    arbo_node* n = i % 2 ? inst(t, sorted, i) : binst(t, sorted, std::string(5 + i, 'k'));
    if (i % 3 == 0) set_attr(t, n, 1, val);
    if (i % 2) _arbo_nif_set_val(n, &t.ctx, bytes_of(val), 10 + i % 5, 17);
    if (i % 7 == 0) leaf(t, n, 3);
  }
  for (int i = 0; i < 200; ++i) inst(t, user, i);
  ASSERT_NE(as_dyn(user)->head[2], nullptr);
  ASSERT_TRUE(TreeOk(t.root()));
  EXPECT_EQ(t.table.size, subtree_node_count(t.root()));
  const long binaries = arbo_shim::live_resources() - c0.resources;
  EXPECT_EQ(_arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx), 1);
  EXPECT_EQ(t.table.mem, c0.mem);
  EXPECT_EQ(t.table.size, c0.size);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
  EXPECT_EQ(t.table.alloc_state->mem.load(), c0.lib - 8 * binaries);
}

TEST(Delete, ListRemovalsRepairIterators) {
  for (uint8_t mode : {0, 3}) {
    TestTable t;
    Stacks st(t);
    arbo_node* l = make_list(t, t.root(), 1, mode);
    arbo_node* a = inst(t, l, 1);
    arbo_node* b = inst(t, l, 2);
    arbo_node* c = inst(t, l, 3);
    iter_stack* s = st.add({l, b, c});
    iter_stack* s2 = st.add({a});
    EXPECT_EQ(_arbo_nif_del_hkey_int(l, 2, 0, &t.ctx), 1);
    EXPECT_EQ(s->nodes[1], addr(a));  // the predecessor
    EXPECT_EQ(s->nodes[2], 0u);
    EXPECT_EQ(_arbo_nif_del_hkey_int(l, 1, 0, &t.ctx), 1);
    EXPECT_EQ(s2->nodes[0], kBeforeFirst);  // every stack that held it
    EXPECT_EQ(s->nodes[1], kBeforeFirst);
    EXPECT_EQ(s->nodes[0], addr(l));
    EXPECT_EQ(_arbo_nif_del_hkey_int(l, 3, 0, &t.ctx), 1);
    EXPECT_EQ(s->nodes[2], 0u);  // c was cleared from s by the first repair
    (void)c;
  }
}

// ---- list specifics ---------------------------------------------------------------------

TEST(SortedList, FindNextLastChildHeightsAndDuplicates) {
  TestTable t;
  arbo_node* l = make_list(t, t.root(), 1, 0);
  EXPECT_EQ(_arbo_nif_dn_last_child(l), l);  // the header view
  arbo_node* u = make_list(t, t.root(), 2, 3);
  EXPECT_EQ(_arbo_nif_dn_last_child(u), nullptr);
  const int heights[] = {1, 3, 7, 2, 1};
  std::vector<arbo_node*> n;
  for (int i = 0; i < 5; ++i) n.push_back(tall(t, l, 10 * (i + 1), heights[i]));
  EXPECT_EQ(as_dyn(l)->curh, 7);
  const struct { int32_t key; int inclusive; int want; } rows[] = {
      {5, 0, 0}, {15, 0, 1}, {15, 1, 1}, {20, 0, 2}, {20, 1, 1}, {50, 1, 4}, {50, 0, -1}};
  for (const auto& r : rows)
    EXPECT_EQ(_arbo_nif_dn_find_next(l, nullptr, 0, r.key, 0, r.inclusive),
              r.want < 0 ? nullptr : n[r.want]) << r.key << "/" << r.inclusive;
  EXPECT_EQ(_arbo_nif_dn_find_next(u, nullptr, 0, 1, 0, 1), nullptr);
  EXPECT_EQ(_arbo_nif_dn_last_child(l), n[4]);
  EXPECT_EQ(_arbo_nif_del_hkey_int(l, 30, 0, &t.ctx), 1);  // the tallest
  EXPECT_EQ(as_dyn(l)->curh, 3);
  ASSERT_TRUE(TreeOk(l));
  // A duplicate key yields the holder; the new node and its key are freed.
  const std::string k(30, 'd');
  arbo_node* first = binst(t, l, k);
  const Counters c0 = counters(t);
  EXPECT_EQ(binst(t, l, k), first);
  EXPECT_EQ(t.table.mem, c0.mem);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
  EXPECT_EQ(as_dyn(l)->size, 5);
}

TEST(UserList, MovesTableDriven) {
  // Instances A B C D; move_to(node, pos) and move_rel(node, before, ref).
  const struct { const char* op; int node, arg, ref, ret; const char* order; } rows[] = {
      {"to", 0, 2, 0, 1, "BACD"}, {"to", 0, 0, 0, 0, "ABCD"}, {"to", 0, 1, 0, 0, "ABCD"},
      {"to", 0, -1, 0, 1, "BCDA"}, {"to", 3, -1, 0, 0, "ABCD"}, {"to", 3, 4, 0, 0, "ABCD"},
      {"to", 0, 4, 0, 1, "BCDA"}, {"to", 0, 5, 0, 0, "ABCD"}, {"to", 2, 0, 0, 1, "CABD"},
      {"to", 1, 3, 0, 1, "ACBD"}, {"rel", 0, 1, 3, 1, "BCAD"}, {"rel", 0, 0, 3, 1, "BCDA"},
      {"rel", 3, 1, 0, 1, "DABC"}, {"rel", 1, 0, 1, 0, "ABCD"}, {"rel", 2, 0, 1, 1, "ABCD"},
  };
  for (const auto& r : rows) {
    TestTable t;
    arbo_node* l = make_list(t, t.root(), 1, 3);
    std::vector<arbo_node*> n;
    for (int i = 0; i < 4; ++i) n.push_back(inst(t, l, 'A' + i));
    const uint32_t g0 = t.table.generation;
    int ret = std::string(r.op) == "to"
                  ? _arbo_nif_dl_move_to(l, n[r.node], r.arg)
                  : _arbo_nif_move_rel(l, n[r.node], r.arg, n[r.ref], &t.ctx);
    EXPECT_EQ(ret, r.ret) << r.op << " " << r.node << " " << r.arg;
    std::string order;
    for (arbo_node* c : children(l)) order.push_back(static_cast<char>(c->hkey()));
    EXPECT_EQ(order, r.order) << r.op << " " << r.node << " " << r.arg;
    if (std::string(r.op) == "rel") {
      EXPECT_EQ(t.table.generation, g0 + (ret ? 1 : 0));
    }
    ASSERT_TRUE(TreeOk(l));
  }
  TestTable t;
  arbo_node* s = make_list(t, t.root(), 1, 0);
  arbo_node* a = inst(t, s, 1);
  EXPECT_EQ(_arbo_nif_move_rel(s, a, 1, a, &t.ctx), -1);
}

TEST(UserList, IndexThresholdsAndKeptKeyRecords) {
  TestTable t;
  KeptRecords kept;
  const Counters c0 = counters(t);
  arbo_node* l = make_list(t, t.root(), 1, 3);
  for (int i = 0; i < 127; ++i) inst(t, l, i);
  EXPECT_EQ(as_dyn(l)->head[2], nullptr);
  inst(t, l, 127);
  auto* idx = reinterpret_cast<mirel_hashtable*>(as_dyn(l)->head[2]);
  ASSERT_NE(idx, nullptr);
  EXPECT_EQ(_mirel_hashtable_count(idx), 128u);
  // The index knows keys, not namespaces.
  EXPECT_EQ(inst(t, l, 5, 1), _arbo_nif_find_child_int(l, 5, 0));
  EXPECT_EQ(_arbo_nif_find_child_int(l, 5, 7), _arbo_nif_find_child_int(l, 5, 0));
  ASSERT_TRUE(TreeOk(l));
  const uint64_t rec = sizeof(ht_key), inst_size = node_size(T_GEN_NODE_TWO);
  for (int i = 127; i >= 64; --i) {  // removals starting above 64 keep the index
    const uint64_t m = t.table.mem;
    ASSERT_EQ(_arbo_nif_del_hkey_int(l, static_cast<uint32_t>(i), 0, &t.ctx), 1);
    // The instance's record leaves the index, the lookup record stays.
    EXPECT_EQ(t.table.mem, m - inst_size);
  }
  ASSERT_EQ(as_dyn(l)->size, 64);
  ASSERT_NE(as_dyn(l)->head[2], nullptr);
  const uint64_t m = t.table.mem;
  EXPECT_EQ(_arbo_nif_del_hkey_int(l, 0, 0, &t.ctx), 1);  // starts at 64: index goes
  EXPECT_EQ(as_dyn(l)->head[2], nullptr);
  EXPECT_EQ(t.table.mem, m - inst_size - 63 * rec);
  // Without the index namespaces count again.
  EXPECT_NE(inst(t, l, 5, 1), _arbo_nif_find_child_int(l, 5, 0));
  ASSERT_TRUE(TreeOk(l));
  // 65 indexed removals: 65 records stay counted after the list is gone.
  EXPECT_EQ(_arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx), 1);
  EXPECT_EQ(t.table.mem, c0.mem + 65 * rec);
  EXPECT_EQ(t.table.size, c0.size);
}

TEST(Rename, KeyKindsSetFlagsAndRefuseDuplicates) {
  const struct { int kind; uint32_t flags; } rows[] = {
      {2, F_KEY_IS_TUPLE}, {3, F_KEY_IS_BTUPLE}, {4, F_KEY_IS_BIN | F_KEY_IS_TUPLE},
      {5, F_KEY_IS_BIN}};
  const std::string long_key = encoded_key(7, std::string(20, 's'));
  for (uint8_t mode : {0, 3}) {
    for (const auto& r : rows) {
      TestTable t;
      arbo_node* l = make_list(t, t.root(), 1, mode);
      arbo_node* a = binst(t, l, "abc");  // inline key in `val`
      arbo_node* b = inst(t, l, 50);
      _arbo_nif_set_val(b, &t.ctx, bytes_of(long_key), long_key.size(), 18);
      const bool bytes = r.kind >= 4;
      auto rename = [&](arbo_node* n) {
        return _arbo_nif_dn_rename_instance(l, n, r.kind, bytes ? bytes_of(long_key) : nullptr,
                                            bytes ? long_key.size() : 0, 2, 9, &t.ctx);
      };
      EXPECT_EQ(rename(a), 1);
      EXPECT_EQ(a->flags(), r.flags);
      bin_ref v{};
      EXPECT_EQ(_arbo_nif_fetch_bin_value(a, &v), 0);  // the old key is no value
      EXPECT_EQ(rename(b), 0);                          // now a duplicate
      EXPECT_EQ(_arbo_nif_dn_rename_instance(l, b, 6, nullptr, 0, 0, 1, &t.ctx), 0);
      EXPECT_EQ(bytes ? dn_find(l, bytes_of(long_key), long_key.size(), r.kind == 4, 0)
                      : dn_find(l, nullptr, 0, 9, 2),
                a);
      ASSERT_TRUE(TreeOk(l));
    }
  }
}

TEST(SortedList, HintedAppendMatchesInsert) {
  TestTable t;
  for (uint8_t mode : {0, 1, 2}) {
    arbo_node* plain = make_list(t, t.root(), 10 + mode, mode);
    arbo_node* hinted = make_list(t, t.root(), 20 + mode, mode);
    sl_append_hint hint;
    // Ascending runs, a step back, duplicates, a removal between appends.
    std::vector<int32_t> keys;
    for (int i = 0; i < 300; ++i) keys.push_back(i * 3);
    keys.insert(keys.end(), {5, 899, 900, 900, 1200, 1, 1201, 1202});
    for (int i = 0; i < 100; ++i) keys.push_back(2000 + i);
    for (size_t i = 0; i < keys.size(); ++i) {
      arbo_node* a = _arbo_nif_dn_new(plain, &t.ctx);
      arbo_node* b = _arbo_nif_node_alloc(&t.ctx, a->type());
      as_gen(b)->height = as_gen(a)->height;
      a->set_hkey(static_cast<uint32_t>(keys[i]));
      b->set_hkey(static_cast<uint32_t>(keys[i]));
      arbo_node* ra = sl_insert(plain, a, &t.ctx);
      arbo_node* rb = sl_insert_hinted(hinted, b, &t.ctx, &hint);
      ASSERT_EQ(ra->hkey(), rb->hkey());
      if (i == 350) {  // drop the newest: the hint's last node goes away
        _arbo_nif_del_hkey_int(plain, static_cast<uint32_t>(keys[i]), 0, &t.ctx);
        _arbo_nif_del_hkey_int(hinted, static_cast<uint32_t>(keys[i]), 0, &t.ctx);
      }
    }
    EXPECT_EQ(as_dyn(plain)->curh, as_dyn(hinted)->curh);
    EXPECT_EQ(as_dyn(plain)->size, as_dyn(hinted)->size);
    for (int i = 0; i < kMaxLevels; ++i)
      EXPECT_EQ(keys_of(level(plain, i)), keys_of(level(hinted, i))) << "level " << i;
    ASSERT_TRUE(TreeOk(hinted));
  }
}

// ---- descendant flags, value lengths ------------------------------------------------------

TEST(Store, DescendantFlagsAndValueLengths) {
  TestTable t;
  arbo_node* c = _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 2, 0);
  arbo_node* l = make_list(t, c, 1, 3);
  arbo_node* deep = leaf(t, inst(t, l, 4), 2);
  _arbo_nif_set_flags(nullptr, deep, 0x4);
  _arbo_nif_set_flags(nullptr, c, 0x8);
  _arbo_nif_set_flags(nullptr, leaf(t, c, 5), 0x800000000ull);
  const struct { arbo_node* n; uint64_t mask; int self, want; } rows[] = {
      {c, 0x4, 0, 1}, {c, 0x8, 0, 0}, {c, 0x8, 1, 1}, {deep, 0x4, 0, 0}, {deep, 0x4, 1, 1},
      {t.root(), 0x800000000ull, 0, 1}, {l, 0x8, 1, 0}};
  for (const auto& r : rows)
    EXPECT_EQ(_arbo_nif_has_descendant_with_flags(nullptr, r.n, r.mask, r.self), r.want);

  // {tag, length, variable, nested}
  const struct { uint8_t tag; int len, var, nested; } lens[] = {
      {0, 0, 0, 0},   {17, 1, 0, 0},  {26, 3, 0, 0},  {46, 4, 0, 0},  {21, 5, 0, 0},
      {209, 8, 0, 0}, {19, 13, 0, 0}, {27, 28, 0, 0}, {14, 1, 1, 0},  {208, 2, 1, 0},
      {50, 4, 1, 0},  {200, 1, 1, 1}, {202, 2, 1, 1}, {206, 4, 1, 1}, {1, 0, 1, 0}};
  for (const auto& r : lens) {
    int var = -1, nested = -1;
    EXPECT_EQ(_arbo_nif_val_len(r.tag, &var, &nested), r.len) << int(r.tag);
    EXPECT_EQ(var, r.var) << int(r.tag);
    EXPECT_EQ(nested, r.nested) << int(r.tag);
  }
}
