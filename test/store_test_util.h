// Helpers shared by the node store's unit tests.
#ifndef ARBO_TEST_STORE_TEST_UTIL_H
#define ARBO_TEST_STORE_TEST_UTIL_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "arbo_alloc.h"
#include "arbo_node.h"
#include "arbo_store.h"
#include "arbo_store_check.h"
#include "enif_shim.h"

#if defined(__SANITIZE_ADDRESS__)
#define ARBO_TEST_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ARBO_TEST_LSAN 1
#endif
#endif
#ifdef ARBO_TEST_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace store_test {

using arbo::arbo_node;

// Fails the current test with the checker's reason.
inline ::testing::AssertionResult TreeOk(const arbo_node* n) {
  arbo::check_msg why;
  if (arbo::tree_check_invariants(n, &why)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << why.text;
}

// Children in sibling order.
inline std::vector<arbo_node*> children(const arbo_node* n) {
  std::vector<arbo_node*> out;
  for (arbo_node* c = n->child; c != nullptr; c = arbo::sibling(c)) out.push_back(c);
  return out;
}

inline const unsigned char* bytes_of(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

// An indexed removal from a user-ordered list keeps its 16-byte lookup record
// allocated on purpose; the leak checker ignores what this scope allocates.
#ifdef ARBO_TEST_LSAN
using KeptRecords = __lsan::ScopedDisabler;
#else
struct KeptRecords {
  KeptRecords() {}
};
#endif

// The table's counters at one moment.
struct Counters {
  uint64_t mem;
  uint32_t size;
  long resources;
};
inline Counters counters(arbo_shim::TestTable& t) {
  return {t.table.mem, t.table.size, arbo_shim::live_resources()};
}

}  // namespace store_test

#endif  // ARBO_TEST_STORE_TEST_UTIL_H
