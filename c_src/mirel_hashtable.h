// A generic chained hash table with prime-sized bucket arrays that grows at a
// load factor of 65%. Caller-supplied hash, equality, allocation and
// key-release functions. Not thread-safe: callers serialise access.
//
// Failures are null or 0 results; a failed growth keeps the old array and a
// failed entry allocation restores the count.
#ifndef MIREL_HASHTABLE_H
#define MIREL_HASHTABLE_H

#include <cstddef>
#include <cstdint>

namespace arbo {

using mirel_hashfn = uint32_t (*)(const void* key);
using mirel_eqfn = int (*)(const void* a, const void* b);
using mirel_allocfn = void* (*)(size_t);
using mirel_freefn = void (*)(void*);
using mirel_freekeyfn = void (*)(void* key, uint64_t arg);

struct mirel_hashtable;

mirel_hashtable* _mirel_create_hashtable(uint32_t minsize, mirel_hashfn hashfn, mirel_eqfn eqfn);
mirel_hashtable* _mirel_create_hashtable_mallf(uint32_t minsize, mirel_hashfn hashfn,
                                               mirel_eqfn eqfn, mirel_allocfn allocfn,
                                               mirel_freefn freefn, mirel_freekeyfn freekeyfn,
                                               uint64_t freekey_arg);
void _mirel_hashtable_set_funcs(mirel_hashtable* h, mirel_hashfn hashfn, mirel_eqfn eqfn,
                                mirel_allocfn allocfn, mirel_freefn freefn,
                                mirel_freekeyfn freekeyfn, uint64_t freekey_arg);
uint32_t _mirel_hashtable_hash(const mirel_hashtable* h, const void* key);
uint32_t _mirel_hashtable_count(const mirel_hashtable* h);
// Adds an entry without looking for an equal key; 0 when it cannot allocate.
int _mirel_hashtable_insert(mirel_hashtable* h, void* key, void* value);
void* _mirel_hashtable_search(mirel_hashtable* h, const void* key);
void* _mirel_hashtable_remove(mirel_hashtable* h, const void* key);
void _mirel_hashtable_destroy(mirel_hashtable* h, int free_values);

// Self-checks for tests and diagnostics. The bucket count is always one of
// the table's primes; check answers 1 when every entry sits in the bucket of
// its stored hash, that hash is still the key's, the chains hold exactly
// `count` entries and the load limit matches the bucket count.
uint32_t _mirel_hashtable_bucket_count(const mirel_hashtable* h);
// The argument handed to the key-release function from now on.
void _mirel_hashtable_set_freekey_arg(mirel_hashtable* h, uint64_t freekey_arg);
// 1 when the next insert moves every entry to a bigger bucket array.
int _mirel_hashtable_grows_on_insert(const mirel_hashtable* h);
int _mirel_hashtable_check(const mirel_hashtable* h);

}  // namespace arbo

#endif  // MIREL_HASHTABLE_H
