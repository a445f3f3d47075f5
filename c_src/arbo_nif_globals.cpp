// Library-wide globals shared by the boundary and the node store: the atom
// cache, the resource types and the fatal-assertion reporter.
#include <cstdio>
#include <cstdlib>

#include "arbo_alloc.h"
#include "arbo_atoms.h"

namespace arbo {

#define ARBO_DEFINE_ATOM(name, text) ERL_NIF_TERM name;
ARBO_ATOMS(ARBO_DEFINE_ATOM)
#undef ARBO_DEFINE_ATOM

ErlNifResourceType* arbo_type = nullptr;
ErlNifResourceType* arbo_bin_type = nullptr;

void initialize_local_atoms(ErlNifEnv* env) {
#define ARBO_MAKE_ATOM(name, text) name = enif_make_atom(env, text);
  ARBO_ATOMS(ARBO_MAKE_ATOM)
#undef ARBO_MAKE_ATOM
}

void assert_fail(const char* expr, const char* func, const char* file, int line) {
  std::fprintf(stderr, "arbo: %s: %s:%d: Assertion `%s' failed.\n", func, file, line, expr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace arbo
