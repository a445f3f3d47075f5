// Module lifecycle, the table handle and the table of exported functions.
#include "arbo_nif.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include "arbo_alloc.h"
#include "arbo_stack.h"
#include "arbo_store.h"
#include "arbo_walk.h"

namespace arbo {

ERL_NIF_TERM raise_error(ErlNifEnv* env, const char* reason, const char* file, int line) {
  ERL_NIF_TERM t = enif_make_tuple3(env, enif_make_atom(env, reason),
                                    enif_make_string(env, file, ERL_NIF_LATIN1),
                                    enif_make_uint(env, static_cast<unsigned>(line)));
  return enif_raise_exception(env, t);
}

// ---- scheduling ----------------------------------------------------------------------

namespace {
// The call the current normal-scheduler thread is running, set by the entry
// trampoline of its row in the function table.
struct CurrentCall {
  const ErlNifFunc* row = nullptr;
  ERL_NIF_TERM (*fn)(ErlNifEnv*, int, const ERL_NIF_TERM[]) = nullptr;
  int argc = 0;
  const ERL_NIF_TERM* argv = nullptr;
};
thread_local CurrentCall t_call;
}  // namespace

bool on_normal_scheduler() { return t_call.row != nullptr; }

ERL_NIF_TERM continue_dirty(ErlNifEnv* env, bool io) {
  ARBO_ASSERT(t_call.row != nullptr);
  return enif_schedule_nif(env, t_call.row->name,
                           io ? ERL_NIF_DIRTY_JOB_IO_BOUND : ERL_NIF_DIRTY_JOB_CPU_BOUND,
                           t_call.fn, t_call.argc, t_call.argv);
}

bool long_chain(const arbo_node* first) {
  if (!on_normal_scheduler()) return false;
  uint64_t steps = 0;
  for (const arbo_node* c = first; c != nullptr; c = sibling(c))
    if (++steps > kStepBudget) return true;
  return false;
}

// Runs one row's function with the thread marked as a normal scheduler.
class EntryScope {
 public:
  EntryScope(const ErlNifFunc* row, decltype(CurrentCall::fn) fn, int argc,
             const ERL_NIF_TERM* argv) {
    t_call = {row, fn, argc, argv};
  }
  ~EntryScope() { t_call = {}; }
  EntryScope(const EntryScope&) = delete;
  EntryScope& operator=(const EntryScope&) = delete;
};

// ---- handle ------------------------------------------------------------------------

namespace {

// Decodes the handle tuple; the table is not locked.
bool decode_handle(ErlNifEnv* env, ERL_NIF_TERM term, arbo_t** table, unsigned* opts) {
  int arity = 0;
  const ERL_NIF_TERM* el = nullptr;
  void* obj = nullptr;
  if (!enif_get_tuple(env, term, &arity, &el) || arity != 4) return false;
  // Atoms are unique immediates: equal exactly when identical. The runtime's
  // general comparison would compare the atoms' texts on every call.
  if (el[0] != am_arbo) return false;
  if (!enif_get_resource(env, el[1], arbo_type, &obj)) return false;
  if (!enif_get_uint(env, el[2], opts)) return false;
  *table = static_cast<arbo_t*>(obj);
  return true;
}

void unlock_table(arbo_t* t, bool write) {
  if (write) enif_rwlock_rwunlock(t->lock);
  else enif_rwlock_runlock(t->lock);
}

// The lock is taken; a closed table is refused with the lock released.
bool refuse_closed(arbo_t* t, bool write, bool* closed) {
  if (t->root != nullptr) return false;
  unlock_table(t, write);
  *closed = true;
  return true;
}

}  // namespace

bool get_arbo_t(ErlNifEnv* env, ERL_NIF_TERM term, arbo_t** table, uint32_t* options, bool write,
                bool* closed) {
  *closed = false;
  arbo_t* t = nullptr;
  unsigned opts = 0;
  if (!decode_handle(env, term, &t, &opts)) return false;
  if (write) enif_rwlock_rwlock(t->lock);
  else enif_rwlock_rlock(t->lock);
  if (refuse_closed(t, write, closed)) return false;
  *table = t;
  if (options) *options = opts;
  return true;
}

bool get_arbo_t_try(ErlNifEnv* env, ERL_NIF_TERM term, arbo_t** table, uint32_t* options,
                    bool write, bool* closed, bool* busy) {
  *busy = false;
  if (!on_normal_scheduler()) return get_arbo_t(env, term, table, options, write, closed);
  *closed = false;
  arbo_t* t = nullptr;
  unsigned opts = 0;
  if (!decode_handle(env, term, &t, &opts)) return false;
  const int r = write ? enif_rwlock_tryrwlock(t->lock) : enif_rwlock_tryrlock(t->lock);
  if (r != 0) {
    *busy = true;
    return false;
  }
  if (refuse_closed(t, write, closed)) return false;
  *table = t;
  if (options) *options = opts;
  return true;
}

TableGuard::TableGuard(ErlNifEnv* env, ERL_NIF_TERM handle, Lock mode) : mode_(mode) {
  arbo_t* t = nullptr;
  if (get_arbo_t_try(env, handle, &t, &options_, mode == Lock::kExclusive, &closed_, &busy_))
    table_ = t;
}

TableGuard::TableGuard(arbo_t* table, Lock mode) : table_(table), mode_(mode) {
  if (mode == Lock::kExclusive) enif_rwlock_rwlock(table->lock);
  else enif_rwlock_rlock(table->lock);
}

TableGuard::~TableGuard() { unlock(); }

void TableGuard::unlock() {
  if (table_ == nullptr) return;
  if (mode_ == Lock::kExclusive) enif_rwlock_rwunlock(table_->lock);
  else enif_rwlock_runlock(table_->lock);
  table_ = nullptr;
}

ERL_NIF_TERM TableGuard::raise(ErlNifEnv* env, int line) const {
  if (busy_) return continue_dirty(env);
  return raise_error(env, closed_ ? "arbo_closed" : "badarg", __FILE_NAME__, line);
}

// ---- argument decoders ------------------------------------------------------------

bool get_node(ErlNifEnv* env, ERL_NIF_TERM term, arbo_node** node) {
  ErlNifUInt64 v = 0;
  if (!enif_get_uint64(env, term, &v) || v == 0) return false;
  *node = reinterpret_cast<arbo_node*>(static_cast<uintptr_t>(v));
  return true;
}

bool get_htag(ErlNifEnv* env, ERL_NIF_TERM term, uint32_t* ns, uint32_t* tag) {
  int arity = 0;
  const ERL_NIF_TERM* el = nullptr;
  int i = 0;
  unsigned u = 0, n = 0;
  ERL_NIF_TERM head, tail;
  if (enif_get_tuple(env, term, &arity, &el)) {
    if (arity != 1 || !enif_get_int(env, el[0], &i)) return false;
    if (ns) *ns = 0;
    *tag = static_cast<uint32_t>(i);
    return true;
  }
  if (enif_get_uint(env, term, &u)) {
    if (ns) *ns = 0;
    *tag = u;
    return true;
  }
  if (enif_get_list_cell(env, term, &head, &tail) && enif_get_uint(env, head, &n) &&
      enif_get_uint(env, tail, &u)) {
    if (ns) *ns = n;
    *tag = u;
    return true;
  }
  return false;
}

bool get_int_pair(ErlNifEnv* env, ERL_NIF_TERM term, int* a, int* b) {
  int arity = 0;
  const ERL_NIF_TERM* el = nullptr;
  return enif_get_tuple(env, term, &arity, &el) && arity == 2 && enif_get_int(env, el[0], a) &&
         enif_get_int(env, el[1], b);
}

bool get_ns_int(ErlNifEnv* env, ERL_NIF_TERM term, uint32_t* ns, uint32_t* tag) {
  int a = 0, b = 0;
  const bool ok = get_int_pair(env, term, &a, &b);
  *ns = static_cast<uint32_t>(a);
  *tag = static_cast<uint32_t>(b);
  return ok;
}

bool get_nul_path(ErlNifEnv* env, ERL_NIF_TERM term, const char** path) {
  ErlNifBinary bin;
  if (!enif_inspect_binary(env, term, &bin) || bin.size == 0) return false;
  const void* nul = std::memchr(bin.data, 0, bin.size);
  if (nul == nullptr) return false;
  // Every byte after the first NUL must be NUL too, the last byte excepted.
  size_t first = static_cast<size_t>(static_cast<const unsigned char*>(nul) - bin.data);
  for (size_t i = first + 1; i + 1 < bin.size; ++i)
    if (bin.data[i] != 0) return false;
  *path = reinterpret_cast<const char*>(bin.data);
  return true;
}

// ---- the six handle functions --------------------------------------------------

ARBO_NIF_FN(new_arbo) {
  (void)argc;
  (void)argv;
  auto* t = static_cast<arbo_t*>(enif_alloc_resource(arbo_type, sizeof(arbo_t)));
  ARBO_ASSERT_MSG(t != nullptr, "d");
  std::memset(static_cast<void*>(t), 0, sizeof(arbo_t));
  enif_self(env, &t->owner);
  t->lock = enif_rwlock_create(const_cast<char*>("arbo_type_lock"));
  ARBO_ASSERT_MSG(t->lock != nullptr, "d->lock");
  t->alloc_state = _arbo_nif_get_alloc_state(env);
  t->pool = _arbo_pool_create();
  store_ctx ctx{t, env};
  // The root is counted in mem but not in size: a fresh table reports size 0.
  t->root = _arbo_nif_node_alloc(&ctx, T_GEN_NODE_MAX);
  t->size = 0;
  ERL_NIF_TERM term = enif_make_resource(env, t);
  enif_release_resource(t);
  return term;
}

// Frees the stacks, the whole tree and then the node pool; the table is
// closed afterwards.
static void free_tree(arbo_t* t, ErlNifEnv* env) {
  iter_nodes_free_all(t);
  store_ctx ctx{t, env};
  _arbo_nif_do_del_node(t->root, &ctx, 1, 1);
  t->root = nullptr;
  _arbo_pool_destroy(t->pool);
  t->pool = nullptr;
}

ARBO_NIF_FN(close_arbo) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  if (on_normal_scheduler() && _arbo_nif_subtree_exceeds(g.table()->root, 1, kFreeBudget))
    return continue_dirty(env);
  free_tree(g.table(), env);
  g.table()->generation++;
  return am_ok;
}

ARBO_NIF_FN(get_root) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  return make_node(env, g.table()->root);
}

ARBO_NIF_FN(get_generation) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  return enif_make_uint(env, g.table()->generation);
}

ARBO_NIF_FN(get_size) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  return enif_make_uint(env, g.table()->size);
}

ARBO_NIF_FN(get_mem) {
  (void)argc;
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  return enif_make_uint64(env, g.table()->mem);
}

// ---- resource types and module callbacks ---------------------------------------

// Trees dropped without close are freed here, off whatever thread happened to
// collect the handle. Unload waits until none is left in progress.
std::atomic<int> g_reaping{0};

static void reap(arbo_t* orphan) {
  _arbo_nif_rehome_indexes(orphan->root, orphan);
  free_tree(orphan, nullptr);
  enif_free(orphan);
  g_reaping.fetch_sub(1);
}

static void arbo_type_destroy(ErlNifEnv* env, void* obj) {
  auto* t = static_cast<arbo_t*>(obj);
  // Nobody else holds a reference any more: no lock needed. A big tree goes
  // to a thread of its own with a copy of the handle's fields (the handle's
  // memory is the runtime's once this returns); the library counter, which
  // it updates, is atomic.
  if (t->root != nullptr && _arbo_nif_subtree_exceeds(t->root, 1, kFreeBudget)) {
    iter_nodes_free_all(t);
    t->iter_nodes = nullptr;
    auto* orphan = static_cast<arbo_t*>(enif_alloc(sizeof(arbo_t)));
    if (orphan != nullptr) {
      std::memcpy(static_cast<void*>(orphan), t, sizeof(arbo_t));
      orphan->lock = nullptr;
      g_reaping.fetch_add(1);
      try {
        std::thread(reap, orphan).detach();
        t->root = nullptr;
        t->pool = nullptr;
      } catch (...) {
        g_reaping.fetch_sub(1);
        enif_free(orphan);
      }
    }
  }
  if (t->root != nullptr) free_tree(t, env);
  _arbo_pool_destroy(t->pool);
  t->pool = nullptr;
  if (t->lock != nullptr) enif_rwlock_destroy(t->lock);
}

static void arbo_binary_destroy(ErlNifEnv* env, void* obj) {
  (void)env;
  (void)obj;
}

static bool open_resource_types(ErlNifEnv* env, ErlNifResourceFlags flags) {
  ErlNifResourceTypeInit init{};
  init.dtor = arbo_type_destroy;
  init.stop = nullptr;
  init.down = iter_nodes_proc_down;
  ErlNifResourceFlags tried;
  ErlNifResourceType* t = enif_open_resource_type_x(env, "arbo_type", &init, flags, &tried);
  if (t == nullptr) return false;
  ErlNifResourceType* b =
      enif_open_resource_type(env, nullptr, "arbo_binary", arbo_binary_destroy, flags, &tried);
  if (b == nullptr) return false;
  arbo_type = t;
  arbo_bin_type = b;
  return true;
}

static int load(ErlNifEnv* env, void** priv, ERL_NIF_TERM info) {
  (void)info;
  if (!open_resource_types(env, ERL_NIF_RT_CREATE)) return -1;
  arbo_alloc_state* as = nullptr;
  arbo_nif_alloc_init(&as);
  *priv = as;
  initialize_local_atoms(env);
  return 0;
}

static int reload(ErlNifEnv* env, void** priv, ERL_NIF_TERM info) {
  (void)priv;
  (void)info;
  if (!open_resource_types(env, static_cast<ErlNifResourceFlags>(ERL_NIF_RT_CREATE |
                                                                 ERL_NIF_RT_TAKEOVER)))
    return -1;
  initialize_local_atoms(env);
  return 0;
}

static int upgrade(ErlNifEnv* env, void** priv, void** old_priv, ERL_NIF_TERM info) {
  (void)info;
  if (!open_resource_types(env, ERL_NIF_RT_TAKEOVER)) return -1;
  // The new instance takes the old one's private data; the old unload then
  // frees nothing.
  *priv = *old_priv;
  *old_priv = nullptr;
  initialize_local_atoms(env);
  return 0;
}

static void unload(ErlNifEnv* env, void* priv) {
  (void)env;
  // The code of a tree being freed in the background must stay mapped.
  while (g_reaping.load() != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (priv != nullptr) arbo_nif_alloc_finish(static_cast<arbo_alloc_state*>(priv));
}

}  // namespace arbo

// ---- the table of exported functions ------------------------------------------------
// Registered in exactly this order; the Erlang stubs in src/arbo.erl follow it.
static ErlNifFunc nif_funcs[] = {
    // handle and allocation
    {"new_arbo", 0, arbo::new_arbo, 0},
    {"close", 1, arbo::close_arbo, 0},
    {"get_root", 1, arbo::get_root, 0},
    {"get_generation", 1, arbo::get_generation, 0},
    {"get_size", 1, arbo::get_size, 0},
    {"get_mem", 1, arbo::get_mem, 0},
    {"alloc_info", 0, arbo::arbo_nif_alloc_info, 0},
    // tree editing
    {"add_hkey_dyn", 4, arbo::add_hkey_dyn, 0},
    {"add_hkey_internal", 3, arbo::add_hkey_internal, 0},
    {"add_hkey", 4, arbo::add_hkey, 0},
    {"del_hkey", 4, arbo::del_hkey, 0},
    {"get_hkey0", 2, arbo::get_hkey, 0},
    {"del_ns", 3, arbo::del_ns, 0},
    {"rename_ns", 4, arbo::rename_ns, 0},
    {"rename_instance0", 5, arbo::rename_instance, 0},
    {"del_all", 1, arbo::del_all, 0},
    // navigation
    {"num_children", 2, arbo::num_children, 0},
    {"num_children_with_flag", 3, arbo::num_children_with_flag, 0},
    {"has_descendant_with_flags", 4, arbo::has_descendant_with_flags4, 0},
    {"has_child_with_flags", 3, arbo::has_child_with_flags3, 0},
    {"has_child_without_flags", 3, arbo::has_child_without_flags3, 0},
    {"first_child_nif", 4, arbo::first_child_nif, 0},
    {"next_sibling_nif", 4, arbo::next_sibling_nif, 0},
    {"next_sibling_nif", 5, arbo::next_sibling_nif, 0},
    {"last_child", 2, arbo::last_child, 0},
    {"prev_sibling", 3, arbo::prev_sibling, 0},
    {"get_child", 3, arbo::get_child, 0},
    {"find_child", 4, arbo::find_child, 0},
    {"find_next_nif", 6, arbo::find_next_nif, 0},
    {"move_to", 4, arbo::move_to, 0},
    {"move_rel_internal", 5, arbo::move_rel_internal, 0},
    {"child_index", 3, arbo::child_index, 0},
    // node properties
    {"get_flags", 2, arbo::get_flags, 0},
    {"set_flags", 3, arbo::set_flags, 0},
    {"set_flag", 3, arbo::set_flag, 0},
    {"clr_flag", 3, arbo::clr_flag, 0},
    {"get_type", 2, arbo::get_type, 0},
    {"get_attr_root", 2, arbo::get_attr_root, 0},
    {"do_get_attr", 3, arbo::get_attr, 0},
    {"do_set_attr", 4, arbo::set_attr, 0},
    {"get_val_raw", 2, arbo::get_val_raw, 0},
    {"set_val", 4, arbo::set_val, 0},
    {"fprint_nif", 2, arbo::file_print, 0},
    {"cmp_keys_nif", 5, arbo::cmp_keys_nif, 0},
    // iterator stacks
    {"push_iter_node", 2, arbo::push_iter_node, 0},
    {"pop_iter_node", 1, arbo::pop_iter_node, 0},
    {"get_iter_node", 1, arbo::get_iter_node, 0},
    // persistence
    {"load_nif", 5, arbo::load_nif, ERL_NIF_DIRTY_JOB_CPU_BOUND},
    {"save_nif", 3, arbo::save_nif, ERL_NIF_DIRTY_JOB_IO_BOUND},
};

// Every row without a dirty flag is entered through a trampoline that marks
// the thread as a normal scheduler for the length of the call, so that a call
// can tell where it runs and start over dirty with its own function (the
// rows' names, arities and flags stay as they are).
namespace {
using NifFn = ERL_NIF_TERM (*)(ErlNifEnv*, int, const ERL_NIF_TERM[]);
constexpr size_t kFuncs = sizeof(nif_funcs) / sizeof(nif_funcs[0]);
NifFn g_body[kFuncs];

template <size_t I>
ERL_NIF_TERM entry(ErlNifEnv* env, int argc, const ERL_NIF_TERM argv[]) {
  arbo::EntryScope scope(&nif_funcs[I], g_body[I], argc, argv);
  return g_body[I](env, argc, argv);
}

template <size_t... I>
void route_entries(std::index_sequence<I...>) {
  (((nif_funcs[I].flags == 0) ? (g_body[I] = nif_funcs[I].fptr, nif_funcs[I].fptr = entry<I>)
                              : nif_funcs[I].fptr),
   ...);
}
}  // namespace

// Older headers named the dirty-scheduler option bit; newer ones only document
// that the field is 1 when dirty NIFs are used.
#ifndef ERL_NIF_DIRTY_NIF_OPTION
#define ERL_NIF_DIRTY_NIF_OPTION 1
#endif

// The entry record is built by hand: the library states interface 2.15 and
// "erts-10.4", which the stock macro of newer headers would not.
extern "C" {
__attribute__((visibility("default"))) ErlNifEntry* nif_init(void);
ErlNifEntry* nif_init(void) {
  static bool routed = false;
  if (!routed) {
    route_entries(std::make_index_sequence<kFuncs>{});
    routed = true;
  }
  static ErlNifEntry entry = {
      2,
      15,
      "arbo",
      static_cast<int>(sizeof(nif_funcs) / sizeof(nif_funcs[0])),
      nif_funcs,
      arbo::load,
      arbo::reload,
      arbo::upgrade,
      arbo::unload,
      "beam.vanilla",
      ERL_NIF_DIRTY_NIF_OPTION,
      // a resource-type init record of three callbacks (dtor, stop, down)
      offsetof(ErlNifResourceTypeInit, members),
      "erts-10.4",
  };
  return &entry;
}
}
static_assert(sizeof(nif_funcs) / sizeof(nif_funcs[0]) == 49, "49 exported functions");
