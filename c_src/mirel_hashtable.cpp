// A chained hash table with prime-sized bucket arrays.
//
// Entries keep their mixed hash, so growth never calls the hash function and
// a search compares the stored hash before it calls the equality function.
#include "mirel_hashtable.h"

#include <cstdlib>
#include <cstring>

namespace arbo {

namespace {

constexpr uint32_t kPrimes[] = {
    53,        97,        193,       389,       769,       1543,     3079,      6151,
    12289,     24593,     49157,     98317,     196613,    393241,   786433,    1572869,
    3145739,   6291469,   12582917,  25165843,  50331653,  100663319, 201326611, 402653189,
    805306457, 1610612741,
};
constexpr uint32_t kPrimeCount = sizeof kPrimes / sizeof kPrimes[0];
static_assert(kPrimeCount == 26);
constexpr uint32_t kMaxMinsize = 1u << 30;

struct entry {
  void* k;
  void* v;
  uint32_t h;  // the mixed hash
  entry* next;
};

// The entry count above which a table of `size` buckets grows (65%, rounded
// the way the table has always rounded it: 53 buckets give 35).
constexpr uint32_t load_limit(uint32_t size) {
  return (size / 100) * 65 + ((size % 100) * 65 + 100) / 100;
}
static_assert(load_limit(53) == 35 && load_limit(97) == 64);

constexpr uint32_t rotl(uint32_t v, int s) { return (v << s) | (v >> (32 - s)); }

void default_freekey(void*, uint64_t) {}

void* default_alloc(size_t n) { return std::malloc(n); }
void default_free(void* p) { std::free(p); }

}  // namespace

struct mirel_hashtable {
  uint32_t tablelength;
  entry** table;
  uint32_t entrycount;
  uint32_t loadlimit;
  uint32_t primeindex;
  mirel_hashfn hashfn;
  mirel_eqfn eqfn;
  mirel_allocfn allocfn;
  mirel_freefn freefn;
  mirel_freekeyfn freekeyfn;
  uint64_t freekey_arg;
};

mirel_hashtable* _mirel_create_hashtable_mallf(uint32_t minsize, mirel_hashfn hashfn,
                                               mirel_eqfn eqfn, mirel_allocfn allocfn,
                                               mirel_freefn freefn, mirel_freekeyfn freekeyfn,
                                               uint64_t freekey_arg) {
  if (minsize > kMaxMinsize) return nullptr;
  uint32_t pindex = 0;
  if (minsize >= kPrimes[0]) {
    // The first prime above minsize; a prime itself takes the next one up.
    while (pindex < kPrimeCount && kPrimes[pindex] <= minsize) ++pindex;
  }
  const uint32_t size = kPrimes[pindex];
  auto* h = static_cast<mirel_hashtable*>(allocfn(sizeof(mirel_hashtable)));
  if (h == nullptr) return nullptr;
  h->table = static_cast<entry**>(allocfn(sizeof(entry*) * size));
  if (h->table == nullptr) {
    freefn(h);
    return nullptr;
  }
  std::memset(static_cast<void*>(h->table), 0, sizeof(entry*) * size);
  h->tablelength = size;
  h->primeindex = pindex;
  h->entrycount = 0;
  h->loadlimit = load_limit(size);
  _mirel_hashtable_set_funcs(h, hashfn, eqfn, allocfn, freefn, freekeyfn, freekey_arg);
  return h;
}

mirel_hashtable* _mirel_create_hashtable(uint32_t minsize, mirel_hashfn hashfn, mirel_eqfn eqfn) {
  return _mirel_create_hashtable_mallf(minsize, hashfn, eqfn, default_alloc, default_free,
                                       default_freekey, 0);
}

void _mirel_hashtable_set_funcs(mirel_hashtable* h, mirel_hashfn hashfn, mirel_eqfn eqfn,
                                mirel_allocfn allocfn, mirel_freefn freefn,
                                mirel_freekeyfn freekeyfn, uint64_t freekey_arg) {
  h->hashfn = hashfn;
  h->eqfn = eqfn;
  h->allocfn = allocfn;
  h->freefn = freefn;
  h->freekeyfn = freekeyfn != nullptr ? freekeyfn : default_freekey;
  h->freekey_arg = freekey_arg;
}

uint32_t _mirel_hashtable_hash(const mirel_hashtable* h, const void* key) {
  uint32_t i = h->hashfn(key);
  i += ~(i << 9);
  i ^= rotl(i, 18);
  i *= 17;
  i ^= rotl(i, 22);
  return i;
}

uint32_t _mirel_hashtable_count(const mirel_hashtable* h) { return h->entrycount; }

namespace {

// Moves to the next prime. A failed allocation falls back to enlarging the
// old array in place; if that fails too the table stays as it is.
void expand(mirel_hashtable* h) {
  if (h->primeindex >= kPrimeCount - 1) return;
  const uint32_t newsize = kPrimes[++h->primeindex];
  const size_t bytes = sizeof(entry*) * newsize;
  auto** fresh = static_cast<entry**>(h->allocfn(bytes));
  if (fresh != nullptr) {
    std::memset(static_cast<void*>(fresh), 0, bytes);
    for (uint32_t i = 0; i < h->tablelength; ++i) {
      while (entry* e = h->table[i]) {
        h->table[i] = e->next;
        const uint32_t idx = e->h % newsize;
        e->next = fresh[idx];
        fresh[idx] = e;
      }
    }
    h->freefn(h->table);
    h->table = fresh;
  } else {
    auto** grown = static_cast<entry**>(std::realloc(h->table, bytes));
    if (grown == nullptr) {
      --h->primeindex;
      return;
    }
    h->table = grown;
    std::memset(static_cast<void*>(grown + h->tablelength), 0,
                sizeof(entry*) * (newsize - h->tablelength));
    // An entry moved to a bucket not yet visited stays there when that
    // bucket's turn comes, since its index then matches.
    for (uint32_t i = 0; i < h->tablelength; ++i) {
      entry** pe = &grown[i];
      while (entry* e = *pe) {
        const uint32_t idx = e->h % newsize;
        if (idx == i) {
          pe = &e->next;
        } else {
          *pe = e->next;
          e->next = grown[idx];
          grown[idx] = e;
        }
      }
    }
  }
  h->tablelength = newsize;
  h->loadlimit = load_limit(newsize);
}

}  // namespace

int _mirel_hashtable_insert(mirel_hashtable* h, void* key, void* value) {
  if (++h->entrycount > h->loadlimit) expand(h);
  auto* e = static_cast<entry*>(h->allocfn(sizeof(entry)));
  if (e == nullptr) {
    --h->entrycount;
    return 0;
  }
  e->h = _mirel_hashtable_hash(h, key);
  const uint32_t idx = e->h % h->tablelength;
  e->k = key;
  e->v = value;
  e->next = h->table[idx];
  h->table[idx] = e;
  return 1;
}

void* _mirel_hashtable_search(mirel_hashtable* h, const void* key) {
  const uint32_t hv = _mirel_hashtable_hash(h, key);
  for (entry* e = h->table[hv % h->tablelength]; e != nullptr; e = e->next) {
    if (e->h == hv && h->eqfn(key, e->k)) return e->v;
  }
  return nullptr;
}

void* _mirel_hashtable_remove(mirel_hashtable* h, const void* key) {
  // The bucket index is hashed a second time; hash functions must be pure.
  const uint32_t hv = _mirel_hashtable_hash(h, key);
  entry** pe = &h->table[_mirel_hashtable_hash(h, key) % h->tablelength];
  while (entry* e = *pe) {
    if (e->h == hv && h->eqfn(key, e->k)) {
      *pe = e->next;
      --h->entrycount;
      void* v = e->v;
      h->freekeyfn(e->k, h->freekey_arg);
      h->freefn(e);
      return v;
    }
    pe = &e->next;
  }
  return nullptr;
}

void _mirel_hashtable_destroy(mirel_hashtable* h, int free_values) {
  // Chains start at random addresses: the entries a few buckets ahead, and
  // the keys of those a little nearer, are fetched while this bucket is
  // released, so a big index is torn down at the speed of the memory bus
  // rather than one cache miss after another. The order of release is the
  // same bucket-by-bucket, chain-by-chain order as always.
  constexpr uint32_t kAhead = 16, kKeyAhead = 8;
  const uint32_t n = h->tablelength;
  for (uint32_t i = 0; i < n; ++i) {
    if (i + kAhead < n && h->table[i + kAhead] != nullptr)
      __builtin_prefetch(h->table[i + kAhead]);
    if (i + kKeyAhead < n && h->table[i + kKeyAhead] != nullptr)
      __builtin_prefetch(h->table[i + kKeyAhead]->k);
    entry* e = h->table[i];
    while (e != nullptr) {
      entry* next = e->next;
      h->freekeyfn(e->k, h->freekey_arg);
      if (free_values) h->freefn(e->v);
      h->freefn(e);
      e = next;
    }
  }
  h->freefn(h->table);
  h->freefn(h);
}

uint32_t _mirel_hashtable_bucket_count(const mirel_hashtable* h) { return h->tablelength; }

void _mirel_hashtable_set_freekey_arg(mirel_hashtable* h, uint64_t freekey_arg) {
  h->freekey_arg = freekey_arg;
}

int _mirel_hashtable_grows_on_insert(const mirel_hashtable* h) {
  return h->entrycount + 1 > h->loadlimit && h->primeindex + 1 < kPrimeCount;
}

int _mirel_hashtable_check(const mirel_hashtable* h) {
  if (h->primeindex >= kPrimeCount || kPrimes[h->primeindex] != h->tablelength) return 0;
  if (h->loadlimit != load_limit(h->tablelength)) return 0;
  uint64_t total = 0;
  for (uint32_t i = 0; i < h->tablelength; ++i) {
    for (const entry* e = h->table[i]; e != nullptr; e = e->next) {
      if (e->h % h->tablelength != i) return 0;
      if (e->h != _mirel_hashtable_hash(h, e->k)) return 0;
      ++total;
    }
  }
  return total == h->entrycount;
}

}  // namespace arbo
