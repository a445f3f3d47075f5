// Node store: integer child lists, values, attributes, inactive counts, the
// user-ordered list's index, instance renames. List ordering, lookups,
// removals with iterator repair, moves and accounting under random sequences
// live in store_model_test.cpp; the append hint is checked against ordinary
// insertion by the load tests in io_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "arbo_stack.h"
#include "mirel_hashtable.h"
#include "store_test_util.h"

using namespace arbo;
using namespace store_test;
using arbo_shim::TestTable;

namespace {

// Record kinds: 0 a list (mode picks its order), 1 an integer instance,
// 2 a container, 3 a leaf, 6 an opaque byte-keyed instance.
arbo_node* add(TestTable& t, arbo_node* p, uint32_t key, int kind, uint32_t ns = 0,
               uint8_t mode = 0) {
  return _arbo_nif_add_hkey_int(p, key, ns, &t.ctx, kind, mode);
}
arbo_node* binst(TestTable& t, arbo_node* l, const std::string& k) {
  return _arbo_nif_add_hkey_bin(l, bytes_of(k), k.size(), &t.ctx, 6);
}
void set_attr(TestTable& t, arbo_node* n, uint32_t key, const std::string& v) {
  _arbo_nif_attr_set(&t.ctx, n, key, bytes_of(v), v.size());
}
std::vector<uint32_t> keys_of(const std::vector<arbo_node*>& v) {
  std::vector<uint32_t> out;
  for (arbo_node* n : v) out.push_back(n->hkey());
  return out;
}
uintptr_t addr(const void* n) { return reinterpret_cast<uintptr_t>(n); }

}  // namespace

TEST(IntList, OrderedByNamespaceThenKeyWhateverTheInsertionOrder) {
  const std::pair<uint32_t, uint32_t> pairs[] = {{0, 5}, {0, 9}, {1, 2}, {1, 0}, {2, 7}};
  std::vector<int> perm = {0, 1, 2, 3, 4};
  do {
    TestTable t;
    arbo_node* p = add(t, t.root(), 1, 2);
    for (int i : perm) ASSERT_NE(add(t, p, pairs[i].second, 3, pairs[i].first), nullptr);
    ASSERT_NE(add(t, p, 7, 2), nullptr);  // a container: ns 0
    std::vector<uint32_t> got;  // ns * 100 + key
    for (arbo_node* c : children(p)) got.push_back(node_ns(c) * 100 + c->hkey());
    EXPECT_EQ(got, (std::vector<uint32_t>{5, 7, 9, 100, 102, 207}));
    ASSERT_TRUE(TreeOk(t.root()));
  } while (std::next_permutation(perm.begin(), perm.end()));
}

TEST(IntList, TakenPairYieldsTheHolderOrNothingAndKindsStayApart) {
  // {kind of the holder, kind asked for, holder returned?}
  const struct { int have, ask; bool yields; } rows[] = {{3, 3, true}, {3, 2, true},
      {3, 0, false}, {2, 3, true}, {2, 0, false}, {0, 0, true}, {0, 3, true}, {0, 2, true}};
  for (const auto& r : rows) {
    TestTable t;
    arbo_node* holder = add(t, t.root(), 7, r.have, 0, 1);
    const Counters c0 = counters(t);
    EXPECT_EQ(add(t, t.root(), 7, r.ask, 0, 1), r.yields ? holder : nullptr) << r.have << r.ask;
    EXPECT_EQ(t.table.mem, c0.mem);  // the new record was freed
    EXPECT_EQ(t.table.size, c0.size);
  }
  TestTable t;  // a byte-keyed first child refuses integer children
  arbo_node* p = add(t, t.root(), 1, 3);
  add(t, p, 4, 3)->set(F_KEY_IS_BIN);
  const Counters c0 = counters(t);
  EXPECT_EQ(add(t, p, 9, 3), nullptr);
  EXPECT_EQ(t.table.mem, c0.mem);
  p->child->clear(F_KEY_IS_BIN);
  // Instances only under list nodes, other kinds never under them; list
  // operations refuse the wrong kind of list.
  arbo_node* s = add(t, t.root(), 2, 0);
  arbo_node* u = add(t, t.root(), 3, 0, 0, 3);
  EXPECT_EQ(add(t, p, 1, 1), nullptr);
  EXPECT_EQ(add(t, s, 1, 3), nullptr);
  EXPECT_EQ(_arbo_nif_add_hkey_bin(p, bytes_of("k"), 1, &t.ctx, 6), nullptr);
  arbo_node* a = add(t, s, 1, 1);
  EXPECT_EQ(_arbo_nif_move_rel(s, a, 1, a, &t.ctx), -1);
  add(t, u, 1, 1);
  EXPECT_EQ(_arbo_nif_dn_find_next(u, nullptr, 0, 1, 0, 1), nullptr);
}

TEST(IntList, FindDeleteRenameAndIteratorRepair) {
  TestTable t;
  arbo_node* p = add(t, t.root(), 1, 3);
  const Counters c0 = counters(t);
  arbo_node* c5 = add(t, p, 5, 3);
  add(t, p, 7, 2);
  arbo_node* c12 = add(t, p, 12, 3);
  arbo_node* d3 = add(t, p, 3, 3, 1);  // holds a long attribute
  arbo_node* d4 = add(t, p, 4, 3, 1);
  arbo_node* e1 = add(t, p, 1, 3, 2);
  set_attr(t, d3, 2, std::string(30, 'x'));
  add(t, d4, 1, 3);
  EXPECT_EQ(_arbo_nif_find_child_int(p, 4, 1), d4);
  EXPECT_EQ(_arbo_nif_find_child_int(p, 4, 0), nullptr);

  // Iterator stacks hung into the table by hand.
  std::vector<iter_stack*> st;
  for (auto nodes : {std::vector<const void*>{p, c5, c12}, {p, d4}, {e1}}) {
    st.push_back(iter_nodes_new_stack());
    for (const void* n : nodes) iter_nodes_push(st.back(), addr(n));
    st.back()->next = t.table.iter_nodes;
    t.table.iter_nodes = st.back();
  }
  EXPECT_EQ(_arbo_nif_del_hkey_int(p, 5, 0, &t.ctx), 1);  // the first child
  EXPECT_EQ(st[0]->nodes[1], kBeforeFirst);
  EXPECT_EQ(st[0]->nodes[2], 0u);  // entries above are cleared, pos is kept
  EXPECT_EQ(st[0]->pos, 2);
  EXPECT_EQ(_arbo_nif_del_hkey_int(p, 5, 0, &t.ctx), 0);
  EXPECT_EQ(_arbo_nif_del_ns_int(p, 1, &t.ctx), 1);  // d3 and d4
  EXPECT_EQ(st[1]->nodes[1], addr(c12));            // back to the previous survivor
  EXPECT_EQ(st[2]->nodes[0], addr(e1));
  iter_nodes_free_all(&t.table);

  EXPECT_EQ(_arbo_nif_rename_ns(p, c12, 3, &t.ctx), 1);
  EXPECT_EQ(keys_of(children(p)), (std::vector<uint32_t>{7, 1, 12}));
  ASSERT_TRUE(TreeOk(p));
  // Onto an occupied pair: the record goes, what it owned stays allocated.
  arbo_node* e2 = add(t, p, 1, 3, 4);
  set_attr(t, e2, 3, std::string(20, 'v'));
  arbo_node* kept_attr = e2->attr;
  const Counters c1 = counters(t);
  EXPECT_EQ(_arbo_nif_rename_ns(p, e2, 2, &t.ctx), 0);
  EXPECT_EQ(children(p).size(), 3u);
  EXPECT_EQ(t.table.mem, c1.mem - node_size(T_GEN_NODE_ONE));
  EXPECT_EQ(arbo_shim::live_resources(), c1.resources);
  _arbo_nif_do_del_node(kept_attr, &t.ctx, 1, kNoFixup);  // tidy up by hand

  for (uint32_t ns : {0, 2, 3}) EXPECT_EQ(_arbo_nif_del_ns_int(p, ns, &t.ctx), 1);  // container: 0
  EXPECT_EQ(t.table.mem, c0.mem);
  EXPECT_EQ(t.table.size, c0.size);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
}

TEST(Values, KindsFlagsAndAccounting) {
  // {kind, length, flags, _arbo_nif_fetch_bin_value, held in a binary}
  const struct { int kind; size_t len; uint32_t flags; int fetched; bool in_bin; } rows[] = {
      {17, 0, 0, 0, false}, {17, 10, 0, 1, false}, {17, 11, F_VAL_IS_BIN | F_VAL_IS_SMALL, 1, true},
      {18, 3, F_VAL_IS_BIN, 2, true}, {37, 3, F_VAL_IS_BIN | F_VAL_IS_BIN_NOSTR, 1, true},
      {99, 5, 0, 0, false}};
  std::string bytes;
  for (int i = 0; i < 40; ++i) bytes += static_cast<char>(i * 7 + 1);
  for (const auto& r : rows) {
    TestTable t;
    arbo_node* n = add(t, t.root(), 1, 3);
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
  arbo_node* l = add(t, t.root(), 1, 0);
  arbo_node* bi = binst(t, l, "key");
  for (arbo_node* n : {add(t, t.root(), 2, 2), l, bi})
    EXPECT_EQ(_arbo_nif_set_val(n, &t.ctx, bytes_of(bytes), 4, 17), 0);
  _arbo_nif_free_val(bi, &t.ctx);  // an inline key shares `val` and survives
  EXPECT_EQ(key_string(bi), "key");
  arbo_node* n = add(t, t.root(), 3, 3);
  arbo_shim::refuse_resources(true);
  EXPECT_EQ(_arbo_nif_set_val(n, &t.ctx, bytes_of(bytes), 20, 18), 0);
  arbo_shim::refuse_resources(false);
  EXPECT_EQ(n->tw & kValFlags, 0u);
}

TEST(Attributes, SortedChainSetReplaceRemoveAndGeneration) {
  TestTable t;
  arbo_node* n = add(t, t.root(), 1, 3);
  const Counters c0 = counters(t);
  for (uint32_t k : {5u, 1u, 9u, 3u}) set_attr(t, n, k, std::string(k, 'a'));
  set_attr(t, n, 5, std::string(25, 'b'));  // replace, now out of line
  std::vector<arbo_node*> chain;
  for (arbo_node* a = n->attr; a; a = as_gen(a)->next[0]) chain.push_back(a);
  EXPECT_EQ(keys_of(chain), (std::vector<uint32_t>{1, 3, 5, 9}));
  ASSERT_TRUE(TreeOk(n));
  // Short attribute values read back as encoded values, long ones as binaries.
  bin_ref v{};
  EXPECT_EQ(_arbo_nif_fetch_bin_value(chain[0], &v), 1);
  EXPECT_TRUE(_arbo_nif_fetch_bin_value(chain[2], &v) == 2 && v.len == 25u);
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

// Counting, decrements, removals and sorted-list renames are followed by the
// random sequences; here the cache itself and the user-ordered rename.
TEST(Attributes, InactiveCountCache) {
  TestTable t;
  for (uint8_t mode : {0, 3}) {
    arbo_node* l = add(t, t.root(), 10 + mode, 0, 0, mode);
    std::vector<arbo_node*> in;
    for (uint32_t k = 0; k < 4; ++k) in.push_back(add(t, l, k, 1));
    set_attr(t, in[1], 0, "i");
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 1u);
    EXPECT_EQ(l->attr, nullptr);  // no context: nothing cached
    EXPECT_EQ(_arbo_nif_attr_inactive_count(&t.ctx, l), 1u);
    ASSERT_NE(l->attr, nullptr);
    set_attr(t, in[2], 0, "i");  // not seen by the cache
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 1u);
    EXPECT_EQ(_arbo_nif_attr_inactive_inc(&t.ctx, l, 1), 2u);
    EXPECT_EQ(_arbo_nif_attr_set_with_gen(l, 0, bytes_of("\x08\0\0\0\x02"), 4, &t.ctx), nullptr);
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 2u);  // not an int32: refused
    EXPECT_EQ(_arbo_nif_del_hkey_int(l, 2, 0, &t.ctx), 1);  // inactive leaves: -1
    // Renaming an inactive instance of a sorted list lowers the count for
    // good; in a user-ordered list it stays.
    EXPECT_EQ(_arbo_nif_dn_rename_instance(l, in[1], 2, nullptr, 0, 0, 40, &t.ctx), 1);
    EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), mode == 3 ? 1u : 0u);
    ASSERT_TRUE(TreeOk(l));
  }
  // Without a cache the increment counts, adds and caches.
  arbo_node* l = add(t, t.root(), 20, 0);
  set_attr(t, add(t, l, 1, 1), 0, "i");
  EXPECT_EQ(_arbo_nif_attr_inactive_inc(&t.ctx, l, 2), 3u);
  EXPECT_EQ(_arbo_nif_attr_inactive_count(nullptr, l), 3u);
}

// The index's thresholds; that it keeps one 16-byte lookup record per indexed
// removal is followed by the random sequences.
TEST(UserList, IndexThresholdsIgnoreNamespaces) {
  TestTable t;
  KeptRecords kept;
  arbo_node* l = add(t, t.root(), 1, 0, 0, 3);
  for (uint32_t i = 0; i < 127; ++i) add(t, l, i, 1);
  EXPECT_EQ(as_dyn(l)->head[2], nullptr);
  add(t, l, 127, 1);
  ASSERT_NE(as_dyn(l)->head[2], nullptr);
  EXPECT_EQ(_mirel_hashtable_count(reinterpret_cast<mirel_hashtable*>(as_dyn(l)->head[2])), 128u);
  // The index knows keys, not namespaces.
  EXPECT_EQ(add(t, l, 5, 1, 1), _arbo_nif_find_child_int(l, 5, 0));
  EXPECT_EQ(_arbo_nif_find_child_int(l, 5, 7), _arbo_nif_find_child_int(l, 5, 0));
  for (uint32_t i = 127; i >= 64; --i) ASSERT_EQ(_arbo_nif_del_hkey_int(l, i, 0, &t.ctx), 1);
  ASSERT_EQ(as_dyn(l)->size, 64);
  ASSERT_NE(as_dyn(l)->head[2], nullptr);  // removals starting above 64 keep it
  EXPECT_EQ(_arbo_nif_del_hkey_int(l, 0, 0, &t.ctx), 1);  // starts at 64: the index goes
  EXPECT_EQ(as_dyn(l)->head[2], nullptr);
  EXPECT_NE(add(t, l, 5, 1, 1), _arbo_nif_find_child_int(l, 5, 0));  // namespaces count again
  ASSERT_TRUE(TreeOk(l));
}

// Kinds, flags, duplicates and lookups after a rename are followed by the
// random sequences; here an inline byte key, which shares `val`, must not
// read back as a value afterwards (sorted lists, and user-ordered for kind 4).
TEST(Rename, InlineKeyLeavesNoValueBehind) {
  const std::string long_key = encoded_key(7, std::string(20, 's'));
  for (int kind : {2, 3, 4, 5}) {
    TestTable t;
    arbo_node* l = add(t, t.root(), 1, 0, 0, static_cast<uint8_t>(kind == 4 ? 3 : 0));
    arbo_node* a = binst(t, l, "abc");
    const size_t len = kind >= 4 ? long_key.size() : 0;
    EXPECT_EQ(_arbo_nif_dn_rename_instance(l, a, kind, len ? bytes_of(long_key) : nullptr, len, 2, 9,
                                           &t.ctx), 1);
    bin_ref v{};
    EXPECT_TRUE((a->tw & kValFlags) == 0 && _arbo_nif_fetch_bin_value(a, &v) == 0);
    EXPECT_EQ(_arbo_nif_dn_rename_instance(l, a, 6, nullptr, 0, 0, 1, &t.ctx), 0);  // no kind 6
    ASSERT_TRUE(TreeOk(l));
  }
}

TEST(Store, DescendantFlags) {
  TestTable t;
  arbo_node* c = add(t, t.root(), 1, 2);
  arbo_node* l = add(t, c, 1, 0, 0, 3);
  arbo_node* deep = add(t, add(t, l, 4, 1), 2, 3);
  _arbo_nif_set_flags(nullptr, deep, 0x4);
  _arbo_nif_set_flags(nullptr, c, 0x8);
  _arbo_nif_set_flags(nullptr, add(t, c, 5, 3), 0x800000000ull);
  const struct { arbo_node* n; uint64_t mask; int self, want; } rows[] = {
      {c, 0x4, 0, 1}, {c, 0x8, 0, 0}, {c, 0x8, 1, 1}, {deep, 0x4, 0, 0}, {deep, 0x4, 1, 1},
      {t.root(), 0x800000000ull, 0, 1}, {l, 0x8, 1, 0}};
  for (const auto& r : rows)
    EXPECT_EQ(_arbo_nif_has_descendant_with_flags(nullptr, r.n, r.mask, r.self), r.want);
}
