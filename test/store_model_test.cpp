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

// A key as the model sees it: an integer (key, ns), an opaque byte string
// (kind 6) or an encoded (int32, string) pair (kind 5, kept encoded).
struct MKey {
  bool bin = false;
  bool encoded = false;
  std::string bytes;
  int32_t i = 0;
  uint32_t ns = 0;
  // Encoded keys: the two elements, for ordering.
  int32_t ea = 0;
  std::string es;
};

// The order the lists must keep, written from the key rules directly:
// byte keys first; integers by (signed key, namespace); opaque keys by
// bytes then length, or length first in mode 1; encoded keys by the integer
// element, then the string element, length first in mode 1.
struct ModelLess {
  int mode;
  static bool str_less(const std::string& a, const std::string& b, bool length_first) {
    if (length_first && a.size() != b.size()) return a.size() < b.size();
    return a < b;
  }
  bool operator()(const MKey& a, const MKey& b) const {
    if (a.bin != b.bin) return a.bin;
    if (!a.bin) return a.i != b.i ? a.i < b.i : a.ns < b.ns;
    if (a.encoded) return a.ea != b.ea ? a.ea < b.ea : str_less(a.es, b.es, mode == 1);
    return str_less(a.bytes, b.bytes, mode == 1);
  }
};

class Gen {
 public:
  Gen(uint32_t seed, Style style, bool user) : rng_(seed), style_(style), user_(user) {}
  int below(int n) { return static_cast<int>(rng_() % static_cast<uint32_t>(n)); }
  bool chance(int percent) { return below(100) < percent; }

  MKey key() {
    Style s = style_ == Style::kMixed ? (chance(50) ? Style::kInt : Style::kOpaque) : style_;
    MKey k;
    switch (s) {
      case Style::kInt:
        // User-ordered lists: namespace 0 and keys above any byte-key length,
        // so that the index (which knows neither) tells all keys apart.
        k.i = user_ ? 100 + below(2000) : below(101) - 50;
        k.ns = user_ ? 0 : static_cast<uint32_t>(below(3));
        break;
      case Style::kOpaque:
        k.bin = true;
        k.bytes = word(below(15));  // crosses the inline limit of 10 bytes
        break;
      default:
        k.bin = k.encoded = true;
        k.ea = below(11) - 5;
        k.es = word(below(13));
        k.bytes = encoded_key(k.ea, k.es);
        break;
    }
    return k;
  }

 private:
  std::string word(int len) {
    std::string w;
    for (int i = 0; i < len; ++i) w.push_back(static_cast<char>('a' + below(3)));
    return w;
  }
  std::mt19937 rng_;
  Style style_;
  bool user_;
};

// The store calls for one model key.
struct Ops {
  TestTable& t;
  arbo_node* list;
  arbo_node* add(const MKey& k) {
    if (!k.bin) return _arbo_nif_add_hkey_int(list, static_cast<uint32_t>(k.i), k.ns, &t.ctx, 1, 0);
    return _arbo_nif_add_hkey_bin(list, bytes_of(k.bytes), k.bytes.size(), &t.ctx,
                                  k.encoded ? 5 : 6);
  }
  int del(const MKey& k) {
    if (!k.bin) return _arbo_nif_del_hkey_int(list, static_cast<uint32_t>(k.i), k.ns, &t.ctx);
    return _arbo_nif_del_hkey_bin(list, k.encoded ? 0 : 1, bytes_of(k.bytes), k.bytes.size(),
                                  &t.ctx);
  }
  arbo_node* find(const MKey& k) {
    if (!k.bin) return _arbo_nif_find_child_int(list, static_cast<uint32_t>(k.i), k.ns);
    return _arbo_nif_find_child_bin(list, k.encoded ? 0 : 1, bytes_of(k.bytes), k.bytes.size());
  }
  int rename(arbo_node* n, const MKey& k, bool btuple) {
    int kind = !k.bin ? (btuple ? 3 : 2) : (k.encoded ? 5 : 4);
    return _arbo_nif_dn_rename_instance(list, n, kind, k.bin ? bytes_of(k.bytes) : nullptr,
                                        k.bytes.size(), k.ns, k.i, &t.ctx);
  }
  arbo_node* find_next(const MKey& k, int inclusive) {
    return _arbo_nif_dn_find_next(list, k.bin ? bytes_of(k.bytes) : nullptr, k.bytes.size(),
                                  k.bin ? (k.encoded ? 0 : 1) : k.i, k.ns, inclusive);
  }
  void mark_inactive(arbo_node* n) {
    _arbo_nif_attr_set(&t.ctx, n, 0, bytes_of("i"), 1);
    const unsigned char plus_one[] = {8, 0, 0, 0, 1};
    _arbo_nif_attr_set_with_gen(list, 0, plus_one, sizeof plus_one, &t.ctx);
  }
};

// A one-entry iterator stack standing on the node about to be removed.
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
uintptr_t addr_or_first(arbo_node* n) {
  return n ? reinterpret_cast<uintptr_t>(n) : kBeforeFirst;
}

struct SortedCase {
  int mode;
  Style style;
};

class SortedModel : public ::testing::TestWithParam<SortedCase> {};

TEST_P(SortedModel, RandomSequencesAgreeWithTheModel) {
  const SortedCase c = GetParam();
  const uint32_t seed = 1000u + static_cast<uint32_t>(c.mode * 10 + static_cast<int>(c.style));
  srandom(seed);  // skip-list heights
  Gen g(seed, c.style, false);
  TestTable t;
  const Counters c0 = counters(t);
  Ops ops{t, _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 0, static_cast<uint8_t>(c.mode))};
  Watch watch(t);
  std::map<MKey, arbo_node*, ModelLess> model(ModelLess{c.mode});
  uint32_t inactive_cache = _arbo_nif_attr_inactive_count(&t.ctx, ops.list);

  for (int step = 0; step < 1500; ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    const int op = g.below(100);
    MKey k = g.key();
    auto it = model.find(k);
    if (op < 40) {
      arbo_node* n = ops.add(k);
      ASSERT_NE(n, nullptr);
      if (it != model.end()) {
        ASSERT_EQ(n, it->second);
      } else {
        model.emplace(k, n);
        if (!k.bin && g.chance(30))
          _arbo_nif_set_val(n, &t.ctx, bytes_of(std::string(30, 'v')), 5 + g.below(20), 17);
        if (g.chance(15)) {
          ops.mark_inactive(n);
          ++inactive_cache;
        }
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
        if (is_inactive(it->second)) --inactive_cache;
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
        if (is_inactive(n)) --inactive_cache;  // the count drops and stays dropped
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
    ASSERT_EQ(_arbo_nif_attr_inactive_count(nullptr, ops.list), inactive_cache);
  }
  ASSERT_TRUE(TreeOk(t.root()));
  EXPECT_EQ(t.table.size, subtree_node_count(t.root()));
  EXPECT_EQ(_arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx), 1);
  EXPECT_EQ(t.table.mem, c0.mem);
  EXPECT_EQ(t.table.size, c0.size);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
}

std::vector<SortedCase> sorted_cases() {
  std::vector<SortedCase> out;
  for (int mode : {0, 1, 2})
    for (Style s : {Style::kInt, Style::kOpaque, Style::kEncoded, Style::kMixed})
      out.push_back({mode, s});
  return out;
}
INSTANTIATE_TEST_SUITE_P(ModesAndKeys, SortedModel, ::testing::ValuesIn(sorted_cases()));

class UserModel : public ::testing::TestWithParam<Style> {};

// Sizes swing up past 128 and down below 64 twice, so the index is made,
// kept, dropped and made again.
TEST_P(UserModel, RandomSequencesAgreeWithTheModel) {
  const uint32_t seed = 2000u + static_cast<uint32_t>(GetParam());
  Gen g(seed, GetParam(), true);
  TestTable t;
  KeptRecords kept;
  const Counters c0 = counters(t);
  Ops ops{t, _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 0, 3)};
  Watch watch(t);
  std::vector<MKey> order;
  std::vector<arbo_node*> nodes;
  ModelLess less{0};
  auto index_of = [&](const MKey& k) -> int {
    for (size_t i = 0; i < order.size(); ++i)
      if (!less(order[i], k) && !less(k, order[i])) return static_cast<int>(i);
    return -1;
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
      if (n > 0 && g.chance(80)) {
        at = g.below(n);
        k = order[at];
      }
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
      // Move to a position counted with the node still in place.
      const int from = g.below(n), pos = g.below(n + 3) - 1;
      int target = pos < 0 ? n : pos;  // n: the end
      bool ok = pos <= n && target != from && !(target == from + 1) &&
                !(target == n && from == n - 1);
      ASSERT_EQ(_arbo_nif_dl_move_to(ops.list, nodes[from], pos), ok ? 1 : 0);
      if (ok) {
        int dest = target > from ? target - 1 : target;
        MKey mk = order[from];
        arbo_node* mn = nodes[from];
        order.erase(order.begin() + from);
        nodes.erase(nodes.begin() + from);
        order.insert(order.begin() + dest, mk);
        nodes.insert(nodes.begin() + dest, mn);
      }
    } else if (op < 94 && n > 0) {
      const int from = g.below(n), ref = g.below(n), before = g.below(2);
      const uint32_t gen0 = t.table.generation;
      ASSERT_EQ(_arbo_nif_move_rel(ops.list, nodes[from], before, nodes[ref], &t.ctx),
                from != ref ? 1 : 0);
      ASSERT_EQ(t.table.generation, gen0 + (from != ref ? 1 : 0));
      if (from != ref) {
        MKey mk = order[from];
        arbo_node* mn = nodes[from];
        arbo_node* rn = nodes[ref];
        order.erase(order.begin() + from);
        nodes.erase(nodes.begin() + from);
        int r = static_cast<int>(std::find(nodes.begin(), nodes.end(), rn) - nodes.begin());
        int dest = before ? r : r + 1;
        order.insert(order.begin() + dest, mk);
        nodes.insert(nodes.begin() + dest, mn);
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
  EXPECT_EQ(_arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx), 1);
  EXPECT_EQ(t.table.mem, c0.mem + 16u * static_cast<uint64_t>(indexed_removals));
  EXPECT_EQ(t.table.size, c0.size);
  EXPECT_EQ(arbo_shim::live_resources(), c0.resources);
}

INSTANTIATE_TEST_SUITE_P(Keys, UserModel,
                         ::testing::Values(Style::kInt, Style::kOpaque, Style::kEncoded,
                                           Style::kMixed));

}  // namespace
