// Per-table node pool: 64- and 128-byte slots carved from page-aligned chunks.
//
// Layout of a chunk: whole 4 KiB pages taken from one enif_alloc block (the
// block is over-allocated so its pages can start on a page boundary). The
// first 64 bytes of every page hold the address of the chunk's header, which
// itself takes the first 128 bytes of the first page; a slot finds its chunk
// by masking its address down to the page and reading that word. Slots follow
// the page header at 64-byte steps, never straddling a page boundary: 63
// slots of 64 bytes or 31 of 128 bytes per page (one fewer on the first).
//
// Each chunk serves one class, hands out slots first from its own free list,
// then from a bump pointer, and counts its live slots. Chunks with room are
// linked per class; a chunk whose last slot is freed goes back to the
// runtime at once (a table that shrinks gives memory back; one node freed and
// made again at a chunk boundary pays one enif_alloc, as it would without the
// pool). Chunks grow from 1 page to 16 pages as a class grows, so a small
// table stays small.
#include <cstddef>
#include <cstring>

#include "arbo_alloc.h"

namespace arbo {

namespace {

constexpr uintptr_t kPage = 4096;
constexpr uintptr_t kPageHeader = 64;
constexpr uintptr_t kChunkHeader = 128;  // the first page's header
constexpr unsigned kMaxChunkPages = 16;
constexpr size_t kClassSize[kPoolClasses] = {64, 128};

struct free_slot {
  free_slot* next;
};

}  // namespace

// The chunk header, in the first 128 bytes of the chunk's first page.
struct pool_chunk {
  pool_chunk* self;  // every page starts with this word
  void* block;       // what enif_alloc returned
  pool_chunk* prev;  // chunks of the class with room
  pool_chunk* next;
  pool_chunk* all_prev;  // every chunk of the pool
  pool_chunk* all_next;
  free_slot* free;
  uintptr_t bump;  // next never-used slot
  uintptr_t end;   // one past the last page
  size_t bytes;    // the block's size
  uint32_t live;
  uint16_t pages;
  uint8_t cls;
  bool listed;
};

namespace {

static_assert(sizeof(pool_chunk) <= kChunkHeader, "the chunk header fits its page header");

inline pool_chunk* chunk_of(const void* slot) {
  return *reinterpret_cast<pool_chunk* const*>(reinterpret_cast<uintptr_t>(slot) & ~(kPage - 1));
}

// The address of the next never-used slot at or after `at`, or 0 when the
// chunk has no room left for a slot of `sz` bytes.
inline uintptr_t bump_slot(uintptr_t at, uintptr_t end, size_t sz) {
  uintptr_t off = at & (kPage - 1);
  if (off == 0) at += kPageHeader;
  else if (off + sz > kPage) at = (at & ~(kPage - 1)) + kPage + kPageHeader;
  return at + sz <= end ? at : 0;
}

void list_push(node_pool* pool, pool_chunk* c) {
  c->prev = nullptr;
  c->next = pool->open[c->cls];
  if (c->next) c->next->prev = c;
  pool->open[c->cls] = c;
  c->listed = true;
}

void list_unlink(node_pool* pool, pool_chunk* c) {
  if (c->prev) c->prev->next = c->next;
  else pool->open[c->cls] = c->next;
  if (c->next) c->next->prev = c->prev;
  c->prev = c->next = nullptr;
  c->listed = false;
}

pool_chunk* chunk_new(node_pool* pool, unsigned cls) {
  // 1, 2, 4, 8, then 16 pages per chunk as the class holds more chunks.
  unsigned pages = pool->chunks[cls] < 4 ? 1u << pool->chunks[cls] : kMaxChunkPages;
  // One page more than used: the block's pages start at the first page boundary.
  size_t bytes = (pages + 1) * kPage;
  void* block = enif_alloc(bytes);
  if (block == nullptr) return nullptr;
  uintptr_t first = (reinterpret_cast<uintptr_t>(block) + kPage - 1) & ~(kPage - 1);
  auto* c = reinterpret_cast<pool_chunk*>(first);
  std::memset(static_cast<void*>(c), 0, sizeof(pool_chunk));
  for (unsigned p = 1; p < pages; ++p)
    *reinterpret_cast<pool_chunk**>(first + p * kPage) = c;
  c->self = c;
  c->block = block;
  c->bytes = bytes;
  c->all_next = pool->all;
  if (c->all_next) c->all_next->all_prev = c;
  pool->all = c;
  c->bump = first + kChunkHeader;
  c->end = first + pages * kPage;
  c->pages = static_cast<uint16_t>(pages);
  c->cls = static_cast<uint8_t>(cls);
  pool->chunks[cls]++;
  pool->bytes += bytes;
  list_push(pool, c);
  return c;
}

void chunk_release(node_pool* pool, pool_chunk* c) {
  if (c->listed) list_unlink(pool, c);
  if (c->all_prev) c->all_prev->all_next = c->all_next;
  else pool->all = c->all_next;
  if (c->all_next) c->all_next->all_prev = c->all_prev;
  pool->chunks[c->cls]--;
  pool->bytes -= c->bytes;
  enif_free(c->block);
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

unsigned _arbo_pool_class(size_t size) {
  ARBO_ASSERT(size > 0 && size <= kClassSize[kPoolClasses - 1]);
  return size <= kClassSize[0] ? 0 : 1;
}

void* _arbo_pool_alloc(node_pool* pool, unsigned cls) {
  pool_chunk* c = pool->open[cls];
  if (c == nullptr && (c = chunk_new(pool, cls)) == nullptr) return nullptr;
  const size_t sz = kClassSize[cls];
  void* slot;
  if (c->free != nullptr) {
    slot = c->free;
    c->free = c->free->next;
  } else {
    uintptr_t at = bump_slot(c->bump, c->end, sz);
    ARBO_ASSERT(at != 0);
    slot = reinterpret_cast<void*>(at);
    c->bump = at + sz;
  }
  c->live++;
  pool->live++;
  if (c->free == nullptr && bump_slot(c->bump, c->end, sz) == 0) list_unlink(pool, c);
  return slot;
}

void _arbo_pool_free(node_pool* pool, void* slot) {
  pool_chunk* c = chunk_of(slot);
  ARBO_ASSERT_MSG(c->self == c && c->live > 0, "pool slot");
  auto* f = static_cast<free_slot*>(slot);
  f->next = c->free;
  c->free = f;
  c->live--;
  pool->live--;
  if (c->live == 0) chunk_release(pool, c);
  else if (!c->listed) list_push(pool, c);
}

}  // namespace arbo
