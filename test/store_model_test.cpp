// Model-based tests of list nodes: random operation sequences applied to a
// list and to a plain model (std::map for sorted lists, a vector for
// user-ordered ones), compared and self-checked after every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "arbo_stack.h"
#include "store_test_util.h"

using namespace arbo;
using namespace store_test;
using arbo_shim::TestTable;

namespace {

enum class Style { kInt, kOpaque, kEncoded, kMixed };

// A key as the model sees it: an integer (key, ns) (kind 1), an opaque byte
// string (kind 6) or an encoded (int32, string) pair kept encoded (kind 5).
struct MKey {
  int kind = 1;
  std::string bytes, es;  // es: the string element of an encoded key
  int32_t i = 0, ea = 0;  // ea: the integer element of an encoded key
  uint32_t ns = 0;
  bool bin() const { return kind != 1; }
  int cmp_kind() const { return kind == 5 ? 0 : 1; }
};

// The order the lists must keep, written from the key rules directly:
// byte keys first; integers by (signed key, namespace); opaque keys by
// bytes then length, or length first in mode 1; encoded keys by the integer
// element, then the string element, length first in mode 1.
struct ModelLess {
  int mode;
  bool str_less(const std::string& a, const std::string& b) const {
    if (mode == 1 && a.size() != b.size()) return a.size() < b.size();
    return a < b;
  }
  bool operator()(const MKey& a, const MKey& b) const {
    if (a.bin() != b.bin()) return a.bin();
    if (!a.bin()) return a.i != b.i ? a.i < b.i : a.ns < b.ns;
    if (a.kind == 5) return a.ea != b.ea ? a.ea < b.ea : str_less(a.es, b.es);
    return str_less(a.bytes, b.bytes);
  }
};

struct Gen {
  std::mt19937 rng;
  Style style;
  bool user;
  int below(int n) { return static_cast<int>(rng() % static_cast<uint32_t>(n)); }
  bool chance(int percent) { return below(100) < percent; }
  std::string word(int len) {
    std::string w;
    for (int i = 0; i < len; ++i) w.push_back(static_cast<char>('a' + below(3)));
    return w;
  }
  MKey key() {
    Style s = style == Style::kMixed ? (chance(50) ? Style::kInt : Style::kOpaque) : style;
    MKey k;
    if (s == Style::kInt) {
      // User-ordered lists: namespace 0 and keys above any byte-key length,
      // so that the index (which knows neither) tells all keys apart.
      k.i = user ? 100 + below(2000) : below(101) - 50;
      k.ns = user ? 0 : static_cast<uint32_t>(below(3));
    } else if (s == Style::kOpaque) {
      k.kind = 6;
      k.bytes = word(below(15));  // crosses the inline limit of 10 bytes
    } else {
      k.kind = 5;
      k.ea = below(11) - 5;
      k.es = word(below(13));
      k.bytes = encoded_key(k.ea, k.es);
    }
    return k;
  }
};

// The store calls for one model key.
struct Ops {
  TestTable& t;
  arbo_node* list;
  const unsigned char* b(const MKey& k) { return k.bin() ? bytes_of(k.bytes) : nullptr; }
  arbo_node* add(const MKey& k) {
    if (!k.bin()) return _arbo_nif_add_hkey_int(list, static_cast<uint32_t>(k.i), k.ns, &t.ctx, 1, 0);
    return _arbo_nif_add_hkey_bin(list, b(k), k.bytes.size(), &t.ctx, k.kind);
  }
  int del(const MKey& k) {
    if (!k.bin()) return _arbo_nif_del_hkey_int(list, static_cast<uint32_t>(k.i), k.ns, &t.ctx);
    return _arbo_nif_del_hkey_bin(list, k.cmp_kind(), b(k), k.bytes.size(), &t.ctx);
  }
  arbo_node* find(const MKey& k) {
    if (!k.bin()) return _arbo_nif_find_child_int(list, static_cast<uint32_t>(k.i), k.ns);
    return _arbo_nif_find_child_bin(list, k.cmp_kind(), b(k), k.bytes.size());
  }
  // Renames n to k; on success n carries the flags of the new key's kind (2-5).
  int rename(arbo_node* n, const MKey& k, bool btuple) {
    const uint32_t flags[] = {F_KEY_IS_TUPLE, F_KEY_IS_BTUPLE, F_KEY_IS_BIN | F_KEY_IS_TUPLE,
                              F_KEY_IS_BIN};
    const int kind = !k.bin() ? (btuple ? 3 : 2) : (k.kind == 5 ? 5 : 4);
    const int ok =
        _arbo_nif_dn_rename_instance(list, n, kind, b(k), k.bytes.size(), k.ns, k.i, &t.ctx);
    EXPECT_EQ(n->flags() & kKeyFlags, ok ? flags[kind - 2] : n->flags() & kKeyFlags);
    return ok;
  }
  arbo_node* find_next(const MKey& k, int inclusive) {
    return _arbo_nif_dn_find_next(list, b(k), k.bytes.size(), k.bin() ? k.cmp_kind() : k.i, k.ns,
                                  inclusive);
  }
  void mark_inactive(arbo_node* n) {
    _arbo_nif_attr_set(&t.ctx, n, 0, bytes_of("i"), 1);
    const unsigned char plus_one[] = {8, 0, 0, 0, 1};
    _arbo_nif_attr_set_with_gen(list, 0, plus_one, sizeof plus_one, &t.ctx);
  }
};

// A one-entry iterator stack standing on the node about to be removed; a
// removal must step it back to the predecessor (or before the first).
struct Watch {
  TestTable& t;
  iter_stack* s;
  explicit Watch(TestTable& tt) : t(tt), s(iter_nodes_new_stack()) { t.table.iter_nodes = s; }
  ~Watch() { iter_nodes_free_all(&t.table); }
  void on(arbo_node* n) {
    s->pos = -1;
    iter_nodes_push(s, reinterpret_cast<uintptr_t>(n));
  }
  uintptr_t now() const { return s->nodes[0]; }
};
uintptr_t addr_or_first(arbo_node* n) { return n ? reinterpret_cast<uintptr_t>(n) : kBeforeFirst; }

// Everything the list held is gone, to the byte; `kept` lookup records excepted.
void expect_released(TestTable& t, const Counters& c0, uint64_t kept) {
  EXPECT_EQ(_arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx), 1);
  EXPECT_EQ(t.table.mem, c0.mem + 16 * kept);
  EXPECT_EQ(t.table.size, c0.size);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
}

class SortedModel : public ::testing::TestWithParam<std::tuple<int, Style>> {};

TEST_P(SortedModel, RandomSequencesAgreeWithTheModel) {
  const auto [mode, style] = GetParam();
  const uint32_t seed = 1000u + static_cast<uint32_t>(mode * 10 + static_cast<int>(style));
  srandom(seed);  // skip-list heights
  Gen g{std::mt19937(seed), style, false};
  TestTable t;
  const Counters c0 = counters(t);
  Ops ops{t, _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 0, static_cast<uint8_t>(mode))};
  Watch watch(t);
  std::map<MKey, arbo_node*, ModelLess> model(ModelLess{mode});
  uint32_t inactive = _arbo_nif_attr_inactive_count(&t.ctx, ops.list);

  for (int step = 0; step < 1500; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    const int op = g.below(100);
    MKey k = g.key();
    auto it = model.find(k);
    if (op < 40) {
      arbo_node* n = ops.add(k);
      ASSERT_NE(n, nullptr);
      if (it != model.end()) {
        ASSERT_EQ(n, it->second);  // the duplicate and its key are freed (checked at the end)
      } else {
        model.emplace(k, n);
        // Values, long attributes and children, so removals free whole subtrees.
        if (!k.bin() && g.chance(30))
          _arbo_nif_set_val(n, &t.ctx, bytes_of(std::string(30, 'v')), 5 + g.below(20), 17);
        if (g.chance(10)) _arbo_nif_attr_set(&t.ctx, n, 1, bytes_of(std::string(40, 'a')), 40);
        if (g.chance(10)) _arbo_nif_add_hkey_int(n, 3, 0, &t.ctx, 3, 0);
        if (g.chance(15)) ops.mark_inactive(n), ++inactive;
      }
    } else if (op < 65) {
      if (!model.empty() && g.chance(75)) {
        it = std::next(model.begin(), g.below(static_cast<int>(model.size())));
        k = it->first;
      }
      const int want = it != model.end();
      uintptr_t pred = kBeforeFirst;
      if (want) {
        watch.on(it->second);
        if (it != model.begin()) pred = reinterpret_cast<uintptr_t>(std::prev(it)->second);
        if (is_inactive(it->second)) --inactive;
      }
      ASSERT_EQ(ops.del(k), want);
      if (want) {
        ASSERT_EQ(watch.now(), pred);
        model.erase(it);
      }
    } else if (op < 80) {
      ASSERT_EQ(ops.find(k), it == model.end() ? nullptr : it->second);
    } else if (op < 90) {
      const int inclusive = g.below(2);
      auto nx = inclusive ? model.lower_bound(k) : model.upper_bound(k);
      ASSERT_EQ(ops.find_next(k, inclusive), nx == model.end() ? nullptr : nx->second);
    } else if (!model.empty()) {
      auto from = std::next(model.begin(), g.below(static_cast<int>(model.size())));
      arbo_node* n = from->second;
      const bool taken = model.count(k) != 0;
      ASSERT_EQ(ops.rename(n, k, g.chance(50)), taken ? 0 : 1);
      if (!taken) {
        if (is_inactive(n)) --inactive;  // the count drops and stays dropped
        model.erase(from);
        model.emplace(k, n);
      }
    }
    check_msg why;
    ASSERT_TRUE(sl_check_invariants(ops.list, &why)) << why.text;
    std::vector<arbo_node*> want;
    for (auto& [key, node] : model) want.push_back(node);
    ASSERT_EQ(children(ops.list), want);
    ASSERT_EQ(_arbo_nif_dn_last_child(ops.list), want.empty() ? ops.list : want.back());
    ASSERT_EQ(_arbo_nif_attr_inactive_count(nullptr, ops.list), inactive);
  }
  ASSERT_TRUE(TreeOk(t.root()));
  EXPECT_EQ(t.table.size, subtree_node_count(t.root()));
  expect_released(t, c0, 0);
}

const auto kStyles =
    ::testing::Values(Style::kInt, Style::kOpaque, Style::kEncoded, Style::kMixed);
INSTANTIATE_TEST_SUITE_P(ModesAndKeys, SortedModel,
                         ::testing::Combine(::testing::Values(0, 1, 2), kStyles));

class UserModel : public ::testing::TestWithParam<Style> {};

// Sizes swing up past 128 and down below 64 twice, so the index is made,
// kept, dropped and made again. Every removal while indexed keeps its
// 16-byte lookup record allocated, on purpose.
TEST_P(UserModel, RandomSequencesAgreeWithTheModel) {
  Gen g{std::mt19937(2000u + static_cast<uint32_t>(GetParam())), GetParam(), true};
  TestTable t;
  KeptRecords kept;
  const Counters c0 = counters(t);
  Ops ops{t, _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 0, 3)};
  Watch watch(t);
  std::vector<MKey> order;
  std::vector<arbo_node*> nodes;
  auto index_of = [&](const MKey& k) -> int {
    ModelLess less{0};
    for (size_t i = 0; i < order.size(); ++i)
      if (!less(order[i], k) && !less(k, order[i])) return static_cast<int>(i);
    return -1;
  };
  auto move = [&](int from, int dest_after_removal) {
    MKey mk = order[from];
    arbo_node* mn = nodes[from];
    order.erase(order.begin() + from);
    nodes.erase(nodes.begin() + from);
    order.insert(order.begin() + dest_after_removal, mk);
    nodes.insert(nodes.begin() + dest_after_removal, mn);
  };
  const size_t targets[] = {200, 20, 160, 40, 140, 0};
  size_t phase = 0;
  int indexed_removals = 0;
  bool index_seen = false;

  for (int step = 0; step < 5000 && phase < std::size(targets); ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step << " size " << order.size());
    const bool growing = phase % 2 == 0;
    if (growing ? order.size() >= targets[phase] : order.size() <= targets[phase]) ++phase;
    const int op = g.below(100);
    MKey k = g.key();
    int at = index_of(k);
    const int n = static_cast<int>(order.size());
    if (op < (growing ? 60 : 15)) {
      arbo_node* got = ops.add(k);
      ASSERT_NE(got, nullptr);
      if (at >= 0) {
        ASSERT_EQ(got, nodes[at]);
      } else {
        order.push_back(k);
        nodes.push_back(got);
      }
    } else if (op < 75) {
      if (n > 0 && g.chance(80)) k = order[at = g.below(n)];
      if (at >= 0) watch.on(nodes[at]);
      const bool indexed = as_dyn(ops.list)->head[2] != nullptr;
      ASSERT_EQ(ops.del(k), at >= 0 ? 1 : 0);
      if (at >= 0) {
        ASSERT_EQ(watch.now(), addr_or_first(at > 0 ? nodes[at - 1] : nullptr));
        indexed_removals += indexed;
        order.erase(order.begin() + at);
        nodes.erase(nodes.begin() + at);
      }
    } else if (op < 82) {
      ASSERT_EQ(ops.find(k), at >= 0 ? nodes[at] : nullptr);
    } else if (op < 88 && n > 0) {
      // Move to a position counted with the node still in place; -1 is the
      // end, past the end and the node's own neighbourhood are refused.
      const int from = g.below(n), pos = g.below(n + 3) - 1;
      const int target = pos < 0 ? n : pos;
      const bool ok = pos <= n && target != from && target != from + 1;
      ASSERT_EQ(_arbo_nif_dl_move_to(ops.list, nodes[from], pos), ok ? 1 : 0);
      if (ok) move(from, target > from ? target - 1 : target);
    } else if (op < 94 && n > 0) {
      const int from = g.below(n), ref = g.below(n), before = g.below(2);
      const uint32_t gen0 = t.table.generation;
      ASSERT_EQ(_arbo_nif_move_rel(ops.list, nodes[from], before, nodes[ref], &t.ctx),
                from != ref ? 1 : 0);
      ASSERT_EQ(t.table.generation, gen0 + (from != ref ? 1 : 0));
      if (from != ref) {
        const int r = ref > from ? ref - 1 : ref;
        move(from, before ? r : r + 1);
      }
    } else if (n > 0) {
      const int from = g.below(n);
      ASSERT_EQ(ops.rename(nodes[from], k, false), at >= 0 ? 0 : 1);
      if (at < 0) order[from] = k;  // the position is kept
    }
    index_seen = index_seen || as_dyn(ops.list)->head[2] != nullptr;
    check_msg why;
    ASSERT_TRUE(dl_check_invariants(ops.list, &why)) << why.text;
    ASSERT_EQ(children(ops.list), nodes);
    ASSERT_EQ(_arbo_nif_dn_last_child(ops.list), nodes.empty() ? nullptr : nodes.back());
  }
  EXPECT_TRUE(index_seen);
  EXPECT_GT(indexed_removals, 0);
  expect_released(t, c0, static_cast<uint64_t>(indexed_removals));
}

INSTANTIATE_TEST_SUITE_P(Keys, UserModel, kStyles);

}  // namespace
