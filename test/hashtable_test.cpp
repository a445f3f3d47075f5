// The chained hash table and the node-store key callbacks: sizing, growth
// across primes (fresh array and in-place fallback), a model-checked random
// sequence, failing allocations, destroy, and the key hash against values
// computed independently of this code.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "arbo_alloc.h"
#include "arbo_keys.h"
#include "enif_shim.h"
#include "mirel_hashtable.h"

using namespace arbo;

namespace {

// Hash and equality over small integers carried in the key pointer itself.
uint32_t ptr_hash(const void* k) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(k)); }
int ptr_eq(const void* a, const void* b) { return a == b; }
void* key_of(uintptr_t v) { return reinterpret_cast<void*>(v); }
void* val_of(uintptr_t v) { return key_of(v); }

// An allocator that can be told to refuse everything, or only blocks of at
// least `refuse_from` bytes (bucket arrays), counting the blocks it holds
// out, and a key release that logs (key, argument).
struct TestAlloc {
  static inline bool refuse_all = false;
  static inline size_t refuse_from = SIZE_MAX;
  static inline long live = 0;
  static inline std::vector<std::pair<uintptr_t, uint64_t>> freed_keys;
  static void* alloc(size_t n) {
    if (refuse_all || n >= refuse_from) return nullptr;
    return ++live, std::malloc(n);
  }
  static void release(void* p) { live -= p != nullptr, std::free(p); }
  static void free_key(void* k, uint64_t arg) { freed_keys.emplace_back(uintptr_t(k), arg); }
};

class HashTable : public ::testing::Test {
 protected:
  void SetUp() override {
    TestAlloc::refuse_all = false, TestAlloc::refuse_from = SIZE_MAX, TestAlloc::live = 0;
    TestAlloc::freed_keys.clear();
  }
  static mirel_hashtable* make() {
    return _mirel_create_hashtable_mallf(0, ptr_hash, ptr_eq, TestAlloc::alloc, TestAlloc::release,
                                         TestAlloc::free_key, 77);
  }
};

TEST_F(HashTable, SizingFromMinsizeAndMixedHash) {
  const uint32_t rows[][2] = {{0, 53}, {52, 53}, {53, 97}, {97, 193}, {100000, 196613}};
  for (const auto& r : rows) {
    mirel_hashtable* h = _mirel_create_hashtable(r[0], ptr_hash, ptr_eq);
    EXPECT_EQ(_mirel_hashtable_bucket_count(h), r[1]) << r[0];
    EXPECT_EQ(_mirel_hashtable_check(h), 1);
    _mirel_hashtable_destroy(h, 0);
  }
  EXPECT_EQ(_mirel_create_hashtable((1u << 30) + 1, ptr_hash, ptr_eq), nullptr);
  // The mixed hash of known inputs, computed by hand-written reference
  // arithmetic outside this code.
  mirel_hashtable* h = make();
  const uint32_t mix[][2] = {
      {0, 0}, {1, 0xfc5dcee7u}, {0xdeadbeef, 0x51b6cc4du}, {0xffffffff, 0xf0d9ffd6u}};
  for (const auto& r : mix) EXPECT_EQ(_mirel_hashtable_hash(h, key_of(r[0])), r[1]);
  _mirel_hashtable_destroy(h, 0);
}

// Inserting keys 1..1500 grows across primes at the load limit, the same
// whether each new bucket array is granted or refused (growth in place, the
// enlarged array going back through the release function).
TEST_F(HashTable, GrowsAcrossPrimesAtTheLoadLimit) {
  const std::vector<std::pair<uint32_t, uint32_t>> growth = {
      {36, 97}, {65, 193}, {127, 389}, {254, 769}, {501, 1543}, {1004, 3079}};
  for (size_t refuse_from : {SIZE_MAX, 97 * sizeof(void*)}) {
    SetUp();
    mirel_hashtable* h = make();
    TestAlloc::refuse_from = refuse_from;
    std::vector<std::pair<uint32_t, uint32_t>> steps;
    for (uintptr_t k = 1; k <= 1500; ++k) {
      ASSERT_EQ(_mirel_hashtable_insert(h, key_of(k), val_of(k * 10)), 1);
      if (_mirel_hashtable_bucket_count(h) != (steps.empty() ? 53 : steps.back().second)) {
        steps.emplace_back(_mirel_hashtable_count(h), _mirel_hashtable_bucket_count(h));
        ASSERT_EQ(_mirel_hashtable_check(h), 1) << k;
      }
    }
    EXPECT_EQ(steps, growth);
    for (uintptr_t k = 1; k <= 1501; ++k)
      EXPECT_EQ(_mirel_hashtable_search(h, key_of(k)), k > 1500 ? nullptr : val_of(k * 10));
    _mirel_hashtable_destroy(h, 0);
    EXPECT_EQ(TestAlloc::live, 0);
    EXPECT_EQ(TestAlloc::freed_keys.size(), 1500u);
  }
}

TEST_F(HashTable, FailedAllocationsLeaveTheTableConsistent) {
  TestAlloc::refuse_all = true;
  EXPECT_EQ(make(), nullptr);
  TestAlloc::refuse_all = false;
  TestAlloc::refuse_from = 53 * sizeof(void*);  // the record passes, its buckets do not
  EXPECT_EQ(make(), nullptr);
  EXPECT_EQ(TestAlloc::live, 0);
  TestAlloc::refuse_from = SIZE_MAX;
  mirel_hashtable* h = make();
  for (uintptr_t k = 1; k <= 35; ++k)
    ASSERT_EQ(_mirel_hashtable_insert(h, key_of(k), val_of(k)), 1);
  // The 36th insert grows (in place, the new array being refused) but cannot
  // allocate its entry: the count is restored and nothing else is lost.
  TestAlloc::refuse_all = true;
  EXPECT_EQ(_mirel_hashtable_insert(h, key_of(36), val_of(36)), 0);
  EXPECT_EQ(_mirel_hashtable_count(h), 35u);
  TestAlloc::refuse_all = false;
  EXPECT_EQ(_mirel_hashtable_insert(h, key_of(36), val_of(36)), 1);
  for (uintptr_t k = 1; k <= 36; ++k) EXPECT_EQ(_mirel_hashtable_search(h, key_of(k)), val_of(k));
  EXPECT_EQ(_mirel_hashtable_check(h), 1);
  _mirel_hashtable_destroy(h, 0);
  EXPECT_EQ(TestAlloc::live, 0);
}

TEST_F(HashTable, DuplicatesAndDestroy) {
  mirel_hashtable* h = make();
  // Inserting a key twice holds two entries; the newer one is found first.
  ASSERT_EQ(_mirel_hashtable_insert(h, key_of(5), val_of(1)), 1);
  ASSERT_EQ(_mirel_hashtable_insert(h, key_of(5), val_of(2)), 1);
  EXPECT_EQ(_mirel_hashtable_count(h), 2u);
  EXPECT_EQ(_mirel_hashtable_remove(h, key_of(5)), val_of(2));
  EXPECT_EQ(_mirel_hashtable_remove(h, key_of(5)), val_of(1));
  EXPECT_EQ(_mirel_hashtable_remove(h, key_of(5)), nullptr);
  EXPECT_EQ(TestAlloc::freed_keys, (std::vector<std::pair<uintptr_t, uint64_t>>{{5, 77}, {5, 77}}));
  // Destroy releases every key (with the argument) and, on request, the values.
  for (uintptr_t k = 1; k <= 30; ++k)
    ASSERT_EQ(_mirel_hashtable_insert(h, key_of(k), TestAlloc::alloc(8)), 1);
  _mirel_hashtable_destroy(h, 1);
  EXPECT_EQ(TestAlloc::live, 0);
  EXPECT_EQ(TestAlloc::freed_keys.size(), 32u);
  EXPECT_EQ(TestAlloc::freed_keys.back().second, 77u);
}

// ---- node-store keys ----------------------------------------------------------------

ht_key bytes_key(const std::string& s) {
  return {reinterpret_cast<const unsigned char*>(s.data()), s.size()};
}
ht_key int_key(uint64_t v) { return {nullptr, v}; }

TEST(NodeKeyHash, MatchesIndependentReferenceAndEquality) {
  // lookup2 reference values computed with a separate script: every length
  // class of the 12-byte blocks and their tail, integer keys by their low
  // word, byte keys bounded by the length word, not the buffer.
  auto run = [](int from, int n) {  // bytes from, from + 1, ... (mod 256)
    std::string r;
    for (int i = 0; i < n; ++i) r.push_back(static_cast<char>(from + i));
    return r;
  };
  const std::string texts[] = {"", "a", "abc", "abcd", "hello world", "hello world!",
      "hello world!!", std::string(11, '\xff'), run(200, 24), run(250, 25)};
  std::vector<ht_key> keys;
  for (const std::string& text : texts) keys.push_back(bytes_key(text));
  for (uint64_t v : {0ull, 1ull, 12345ull, 0x7fffffffull, 0xffffffffull, 0x100000001ull})
    keys.push_back(int_key(v));  // the last: the low word only
  keys.push_back({reinterpret_cast<const unsigned char*>("abcdef"), 3});  // length bounds
  const uint32_t hashes[] = {0xbd49d10du, 0x29eec818u, 0x251e4793u, 0x5ae61fa5u, 0x1aa919e6u,
                             0x1eccb293u, 0x448a230cu, 0xd7a6a2ebu, 0xbed11343u, 0x10d0cea9u,
                             0x9fbd8aeeu, 0x9ea56503u, 0x1d5e571fu, 0x2b7d0d4eu, 0x0dd643acu,
                             0x9ea56503u, 0x251e4793u};
  for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(ht_hash_from_key(&keys[i]), hashes[i]) << i;

  // Equality: bytes by content and length; a byte key equals an integer key
  // whose value is its length.
  const std::string abc = "abc", abd = "abd", ab = "ab", abc2 = "abc";
  const struct { ht_key a, b; bool equal; } eq_rows[] = {
      {bytes_key(abc), bytes_key(abc2), true}, {bytes_key(abc), bytes_key(abd), false},
      {bytes_key(abc), bytes_key(ab), false},  {int_key(7), int_key(8), false},
      {int_key(3), bytes_key(abc), true},      {bytes_key(abc), int_key(4), false},
      {int_key(1), int_key(0x100000001ull), false}};
  for (const auto& r : eq_rows) {
    EXPECT_EQ(ht_keys_equal(&r.a, &r.b) != 0, r.equal);
    EXPECT_EQ(ht_keys_equal(&r.b, &r.a) != 0, r.equal);
  }
}

// The index as the node store uses it: key records from the allocator,
// released through free_key, checked against a model after every step.
// Byte keys are short strings, integer keys 1000 and up, so the two never
// meet as "equal" through the length rule.
TEST(NodeKeyIndex, RandomSequenceAgainstModel) {
  arbo_shim::TestTable t;
  const uint64_t mem0 = t.table.mem;
  mirel_hashtable* h = _mirel_create_hashtable_mallf(128, ht_hash_from_key, ht_keys_equal,
      std::malloc, std::free, free_key, reinterpret_cast<uint64_t>(&t.table));
  std::vector<std::string> texts;
  for (int i = 0; i < 250; ++i) texts.push_back("k" + std::to_string(i * 7919 % 1000));
  std::map<int, uintptr_t> model;  // key id -> value
  std::mt19937 rng(4);
  for (int step = 0; step < 4000; ++step) {
    const int id = static_cast<int>(rng() % 500);
    const std::string& text = texts[static_cast<size_t>(id / 2)];  // outlives the entry
    const ht_key probe = id % 2 ? int_key(1000 + static_cast<uint64_t>(id)) : bytes_key(text);
    const auto it = model.find(id);
    const void* want = it == model.end() ? nullptr : val_of(it->second);
    const unsigned op = rng() % 3;
    if (op == 0 && it == model.end()) {
      ht_key* k = _arbo_alloc_ht_key(&t.table);
      *k = probe;
      ASSERT_EQ(_mirel_hashtable_insert(h, k, val_of(static_cast<uintptr_t>(step + 1))), 1);
      model[id] = static_cast<uintptr_t>(step + 1);
    } else if (op != 0) {
      EXPECT_EQ(op == 1 ? _mirel_hashtable_remove(h, &probe) : _mirel_hashtable_search(h, &probe),
                want);
      if (op == 1 && it != model.end()) model.erase(it);
    }
    ASSERT_EQ(_mirel_hashtable_count(h), model.size());
    ASSERT_EQ(_mirel_hashtable_check(h), 1) << step;
    ASSERT_EQ(t.table.mem, mem0 + 16 * model.size());  // one 16-byte record per entry
  }
  EXPECT_GT(model.size(), 50u);
  _mirel_hashtable_destroy(h, 0);
  EXPECT_EQ(t.table.mem, mem0);  // every record went back through free_key
}

}  // namespace
