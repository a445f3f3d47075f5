// Tree-editing functions: add, delete, re-key and read the keys of nodes.
#include "arbo_nif.h"

namespace arbo {

ARBO_NIF_FN(add_hkey_dyn) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(add_hkey_internal) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(add_hkey) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(del_hkey) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(get_hkey) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(del_ns) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(rename_ns) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(rename_instance) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(del_all) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

}  // namespace arbo
