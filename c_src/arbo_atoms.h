// Every atom the library keeps, written once. ARBO_ATOMS expands into the
// declarations, the definitions and the creation at load, reload and upgrade.
#ifndef ARBO_ATOMS_H
#define ARBO_ATOMS_H

#include <erl_nif.h>

#define ARBO_ATOMS(X)                     \
  X(am_true, "true")                      \
  X(am_false, "false")                    \
  X(am_ok, "ok")                          \
  X(am_binary, "binary")                  \
  X(am_arbo, "arbo")                      \
  X(am_yield, "yield")                    \
  X(am_match_full, "full")                \
  X(am_match_missing, "missing")          \
  X(am_match_unsupported, "unsupported")  \
  X(am_error, "error")                    \
  X(am_msg, "msg")                        \
  X(am_undefined, "undefined")            \
  X(am_csval, "csval")

namespace arbo {
#define ARBO_DECLARE_ATOM(name, text) extern ERL_NIF_TERM name;
ARBO_ATOMS(ARBO_DECLARE_ATOM)
#undef ARBO_DECLARE_ATOM

// Fills the cache; called by the load, reload and upgrade callbacks.
void initialize_local_atoms(ErlNifEnv* env);
}  // namespace arbo

#endif  // ARBO_ATOMS_H
