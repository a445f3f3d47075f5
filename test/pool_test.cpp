// Node pool: random alloc/free sequences against a model of the live slots.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "arbo_alloc.h"
#include "enif_shim.h"

using namespace arbo;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kNodesPooled = false;
#else
constexpr bool kNodesPooled = true;
#endif

constexpr uintptr_t kPage = 4096;

// Live blocks by address, each filled with its own byte: an overlap shows
// as a changed fill when the block is removed.
class LiveModel {
 public:
  void add(const void* p, size_t len, unsigned char fill) {
    ASSERT_TRUE(live_.emplace(reinterpret_cast<uintptr_t>(p), std::make_pair(len, fill)).second);
    std::memset(const_cast<void*>(p), fill, len);
  }
  // Checks that nobody wrote over the block while it was live, then drops it.
  void remove(const void* p) {
    auto it = live_.find(reinterpret_cast<uintptr_t>(p));
    ASSERT_NE(it, live_.end());
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < it->second.first; ++i) ASSERT_EQ(b[i], it->second.second) << i;
    live_.erase(it);
  }

 private:
  std::map<uintptr_t, std::pair<size_t, unsigned char>> live_;  // length, fill
};

}  // namespace

// Nodes of all five types through the store's allocator: aligned, zero-filled,
// never overlapping, counted by node_size whatever the slot, and the pool's
// chunks gone once only the root is left.
TEST(NodePool, RandomNodesAgainstModel) {
  const uint32_t types[] = {T_INT_NODE, T_DYN_NODE, T_GEN_NODE_ONE, T_GEN_NODE_TWO,
                            T_GEN_NODE_MAX};
  for (unsigned seed = 1; seed <= 4; ++seed) {
    arbo_shim::TestTable t;
    const uint64_t mem0 = t.table.mem, lib0 = t.table.alloc_state->mem.load();
    std::mt19937 rng(seed);
    LiveModel model;
    std::vector<std::pair<arbo_node*, uint32_t>> live;
    uint64_t bytes = 0;
    // Grow, shrink to nothing, grow again: chunks are made, emptied and remade.
    const int phases[] = {6000, 0, 3000, 0};
    for (int target : phases) {
      for (int step = 0; step < 20000 && static_cast<int>(live.size()) != target; ++step) {
        bool grow = static_cast<int>(live.size()) < target ? rng() % 4 != 0 : rng() % 4 == 0;
        if (grow || live.empty()) {
          uint32_t type = types[rng() % 5];
          arbo_node* n = _arbo_nif_node_alloc(&t.ctx, type);
          ASSERT_NE(n, nullptr);
          const auto* b = reinterpret_cast<const unsigned char*>(n);
          const size_t sz = node_size(type);
          ASSERT_EQ(_arbo_pool_class(sz), sz > 64 ? 1u : 0u);
          ASSERT_EQ(n->tw, type);
          auto zero = [&](size_t from, size_t to) {
            return std::all_of(b + from, b + to, [](unsigned char c) { return c == 0; });
          };
          ASSERT_TRUE(zero(0, offsetof(arbo_node, tw)) && zero(offsetof(arbo_node, tw) + 4, sz));
          const auto a = reinterpret_cast<uintptr_t>(n);
          ASSERT_TRUE(!kNodesPooled || (a % 64 == 0 && (a & (kPage - 1)) + sz <= kPage));
          ASSERT_NO_FATAL_FAILURE(model.add(n, sz, static_cast<unsigned char>(0x80 | (rng() & 0x7f))));
          live.push_back({n, type});
          bytes += sz;
        } else {
          size_t i = rng() % live.size();
          auto [n, type] = live[i];
          live[i] = live.back();
          live.pop_back();
          // The fill went over the whole record: check it, restore the type, free.
          ASSERT_NO_FATAL_FAILURE(model.remove(n));
          n->tw = type;
          ASSERT_EQ(_arbo_nif_node_free(n, &t.ctx), 1);
          bytes -= node_size(type);
        }
        ASSERT_EQ(t.table.size, live.size());
        ASSERT_EQ(t.table.mem, mem0 + bytes);
        ASSERT_EQ(t.table.alloc_state->mem.load(), lib0 + bytes);
        ASSERT_EQ(t.table.pool->live, kNodesPooled ? live.size() + 1 : 0);  // + the root
      }
      ASSERT_EQ(static_cast<int>(live.size()), target);
      EXPECT_TRUE(target != 0 || t.table.pool->chunks[0] == 0);
    }
  }
}

// The pool on its own: slots of both classes across many chunks, each inside
// one page past its page header; freeing every slot in random order gives
// every chunk back, and a pool destroyed with live slots frees them all.
TEST(NodePool, ChunksComeAndGo) {
  for (unsigned cls = 0; cls < kPoolClasses; ++cls) {
    const size_t sz = cls == 0 ? 64 : 128;
    node_pool* pool = _arbo_pool_create();
    std::vector<void*> slots;
    LiveModel model;
    for (int i = 0; i < 5000; ++i) {
      void* p = _arbo_pool_alloc(pool, cls);
      const auto a = reinterpret_cast<uintptr_t>(p);
      ASSERT_TRUE(a % 64 == 0 && (a & (kPage - 1)) >= 64 && (a & (kPage - 1)) + sz <= kPage);
      ASSERT_NO_FATAL_FAILURE(model.add(p, sz, static_cast<unsigned char>(i)));
      slots.push_back(p);
    }
    EXPECT_EQ(pool->live, 5000u);
    // Chunks grow to 16 pages: 5000 slots need only a handful of them.
    EXPECT_GE(pool->chunks[cls], 3u);
    EXPECT_LE(pool->chunks[cls], 8u + 5000 * sz / (16 * kPage));
    EXPECT_LT(pool->bytes, 5000 * sz * 14 / 10) << "pool overhead above 40%";
    // The first half in allocation order (a list deleted from its start)
    // empties whole chunks; the rest in random order.
    const uint32_t peak = pool->chunks[cls];
    std::shuffle(slots.begin() + slots.size() / 2, slots.end(), std::mt19937(cls + 11));
    for (size_t i = 0; i < slots.size(); ++i) {
      ASSERT_NO_FATAL_FAILURE(model.remove(slots[i]));
      _arbo_pool_free(pool, slots[i]);
      if (i + 1 == slots.size() / 2) {
        EXPECT_LT(pool->chunks[cls], peak) << "a table that shrinks keeps its chunks";
      }
    }
    EXPECT_EQ(pool->chunks[cls], 0u);
    EXPECT_EQ(pool->bytes, 0u);
    EXPECT_EQ(pool->all, nullptr);
    for (int i = 0; i < 300; ++i) _arbo_pool_alloc(pool, cls);
    _arbo_pool_destroy(pool);  // the sanitizer build reports a leaked chunk
  }
}
