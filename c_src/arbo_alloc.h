// Allocator, memory accounting and the user-flags table.
//
// Contract
// - All memory a tree holds comes from here so that two counters stay exact:
//   the table's `mem`/`size` (plain; the caller holds the table's write lock)
//   and the library-wide `mem` (atomic; tables change it concurrently).
// - Accounting, kept exactly as callers count on it:
//     node alloc/free of type T      table mem +-size(T), size +-1, library +-size(T)
//     binary alloc of len bytes      table mem +(len+8),  library +len
//     binary free                    table mem -(len+8),  library -(len+8)
//     hash key record alloc/free     table and library +-16
//     flags table growth (64 slots)  library +512
//   The binary row is asymmetric on purpose: the library counter drifts down
//   by 8 per freed binary.
// - Exhausted memory is a fatal assertion, except for binaries: a refused
//   arbo_bin returns null and the caller copes.
// - Lock order: the table lock first, then the flags-table lock.
// - Nodes come from the table's `node_pool`: one slot size per record size
//   (40, 56, 64, 112 and 120 bytes), 8-byte aligned, the 64-byte class on
//   cache lines. The pool has no lock of its own: it is used under the table's
//   write lock, or by the destructor when nobody else holds the table. The
//   counters above do not see it: they move by node_size(type) per node
//   whatever the pool holds from the runtime. Under AddressSanitizer nodes
//   bypass the pool (one enif_alloc each) so every node's lifetime is seen.
#ifndef ARBO_ALLOC_H
#define ARBO_ALLOC_H

#include <erl_nif.h>

#include <atomic>
#include <cstdint>

#include "arbo_assert.h"
#include "arbo_node.h"

namespace arbo {

struct flags_table {
  uint64_t* table;
  uint16_t capacity;
  uint16_t used;  // read as signed 16-bit by the search
  ErlNifRWLock* lock;
};

struct arbo_alloc_state {
  ErlNifMutex* rmtx;  // held around every random()
  flags_table ft;
  std::atomic<uint64_t> mem;  // library-wide bytes
};

// Resource types, opened by the load callbacks.
extern ErlNifResourceType* arbo_type;
extern ErlNifResourceType* arbo_bin_type;

void arbo_nif_alloc_init(arbo_alloc_state** as);
void arbo_nif_alloc_finish(arbo_alloc_state* as);
// alloc_info/0: [LibraryMem, {8, Capacity, Capacity - Used}]
ERL_NIF_TERM arbo_nif_alloc_info(ErlNifEnv* env, int argc, const ERL_NIF_TERM argv[]);

arbo_alloc_state* _arbo_nif_get_alloc_state(ErlNifEnv* env);
long _arbo_nif_random(ErlNifEnv* env);

// ---- the per-table node pool -------------------------------------------------------
constexpr unsigned kPoolClasses = 5;  // one per node record size
struct pool_chunk;
struct node_pool {
  pool_chunk* open[kPoolClasses];  // chunks with freed slots, per class
  uintptr_t at[kPoolClasses];      // next slot of the page each class carves
  uintptr_t stop[kPoolClasses];    // end of that page
  pool_chunk* fresh;               // the newest chunk, which hands out pages
  pool_chunk* all;                 // every chunk held
  uint32_t chunks;                 // chunks held
  uint64_t live;                   // slots handed out
  uint64_t bytes;                  // bytes held from the runtime
};

// An empty pool; chunks come with the first slot of a class.
node_pool* _arbo_pool_create();
// Returns every chunk (live slots included) and the pool itself; null is a no-op.
void _arbo_pool_destroy(node_pool* pool);
// Slot sizes: the record sizes of the five node types, ascending (int,
// gen-one, gen-two, gen-max, list node).
constexpr size_t kPoolClassSize[kPoolClasses] = {40, 56, 64, 112, 120};
// Class of a record of `size` bytes (1 to 120): the smallest slot that holds it.
constexpr unsigned _arbo_pool_class(size_t size) {
  unsigned cls = 0;
  while (kPoolClassSize[cls] < size) ++cls;
  return cls;
}
// An 8-byte aligned slot of the class, contents undefined; null when the
// runtime refuses a new chunk (the node allocator turns that into its assertion).
void* _arbo_pool_alloc(node_pool* pool, unsigned cls);
// Gives a slot of class `cls` back; its chunk returns to the runtime when it
// was the last live one.
void _arbo_pool_free(node_pool* pool, void* slot, unsigned cls);

// Zero-filled node of `type` with the type bits set; counters raised.
arbo_node* _arbo_nif_node_alloc(store_ctx* ctx, uint32_t type);
// Frees the record only (nothing it points to); 0 for null, else 1.
int _arbo_nif_node_free(arbo_node* node, store_ctx* ctx);

// A new arbo_bin holding a copy of `bytes`; null when the runtime refuses.
arbo_bin* _arbo_nif_alloc_binary(size_t len, const unsigned char* bytes, store_ctx* ctx);
// Lowers the counters and releases the store's reference.
void _arbo_nif_free_binary(arbo_bin* bin, store_ctx* ctx);
// Erlang binary over the resource's bytes, no copy (keys handed out).
ERL_NIF_TERM arbo_bin_to_binary(ErlNifEnv* env, arbo_bin* bin);
// Erlang binary with a copy of the bytes (values handed out).
ERL_NIF_TERM arbo_bin_ref_to_binary(ErlNifEnv* env, bin_ref ref);

// One 16-byte hash key record, counted in the tree's and library's mem.
ht_key* _arbo_alloc_ht_key(arbo_t* tree);
void _arbo_free_ht_key(ht_key* key, arbo_t* tree);

// User flags: inline up to 0x3fffff, wider values through the shared table.
uint64_t _arbo_nif_get_flags(ErlNifEnv* env, const arbo_node* node);
uint64_t _arbo_nif_set_flags(ErlNifEnv* env, arbo_node* node, uint64_t value);
uint64_t _arbo_nif_set_flag(ErlNifEnv* env, arbo_node* node, uint64_t bits);
uint64_t _arbo_nif_clr_flag(ErlNifEnv* env, arbo_node* node, uint64_t bits);

}  // namespace arbo

#endif  // ARBO_ALLOC_H
