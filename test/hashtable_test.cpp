// The chained hash table and the node-store key equality: sizing, growth
// across primes (fresh array and in-place fallback) and failing
// allocations. The index as the store uses it (records, lookups,
// thresholds) is followed by the list model in store_model_test.cpp.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string_view>
#include <vector>

#include "arbo_keys.h"
#include "mirel_hashtable.h"

using namespace arbo;

namespace {

// Small integers carried in the key pointer itself.
uint32_t ptr_hash(const void* k) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(k)); }
int ptr_eq(const void* a, const void* b) { return a == b; }
void* key_of(uintptr_t v) { return reinterpret_cast<void*>(v); }

// An allocator that refuses blocks of at least `refuse_from` bytes, counting
// the blocks it holds out, and a key release that counts its calls.
size_t refuse_from = SIZE_MAX;
long live = 0, keys_freed = 0;
void* t_alloc(size_t n) { return n >= refuse_from ? nullptr : (++live, std::malloc(n)); }
void t_free(void* p) { live -= p != nullptr, std::free(p); }
void t_free_key(void*, uint64_t arg) { keys_freed += arg == 77; }
mirel_hashtable* make(size_t refuse = SIZE_MAX) {
  refuse_from = refuse, live = keys_freed = 0;
  return _mirel_create_hashtable_mallf(0, ptr_hash, ptr_eq, t_alloc, t_free, t_free_key, 77);
}

// Inserting keys 1..1500 grows across primes at the load limit, the same
// whether each new bucket array is granted or refused (growth in place, the
// enlarged array going back through the release function). Refused entries
// and bucket arrays leave the table as it was.
TEST(HashTable, GrowthAndFailedAllocations) {
  EXPECT_EQ(_mirel_create_hashtable((1u << 30) + 1, ptr_hash, ptr_eq), nullptr);
  const std::vector<std::pair<uint32_t, uint32_t>> growth = {
      {36, 97}, {65, 193}, {127, 389}, {254, 769}, {501, 1543}, {1004, 3079}};
  for (size_t refuse : {SIZE_MAX, 97 * sizeof(void*)}) {
    mirel_hashtable* h = make();
    refuse_from = refuse;
    std::vector<std::pair<uint32_t, uint32_t>> steps;
    for (uintptr_t k = 1; k <= 1500; ++k) {
      ASSERT_EQ(_mirel_hashtable_insert(h, key_of(k), key_of(k * 10)), 1);
      if (_mirel_hashtable_bucket_count(h) != (steps.empty() ? 53 : steps.back().second)) {
        steps.emplace_back(_mirel_hashtable_count(h), _mirel_hashtable_bucket_count(h));
        ASSERT_EQ(_mirel_hashtable_check(h), 1) << k;
      }
    }
    EXPECT_EQ(steps, growth);
    for (uintptr_t k = 1; k <= 1501; ++k)
      EXPECT_EQ(_mirel_hashtable_search(h, key_of(k)), k > 1500 ? nullptr : key_of(k * 10));
    _mirel_hashtable_destroy(h, 0);
    EXPECT_TRUE(live == 0 && keys_freed == 1500);
  }
  EXPECT_TRUE(make(53 * sizeof(void*)) == nullptr && live == 0);  // buckets refused
  mirel_hashtable* h = make();
  for (uintptr_t k = 1; k <= 35; ++k) _mirel_hashtable_insert(h, key_of(k), nullptr);
  refuse_from = 0;  // the 36th insert grows in place but cannot allocate its entry
  EXPECT_EQ(_mirel_hashtable_insert(h, key_of(36), nullptr), 0);
  refuse_from = SIZE_MAX;
  EXPECT_TRUE(_mirel_hashtable_count(h) == 35 && _mirel_hashtable_check(h) == 1);
  _mirel_hashtable_destroy(h, 0);
  EXPECT_TRUE(live == 0 && keys_freed == 35);
}

// ---- node-store keys ----------------------------------------------------------------

ht_key bytes_key(std::string_view s) { return {reinterpret_cast<const unsigned char*>(s.data()), s.size()}; }
ht_key int_key(uint64_t v) { return {nullptr, v}; }

// A byte key equals an integer key whose value is its length; integer keys
// compare all 64 bits.
TEST(NodeKeys, Equality) {
  const ht_key abc = bytes_key("abc"), three = int_key(3), one = int_key(1), wide = int_key(0x100000001ull);
  EXPECT_TRUE(ht_keys_equal(&three, &abc) && ht_keys_equal(&abc, &three) && !ht_keys_equal(&one, &wide));
}

}  // namespace
