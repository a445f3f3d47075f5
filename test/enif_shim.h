// The runtime stand-in used by the C++ unit tests and micro benchmarks.
#ifndef ARBO_TEST_ENIF_SHIM_H
#define ARBO_TEST_ENIF_SHIM_H

#include "arbo_node.h"
#include "arbo_store.h"

namespace arbo_shim {

// Resources (arbo_bin) allocated and not yet released.
long live_resources();

// A table with an empty root and the library state, for store tests.
struct TestTable {
  TestTable();
  ~TestTable();
  TestTable(const TestTable&) = delete;
  TestTable& operator=(const TestTable&) = delete;
  arbo::arbo_t table;
  arbo::store_ctx ctx;
  arbo::arbo_node* root() { return table.root; }
};

}  // namespace arbo_shim

#endif  // ARBO_TEST_ENIF_SHIM_H
