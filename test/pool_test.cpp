// Node pool: random alloc/free sequences against a model of the live blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "arbo_alloc.h"
#include "enif_shim.h"

using namespace arbo;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kNodesPooled = false;
#else
constexpr bool kNodesPooled = true;
#endif
constexpr uintptr_t kPage = 4096;

// Nodes of all five types through the store's allocator: aligned (64-byte
// records on cache lines) inside one page past its header, zero-filled,
// never overlapping, counted by node_size whatever the slot. Each live block
// holds its own fill byte: an overlap shows as a changed fill when the block
// is freed. Grown, emptied, grown and emptied again: chunks are made, given
// back (all but the root's) and remade.
TEST(NodePool, RandomNodesAgainstModel) {
  const uint32_t types[] = {T_INT_NODE, T_DYN_NODE, T_GEN_NODE_ONE, T_GEN_NODE_TWO, T_GEN_NODE_MAX};
  for (unsigned seed = 1; seed <= 4; ++seed) {
    arbo_shim::TestTable t;
    uint64_t mem0 = t.table.mem, lib0 = t.table.alloc_state->mem.load(), bytes = 0;
    std::mt19937 rng(seed);
    std::vector<std::tuple<arbo_node*, uint32_t, unsigned char>> live;
    for (size_t target : {6000, 0, 3000, 0}) {
      for (int step = 0; step < 20000 && live.size() != target; ++step) {
        if (live.empty() || (live.size() < target ? rng() % 4 != 0 : rng() % 4 == 0)) {
          const uint32_t type = types[rng() % 5];
          const size_t sz = node_size(type);
          arbo_node* n = _arbo_nif_node_alloc(&t.ctx, type);
          ASSERT_TRUE(n != nullptr && n->tw == type);
          const auto* b = reinterpret_cast<const unsigned char*>(n);
          n->tw = 0;
          ASSERT_TRUE(std::all_of(b, b + sz, [](unsigned char c) { return c == 0; }));
          const auto a = reinterpret_cast<uintptr_t>(n), off = a & (kPage - 1);
          ASSERT_TRUE(!kNodesPooled || (a % (sz == 64 ? 64 : 8) == 0 && off >= 8 && off + sz <= kPage));
          live.emplace_back(n, type, static_cast<unsigned char>(0x80 | rng()));
          std::memset(n, std::get<2>(live.back()), sz);
          bytes += sz;
        } else {
          const size_t i = rng() % live.size();
          const auto [n, type, fill] = live[i];
          live[i] = live.back(), live.pop_back();
          const auto* b = reinterpret_cast<const unsigned char*>(n);
          ASSERT_TRUE(std::all_of(b, b + node_size(type), [&](unsigned char c) { return c == fill; }));
          n->tw = type;
          ASSERT_EQ(_arbo_nif_node_free(n, &t.ctx), 1);
          bytes -= node_size(type);
        }
        ASSERT_TRUE(t.table.size == live.size() && t.table.mem == mem0 + bytes);
        ASSERT_EQ(t.table.alloc_state->mem.load(), lib0 + bytes);
        ASSERT_EQ(t.table.pool->live, kNodesPooled ? live.size() + 1 : 0);  // + the root
      }
      ASSERT_EQ(live.size(), target);
      EXPECT_TRUE(target != 0 || t.table.pool->chunks == (kNodesPooled ? 1u : 0u));  // the root's chunk
    }
  }
}
