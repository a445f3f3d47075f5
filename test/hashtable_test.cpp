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
void* val_of(uintptr_t v) { return reinterpret_cast<void*>(v); }

// An allocator that can be told to refuse everything, or only blocks of at
// least `refuse_from` bytes (bucket arrays), counting the blocks it holds out.
struct TestAlloc {
  static inline bool refuse_all = false;
  static inline size_t refuse_from = SIZE_MAX;
  static inline long live = 0;
  static void* alloc(size_t n) {
    if (refuse_all || n >= refuse_from) return nullptr;
    ++live;
    return std::malloc(n);
  }
  static void release(void* p) {
    if (p != nullptr) --live;
    std::free(p);
  }
};

struct FreedKeys {
  static inline std::vector<std::pair<uintptr_t, uint64_t>> log;
  static void note(void* k, uint64_t arg) { log.emplace_back(reinterpret_cast<uintptr_t>(k), arg); }
};

class HashTable : public ::testing::Test {
 protected:
  void SetUp() override {
    TestAlloc::refuse_all = false;
    TestAlloc::refuse_from = SIZE_MAX;
    TestAlloc::live = 0;
    FreedKeys::log.clear();
  }
  static mirel_hashtable* make(uint32_t minsize) {
    return _mirel_create_hashtable_mallf(minsize, ptr_hash, ptr_eq, TestAlloc::alloc,
                                         TestAlloc::release, FreedKeys::note, 77);
  }
};

TEST_F(HashTable, SizingFromMinsize) {
  const struct {
    uint32_t minsize, buckets;
  } rows[] = {{0, 53}, {52, 53}, {53, 97}, {96, 97}, {97, 193}, {1000, 1543}, {100000, 196613}};
  for (const auto& r : rows) {
    mirel_hashtable* h = _mirel_create_hashtable(r.minsize, ptr_hash, ptr_eq);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(_mirel_hashtable_bucket_count(h), r.buckets) << r.minsize;
    EXPECT_EQ(_mirel_hashtable_count(h), 0u);
    EXPECT_EQ(_mirel_hashtable_check(h), 1);
    _mirel_hashtable_destroy(h, 0);
  }
  EXPECT_EQ(_mirel_create_hashtable((1u << 30) + 1, ptr_hash, ptr_eq), nullptr);
  EXPECT_EQ(_mirel_create_hashtable(0xffffffffu, ptr_hash, ptr_eq), nullptr);
}

// Inserts keys 1..n and records (count, buckets) at every change of size.
std::vector<std::pair<uint32_t, uint32_t>> fill(mirel_hashtable* h, uintptr_t n) {
  std::vector<std::pair<uint32_t, uint32_t>> steps;
  uint32_t buckets = _mirel_hashtable_bucket_count(h);
  for (uintptr_t k = 1; k <= n; ++k) {
    EXPECT_EQ(_mirel_hashtable_insert(h, key_of(k), val_of(k * 10)), 1);
    if (_mirel_hashtable_bucket_count(h) != buckets) {
      buckets = _mirel_hashtable_bucket_count(h);
      steps.emplace_back(_mirel_hashtable_count(h), buckets);
      EXPECT_EQ(_mirel_hashtable_check(h), 1) << k;
    }
  }
  EXPECT_EQ(_mirel_hashtable_check(h), 1);
  for (uintptr_t k = 1; k <= n; ++k) EXPECT_EQ(_mirel_hashtable_search(h, key_of(k)), val_of(k * 10));
  EXPECT_EQ(_mirel_hashtable_search(h, key_of(n + 1)), nullptr);
  return steps;
}

const std::vector<std::pair<uint32_t, uint32_t>> kGrowth = {
    {36, 97}, {65, 193}, {127, 389}, {254, 769}, {501, 1543}, {1004, 3079}};

TEST_F(HashTable, GrowsAcrossPrimesAtTheLoadLimit) {
  mirel_hashtable* h = make(0);
  EXPECT_EQ(fill(h, 1500), kGrowth);
  EXPECT_EQ(_mirel_hashtable_count(h), 1500u);
  _mirel_hashtable_destroy(h, 0);
  EXPECT_EQ(TestAlloc::live, 0);
  EXPECT_EQ(FreedKeys::log.size(), 1500u);
}

TEST_F(HashTable, GrowsInPlaceWhenANewArrayIsRefused) {
  mirel_hashtable* h = make(0);
  TestAlloc::refuse_from = 97 * sizeof(void*);  // every array after the first
  EXPECT_EQ(fill(h, 1500), kGrowth);
  _mirel_hashtable_destroy(h, 0);
  EXPECT_EQ(TestAlloc::live, 0);  // the enlarged array went back through the release function
}

TEST_F(HashTable, FailedAllocationsLeaveTheTableConsistent) {
  TestAlloc::refuse_all = true;
  EXPECT_EQ(make(0), nullptr);
  TestAlloc::refuse_all = false;
  TestAlloc::refuse_from = 53 * sizeof(void*);  // the record passes, its buckets do not
  EXPECT_EQ(make(0), nullptr);
  EXPECT_EQ(TestAlloc::live, 0);

  TestAlloc::refuse_from = SIZE_MAX;
  mirel_hashtable* h = make(0);
  for (uintptr_t k = 1; k <= 35; ++k) ASSERT_EQ(_mirel_hashtable_insert(h, key_of(k), val_of(k)), 1);
  TestAlloc::refuse_all = true;
  // The 36th insert grows (in place, the new array being refused) but cannot
  // allocate its entry: the count is restored and nothing else is lost.
  EXPECT_EQ(_mirel_hashtable_insert(h, key_of(36), val_of(36)), 0);
  EXPECT_EQ(_mirel_hashtable_count(h), 35u);
  EXPECT_EQ(_mirel_hashtable_check(h), 1);
  EXPECT_EQ(_mirel_hashtable_search(h, key_of(36)), nullptr);
  TestAlloc::refuse_all = false;
  EXPECT_EQ(_mirel_hashtable_insert(h, key_of(36), val_of(36)), 1);
  for (uintptr_t k = 1; k <= 36; ++k) EXPECT_EQ(_mirel_hashtable_search(h, key_of(k)), val_of(k));
  EXPECT_EQ(_mirel_hashtable_check(h), 1);
  _mirel_hashtable_destroy(h, 0);
  EXPECT_EQ(TestAlloc::live, 0);
}

TEST_F(HashTable, DuplicatesRemoveAndDestroy) {
  mirel_hashtable* h = make(0);
  // Inserting a key twice holds two entries; the newer one is found first.
  ASSERT_EQ(_mirel_hashtable_insert(h, key_of(5), val_of(1)), 1);
  ASSERT_EQ(_mirel_hashtable_insert(h, key_of(5), val_of(2)), 1);
  EXPECT_EQ(_mirel_hashtable_count(h), 2u);
  EXPECT_EQ(_mirel_hashtable_search(h, key_of(5)), val_of(2));
  EXPECT_EQ(_mirel_hashtable_remove(h, key_of(5)), val_of(2));
  EXPECT_EQ(_mirel_hashtable_search(h, key_of(5)), val_of(1));
  EXPECT_EQ(_mirel_hashtable_remove(h, key_of(6)), nullptr);  // missing: nothing changes
  EXPECT_EQ(_mirel_hashtable_count(h), 1u);
  EXPECT_EQ(_mirel_hashtable_remove(h, key_of(5)), val_of(1));
  EXPECT_EQ(_mirel_hashtable_remove(h, key_of(5)), nullptr);
  EXPECT_EQ(_mirel_hashtable_count(h), 0u);
  const std::vector<std::pair<uintptr_t, uint64_t>> removed = {{5, 77}, {5, 77}};
  EXPECT_EQ(FreedKeys::log, removed);

  // Destroy: key release for every entry (with the argument), values through
  // the release function on request, in bucket order.
  FreedKeys::log.clear();
  for (uintptr_t k = 1; k <= 30; ++k) {
    ASSERT_EQ(_mirel_hashtable_insert(h, key_of(k), TestAlloc::alloc(8)), 1);
  }
  std::map<uintptr_t, uint32_t> bucket;
  for (uintptr_t k = 1; k <= 30; ++k) bucket[k] = _mirel_hashtable_hash(h, key_of(k)) % 53;
  _mirel_hashtable_destroy(h, 1);
  EXPECT_EQ(TestAlloc::live, 0);
  ASSERT_EQ(FreedKeys::log.size(), 30u);
  for (size_t i = 0; i < FreedKeys::log.size(); ++i) {
    EXPECT_EQ(FreedKeys::log[i].second, 77u);
    if (i > 0) {
      EXPECT_LE(bucket[FreedKeys::log[i - 1].first], bucket[FreedKeys::log[i].first]);
    }
  }
}

TEST(HashMix, MixedHashOfKnownInputs) {
  // Values computed by hand-written reference arithmetic outside this code.
  mirel_hashtable* h = _mirel_create_hashtable(0, ptr_hash, ptr_eq);
  EXPECT_EQ(_mirel_hashtable_hash(h, key_of(0)), 0u);
  EXPECT_EQ(_mirel_hashtable_hash(h, key_of(1)), 0xfc5dcee7u);
  EXPECT_EQ(_mirel_hashtable_hash(h, key_of(0xdeadbeef)), 0x51b6cc4du);
  EXPECT_EQ(_mirel_hashtable_hash(h, key_of(0xffffffff)), 0xf0d9ffd6u);
  _mirel_hashtable_destroy(h, 0);
}

// ---- node-store keys ----------------------------------------------------------------

ht_key bytes_key(const std::string& s) {
  return {reinterpret_cast<const unsigned char*>(s.data()), s.size()};
}
ht_key int_key(uint64_t v) { return {nullptr, v}; }

TEST(NodeKeyHash, MatchesIndependentReference) {
  // lookup2 reference values computed with a separate script.
  const struct {
    std::string bytes;
    uint32_t hash;
  } bytes_rows[] = {
      {"", 0xbd49d10du},
      {"a", 0x29eec818u},
      {"abc", 0x251e4793u},
      {"abcd", 0x5ae61fa5u},
      {"hello world", 0x1aa919e6u},
      {"hello world!", 0x1eccb293u},
      {"hello world!!", 0x448a230cu},
      {"\xc8\xc9\xca\xcb\xcc\xcd\xce\xcf\xd0\xd1\xd2\xd3\xd4\xd5\xd6\xd7\xd8\xd9\xda\xdb\xdc\xdd"
       "\xde\xdf",
       0xbed11343u},
      {std::string("\xfa\xfb\xfc\xfd\xfe\xff\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c"
                   "\x0d\x0e\x0f\x10\x11\x12",
                   25),
       0x10d0cea9u},
      {"\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff", 0xd7a6a2ebu},
  };
  for (const auto& r : bytes_rows) {
    const ht_key k = bytes_key(r.bytes);
    EXPECT_EQ(ht_hash_from_key(&k), r.hash) << r.bytes.size();
  }
  const struct {
    uint64_t word;
    uint32_t hash;
  } int_rows[] = {{0, 0x9fbd8aeeu},          {1, 0x9ea56503u},
                  {12345, 0x1d5e571fu},      {0x7fffffff, 0x2b7d0d4eu},
                  {0xffffffff, 0x0dd643acu}, {0x100000001ull, 0x9ea56503u}};  // low word only
  for (const auto& r : int_rows) {
    const ht_key k = int_key(r.word);
    EXPECT_EQ(ht_hash_from_key(&k), r.hash) << r.word;
  }
  // The length word, not the buffer, bounds the bytes hashed.
  const std::string long_buf = "abcdef";
  const ht_key prefix{reinterpret_cast<const unsigned char*>(long_buf.data()), 3};
  EXPECT_EQ(ht_hash_from_key(&prefix), 0x251e4793u);
}

TEST(NodeKeyHash, Equality) {
  const std::string abc = "abc", abd = "abd", ab = "ab", abc2 = "abc";
  const ht_key rows[][2] = {
      {bytes_key(abc), bytes_key(abc2)}, {bytes_key(abc), bytes_key(abd)},
      {bytes_key(abc), bytes_key(ab)},   {int_key(7), int_key(7)},
      {int_key(7), int_key(8)},          {bytes_key(abc), int_key(3)},
      {int_key(3), bytes_key(abc)},      {bytes_key(abc), int_key(4)},
      {int_key(1), int_key(0x100000001ull)},
  };
  const int want[] = {1, 0, 0, 1, 0, 1, 1, 0, 0};
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(ht_keys_equal(&rows[i][0], &rows[i][1]) != 0, want[i] != 0) << i;
  }
}

// The index as the node store uses it: key records from the allocator,
// released through free_key, checked against a model after every step.
TEST(NodeKeyIndex, RandomSequenceAgainstModel) {
  arbo_shim::TestTable t;
  const uint64_t mem0 = t.table.mem;
  mirel_hashtable* h =
      _mirel_create_hashtable_mallf(128, ht_hash_from_key, ht_keys_equal, std::malloc, std::free,
                                    free_key, reinterpret_cast<uint64_t>(&t.table));
  ASSERT_NE(h, nullptr);

  // Byte keys are short strings, integer keys are 1000 and up, so the two
  // never meet as "equal" through the length rule.
  std::vector<std::string> texts;
  for (int i = 0; i < 300; ++i) texts.push_back("k" + std::to_string(i * 7919 % 1000));
  std::map<std::string, uintptr_t> model;  // "b:<text>" or "i:<n>" -> value
  std::mt19937 rng(4);
  auto make_probe = [&](int id, std::string* name) {
    if (id % 2 == 0) {
      const std::string& s = texts[static_cast<size_t>(id / 2) % texts.size()];
      *name = "b:" + s;
      return bytes_key(s);
    }
    const uint64_t n = 1000 + static_cast<uint64_t>(id);
    *name = "i:" + std::to_string(n);
    return int_key(n);
  };
  for (int step = 0; step < 4000; ++step) {
    const int id = static_cast<int>(rng() % 500);
    std::string name;
    const ht_key probe = make_probe(id, &name);
    const auto it = model.find(name);
    switch (rng() % 3) {
      case 0:
        if (it == model.end()) {
          ht_key* k = _arbo_alloc_ht_key(&t.table);
          *k = probe;
          const auto v = static_cast<uintptr_t>(step + 1);
          ASSERT_EQ(_mirel_hashtable_insert(h, k, val_of(v)), 1);
          model[name] = v;
        }
        break;
      case 1:
        EXPECT_EQ(_mirel_hashtable_remove(h, &probe),
                  it == model.end() ? nullptr : val_of(it->second));
        if (it != model.end()) model.erase(it);
        break;
      default:
        EXPECT_EQ(_mirel_hashtable_search(h, &probe),
                  it == model.end() ? nullptr : val_of(it->second));
        break;
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
