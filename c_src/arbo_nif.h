// The boundary between Erlang and the node store: raising, the table guard,
// argument decoders and the declarations of the exported functions (their
// table is in arbo_nif.cpp; the families live in arbo_nif_<family>.cpp).
//
// The frame of an exported function: decode the plain arguments, decode the
// handle with a TableGuard (which takes the lock), check node types, call the
// store with a store_ctx, build the result. The guard releases the lock on
// every path; a path that keeps it on purpose says so with guard.leak().
#ifndef ARBO_NIF_H
#define ARBO_NIF_H

#include <erl_nif.h>

#include <cstdint>

#include "arbo_atoms.h"
#include "arbo_node.h"

namespace arbo {

// ---- raising ---------------------------------------------------------------------
// Raises {Reason, SourceFile, Line}; Reason is "badarg", "arbo_closed" or
// "invalid_node_type". Returns the term the exported function must return.
ERL_NIF_TERM raise_error(ErlNifEnv* env, const char* reason, const char* file, int line);
#define ARBO_RAISE(env, reason) ::arbo::raise_error((env), (reason), __FILE_NAME__, __LINE__)
#define ARBO_BADARG(env) ARBO_RAISE(env, "badarg")
#define ARBO_INVALID_TYPE(env) ARBO_RAISE(env, "invalid_node_type")

// ---- handle decoding ------------------------------------------------------------
// Returns true with the table locked (exclusive when `write`), or false with
// nothing locked; `closed` tells a closed table from a malformed handle.
bool get_arbo_t(ErlNifEnv* env, ERL_NIF_TERM term, arbo_t** table, uint32_t* options, bool write,
                bool* closed);
// The same, but on a normal scheduler a lock held by another caller is only
// tried: false with `busy` set and nothing locked when it is taken.
bool get_arbo_t_try(ErlNifEnv* env, ERL_NIF_TERM term, arbo_t** table, uint32_t* options,
                    bool write, bool* closed, bool* busy);

enum class Lock { kShared, kExclusive };

// The one owner of a table lock. Decodes the handle and locks it; the
// destructor unlocks exactly once unless unlock() or leak() came first.
class TableGuard {
 public:
  TableGuard(ErlNifEnv* env, ERL_NIF_TERM handle, Lock mode);
  // Locks a table the caller already holds (runtime callbacks), open or
  // closed; the caller checks `root` itself.
  TableGuard(arbo_t* table, Lock mode);
  ~TableGuard();
  TableGuard(const TableGuard&) = delete;
  TableGuard& operator=(const TableGuard&) = delete;

  bool ok() const { return table_ != nullptr; }
  arbo_t* table() const { return table_; }
  uint32_t options() const { return options_; }
  // The exception for a failed decode: "arbo_closed" or "badarg"; or, when
  // the lock was busy on a normal scheduler, the call continued dirty.
  ERL_NIF_TERM raise(ErlNifEnv* env, int line) const;
  void unlock();
  // Leaves the lock held for good. Only for paths whose contract keeps it.
  void leak() { table_ = nullptr; }

 private:
  arbo_t* table_ = nullptr;
  uint32_t options_ = 0;
  bool closed_ = false;
  bool busy_ = false;
  Lock mode_;
};

// ---- scheduling ----------------------------------------------------------------
// A call entered from Erlang runs on a normal scheduler, where the VM expects
// it back within about a millisecond. Work that may take longer (long sibling
// chains, big subtrees to free, a dump) is measured against a budget first
// and, past it, the call starts over on a dirty scheduler with the same
// arguments (enif_schedule_nif): the result, effect and locking are those of
// one uninterrupted call, since the dirty run does all of the work under one
// hold of the lock. A lock held by someone else is not waited for on a normal
// scheduler either: the guard only tries it, and the call waits on a dirty
// scheduler instead.

// True while the current call runs on a normal scheduler.
bool on_normal_scheduler();
// Starts the current call over on a dirty scheduler (CPU-bound unless `io`).
// Only valid on a normal scheduler; the caller returns the term as it is.
ERL_NIF_TERM continue_dirty(ErlNifEnv* env, bool io = false);
// Sibling steps a walk may take on a normal scheduler (about 0.3 ms of
// pointer chasing through cold memory).
constexpr uint64_t kStepBudget = 1u << 14;
// Nodes and index entries a deletion may free on a normal scheduler.
constexpr uint64_t kFreeBudget = 1u << 12;

// Counts the steps of a walk; on a dirty scheduler it never runs out.
class StepBudget {
 public:
  StepBudget() : left_(on_normal_scheduler() ? kStepBudget : UINT64_MAX) {}
  // False once spent: the caller gives up and continues dirty.
  bool step() { return left_-- != 0; }

 private:
  uint64_t left_;
};

// True, on a normal scheduler only, when the chain from `first` is longer
// than the step budget.
bool long_chain(const arbo_node* first);

// Raise the guard's decode failure with this line.
#define ARBO_RAISE_HANDLE(env, guard) (guard).raise((env), __LINE__)

// The common frame of a function on one node: take the table in `mode`
// (raising on a bad or closed handle), then refuse a node with no valid
// type. Declares the guard `g` in the caller's scope.
#define ARBO_LOCK_NODE(env, handle, mode, node)                   \
  TableGuard g((env), (handle), (mode));                          \
  if (!g.ok()) return ARBO_RAISE_HANDLE((env), g);                \
  if (type_invalid(node)) return ARBO_INVALID_TYPE(env)

// ---- argument decoders ------------------------------------------------------------
// A node reference: a non-zero unsigned 64-bit integer.
bool get_node(ErlNifEnv* env, ERL_NIF_TERM term, arbo_node** node);
// {I} (signed), T (unsigned) or [Ns | T]; ns 0 when absent.
bool get_htag(ErlNifEnv* env, ERL_NIF_TERM term, uint32_t* ns, uint32_t* tag);
// {A, B} of integers (enif_get_int each).
bool get_int_pair(ErlNifEnv* env, ERL_NIF_TERM term, int* a, int* b);
// {Ns, N}, a namespaced integer key: the pair's integers as the namespace and
// tag, each kept as its 32 bits. On a failed decode they hold what was read
// (0 for the rest): lenient callers look that key up.
bool get_ns_int(ErlNifEnv* env, ERL_NIF_TERM term, uint32_t* ns, uint32_t* tag);
// A binary holding a NUL-terminated path: a NUL, and only NULs after the
// first one except (kept leniency) the very last byte. Points into the
// binary; the path ends at the first NUL.
bool get_nul_path(ErlNifEnv* env, ERL_NIF_TERM term, const char** path);

// A node whose type bits read 0: the functions that check types answer
// "invalid_node_type" for it.
inline bool type_invalid(const arbo_node* n) { return n->type() == 0; }

inline ERL_NIF_TERM make_node(ErlNifEnv* env, const void* node) {
  return enif_make_uint64(env, reinterpret_cast<uintptr_t>(node));
}
inline ERL_NIF_TERM make_bool(bool b) { return b ? am_true : am_false; }

// ---- the exported functions, by family ------------------------------------------
#define ARBO_NIF_FN(name) ERL_NIF_TERM name(ErlNifEnv* env, int argc, const ERL_NIF_TERM argv[])

// handle (arbo_nif.cpp)
ARBO_NIF_FN(new_arbo);
ARBO_NIF_FN(close_arbo);
ARBO_NIF_FN(get_root);
ARBO_NIF_FN(get_generation);
ARBO_NIF_FN(get_size);
ARBO_NIF_FN(get_mem);
// tree editing (arbo_nif_edit.cpp)
ARBO_NIF_FN(add_hkey_dyn);
ARBO_NIF_FN(add_hkey_internal);
ARBO_NIF_FN(add_hkey);
ARBO_NIF_FN(del_hkey);
ARBO_NIF_FN(get_hkey);
ARBO_NIF_FN(del_ns);
ARBO_NIF_FN(rename_ns);
ARBO_NIF_FN(rename_instance);
ARBO_NIF_FN(del_all);
// navigation (arbo_nif_nav.cpp)
ARBO_NIF_FN(num_children);
ARBO_NIF_FN(num_children_with_flag);
ARBO_NIF_FN(has_descendant_with_flags4);
ARBO_NIF_FN(has_child_with_flags3);
ARBO_NIF_FN(has_child_without_flags3);
ARBO_NIF_FN(first_child_nif);
ARBO_NIF_FN(next_sibling_nif);
ARBO_NIF_FN(last_child);
ARBO_NIF_FN(prev_sibling);
ARBO_NIF_FN(get_child);
ARBO_NIF_FN(find_child);
ARBO_NIF_FN(find_next_nif);
ARBO_NIF_FN(move_to);
ARBO_NIF_FN(move_rel_internal);
ARBO_NIF_FN(child_index);
// node properties (arbo_nif_props.cpp)
ARBO_NIF_FN(get_flags);
ARBO_NIF_FN(set_flags);
ARBO_NIF_FN(set_flag);
ARBO_NIF_FN(clr_flag);
ARBO_NIF_FN(get_type);
ARBO_NIF_FN(get_attr_root);
ARBO_NIF_FN(get_attr);
ARBO_NIF_FN(set_attr);
ARBO_NIF_FN(get_val_raw);
ARBO_NIF_FN(set_val);
ARBO_NIF_FN(file_print);
ARBO_NIF_FN(cmp_keys_nif);
// iterator stacks (arbo_nif_stack.cpp)
ARBO_NIF_FN(push_iter_node);
ARBO_NIF_FN(pop_iter_node);
ARBO_NIF_FN(get_iter_node);
// Down callback of "arbo_type": drops a dead process's iterator stack.
void iter_nodes_proc_down(ErlNifEnv* env, void* obj, ErlNifPid* pid, ErlNifMonitor* mon);
// persistence (arbo_nif_io.cpp)
ARBO_NIF_FN(load_nif);
ARBO_NIF_FN(save_nif);

}  // namespace arbo

#endif  // ARBO_NIF_H
