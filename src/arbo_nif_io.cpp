// Persistence functions: save_nif and load_nif.
#include "arbo_nif.h"

namespace arbo {

ARBO_NIF_FN(load_nif) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(save_nif) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

}  // namespace arbo
