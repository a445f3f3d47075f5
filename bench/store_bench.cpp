// Node store costs: building sorted lists (random keys, ascending keys with
// and without the append hint), lookups in sorted and user-ordered lists on
// both sides of the index threshold, and deleting a populated subtree.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "arbo_store.h"
#include "../test/enif_shim.h"

using namespace arbo;
using arbo_shim::TestTable;

namespace {

std::vector<uint32_t> shuffled(int n) {
  std::vector<uint32_t> keys(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) keys[static_cast<size_t>(i)] = static_cast<uint32_t>(i * 2);
  std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
  return keys;
}

// n integer instances in random order into a fresh sorted list.
void BM_SortedInsertRandom(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<uint32_t> keys = shuffled(n);
  TestTable t;
  for (auto _ : state) {
    arbo_node* l = _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 0, 0);
    for (uint32_t k : keys) _arbo_nif_add_hkey_int(l, k, 0, &t.ctx, 1, 0);
    state.PauseTiming();
    _arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_SortedInsertRandom)->Arg(1000)->Arg(100000);

// n ascending keys, as the loader appends a saved list: sl_insert searches
// from the top each time; the hint links at the end directly.
void BM_SortedAppend(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const bool hinted = state.range(1) != 0;
  TestTable t;
  for (auto _ : state) {
    arbo_node* l = _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 0, 0);
    sl_append_hint hint;
    for (int i = 0; i < n; ++i) {
      arbo_node* node = _arbo_nif_dn_new(l, &t.ctx);
      node->set_hkey(static_cast<uint32_t>(i));
      if (hinted) sl_insert_hinted(l, node, &t.ctx, &hint);
      else sl_insert(l, node, &t.ctx);
    }
    state.PauseTiming();
    _arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_SortedAppend)->Args({100000, 0})->Args({100000, 1});

// Lookups by key: sorted (mode 0) or user-ordered (mode 3) lists of n.
void BM_FindInstance(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const auto mode = static_cast<uint8_t>(state.range(1));
  const std::vector<uint32_t> keys = shuffled(n);
  TestTable t;
  arbo_node* l = _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 0, mode);
  for (uint32_t k : keys) _arbo_nif_add_hkey_int(l, k, 0, &t.ctx, 1, 0);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(_arbo_nif_find_child_int(l, keys[i], 0));
    if (++i == keys.size()) i = 0;
  }
}
BENCHMARK(BM_FindInstance)
    ->Args({127, 0})->Args({127, 3})->Args({128, 3})->Args({100000, 0})->Args({100000, 3});

// A container holding a sorted list of n instances, each with a value and
// an attribute, deleted whole.
void BM_DeleteSubtree(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const unsigned char val[24] = {1};
  TestTable t;
  for (auto _ : state) {
    state.PauseTiming();
    arbo_node* c = _arbo_nif_add_hkey_int(t.root(), 1, 0, &t.ctx, 2, 0);
    arbo_node* l = _arbo_nif_add_hkey_int(c, 1, 0, &t.ctx, 0, 0);
    for (int i = 0; i < n; ++i) {
      arbo_node* x = _arbo_nif_add_hkey_int(l, static_cast<uint32_t>(i), 0, &t.ctx, 1, 0);
      _arbo_nif_set_val(x, &t.ctx, val, sizeof val, VAL_BINARY);
      _arbo_nif_attr_set(&t.ctx, x, 3, val, 4);
    }
    state.ResumeTiming();
    _arbo_nif_del_hkey_int(t.root(), 1, 0, &t.ctx);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_DeleteSubtree)->Arg(100000);

}  // namespace
