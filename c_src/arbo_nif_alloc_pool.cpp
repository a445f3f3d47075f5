// Per-table node pool: one slot size per node record size, carved from
// pages that chunks hand out one at a time.
//
// Layout of a chunk: the 4 KiB pages of one enif_alloc block of N + 1 pages,
// from its first page boundary to its end. The block rarely starts on a
// boundary, so the last of those pages is cut short by the bytes the first
// boundary lies past the block's start; it still holds slots, and the
// alignment costs those bytes, not a page. Every page in use starts with the
// address of the chunk's header, which itself takes the first 192 bytes of
// the first page; a slot finds its chunk by masking its address down to the
// page and reading that word.
//
// A page serves one class: it is taken from the newest chunk when a class
// needs room and carved from its start. Slots are exactly as large as the
// records of their class and never straddle a page boundary. The 64-byte
// class keeps a 64-byte page header so that its slots sit on cache lines;
// the other classes start 8 bytes into the page (56-byte records fill a page
// to the byte). Since the classes share chunks, a large table leaves at most
// one chunk's unused pages and one part-carved page per class idle, whatever
// its mix of node types.
//
// Freed slots go to their chunk's free list of their class; chunks with
// freed slots of a class are linked per class and serve that class first.
// Each chunk counts its live slots, and a chunk whose last slot is freed
// goes back to the runtime at once (a table that shrinks gives memory back;
// one node freed and made again at a chunk boundary pays one enif_alloc, as
// it would without the pool). Chunks double from 1 page to 256 pages
// (1 MiB) as the pool grows, so a small table stays small.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include <sys/mman.h>

#include "arbo_alloc.h"

namespace arbo {

namespace {

constexpr uintptr_t kPage = 4096;
constexpr uintptr_t kChunkHeader = 192;  // the first page's header
constexpr uint32_t kMaxChunkShift = 8;   // 256 pages
constexpr uintptr_t kPageHeader[kPoolClasses] = {8, 8, 64, 8, 8};

struct free_slot {
  free_slot* next;
};

}  // namespace

// The chunk header, in the first 192 bytes of the chunk's first page.
struct pool_chunk {
  pool_chunk* self;  // every page in use starts with this word
  void* block;       // what enif_alloc returned
  pool_chunk* all_prev;  // every chunk of the pool
  pool_chunk* all_next;
  pool_chunk* prev[kPoolClasses];  // chunks with freed slots, per class
  pool_chunk* next[kPoolClasses];
  free_slot* free[kPoolClasses];
  uintptr_t pages;  // next page never handed to a class
  uintptr_t end;    // one past the block
  size_t bytes;     // the block's size
  uint32_t live;
  uint8_t listed;  // bit c: on the pool's list of class c
};

namespace {

static_assert(sizeof(pool_chunk) <= kChunkHeader, "the chunk header fits its page header");
static_assert(kChunkHeader % 64 == 0, "the first page keeps the 64-byte class on cache lines");

inline pool_chunk* chunk_of(const void* slot) {
  return *reinterpret_cast<pool_chunk* const*>(reinterpret_cast<uintptr_t>(slot) & ~(kPage - 1));
}

void list_push(node_pool* pool, pool_chunk* c, unsigned cls) {
  c->prev[cls] = nullptr;
  c->next[cls] = pool->open[cls];
  if (c->next[cls]) c->next[cls]->prev[cls] = c;
  pool->open[cls] = c;
  c->listed |= static_cast<uint8_t>(1u << cls);
}

void list_unlink(node_pool* pool, pool_chunk* c, unsigned cls) {
  if (c->prev[cls]) c->prev[cls]->next[cls] = c->next[cls];
  else pool->open[cls] = c->next[cls];
  if (c->next[cls]) c->next[cls]->prev[cls] = c->prev[cls];
  c->prev[cls] = c->next[cls] = nullptr;
  c->listed &= static_cast<uint8_t>(~(1u << cls));
}

pool_chunk* chunk_new(node_pool* pool) {
  // 1, 2, 4, ... then 256 pages per chunk as the pool holds more chunks.
  const uintptr_t pages = uintptr_t{1} << std::min(pool->chunks, kMaxChunkShift);
  const size_t bytes = (pages + 1) * kPage;
  void* block = enif_alloc(bytes);
  if (block == nullptr) return nullptr;
  const uintptr_t first = (reinterpret_cast<uintptr_t>(block) + kPage - 1) & ~(kPage - 1);
  auto* c = reinterpret_cast<pool_chunk*>(first);
  std::memset(static_cast<void*>(c), 0, sizeof(pool_chunk));
  c->self = c;
  c->block = block;
  c->bytes = bytes;
  c->all_next = pool->all;
  if (c->all_next) c->all_next->all_prev = c;
  pool->all = c;
  c->pages = first + kPage;
  c->end = reinterpret_cast<uintptr_t>(block) + bytes;
  pool->chunks++;
  pool->bytes += bytes;
  pool->fresh = c;
#ifdef MADV_POPULATE_WRITE
  // A large chunk is about to be filled: one call maps its pages instead of
  // one fault per page. A kernel without it just leaves them to fault.
  if (pages >= 64)
    madvise(reinterpret_cast<void*>(first), (c->end - first) & ~(kPage - 1), MADV_POPULATE_WRITE);
#endif
  return c;
}

void chunk_release(node_pool* pool, pool_chunk* c) {
  for (unsigned cls = 0; cls < kPoolClasses; ++cls) {
    if (c->listed & (1u << cls)) list_unlink(pool, c, cls);
    // The page a class is carving goes with its chunk.
    if (pool->at[cls] != 0 && chunk_of(reinterpret_cast<void*>(pool->at[cls] - 1)) == c)
      pool->at[cls] = pool->stop[cls] = 0;
  }
  if (pool->fresh == c) pool->fresh = nullptr;
  if (c->all_prev) c->all_prev->all_next = c->all_next;
  else pool->all = c->all_next;
  if (c->all_next) c->all_next->all_prev = c->all_prev;
  pool->chunks--;
  pool->bytes -= c->bytes;
  enif_free(c->block);
}

// Gives class `cls` a new page to carve: the next one of the newest chunk,
// or the first page of a new chunk. False when the runtime refuses a chunk.
bool take_page(node_pool* pool, unsigned cls) {
  const size_t sz = kPoolClassSize[cls];
  pool_chunk* c = pool->fresh;
  if (c != nullptr && c->pages + kPageHeader[cls] + sz <= c->end) {
    const uintptr_t page = c->pages;
    *reinterpret_cast<pool_chunk**>(page) = c;
    c->pages += kPage;
    pool->at[cls] = page + kPageHeader[cls];
    pool->stop[cls] = std::min(page + kPage, c->end);
    return true;
  }
  if ((c = chunk_new(pool)) == nullptr) return false;
  const uintptr_t first = reinterpret_cast<uintptr_t>(c);
  pool->at[cls] = first + kChunkHeader;
  pool->stop[cls] = first + kPage;
  return true;
}

}  // namespace

node_pool* _arbo_pool_create() {
  auto* pool = static_cast<node_pool*>(enif_alloc(sizeof(node_pool)));
  ARBO_ASSERT_MSG(pool != nullptr, "pool");
  std::memset(static_cast<void*>(pool), 0, sizeof(node_pool));
  return pool;
}

void _arbo_pool_destroy(node_pool* pool) {
  if (pool == nullptr) return;
  // Slots still live here were leaked by the tree; they go with the table.
  while (pool->all != nullptr) chunk_release(pool, pool->all);
  enif_free(pool);
}

void* _arbo_pool_alloc(node_pool* pool, unsigned cls) {
  void* slot;
  if (pool_chunk* c = pool->open[cls]; c != nullptr) {
    slot = c->free[cls];
    c->free[cls] = c->free[cls]->next;
    if (c->free[cls] == nullptr) list_unlink(pool, c, cls);
  } else {
    if (pool->at[cls] + kPoolClassSize[cls] > pool->stop[cls] && !take_page(pool, cls))
      return nullptr;
    slot = reinterpret_cast<void*>(pool->at[cls]);
    pool->at[cls] += kPoolClassSize[cls];
  }
  chunk_of(slot)->live++;
  pool->live++;
  return slot;
}

void _arbo_pool_free(node_pool* pool, void* slot, unsigned cls) {
  pool_chunk* c = chunk_of(slot);
  ARBO_ASSERT_MSG(c->self == c && c->live > 0, "pool slot");
  auto* f = static_cast<free_slot*>(slot);
  f->next = c->free[cls];
  c->free[cls] = f;
  c->live--;
  pool->live--;
  if (c->live == 0) chunk_release(pool, c);
  else if (!(c->listed & (1u << cls))) list_push(pool, c, cls);
}

}  // namespace arbo
