// Persistence functions: save_nif (dirty I/O, shared lock) and load_nif
// (dirty CPU, exclusive lock). Arguments are decoded before the handle, so a
// bad argument raises before any file is opened.
#include "arbo_io.h"
#include "arbo_nif.h"

namespace arbo {

// load_nif(T, Path, Checkpoint, Capture, Pid) ->
//   {true, {Trans, FileSize, Size, 0, 0, Checkpoint, Captured, undefined | {checkpoint, N}}}
//   | {error, Reason}
ARBO_NIF_FN(load_nif) {
  (void)argc;
  const char* path = nullptr;
  long checkpoint = 0;
  int capture = 0;
  if (!get_nul_path(env, argv[1], &path) || !enif_get_long(env, argv[2], &checkpoint) ||
      !enif_get_int(env, argv[3], &capture))
    return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kExclusive);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  load_result rec{};
  ErlNifPid pid;
  if (!enif_get_local_pid(env, argv[4], &pid)) enif_set_pid_undefined(&pid);
  const int32_t status =
      _arbo_nif_io_load(env, g.table(), path, checkpoint, capture, &pid, &rec);
  g.unlock();
  if (static_cast<uint32_t>(status) > 1)
    return enif_make_tuple2(
        env, am_error,
        enif_make_atom(env, _arbo_nif_io_load_res_str(static_cast<uint32_t>(status))));
  // Counters travel as 32-bit signed integers.
  auto i32 = [env](uint64_t v) { return enif_make_int(env, static_cast<int>(v)); };
  ERL_NIF_TERM where =
      status == LOAD_TRUNCATE
          ? enif_make_tuple2(env, enif_make_atom(env, "checkpoint"),
                             enif_make_int64(env, rec.trunc_pos + 1))
          : am_undefined;
  ERL_NIF_TERM info = enif_make_tuple8(
      env, i32(rec.trans_count), i32(rec.file_size), i32(rec.table_size), i32(rec.reserved4),
      i32(rec.reserved5), i32(static_cast<uint64_t>(rec.checkpoint)), rec.captured, where);
  return enif_make_tuple2(env, am_true, info);
}

// save_nif(T, Path, SkipMask) -> true | {error, Reason}
ARBO_NIF_FN(save_nif) {
  (void)argc;
  const char* path = nullptr;
  unsigned long skip_mask = 0;
  if (!get_nul_path(env, argv[1], &path) || !enif_get_ulong(env, argv[2], &skip_mask))
    return ARBO_BADARG(env);
  TableGuard g(env, argv[0], Lock::kShared);
  if (!g.ok()) return ARBO_RAISE_HANDLE(env, g);
  const int status = _arbo_nif_io_save(env, g.table(), path, skip_mask);
  g.unlock();
  if (status == SAVE_OK) return am_true;
  return enif_make_tuple2(env, am_error, enif_make_atom(env, _arbo_nif_io_save_res_str(status)));
}

}  // namespace arbo
