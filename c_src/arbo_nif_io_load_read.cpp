// The loader's record reader: the file's bytes through one 1 MiB buffer
// (requests above it bypass it), 64-bit fields, csvals and the six key
// readers, every length checked against the bytes the file still holds
// before anything is allocated for it; and the progress messages, sent as
// the buffer refills. Nothing here touches the tree.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "arbo_atoms.h"
#include "arbo_bytes.h"
#include "arbo_io.h"
#include "arbo_nif_io_load.h"

namespace arbo {

// ---- decoded values and progress ----------------------------------------------------

void _arbo_nif_val_destroy(decoded_val* val) {
  val->buf.release();
  val->len = 0;
}

bool _load_progress_due(load_progress* p, time_t now) {
  if (now - p->last < static_cast<time_t>(p->interval)) return false;
  p->last = now;
  p->count++;
  if (p->count >= 5) p->interval = 300;
  else p->interval = 60;
  return true;
}

namespace {

void _load_send_progress(load_state* st) {
  load_progress* p = st->prog;
  if (p == nullptr) return;
  const time_t now = std::time(nullptr);
  if (!_load_progress_due(p, now)) return;
  ErlNifEnv* menv = enif_alloc_env();
  const int64_t elapsed = static_cast<int32_t>(now - p->start);
  ERL_NIF_TERM stamp =
      enif_make_tuple3(menv, enif_make_int64(menv, static_cast<int64_t>(now) / 1000000),
                       enif_make_int64(menv, static_cast<int64_t>(now) % 1000000),
                       enif_make_int(menv, 0));
  ERL_NIF_TERM body = enif_make_tuple7(
      menv, enif_make_uint(menv, p->count),
      enif_make_uint(menv, static_cast<uint32_t>(st->consumed)),
      enif_make_string(menv, st->path, ERL_NIF_LATIN1), enif_make_int64(menv, st->file_size),
      enif_make_uint(menv, static_cast<uint32_t>(st->res->trans_count)),
      enif_make_int64(menv, elapsed * 1000), stamp);
  enif_send(st->env, &p->pid, menv, enif_make_tuple2(menv, am_msg, body));
  enif_free_env(menv);
}

}  // namespace

// ---- reading -------------------------------------------------------------------------

int _load_read(load_state* st, void* dst, size_t n) {
  if (n == 0) return 1;
  unsigned char* out = static_cast<unsigned char*>(dst);
  const uint64_t rest = st->valid - st->pos;
  if (rest >= n) {
    std::memcpy(out, st->buf + st->pos, n);
    st->pos += static_cast<uint32_t>(n);
    st->consumed += n;
    return 1;
  }
  if (n <= kLoadBufferSize) {
    std::memmove(st->buf, st->buf + st->pos, rest);
    const size_t got = std::fread(st->buf + rest, 1, kLoadBufferSize - rest, st->f);
    _load_send_progress(st);
    st->pos = 0;
    st->valid = rest + got;
    if (st->valid >= n) {
      std::memcpy(out, st->buf, n);
      st->pos = static_cast<uint32_t>(n);
      st->consumed += n;
      return 1;
    }
  } else {
    std::memcpy(out, st->buf + st->pos, rest);
    const size_t ok = std::fread(out + rest, n - rest, 1, st->f);
    _load_send_progress(st);
    st->pos = 0;
    st->valid = 0;
    if (ok == 1) {
      st->consumed += n;
      return 1;
    }
  }
  st->result = LOAD_IO;
  return 0;
}

int read_u64(load_state* st, uint64_t* v) {
  uint64_t be = 0;
  if (!_load_read(st, &be, 8)) return 0;
  *v = _arbo_nif_io_be64toh(be);
  return 1;
}

int _load_csval(load_state* st, decoded_val* out) {
  _arbo_nif_val_destroy(out);
  uint8_t type = 0;
  if (!read_u8(st, &type)) return 0;
  if (type == TYPE_EMPTY) return 1;
  int fixed = 0, width = 0;
  if (!csval_framing(type, &fixed, &width)) {
    st->result = LOAD_INVALID_DATA;
    return 0;
  }
  if (width == 0) {
    if (!fits(st, static_cast<uint64_t>(fixed))) return 0;
    unsigned char* v = out->buf.reserve(1 + static_cast<size_t>(fixed));
    ARBO_ASSERT(v != nullptr);
    v[0] = type;
    if (!_load_read(st, v + 1, static_cast<size_t>(fixed))) return 0;
    out->len = 1 + static_cast<size_t>(fixed);
    return 1;
  }
  unsigned char prefix[4];
  if (!_load_read(st, prefix, static_cast<size_t>(width))) return 0;
  const uint64_t len = be_n(prefix, width);
  if (!fits(st, len)) return 0;
  const size_t head = 1 + static_cast<size_t>(width);
  unsigned char* v = out->buf.reserve(head + static_cast<size_t>(len));
  if (v == nullptr) return refuse_io(st);
  v[0] = type;
  std::memcpy(v + 1, prefix, static_cast<size_t>(width));
  if (!_load_read(st, v + head, static_cast<size_t>(len))) return 0;
  out->len = head + static_cast<size_t>(len);
  return 1;
}

namespace {

// ---- the six key readers, key forms 0..5 ------------------------------------------

int _load_node_path_htag(load_state* st, decoded_key* k) {
  k->kind = KF_HTAG;
  return read_u32(st, &k->tag);
}

int _load_node_path_ns_htag(load_state* st, decoded_key* k) {
  k->kind = KF_NS_HTAG;
  return read_u32(st, &k->ns) && read_u32(st, &k->tag);
}

int _load_node_path_hkey_int(load_state* st, decoded_key* k) {
  k->kind = KF_HKEY_INT;
  return read_u32(st, &k->tag);
}

// Type byte TYPE_UINT32 marks a generic key: the five bytes as they stand.
int _load_node_path_hkey_int_btuple(load_state* st, decoded_key* k) {
  unsigned char b[5];
  if (!_load_read(st, b, 5)) return 0;
  if (b[0] == TYPE_UINT32) {
    k->kind = KF_HKEY_GEN;
    std::memcpy(k->buf.reserve(5), b, 5);
    k->len = 5;
    return 1;
  }
  k->kind = KF_HKEY_INT_BTUPLE;
  k->ns = b[0];
  k->tag = be32(b + 1);
  return 1;
}

int read_key_bytes(load_state* st, decoded_key* k) {
  uint32_t len = 0;
  if (!read_u32(st, &len) || !fits(st, len)) return 0;
  unsigned char* b = k->buf.reserve(len);
  if (b == nullptr) return refuse_io(st);
  k->len = len;
  return _load_read(st, b, len);
}

int _load_node_path_hkey_bin(load_state* st, decoded_key* k) {
  k->kind = KF_HKEY_BIN;
  return read_key_bytes(st, k);
}

int _load_node_path_hkey_gen(load_state* st, decoded_key* k) {
  k->kind = KF_HKEY_GEN;
  return read_key_bytes(st, k);
}

using key_reader = int (*)(load_state*, decoded_key*);
constexpr key_reader kKeyReaders[kKeyFormCount] = {
    _load_node_path_htag,     _load_node_path_ns_htag,         _load_node_path_hkey_int,
    _load_node_path_hkey_int_btuple, _load_node_path_hkey_bin, _load_node_path_hkey_gen,
};

}  // namespace

int _load_key(load_state* st, uint8_t form, decoded_key* k) {
  if (form >= kKeyFormCount) {
    st->result = LOAD_INVALID_KEY_TYPE;
    return 0;
  }
  return kKeyReaders[form](st, k);
}

int read_key_form(load_state* st, uint8_t* form) {
  if (!read_u8(st, form)) return 0;
  if (*form >= kKeyFormCount) {
    st->result = LOAD_INVALID_KEY_TYPE;
    return 0;
  }
  return 1;
}

}  // namespace arbo
