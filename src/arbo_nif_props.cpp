// Node property functions: flags, type, attributes, values, the dump and key comparison.
#include "arbo_nif.h"

namespace arbo {

ARBO_NIF_FN(get_flags) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(set_flags) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(set_flag) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(clr_flag) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(get_type) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(get_attr_root) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(get_attr) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(set_attr) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(get_val_raw) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(set_val) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(file_print) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(cmp_keys_nif) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

}  // namespace arbo
