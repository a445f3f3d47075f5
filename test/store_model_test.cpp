// Model-based tests of list nodes: random operation sequences applied to a
// list and to a plain model (the expected order as a vector), compared and
// self-checked after every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "store_test_util.h"

using namespace arbo;
using namespace store_test;
using arbo_shim::TestTable;

namespace {

enum class Style { kInt, kOpaque, kMixed };

// A key as the model sees it: an integer (key, ns) or an opaque byte string.
struct MKey {
  bool bin = false;
  std::string bytes;
  int32_t i = 0; uint32_t ns = 0;
};

// The order the lists must keep, written from the key rules directly:
// byte keys first; integers by (signed key, namespace); opaque keys by
// bytes then length, or length first in mode 1.
struct ModelLess {
  int mode;
  bool operator()(const MKey& a, const MKey& b) const {
    if (a.bin != b.bin) return a.bin;
    if (!a.bin) return a.i != b.i ? a.i < b.i : a.ns < b.ns;
    return mode == 1 && a.bytes.size() != b.bytes.size() ? a.bytes.size() < b.bytes.size() : a.bytes < b.bytes;
  }
};

struct Gen {
  std::mt19937 rng;
  Style style;
  bool user;  // a user-ordered list
  int below(int n) { return static_cast<int>(rng() % static_cast<uint32_t>(n)); }
  bool chance(int percent) { return below(100) < percent; }
  std::string word(int len) {  // from a three-letter alphabet: ties are common
    std::string w(static_cast<size_t>(len), 'a');
    return std::ranges::for_each(w, [&](char& c) { c = static_cast<char>(c + below(3)); }), w;
  }
  MKey key() {
    // User-ordered lists: namespace 0 and keys above any byte-key length, so
    // that the index (which knows neither) tells all keys apart. Opaque keys
    // cross the inline limit of 10 bytes.
    if (style == Style::kOpaque || (style == Style::kMixed && chance(50))) return MKey{true, word(below(15))};
    return MKey{false, "", user ? 100 + below(2000) : below(101) - 50, user ? 0 : static_cast<uint32_t>(below(3))};
  }
};

// The store calls for one model key.
struct Ops {
  TestTable& t;
  arbo_node* list;
  const unsigned char* b(const MKey& k) { return k.bin ? bytes_of(k.bytes) : nullptr; }
  uint32_t u(const MKey& k) { return static_cast<uint32_t>(k.i); }
  arbo_node* add(const MKey& k) {
    return k.bin ? _arbo_nif_add_hkey_bin(list, b(k), k.bytes.size(), &t.ctx, KEY_OPAQUE)
                 : _arbo_nif_add_hkey_int(list, u(k), k.ns, &t.ctx, ADD_INSTANCE, 0);
  }
  int del(const MKey& k) {
    return k.bin ? _arbo_nif_del_hkey_bin(list, 1, b(k), k.bytes.size(), &t.ctx)
                 : _arbo_nif_del_hkey_int(list, u(k), k.ns, &t.ctx);
  }
  arbo_node* find(const MKey& k) {
    return k.bin ? _arbo_nif_find_child_bin(list, 1, b(k), k.bytes.size()) : _arbo_nif_find_child_int(list, u(k), k.ns);
  }
  // Renames n to k; on success n carries the flags of the new key's kind.
  int rename(arbo_node* n, const MKey& k, bool btuple) {
    const uint32_t flags[] = {F_KEY_IS_TUPLE, F_KEY_IS_BTUPLE, F_KEY_IS_BIN | F_KEY_IS_TUPLE};
    const int kind = k.bin ? STORE_KEY_OPAQUE : btuple ? STORE_KEY_NS_INT : STORE_KEY_TAG;
    const uint32_t before = n->flags() & kKeyFlags;
    const int ok = _arbo_nif_dn_rename_instance(list, n, kind, b(k), k.bytes.size(), k.ns, k.i, &t.ctx);
    EXPECT_EQ(n->flags() & kKeyFlags, ok ? flags[kind - STORE_KEY_TAG] : before);
    return ok;
  }
  void mark_inactive(arbo_node* n) {
    _arbo_nif_attr_set(&t.ctx, n, 0, bytes_of("i"), 1);
    _arbo_nif_attr_set_with_gen(list, 0, bytes_of(std::string("\x08\0\0\0\x01", 5)), 5, &t.ctx);  // +1
  }
};

// Sorted lists (modes 0-2) and user-ordered ones (mode 3) against one model:
// the expected order as a vector. A sorted list places new and renamed keys
// by ModelLess; a user-ordered one appends new keys and keeps a renamed key's
// place. The inactive count follows removals in both; a rename lowers it for
// good in a sorted list only. Sizes swing up past 128 and down below 64
// twice, so a user-ordered list's index is made, kept, dropped and made
// again; every removal while indexed keeps its 16-byte lookup record
// allocated, on purpose.
class ListModel : public ::testing::TestWithParam<std::tuple<int, Style>> {};

TEST_P(ListModel, RandomSequencesAgreeWithTheModel) {
  const auto [mode, style] = GetParam();
  const bool user = mode == 3;
  const auto seed = static_cast<uint32_t>(1000 + mode * 10 + static_cast<int>(style));
  srandom(seed);  // skip-list heights
  Gen g{std::mt19937(seed), style, user};
  TestTable t;
  KeptRecords kept;
  const Counters c0 = counters(t);
  Ops ops{t, _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, ADD_LIST, static_cast<uint8_t>(mode))};
  const ModelLess less{mode};  // mode 3 orders as 0: used for equality only
  std::vector<std::pair<MKey, arbo_node*>> items;  // the list's order
  auto place = [&](const MKey& k) {  // in a sorted list
    return std::ranges::partition_point(items, [&](auto& i) { return less(i.first, k); });
  };
  uint32_t inactive = _arbo_nif_attr_inactive_count(&t.ctx, ops.list);
  const size_t targets[] = {200, 20, 160, 40, 140, 0};
  size_t phase = 0;
  int indexed_removals = 0, index_seen = 0;

  for (int step = 0; step < 5000 && phase < std::size(targets); ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step << " size " << items.size());
    const bool growing = phase % 2 == 0;
    if (growing ? items.size() >= targets[phase] : items.size() <= targets[phase]) ++phase;
    const int op = g.below(100), n = static_cast<int>(items.size());
    MKey k = g.key();
    const auto hit = std::ranges::find_if(items, [&](auto& i) { return !less(i.first, k) && !less(k, i.first); });
    int at = hit == items.end() ? -1 : static_cast<int>(hit - items.begin());
    if (op < (growing ? 55 : 15)) {
      arbo_node* got = ops.add(k);
      // A duplicate yields the holder; its record and key are freed (checked at the end).
      ASSERT_TRUE(got != nullptr && (at < 0 || got == items[at].second));
      if (at < 0) {
        items.insert(user ? items.end() : place(k), {k, got});
        // Values, long attributes and children, so removals free whole subtrees.
        if (!k.bin && g.chance(30))
          _arbo_nif_set_val(got, &t.ctx, bytes_of(std::string(30, 'v')), 5 + g.below(20), VAL_CSVAL);
        if (g.chance(10)) _arbo_nif_attr_set(&t.ctx, got, 1, bytes_of(std::string(40, 'a')), 40);
        if (g.chance(10)) _arbo_nif_add_hkey_int(got, 3, 0, &t.ctx, ADD_LEAF, 0);
        if (g.chance(15)) ops.mark_inactive(got), ++inactive;
      }
    } else if (op < 70) {
      if (n > 0 && g.chance(80)) k = items[at = g.below(n)].first;
      if (at >= 0) inactive -= is_inactive(items[at].second);
      const bool indexed = user && as_dyn(ops.list)->head[2] != nullptr;
      ASSERT_EQ(ops.del(k), at >= 0 ? 1 : 0);
      if (at >= 0) indexed_removals += indexed, items.erase(items.begin() + at);
    } else if (op < 78) {
      ASSERT_EQ(ops.find(k), at >= 0 ? items[at].second : nullptr);
    } else if (op < 88 && !user) {
      const int inclusive = g.below(2);
      auto nx =
          std::ranges::find_if(items, [&](auto& i) { return less(k, i.first) || (inclusive && !less(i.first, k)); });
      ASSERT_EQ(_arbo_nif_dn_find_next(ops.list, ops.b(k), k.bytes.size(), k.bin ? 1 : k.i,
                                       k.ns, inclusive), nx == items.end() ? nullptr : nx->second);
    } else if (op < 88 && n > 0) {
      const int from = g.below(n), ref = g.below(n), before = g.below(2);
      const uint32_t gen0 = t.table.generation;
      ASSERT_EQ(_arbo_nif_move_rel(ops.list, items[from].second, before, items[ref].second, &t.ctx),
                from != ref ? 1 : 0);
      ASSERT_EQ(t.table.generation, gen0 + (from != ref ? 1 : 0));
      if (from != ref) {  // the new place counted once the node is out
        const auto item = items[from];
        items.erase(items.begin() + from);
        items.insert(items.begin() + (ref > from ? ref - 1 : ref) + (before ? 0 : 1), item);
      }
    } else if (n > 0) {
      const int from = g.below(n);
      arbo_node* const node = items[from].second;
      ASSERT_EQ(ops.rename(node, k, !user && g.chance(50)), at >= 0 ? 0 : 1);
      if (at < 0 && user) items[from].first = k;  // the position is kept
      if (at < 0 && !user) {
        inactive -= is_inactive(node);  // the count drops and stays dropped
        items.erase(items.begin() + from);
        items.insert(place(k), {k, node});
      }
    }
    index_seen |= user && as_dyn(ops.list)->head[2] != nullptr;
    check_msg why;
    ASSERT_TRUE((user ? dl_check_invariants : sl_check_invariants)(ops.list, &why)) << why.text;
    std::vector<arbo_node*> want(items.size());
    std::ranges::transform(items, want.begin(), [](auto& i) { return i.second; });
    ASSERT_EQ(children(ops.list), want);
    ASSERT_EQ(_arbo_nif_dn_last_child(ops.list), want.empty() ? (user ? nullptr : ops.list) : want.back());
    ASSERT_EQ(_arbo_nif_attr_inactive_count(nullptr, ops.list), inactive);
  }
  EXPECT_EQ(phase, std::size(targets));
  EXPECT_TRUE((index_seen != 0) == user && (indexed_removals > 0) == user);
  ASSERT_TRUE(TreeOk(t.root()));
  EXPECT_EQ(t.table.size, subtree_node_count(t.root()));
  // Everything the list held is gone, to the byte, kept lookup records excepted.
  EXPECT_EQ(_arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx), 1);
  EXPECT_EQ(t.table.mem, c0.mem + 16 * static_cast<uint64_t>(indexed_removals));
  EXPECT_TRUE(t.table.size == c0.size && arbo_shim::live_resources() == c0.resources);
}

INSTANTIATE_TEST_SUITE_P(ModesAndKeys, ListModel, ::testing::Combine(::testing::Values(0, 1, 2, 3),
    ::testing::Values(Style::kInt, Style::kOpaque, Style::kMixed)));

}  // namespace
