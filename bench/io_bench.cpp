// Save files outside the VM (malloc-backed runtime stand-in): loading and
// saving a sorted list of n integer instances with 10-byte values, raw
// binaries (0D records) or encoded values kept in the node (09 records).
// Against the Erlang-level figures this separates the loader's own cost from
// the runtime allocator's.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "arbo_io.h"
#include "arbo_store.h"
#include "../test/enif_shim.h"

using namespace arbo;
using arbo_shim::TestTable;

namespace {

std::string list_file(int n, bool csval) {
  std::vector<unsigned char> b = {0xEE, 0xDA, 0x00, 0x01, OP_BEGIN_TRANS,
                                  io_opcode(OP_CD_DYN, KF_HTAG), 0, 0, 0, 1, ORDER_PLAIN};
  for (int k = 1; k <= n; ++k) {
    const unsigned char rec[] = {io_opcode(OP_CD, KF_HKEY_INT), static_cast<unsigned char>(k >> 24),
                                 static_cast<unsigned char>(k >> 16),
                                 static_cast<unsigned char>(k >> 8), static_cast<unsigned char>(k)};
    b.insert(b.end(), rec, rec + sizeof rec);
    if (csval) {  // a string element of 8 bytes
      b.insert(b.end(), {OP_INSERT, TYPE_STRING, 8});
      b.insert(b.end(), 8, static_cast<unsigned char>(k));
    } else {
      b.insert(b.end(), {OP_INSERT_BIN0, 10});
      b.insert(b.end(), 10, static_cast<unsigned char>(k));
    }
    b.push_back(OP_CD_UP_1);
  }
  b.push_back(OP_CD_UP_1);
  b.push_back(OP_TRANS_END);
  std::string path = "/tmp/arbo_io_bench_" + std::to_string(getpid()) + "_" + std::to_string(n);
  FILE* f = std::fopen(path.c_str(), "wb");
  std::fwrite(b.data(), 1, b.size(), f);
  std::fclose(f);
  return path;
}

void BM_LoadSortedList(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::string path = list_file(n, state.range(1) != 0);
  ErlNifPid none;
  enif_set_pid_undefined(&none);
  for (auto _ : state) {
    auto t = std::make_unique<TestTable>();
    load_result res{};
    if (_arbo_nif_io_load(nullptr, &t->table, path.c_str(), -1, 0, &none, &res) != LOAD_OK)
      state.SkipWithError("load failed");
    state.PauseTiming();  // freeing the tree is not the load's cost
    t.reset();
    state.ResumeTiming();
  }
  std::remove(path.c_str());
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LoadSortedList)
    ->ArgNames({"n", "csval"})
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Unit(benchmark::kMillisecond);

void BM_SaveSortedList(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::string path = list_file(n, false);
  TestTable t;
  ErlNifPid none;
  enif_set_pid_undefined(&none);
  load_result res{};
  _arbo_nif_io_load(nullptr, &t.table, path.c_str(), -1, 0, &none, &res);
  for (auto _ : state) {
    if (_arbo_nif_io_save(nullptr, &t.table, path.c_str(), 0) != SAVE_OK)
      state.SkipWithError("save failed");
  }
  std::remove(path.c_str());
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_SaveSortedList)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
