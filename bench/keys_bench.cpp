// Cost of one key comparison as a skip-list step pays it: a stored node
// against a search key, for the three common key shapes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "arbo_keys.h"

using namespace arbo;

namespace {

struct BenchNode {
  alignas(16) unsigned char mem[128] = {};
  arbo_node* n() { return reinterpret_cast<arbo_node*>(mem); }
};

// An int32 instance key: node 1000 in namespace 0, searched for 1001.
void BM_CmpInt32Key(benchmark::State& state) {
  BenchNode node;
  node.n()->tw = T_GEN_NODE_TWO | F_KEY_IS_TUPLE;
  node.n()->set_hkey(1000);
  int32_t key = 1001;
  for (auto _ : state) {
    benchmark::DoNotOptimize(key);
    benchmark::DoNotOptimize(cmp(node.n(), nullptr, 0, key, 0, 0));
  }
}
BENCHMARK(BM_CmpInt32Key);

BenchNode bin_node(const std::vector<unsigned char>& k) {
  BenchNode node;
  node.n()->tw = T_GEN_NODE_TWO | F_KEY_IS_BIN;
  std::memcpy(as_gen(node.n())->val, k.data(), k.size());
  as_gen(node.n())->small_len = static_cast<uint8_t>(k.size());
  return node;
}

// A short string key (one type-200 element, inline), differing in its last
// byte, in the plain and the length-first modes.
void BM_CmpShortStringKey(benchmark::State& state) {
  const std::vector<unsigned char> stored = {200, 5, 'e', 't', 'h', '0', '1'};
  const std::vector<unsigned char> search = {200, 5, 'e', 't', 'h', '0', '2'};
  BenchNode node = bin_node(stored);
  const int mode = static_cast<int>(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(cmp(node.n(), search.data(), 7, 0, 0, mode));
  }
}
BENCHMARK(BM_CmpShortStringKey)->Arg(0)->Arg(1);

// A three-element key {int32, string, uint8} that differs in its last
// element: every element is parsed and compared.
void BM_CmpThreeElementKey(benchmark::State& state) {
  const std::vector<unsigned char> stored = {8, 0, 0, 0, 42, 200, 4, 'e', 't', 'h', '0', 10, 3};
  std::vector<unsigned char> search = stored;
  search.back() = 4;
  BenchNode node;
  node.n()->tw = T_GEN_NODE_TWO | F_KEY_IS_BIN;
  // 13 bytes do not fit inline: the key lives in a shared binary.
  std::vector<uint64_t> bin(1 + (stored.size() + 7) / 8);
  auto* b = reinterpret_cast<arbo_bin*>(bin.data());
  b->len = stored.size();
  std::memcpy(b->bytes(), stored.data(), stored.size());
  node.n()->key = reinterpret_cast<uintptr_t>(b);
  const int mode = static_cast<int>(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        cmp(node.n(), search.data(), static_cast<int32_t>(search.size()), 0, 0, mode));
  }
}
BENCHMARK(BM_CmpThreeElementKey)->Arg(0)->Arg(1)->Arg(2);

}  // namespace
