// Allocator, memory accounting and the user-flags table; alloc_info/0, which
// reads them.
#include "arbo_alloc.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "arbo_atoms.h"

namespace arbo {

namespace {

constexpr uint16_t kFlagsGrowth = 64;
constexpr uint64_t kFlagsGrowthBytes = kFlagsGrowth * sizeof(uint64_t);

void ft_init(arbo_alloc_state* as) {
  flags_table* ft = &as->ft;
  ft->table = static_cast<uint64_t*>(enif_alloc(kFlagsGrowthBytes));
  ARBO_ASSERT_MSG(ft->table != nullptr, "ft->table");
  std::memset(ft->table, 0, kFlagsGrowthBytes);
  ft->lock = enif_rwlock_create(const_cast<char*>("flags_table"));
  ARBO_ASSERT_MSG(ft->lock != nullptr, "ft->lock");
  ft->capacity = kFlagsGrowth;
  as->mem += kFlagsGrowthBytes;
}

// Caller holds ft.lock for writing.
void ft_realloc_uflags_table(arbo_alloc_state* as) {
  flags_table* ft = &as->ft;
  size_t cap = static_cast<size_t>(ft->capacity) + kFlagsGrowth;
  auto* t = static_cast<uint64_t*>(enif_realloc(ft->table, cap * sizeof(uint64_t)));
  ARBO_ASSERT_MSG(t != nullptr, "ft->table");
  ft->table = t;
  ft->capacity = static_cast<uint16_t>(cap);
  as->mem += kFlagsGrowthBytes;
}

// Seed from time(): h = h * 257 + byte over its eight bytes, low byte first.
void seed_random() {
  uint64_t now = static_cast<uint64_t>(time(nullptr));
  uint32_t h = 0;
  for (int i = 0; i < 8; ++i) h = h * 257u + static_cast<uint32_t>((now >> (8 * i)) & 0xff);
  srandom(h);
}

}  // namespace

void arbo_nif_alloc_init(arbo_alloc_state** out) {
  void* mem = enif_alloc(sizeof(arbo_alloc_state));
  ARBO_ASSERT_MSG(mem != nullptr, "as");
  auto* as = new (mem) arbo_alloc_state{};  // every member zero
  as->rmtx = enif_mutex_create(const_cast<char*>("arbo_nif_random"));
  ARBO_ASSERT_MSG(as->rmtx != nullptr, "as->rmtx");
  ft_init(as);
  seed_random();
  *out = as;
}

void arbo_nif_alloc_finish(arbo_alloc_state* as) {
  enif_mutex_destroy(as->rmtx);
  enif_rwlock_rwlock(as->ft.lock);
  enif_free(as->ft.table);
  as->ft.table = nullptr;
  enif_rwlock_rwunlock(as->ft.lock);
  enif_rwlock_destroy(as->ft.lock);
  as->~arbo_alloc_state();
  enif_free(as);
}

arbo_alloc_state* _arbo_nif_get_alloc_state(ErlNifEnv* env) {
  return static_cast<arbo_alloc_state*>(enif_priv_data(env));
}

ERL_NIF_TERM arbo_nif_alloc_info(ErlNifEnv* env, int argc, const ERL_NIF_TERM argv[]) {
  (void)argc;
  (void)argv;
  arbo_alloc_state* as = _arbo_nif_get_alloc_state(env);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  uint64_t mem = as->mem.load();
  enif_rwlock_rlock(as->ft.lock);
  unsigned cap = as->ft.capacity;
  unsigned free_slots = static_cast<unsigned>(as->ft.capacity - as->ft.used);
  enif_rwlock_runlock(as->ft.lock);
  ERL_NIF_TERM info = enif_make_tuple3(env, enif_make_uint(env, 8), enif_make_uint(env, cap),
                                       enif_make_uint(env, free_slots));
  return enif_make_list2(env, enif_make_uint64(env, mem), info);
}

long _arbo_nif_random(ErlNifEnv* env) {
  arbo_alloc_state* as = _arbo_nif_get_alloc_state(env);
  enif_mutex_lock(as->rmtx);
  long r = random();
  enif_mutex_unlock(as->rmtx);
  return r;
}

// ---- nodes and binaries ----------------------------------------------------------

// Under AddressSanitizer every node is its own enif_alloc block, so the
// sanitizer sees each node's lifetime; a table without a pool does the same.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPoolNodes = false;
#else
constexpr bool kPoolNodes = true;
#endif

namespace {

// One body per type: the record's size and slot class are constants, and
// the record is cleared with a few stores.
template <uint32_t Type>
arbo_node* node_alloc(store_ctx* ctx) {
  constexpr size_t sz = node_size(Type);
  static_assert(sz != 0 && sz <= kPoolClassSize[kPoolClasses - 1]);
  node_pool* pool = ctx->table->pool;
  arbo_node* node;
  if (kPoolNodes && pool != nullptr)
    node = static_cast<arbo_node*>(_arbo_pool_alloc(pool, _arbo_pool_class(sz)));
  else
    node = static_cast<arbo_node*>(enif_alloc(sz));
  ARBO_ASSERT(node);
  std::memset(static_cast<void*>(node), 0, sz);
  node->tw = Type;
  ctx->table->mem += sz;
  ctx->table->size++;
  ctx->table->alloc_state->mem += sz;
  return node;
}

}  // namespace

arbo_node* _arbo_nif_node_alloc(store_ctx* ctx, uint32_t type) {
  switch (type) {
    case T_INT_NODE: return node_alloc<T_INT_NODE>(ctx);
    case T_DYN_NODE: return node_alloc<T_DYN_NODE>(ctx);
    case T_GEN_NODE_ONE: return node_alloc<T_GEN_NODE_ONE>(ctx);
    case T_GEN_NODE_TWO: return node_alloc<T_GEN_NODE_TWO>(ctx);
    case T_GEN_NODE_MAX: return node_alloc<T_GEN_NODE_MAX>(ctx);
    default: ARBO_ASSERT(!"node type"); return nullptr;
  }
}

int _arbo_nif_node_free(arbo_node* node, store_ctx* ctx) {
  if (node == nullptr) return 0;
  size_t sz = node_size(node->type());
  node_pool* pool = ctx->table->pool;
  if (kPoolNodes && pool != nullptr) _arbo_pool_free(pool, node, _arbo_pool_class(sz));
  else enif_free(node);
  ctx->table->mem -= sz;
  ctx->table->size--;
  ctx->table->alloc_state->mem -= sz;
  return 1;
}

arbo_bin* _arbo_nif_alloc_binary(size_t len, const unsigned char* bytes, store_ctx* ctx) {
  auto* bin = static_cast<arbo_bin*>(enif_alloc_resource(arbo_bin_type, sizeof(arbo_bin) + len));
  if (bin == nullptr) return nullptr;
  bin->len = len;
  if (len) std::memcpy(bin->bytes(), bytes, len);
  ctx->table->mem += len + sizeof(arbo_bin);
  ctx->table->alloc_state->mem += len;  // the drift of 8 per freed binary is kept
  return bin;
}

void _arbo_nif_free_binary(arbo_bin* bin, store_ctx* ctx) {
  uint64_t sz = bin->len + sizeof(arbo_bin);
  ctx->table->mem -= sz;
  ctx->table->alloc_state->mem -= sz;
  enif_release_resource(bin);
}

ERL_NIF_TERM arbo_bin_to_binary(ErlNifEnv* env, arbo_bin* bin) {
  return enif_make_resource_binary(env, bin, bin->bytes(), bin->len);
}

ERL_NIF_TERM arbo_bin_ref_to_binary(ErlNifEnv* env, bin_ref ref) {
  ERL_NIF_TERM term;
  unsigned char* dst = enif_make_new_binary(env, ref.len, &term);
  if (ref.len) std::memcpy(dst, ref.ptr, ref.len);
  return term;
}

ht_key* _arbo_alloc_ht_key(arbo_t* tree) {
  auto* p = static_cast<ht_key*>(enif_alloc(sizeof(ht_key)));
  ARBO_ASSERT(p);
  std::memset(static_cast<void*>(p), 0, sizeof(ht_key));
  tree->mem += sizeof(ht_key);
  tree->alloc_state->mem += sizeof(ht_key);
  return p;
}

void _arbo_free_ht_key(ht_key* key, arbo_t* tree) {
  enif_free(key);
  tree->mem -= sizeof(ht_key);
  tree->alloc_state->mem -= sizeof(ht_key);
}

// ---- user flags ---------------------------------------------------------------------

uint64_t _arbo_nif_get_flags(ErlNifEnv* env, const arbo_node* node) {
  if ((node->tw & kUflagsIndexed) == 0) return node->tw >> 9;
  arbo_alloc_state* as = _arbo_nif_get_alloc_state(env);
  enif_rwlock_rlock(as->ft.lock);
  uint64_t v = as->ft.table[(node->tw >> 9) & kUflagsInlineMax];
  enif_rwlock_runlock(as->ft.lock);
  return v;
}

uint64_t _arbo_nif_set_flags(ErlNifEnv* env, arbo_node* node, uint64_t value) {
  if (value <= kUflagsInlineMax) {
    node->tw = (static_cast<uint32_t>(value) << 9) | (node->tw & kLowBitsMask);
    return value;
  }
  arbo_alloc_state* as = _arbo_nif_get_alloc_state(env);
  flags_table* ft = &as->ft;
  int32_t index = -1;
  enif_rwlock_rlock(ft->lock);
  for (int16_t i = 0; i < static_cast<int16_t>(ft->used); ++i) {
    if (ft->table[i] == value) {
      index = i;
      break;
    }
  }
  enif_rwlock_runlock(ft->lock);
  if (index < 0) {
    // No second search: two racing callers may both append the value, which
    // only costs a slot.
    enif_rwlock_rwlock(ft->lock);
    if (ft->used == ft->capacity) ft_realloc_uflags_table(as);
    index = ft->used;
    ft->table[ft->used] = value;
    ft->used++;
    enif_rwlock_rwunlock(ft->lock);
  }
  node->tw = (node->tw & kLowBitsMask) | (static_cast<uint32_t>(index) << 9) | kUflagsIndexed;
  return value;
}

uint64_t _arbo_nif_set_flag(ErlNifEnv* env, arbo_node* node, uint64_t bits) {
  return _arbo_nif_set_flags(env, node, _arbo_nif_get_flags(env, node) | bits);
}

uint64_t _arbo_nif_clr_flag(ErlNifEnv* env, arbo_node* node, uint64_t bits) {
  return _arbo_nif_set_flags(env, node, _arbo_nif_get_flags(env, node) & ~bits);
}

}  // namespace arbo
