// A small stand-in for the Erlang runtime so that the node store can be
// unit-tested and benchmarked outside a VM. Memory comes from malloc,
// locks from the C++ library, resources are reference-counted blocks.
// Term constructors return placeholders: tests of term-building code run in
// the EUnit suites against the real runtime.
#include "enif_shim.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "arbo_alloc.h"

struct ErlDrvMutex_ {
  std::mutex m;
};
struct ErlDrvRWLock_ {
  std::shared_mutex m;
};

namespace {

// A resource block: the count of references, then the payload.
struct ResourceHeader {
  std::atomic<long> refs;
  alignas(16) unsigned char payload[];
};

ResourceHeader* header_of(void* obj) {
  return reinterpret_cast<ResourceHeader*>(static_cast<unsigned char*>(obj) -
                                           offsetof(ResourceHeader, payload));
}

void* g_priv = nullptr;
std::atomic<long> g_live_resources{0};

}  // namespace

long arbo_shim::live_resources() { return g_live_resources.load(); }

extern "C" {

void* enif_alloc(size_t size) { return std::malloc(size); }
void* enif_realloc(void* ptr, size_t size) { return std::realloc(ptr, size); }
void enif_free(void* ptr) { std::free(ptr); }

ErlNifMutex* enif_mutex_create(char*) { return new ErlNifMutex; }
void enif_mutex_destroy(ErlNifMutex* m) { delete m; }
void enif_mutex_lock(ErlNifMutex* m) { m->m.lock(); }
void enif_mutex_unlock(ErlNifMutex* m) { m->m.unlock(); }

ErlNifRWLock* enif_rwlock_create(char*) { return new ErlNifRWLock; }
void enif_rwlock_destroy(ErlNifRWLock* l) { delete l; }
void enif_rwlock_rlock(ErlNifRWLock* l) { l->m.lock_shared(); }
void enif_rwlock_runlock(ErlNifRWLock* l) { l->m.unlock_shared(); }
void enif_rwlock_rwlock(ErlNifRWLock* l) { l->m.lock(); }
void enif_rwlock_rwunlock(ErlNifRWLock* l) { l->m.unlock(); }

void* enif_priv_data(ErlNifEnv*) { return g_priv; }

void* enif_alloc_resource(ErlNifResourceType*, size_t size) {
  auto* h = static_cast<ResourceHeader*>(std::malloc(sizeof(ResourceHeader) + size));
  if (h == nullptr) return nullptr;
  new (&h->refs) std::atomic<long>(1);
  g_live_resources++;
  return h->payload;
}
void enif_release_resource(void* obj) {
  ResourceHeader* h = header_of(obj);
  if (--h->refs == 0) {
    g_live_resources--;
    std::free(h);
  }
}

ERL_NIF_TERM enif_make_resource_binary(ErlNifEnv*, void*, const void*, size_t) { return 0; }
unsigned char* enif_make_new_binary(ErlNifEnv*, size_t size, ERL_NIF_TERM* termp) {
  // Placeholder term; the bytes go to a scratch buffer nobody reads.
  static thread_local std::vector<unsigned char> scratch;
  if (scratch.size() <= size) scratch.resize(size + 1);
  *termp = 0;
  return scratch.data();
}
ERL_NIF_TERM enif_make_uint(ErlNifEnv*, unsigned i) { return i; }
ERL_NIF_TERM enif_make_uint64(ErlNifEnv*, ErlNifUInt64 i) { return i; }
ERL_NIF_TERM enif_make_int(ErlNifEnv*, int i) { return static_cast<ERL_NIF_TERM>(i); }
ERL_NIF_TERM enif_make_tuple(ErlNifEnv*, unsigned, ...) { return 0; }
ERL_NIF_TERM enif_make_list(ErlNifEnv*, unsigned, ...) { return 0; }
ERL_NIF_TERM enif_make_atom(ErlNifEnv*, const char*) { return 0; }
ERL_NIF_TERM enif_make_long(ErlNifEnv*, long i) { return static_cast<ERL_NIF_TERM>(i); }
ERL_NIF_TERM enif_make_string(ErlNifEnv*, const char*, ErlNifCharEncoding) { return 0; }
// Message environments and sends: a send goes nowhere.
ErlNifEnv* enif_alloc_env() { return reinterpret_cast<ErlNifEnv*>(&g_priv); }
void enif_free_env(ErlNifEnv*) {}
int enif_send(ErlNifEnv*, const ErlNifPid*, ErlNifEnv*, ERL_NIF_TERM) { return 1; }
void enif_set_pid_undefined(ErlNifPid* pid) { pid->pid = 0; }
int enif_is_pid_undefined(const ErlNifPid* pid) { return pid->pid == 0; }
// Decoders: a placeholder integer term decodes back to its value; there are
// no binary or tuple terms outside a VM.
int enif_get_int(ErlNifEnv*, ERL_NIF_TERM term, int* ip) { return *ip = static_cast<int>(term), 1; }
int enif_inspect_binary(ErlNifEnv*, ERL_NIF_TERM, ErlNifBinary*) { return 0; }
int enif_get_tuple(ErlNifEnv*, ERL_NIF_TERM, int*, const ERL_NIF_TERM**) { return 0; }
// Unsigned integers decode like the signed ones; there are no list cells.
int enif_get_ulong(ErlNifEnv*, ERL_NIF_TERM term, unsigned long* ip) {
  return *ip = static_cast<unsigned long>(term), 1;
}
int enif_get_list_cell(ErlNifEnv*, ERL_NIF_TERM, ERL_NIF_TERM*, ERL_NIF_TERM*) { return 0; }
ERL_NIF_TERM enif_make_list_cell(ErlNifEnv*, ERL_NIF_TERM, ERL_NIF_TERM) { return 0; }
int enif_compare(ERL_NIF_TERM lhs, ERL_NIF_TERM rhs) { return (lhs > rhs) - (lhs < rhs); }
ErlNifPid* enif_self(ErlNifEnv*, ErlNifPid* pid) { return pid->pid = 1, pid; }
int enif_fprintf(FILE* f, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  int n = std::vfprintf(f ? f : stdout, format, ap);
  va_end(ap);
  return n;
}

}  // extern "C"

namespace arbo_shim {

TestTable::TestTable() {
  if (enif_priv_data(nullptr) == nullptr) {
    arbo::arbo_alloc_state* as = nullptr;
    arbo::arbo_nif_alloc_init(&as);
    g_priv = as;
  }
  std::memset(static_cast<void*>(&table), 0, sizeof(table));
  table.alloc_state = static_cast<arbo::arbo_alloc_state*>(enif_priv_data(nullptr));
  table.pool = arbo::_arbo_pool_create();
  ctx = arbo::store_ctx{&table, nullptr};
  table.root = arbo::_arbo_nif_node_alloc(&ctx, arbo::T_GEN_NODE_MAX);
  table.size = 0;
}

TestTable::~TestTable() {
  if (table.root != nullptr) arbo::_arbo_nif_do_del_node(table.root, &ctx, 1, arbo::kNoFixup);
  arbo::_arbo_pool_destroy(table.pool);
}

}  // namespace arbo_shim
