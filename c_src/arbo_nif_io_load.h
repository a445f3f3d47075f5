// Private to the loader (arbo_nif_io_load*.cpp): the state of one load,
// and the record reader the operation handlers take their payloads from.
//
// Contract
// - A load_state belongs to one call of _arbo_nif_io_load, which holds the
//   table's exclusive lock for the whole call; nothing here takes a lock.
// - Every reader answers 1 when it read all it was asked for and 0 when it
//   did not; a 0 has set st->result ("io" for a file too short for the
//   record or a length it cannot hold, "invalid_data" for a value type and
//   "invalid_key_type" for a key form the format does not know).
// - Bytes come through st->buf (kLoadBufferSize); `pos` is the read position
//   in it, `valid` the bytes it holds, `consumed` the file position. The fast
//   paths of the operation handlers read the buffer directly and keep the
//   three in step the same way.
#ifndef ARBO_NIF_IO_LOAD_H
#define ARBO_NIF_IO_LOAD_H

#include <cstdio>
#include <cstring>

#include "arbo_bytes.h"
#include "arbo_io.h"
#include "arbo_store.h"

namespace arbo {

// One load in progress: the file, the buffer, the path stack and what the
// load reports back.
struct load_state {
  ErlNifEnv* env;
  arbo_t* table;
  store_ctx ctx;
  int32_t capture;
  FILE* f;
  const char* path;
  int64_t file_size;  // -1 when it cannot be measured
  uint64_t consumed = 0;
  int32_t result = LOAD_OK;
  load_stop stop = load_stop::kEnd;  // why the load ended
  int32_t in_trans = 0;
  // path stack; hints[i] serves the list at stack[i]
  arbo_node* cur = nullptr;
  uint32_t depth = 0;
  uint32_t cap = 0;
  arbo_node** stack = nullptr;
  sl_append_hint* hints = nullptr;
  int64_t checkpoint;
  load_result* res;
  unsigned char* buf;
  uint32_t pos = 0;
  uint64_t valid = 0;
  load_progress* prog = nullptr;

  // Bytes the file holds beyond what was consumed: the most any record may
  // still ask for.
  uint64_t remaining() const {
    if (file_size < 0) return UINT64_MAX;
    const uint64_t size = static_cast<uint64_t>(file_size);
    return size > consumed ? size - consumed : 0;
  }
  bool at_root() const { return depth < 2; }
  sl_append_hint* hint() { return &hints[depth - 1]; }
};

// ---- reading (arbo_nif_io_load_read.cpp) ------------------------------------------

// n bytes into dst, through the buffer (or around it above its size).
int _load_read(load_state* st, void* dst, size_t n);

// Fixed-size fields: straight from the buffer when it holds them.
inline int read_small(load_state* st, void* dst, size_t n) {
  if (st->valid - st->pos < n) return _load_read(st, dst, n);
  std::memcpy(dst, st->buf + st->pos, n);
  st->pos += static_cast<uint32_t>(n);
  st->consumed += n;
  return 1;
}

inline int read_u8(load_state* st, uint8_t* v) { return read_small(st, v, 1); }

inline int read_u16(load_state* st, uint16_t* v) {
  unsigned char b[2];
  if (!read_small(st, b, 2)) return 0;
  *v = static_cast<uint16_t>(be16(b));
  return 1;
}

inline int read_u32(load_state* st, uint32_t* v) {
  unsigned char b[4];
  if (!read_small(st, b, 4)) return 0;
  *v = be32(b);
  return 1;
}

int read_u64(load_state* st, uint64_t* v);

// A record asks for `len` more bytes: refused ("io") when the file cannot
// hold that many, before anything is allocated for them.
inline int refuse_io(load_state* st) {
  st->result = LOAD_IO;
  return 0;
}

inline int fits(load_state* st, uint64_t len) {
  return len <= st->remaining() ? 1 : refuse_io(st);
}
// (A stream whose size cannot be told has no such bound: a refused
// allocation for it answers "io" as well.)

// How a csval of `type` is framed: a fixed payload of *fixed bytes (*width
// 0), or a big-endian length prefix of *width bytes. False when the width
// is none of 1, 2 and 4 (a type the value-length table does not know).
inline bool csval_framing(uint8_t type, int* fixed, int* width) {
  int is_variable = 0, is_nested = 0;
  const int n = _arbo_nif_val_len(type, &is_variable, &is_nested);
  *fixed = is_variable ? 0 : n;
  *width = is_variable ? n : 0;
  return !is_variable || n == 1 || n == 2 || n == 4;
}

// One csval: the type byte, then a fixed payload or a big-endian length
// prefix of 1, 2 or 4 bytes and that many bytes. Type 0 is no value.
int _load_csval(load_state* st, decoded_val* out);

// A key of form 0..5 (the opcode's key form), read into k.
int _load_key(load_state* st, uint8_t form, decoded_key* k);

// A key form byte read from the payload (not from the opcode).
int read_key_form(load_state* st, uint8_t* form);

}  // namespace arbo

#endif  // ARBO_NIF_IO_LOAD_H
