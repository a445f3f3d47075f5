// Navigation functions: count, test, step through, look up and reorder children.
#include "arbo_nif.h"

namespace arbo {

ARBO_NIF_FN(num_children) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(num_children_with_flag) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(has_descendant_with_flags4) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(has_child_with_flags3) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(has_child_without_flags3) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(first_child_nif) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(next_sibling_nif) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(last_child) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(prev_sibling) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(get_child) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(find_child) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(find_next_nif) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(move_to) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(move_rel_internal) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

ARBO_NIF_FN(child_index) {
  (void)argc;
  (void)argv;
  return ARBO_BADARG(env);  // not built yet
}

}  // namespace arbo
