// The loader: replays a save file into a tree, record by record.
//
// Reads go through one 1 MiB buffer (requests above it bypass it). Every
// length read from the file is checked against the bytes the file still
// holds before anything is allocated for it. The path from the root to the
// current node is a stack; beside each entry sits an append hint, so a saved
// sorted list (its instances arrive in ascending order) is rebuilt in O(1)
// per instance.
#include <cstdio>
#include <cstring>
#include <memory>

#include "arbo_alloc.h"
#include "arbo_atoms.h"
#include "arbo_io.h"
#include "arbo_store.h"

namespace arbo {

// ---- decoded keys and values ---------------------------------------------------------

void _arbo_nif_val_destroy(decoded_val* val) {
  val->buf.release();
  val->len = 0;
}

arbo_node* _arbo_nif_io_find_child(arbo_node* node, const decoded_key* key) {
  switch (key->kind) {
    case 0:
    case 1:
    case 2:
    case 3: return _arbo_nif_find_child_int(node, key->tag, key->ns);
    case 4:
    case 5:
      if (node->type() != T_DYN_NODE) return nullptr;
      return _arbo_nif_find_child_bin(node, key->kind == 4 ? 1 : 0, key->bytes(), key->len);
    default: return nullptr;
  }
}

bool _load_progress_due(load_progress* p, time_t now) {
  if (now - p->last < static_cast<time_t>(p->interval)) return false;
  p->last = now;
  p->count++;
  if (p->count >= 5) p->interval = 300;
  else p->interval = 60;
  return true;
}

// ---- hinted instance creation (store entry points) ---------------------------------

namespace {

// Sorted lists take the append hint; user order (and anything else) goes
// through the ordinary insertion.
arbo_node* link_instance(arbo_node* parent, arbo_node* node, store_ctx* ctx,
                         sl_append_hint* hint) {
  if (hint != nullptr && as_dyn(parent)->cmp <= 2)
    return sl_insert_hinted(parent, node, ctx, hint);
  return _arbo_nif_dn_insert(parent, node, ctx);
}

}  // namespace

arbo_node* _arbo_nif_add_hkey_int_hinted(arbo_node* parent, uint32_t key, uint32_t ns,
                                         store_ctx* ctx, sl_append_hint* hint) {
  if (parent == nullptr || parent->type() != T_DYN_NODE) return nullptr;
  arbo_node* n = _arbo_nif_dn_new(parent, ctx);
  set_node_ns(n, ns);
  n->set_hkey(key);
  return link_instance(parent, n, ctx, hint);
}

arbo_node* _arbo_nif_add_hkey_bin_hinted(arbo_node* parent, const unsigned char* bytes,
                                         size_t len, store_ctx* ctx, int key_type,
                                         sl_append_hint* hint) {
  if (parent == nullptr || parent->type() != T_DYN_NODE) return nullptr;
  arbo_node* n = _arbo_nif_dn_new(parent, ctx);
  gen_node* g = as_gen(n);
  if (len > static_cast<size_t>(kSmallMax)) {
    arbo_bin* b = _arbo_nif_alloc_binary(len, bytes, ctx);
    if (b == nullptr) {
      _arbo_nif_node_free(n, ctx);
      return nullptr;
    }
    n->key = reinterpret_cast<uintptr_t>(b);
    g->small_len = 0;
  } else {
    if (len != 0) std::memcpy(g->val, bytes, len);
    g->small_len = static_cast<uint8_t>(len);
  }
  n->set(F_KEY_IS_BIN);
  if (key_type == 6) n->set(F_KEY_IS_TUPLE);
  return link_instance(parent, n, ctx, hint);
}

namespace {

// ---- loader state ----------------------------------------------------------------------

struct free_deleter {
  void operator()(void* p) const { enif_free(p); }
};
struct file_closer {
  void operator()(FILE* f) const { std::fclose(f); }
};

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

// Fixed-size fields: straight from the buffer when it holds them.
inline int read_small(load_state* st, void* dst, size_t n) {
  if (st->valid - st->pos < n) return _load_read(st, dst, n);
  std::memcpy(dst, st->buf + st->pos, n);
  st->pos += static_cast<uint32_t>(n);
  st->consumed += n;
  return 1;
}

int read_u8(load_state* st, uint8_t* v) { return read_small(st, v, 1); }

int read_u16(load_state* st, uint16_t* v) {
  unsigned char b[2];
  if (!read_small(st, b, 2)) return 0;
  *v = static_cast<uint16_t>(b[0] << 8 | b[1]);
  return 1;
}

int read_u32(load_state* st, uint32_t* v) {
  unsigned char b[4];
  if (!read_small(st, b, 4)) return 0;
  *v = static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 |
       static_cast<uint32_t>(b[2]) << 8 | b[3];
  return 1;
}

int read_u64(load_state* st, uint64_t* v) {
  uint64_t be = 0;
  if (!_load_read(st, &be, 8)) return 0;
  *v = _arbo_nif_io_be64toh(be);
  return 1;
}

// A record asks for `len` more bytes: refused ("io") when the file cannot
// hold that many, before anything is allocated for them.
int refuse_io(load_state* st) {
  st->result = LOAD_IO;
  return 0;
}

int fits(load_state* st, uint64_t len) { return len <= st->remaining() ? 1 : refuse_io(st); }
// (A stream whose size cannot be told has no such bound: a refused
// allocation for it answers "io" as well.)

// One csval: the type byte, then a fixed payload or a big-endian length
// prefix of 1, 2 or 4 bytes and that many bytes. Type 0 is no value.
int _load_csval(load_state* st, decoded_val* out) {
  _arbo_nif_val_destroy(out);
  uint8_t type = 0;
  if (!read_u8(st, &type)) return 0;
  if (type == 0) return 1;
  int is_variable = 0, is_nested = 0;
  const int n = _arbo_nif_val_len(type, &is_variable, &is_nested);
  if (!is_variable) {
    if (!fits(st, static_cast<uint64_t>(n))) return 0;
    unsigned char* v = out->buf.reserve(1 + static_cast<size_t>(n));
    ARBO_ASSERT(v != nullptr);
    v[0] = type;
    if (!_load_read(st, v + 1, static_cast<size_t>(n))) return 0;
    out->len = 1 + static_cast<size_t>(n);
    return 1;
  }
  if (n != 1 && n != 2 && n != 4) {
    st->result = LOAD_INVALID_DATA;
    return 0;
  }
  unsigned char prefix[4];
  if (!_load_read(st, prefix, static_cast<size_t>(n))) return 0;
  uint64_t len = 0;
  for (int i = 0; i < n; ++i) len = len << 8 | prefix[i];
  if (!fits(st, len)) return 0;
  const size_t head = 1 + static_cast<size_t>(n);
  unsigned char* v = out->buf.reserve(head + static_cast<size_t>(len));
  if (v == nullptr) return refuse_io(st);
  v[0] = type;
  std::memcpy(v + 1, prefix, static_cast<size_t>(n));
  if (!_load_read(st, v + head, static_cast<size_t>(len))) return 0;
  out->len = head + static_cast<size_t>(len);
  return 1;
}

// ---- the six key readers, key forms 0..5 ------------------------------------------

int _load_node_path_htag(load_state* st, decoded_key* k) {
  k->kind = 0;
  return read_u32(st, &k->tag);
}

int _load_node_path_ns_htag(load_state* st, decoded_key* k) {
  k->kind = 1;
  return read_u32(st, &k->ns) && read_u32(st, &k->tag);
}

int _load_node_path_hkey_int(load_state* st, decoded_key* k) {
  k->kind = 2;
  return read_u32(st, &k->tag);
}

// Type byte 12 marks a generic key: the five bytes as they stand.
int _load_node_path_hkey_int_btuple(load_state* st, decoded_key* k) {
  unsigned char b[5];
  if (!_load_read(st, b, 5)) return 0;
  if (b[0] == 12) {
    k->kind = 5;
    std::memcpy(k->buf.reserve(5), b, 5);
    k->len = 5;
    return 1;
  }
  k->kind = 3;
  k->ns = b[0];
  k->tag = static_cast<uint32_t>(b[1]) << 24 | static_cast<uint32_t>(b[2]) << 16 |
           static_cast<uint32_t>(b[3]) << 8 | b[4];
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
  k->kind = 4;
  return read_key_bytes(st, k);
}

int _load_node_path_hkey_gen(load_state* st, decoded_key* k) {
  k->kind = 5;
  return read_key_bytes(st, k);
}

using key_reader = int (*)(load_state*, decoded_key*);
constexpr key_reader kKeyReaders[kKeyFormCount] = {
    _load_node_path_htag,     _load_node_path_ns_htag,         _load_node_path_hkey_int,
    _load_node_path_hkey_int_btuple, _load_node_path_hkey_bin, _load_node_path_hkey_gen,
};

int _load_key(load_state* st, uint8_t form, decoded_key* k) {
  if (form >= kKeyFormCount) {
    st->result = LOAD_INVALID_KEY_TYPE;
    return 0;
  }
  return kKeyReaders[form](st, k);
}

// ---- path stack ------------------------------------------------------------------------

void stack_push(load_state* st, arbo_node* n) {
  if (st->depth == st->cap) {
    const uint32_t cap = st->cap * 2;
    st->stack = static_cast<arbo_node**>(enif_realloc(st->stack, cap * sizeof(arbo_node*)));
    st->hints =
        static_cast<sl_append_hint*>(enif_realloc(st->hints, cap * sizeof(sl_append_hint)));
    ARBO_ASSERT(st->stack != nullptr && st->hints != nullptr);
    for (uint32_t i = st->cap; i < cap; ++i) st->hints[i] = sl_append_hint{};
    st->cap = cap;
  }
  st->stack[st->depth++] = n;
  st->cur = n;
}

int stack_pop(load_state* st) {
  if (st->depth < 2) return 0;
  st->depth--;
  st->cur = st->stack[st->depth - 1];
  return 1;
}

// Edits may unlink or free list instances the hints point at.
void forget_hints(load_state* st) {
  for (uint32_t i = 0; i < st->cap; ++i) st->hints[i] = sl_append_hint{};
}

// ---- operations ----------------------------------------------------------------------

// Ends the load without a result code: the caller sees "ok".
int stop(load_state* st, load_stop why) {
  st->stop = why;
  return 0;
}

int _load_op_zero(load_state* st, uint8_t) {
  st->result = LOAD_NOT_IMPLEMENTED;
  return 0;
}

int _load_op_begin_trans_invalid(load_state* st, uint8_t) {
  st->result = LOAD_TRUNCATE;
  st->res->trunc_pos = static_cast<int64_t>(st->consumed) - 1;
  return 0;
}

int _load_op_begin_trans(load_state* st, uint8_t) {
  st->in_trans = 1;
  st->res->trans_count = static_cast<uint32_t>(st->res->trans_count + 1);
  if (st->res->trans_count == 1) {
    st->res->file_size = st->consumed;
    st->res->table_size = st->table->size;
  }
  return 1;
}

int _load_op_trans_end(load_state* st, uint8_t) {
  st->in_trans = 0;
  st->depth = 1;
  st->cur = st->stack[0];
  return 1;
}

// The checkpoint's value is the position of its opcode byte minus 1.
int _load_op_checkpoint_set(load_state* st, uint8_t) {
  const int64_t p = static_cast<int64_t>(st->consumed) - 2;
  if (st->checkpoint == -2) {
    st->checkpoint = p;
    st->res->checkpoint = p;
    return 1;
  }
  if (st->checkpoint >= 0 && st->checkpoint == p) return 1;
  st->result = LOAD_TRUNCATE;
  st->checkpoint = -1;
  st->res->trunc_pos = p;
  st->res->checkpoint = -1;
  return 0;
}

int _load_op_noop(load_state*, uint8_t) { return 1; }

int enter_node(load_state* st, arbo_node* n);

int _load_op_cd(load_state* st, uint8_t form) {
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  arbo_node* n = nullptr;
  switch (k.kind) {
    case 0:
    case 1: n = _arbo_nif_add_hkey_int(st->cur, k.tag, k.ns, &st->ctx, 3, 0); break;
    case 2:
    case 3:
      n = _arbo_nif_add_hkey_int_hinted(st->cur, k.tag, k.kind == 3 ? k.ns : 0, &st->ctx,
                                        st->hint());
      if (n != nullptr) n->set(k.kind == 2 ? F_KEY_IS_TUPLE : F_KEY_IS_BTUPLE);
      break;
    case 4:
    case 5:
      n = _arbo_nif_add_hkey_bin_hinted(st->cur, k.bytes(), k.len, &st->ctx, k.kind == 4 ? 6 : 5,
                                        st->hint());
      break;
    default: st->result = LOAD_INVALID_DATA; return 0;
  }
  if (n == nullptr) return stop(st, load_stop::kChildRefused);
  return enter_node(st, n);
}

int _load_op_cd_up_1(load_state* st, uint8_t) {
  return stack_pop(st) ? 1 : stop(st, load_stop::kAboveRoot);
}

int _load_op_cd_up(load_state* st, uint8_t) {
  uint8_t count = 0;
  if (!read_u8(st, &count)) return 0;
  for (uint8_t i = 0; i < count; ++i)
    if (!stack_pop(st)) return stop(st, load_stop::kAboveRoot);
  return 1;
}

// The bytes of the csval at `at`, type byte included, when the `avail`
// bytes there hold all of it; 0 when they do not, or when the type is not
// one a fast path may take (the record-by-record path answers its error).
size_t csval_extent(const unsigned char* at, uint64_t avail) {
  if (avail == 0) return 0;
  if (at[0] == 0) return 1;
  int is_variable = 0, is_nested = 0;
  const int n = _arbo_nif_val_len(at[0], &is_variable, &is_nested);
  if (n < 0) return 0;
  uint64_t total = 1 + static_cast<uint64_t>(n);
  if (is_variable) {
    if ((n != 1 && n != 2 && n != 4) || avail < total) return 0;
    uint64_t payload = 0;
    for (int i = 1; i <= n; ++i) payload = payload << 8 | at[i];
    total += payload;
  }
  return total <= avail ? static_cast<size_t>(total) : 0;
}

// The whole csval at the read position, when the buffer holds it: its
// bytes are taken where they lie and consumed. False leaves everything as
// it was, for _load_csval (a value cut by the buffer's end, or one that
// answers an error).
bool csval_in_buffer(load_state* st, const unsigned char** bytes, size_t* len) {
  const unsigned char* at = st->buf + st->pos;
  const size_t total = csval_extent(at, st->valid - st->pos);
  if (total == 0) return false;
  *bytes = at;
  *len = at[0] == 0 ? 0 : total;
  st->pos += static_cast<uint32_t>(total);
  st->consumed += total;
  return true;
}

int _load_op_insert(load_state* st, uint8_t) {
  if (st->at_root()) return stop(st, load_stop::kValueAtRoot);
  const unsigned char* bytes = nullptr;
  size_t len = 0;
  if (csval_in_buffer(st, &bytes, &len)) {
    if (len != 0) _arbo_nif_set_val(st->cur, &st->ctx, bytes, len, len < 65 ? 17 : 37);
    return 1;
  }
  decoded_val v;
  if (!_load_csval(st, &v)) return 0;
  if (v.len == 0) return 1;  // type 0: no value
  _arbo_nif_set_val(st->cur, &st->ctx, v.bytes(), v.len, v.len < 65 ? 17 : 37);
  _arbo_nif_val_destroy(&v);
  return 1;
}

// A saved sorted list holds one block per instance, "46 key, 09 value, 07"
// (or a 0D value, or none). While the buffer holds whole blocks,
// they are replayed here without the dispatch loop and the path stack: the
// same store calls, in the same order, as record by record. Anything else
// (another record, a block cut by the buffer's end, a value the fast path
// does not take) is left to the dispatch loop.
int append_run(load_state* st) {
  arbo_node* list = st->cur;
  if (list->type() != T_DYN_NODE) return 1;
  sl_append_hint* hint = st->hint();
  for (;;) {
    const unsigned char* at = st->buf + st->pos;
    const uint64_t avail = st->valid - st->pos;
    if (avail < 6 || at[0] != 0x46) return 1;
    size_t end = 5;
    const unsigned char* val = nullptr;
    size_t vlen = 0;
    int kind = 0;  // none
    if (at[5] == 0x09) {
      vlen = csval_extent(at + 6, avail - 6);
      if (vlen == 0) return 1;
      end = 6 + vlen;
      val = at + 6;
      if (at[6] != 0) kind = vlen < 65 ? 17 : 37;  // type 0: no value
    } else if (at[5] == 0x0D) {
      if (avail < 7) return 1;
      vlen = at[6];
      end = 7 + vlen;
      val = at + 7;
      kind = 18;  // (no capture below the top level)
    }
    if (end >= avail || at[end] != 0x07) return 1;
    const uint32_t key = static_cast<uint32_t>(at[1]) << 24 | static_cast<uint32_t>(at[2]) << 16 |
                         static_cast<uint32_t>(at[3]) << 8 | at[4];
    arbo_node* n = sl_append_hkey_int(list, key, F_KEY_IS_TUPLE, &st->ctx, hint);
    if (n == nullptr) return 1;  // not past the list's end: record by record
    if (kind != 0) _arbo_nif_set_val(n, &st->ctx, val, vlen, kind);
    st->pos += static_cast<uint32_t>(end + 1);
    st->consumed += end + 1;
  }
}

// Enters the node just made. A value record and a 07 that follow in the
// buffer are replayed here rather than through the dispatch loop; back at
// the list, the blocks that follow go through append_run.
int enter_node(load_state* st, arbo_node* n) {
  stack_push(st, n);
  if (st->pos < st->valid && st->buf[st->pos] == 0x09) {
    st->pos++;
    st->consumed++;
    if (!_load_op_insert(st, 0)) return 0;
  }
  if (st->pos < st->valid && st->buf[st->pos] == 0x07) {
    st->pos++;
    st->consumed++;
    return stack_pop(st) && append_run(st);
  }
  return 1;
}

int _load_op_delete(load_state* st, uint8_t form) {
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  forget_hints(st);
  switch (k.kind) {
    case 0:
    case 1:
    case 2:
    case 3: _arbo_nif_del_hkey_int(st->cur, k.tag, k.ns, &st->ctx); return 1;
    case 4:
    case 5:
      if (st->cur->type() != T_DYN_NODE) {
        st->result = LOAD_INVALID_NODE_TYPE;
        return 0;
      }
      _arbo_nif_del_hkey_bin(st->cur, k.kind == 4 ? 1 : 0, k.bytes(), k.len, &st->ctx);
      return 1;
    default: st->result = LOAD_INVALID_KEY_TYPE; return 0;
  }
}

int set_flags(load_state* st, uint64_t v) {
  _arbo_nif_set_flags(st->env, st->cur, v);
  return 1;
}

int _load_op_set_flags8(load_state* st, uint8_t) {
  uint8_t v = 0;
  return read_u8(st, &v) && set_flags(st, v);
}

int _load_op_delete_ns(load_state* st, uint8_t form) {
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  if (k.kind != 0) return stop(st, load_stop::kNamespaceKeyForm);
  forget_hints(st);
  _arbo_nif_del_ns_int(st->cur, k.tag, &st->ctx);
  return 1;
}

// The capture: a short binary value of a top-level child with ns 0, key 0.
void capture_value(load_state* st, const unsigned char* bytes, size_t len) {
  const arbo_node* n = st->cur;
  if (st->capture < 1 || st->depth != 2 || n->type() < T_GEN_NODE_ONE || node_ns(n) != 0 ||
      n->key != 0)
    return;
  unsigned char* out = enif_make_new_binary(st->env, len, &st->res->captured);
  if (out != nullptr && len != 0) std::memcpy(out, bytes, len);
}

int insert_bin(load_state* st, uint64_t len, bool capture) {
  if (!fits(st, len)) return 0;
  read_bytes<256> buf;
  unsigned char* bytes = buf.reserve(static_cast<size_t>(len));
  if (bytes == nullptr) return refuse_io(st);
  if (!_load_read(st, bytes, static_cast<size_t>(len))) return 0;
  _arbo_nif_set_val(st->cur, &st->ctx, bytes, static_cast<size_t>(len), 18);
  if (capture) capture_value(st, bytes, static_cast<size_t>(len));
  return 1;
}

int _load_op_insert_bin0(load_state* st, uint8_t) {
  if (st->at_root()) return stop(st, load_stop::kValueAtRoot);
  uint8_t len = 0;
  return read_u8(st, &len) && insert_bin(st, len, true);
}

int _load_op_insert_bin(load_state* st, uint8_t) {
  if (st->at_root()) return stop(st, load_stop::kValueAtRoot);
  uint32_t len = 0;
  return read_u32(st, &len) && insert_bin(st, len, false);
}

int _load_op_cd_int(load_state* st, uint8_t form) {
  const uint32_t t = st->cur->type();
  if (t == 0 || t == T_DYN_NODE) {
    st->result = LOAD_INVALID_NODE_TYPE;
    return 0;
  }
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  arbo_node* n = _arbo_nif_add_hkey_int(st->cur, k.tag, 0, &st->ctx, 2, 0);
  if (n == nullptr) return stop(st, load_stop::kChildRefused);
  stack_push(st, n);
  return 1;
}

int cd_dyn(load_state* st, uint8_t form, bool old) {
  if (st->cur->type() == 0) {
    st->result = LOAD_INVALID_NODE_TYPE;
    return 0;
  }
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  if (!old && k.kind > 1) return stop(st, load_stop::kListKeyForm);
  uint8_t mode = 0;
  if (!read_u8(st, &mode)) return 0;
  uint8_t cmp_mode = mode;
  if (old) cmp_mode = mode == 0 ? 0 : (mode == 255 ? 3 : 1);
  else if (mode > 4) return stop(st, load_stop::kListMode);
  arbo_node* n = _arbo_nif_add_hkey_int(st->cur, k.tag, k.ns, &st->ctx, 0, cmp_mode);
  if (n == nullptr) return stop(st, load_stop::kChildRefused);
  stack_push(st, n);
  return 1;
}

int _load_op_cd_dyn_old(load_state* st, uint8_t form) { return cd_dyn(st, form, true); }

int _load_op_set_flags16(load_state* st, uint8_t) {
  uint16_t v = 0;
  return read_u16(st, &v) && set_flags(st, v);
}

int _load_op_set_attribute(load_state* st, uint8_t) {
  uint32_t id = 0;
  if (!read_u32(st, &id)) return 0;
  decoded_val v;
  if (!_load_csval(st, &v)) return 0;
  _arbo_nif_attr_set_with_gen(st->cur, id, v.bytes(), v.len, &st->ctx);
  _arbo_nif_val_destroy(&v);
  return 1;
}

int _load_op_move(load_state* st, uint8_t form) {
  if (st->cur->type() != T_DYN_NODE || as_dyn(st->cur)->cmp != 3) {
    st->result = LOAD_INVALID_NODE_TYPE;
    return 0;
  }
  decoded_key k;
  uint32_t pos = 0;
  if (!_load_key(st, form, &k) || !read_u32(st, &pos)) return 0;
  arbo_node* child = _arbo_nif_io_find_child(st->cur, &k);
  if (child == nullptr) return stop(st, load_stop::kMoveTargetMissing);
  forget_hints(st);
  _arbo_nif_dl_move_to(st->cur, child, static_cast<int>(pos));
  return 1;
}

int _load_op_cd_dyn(load_state* st, uint8_t form) { return cd_dyn(st, form, false); }

int _load_op_move_rel(load_state* st, uint8_t) {
  st->result = LOAD_DEPRECATED_OP;
  return 0;
}

int _load_op_set_flags32(load_state* st, uint8_t) {
  uint32_t v = 0;
  return read_u32(st, &v) && set_flags(st, v);
}

int _load_op_set_flags64(load_state* st, uint8_t) {
  uint64_t v = 0;
  return read_u64(st, &v) && set_flags(st, v);
}

int _load_op_rename_ns(load_state* st, uint8_t form) {
  decoded_key k;
  uint32_t ns = 0;
  if (!_load_key(st, form, &k) || !read_u32(st, &ns)) return 0;
  arbo_node* child = _arbo_nif_io_find_child(st->cur, &k);
  if (child == nullptr) return 1;
  forget_hints(st);
  _arbo_nif_rename_ns(st->cur, child, ns, &st->ctx);
  return 1;
}

int _load_op_rename_instance(load_state* st, uint8_t) {
  st->result = LOAD_DEPRECATED_OP;
  return 0;
}

// A key form byte read from the payload (not from the opcode).
int read_key_form(load_state* st, uint8_t* form) {
  if (!read_u8(st, form)) return 0;
  if (*form >= kKeyFormCount) {
    st->result = LOAD_INVALID_KEY_TYPE;
    return 0;
  }
  return 1;
}

int _load_op_move_rel_2(load_state* st, uint8_t form) {
  if (st->cur->type() != T_DYN_NODE) {
    st->result = LOAD_INVALID_NODE_TYPE;
    return 0;
  }
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  arbo_node* child = _arbo_nif_io_find_child(st->cur, &k);
  uint8_t relation = 0, ref_form = 0;
  if (!read_u8(st, &relation) || !read_key_form(st, &ref_form)) return 0;
  decoded_key r;
  if (!_load_key(st, ref_form, &r)) return 0;
  arbo_node* ref = r.kind >= 2 ? _arbo_nif_io_find_child(st->cur, &r) : nullptr;
  if (child != nullptr && ref != nullptr) {
    forget_hints(st);
    _arbo_nif_move_rel(st->cur, child, relation, ref, &st->ctx);
  }
  return 1;
}

int _load_op_rename_instance_2(load_state* st, uint8_t form) {
  if (st->cur->type() != T_DYN_NODE) {
    st->result = LOAD_INVALID_NODE_TYPE;
    return 0;
  }
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  uint8_t new_form = 0;
  if (!read_key_form(st, &new_form)) return 0;
  decoded_key nk;
  if (!_load_key(st, new_form, &nk)) return 0;
  arbo_node* node = _arbo_nif_io_find_child(st->cur, &k);
  if (node == nullptr) return 1;
  forget_hints(st);
  _arbo_nif_dn_rename_instance(st->cur, node, nk.kind, nk.bytes(), nk.len, nk.ns,
                               static_cast<int32_t>(nk.tag), &st->ctx);
  return 1;
}

using op_handler = int (*)(load_state*, uint8_t);
constexpr op_handler kHandlers[kOpCount] = {
    _load_op_zero,           _load_op_begin_trans_invalid, _load_op_begin_trans,
    _load_op_trans_end,      _load_op_checkpoint_set,      _load_op_noop,
    _load_op_cd,             _load_op_cd_up_1,             _load_op_cd_up,
    _load_op_insert,         _load_op_delete,              _load_op_set_flags8,
    _load_op_delete_ns,      _load_op_insert_bin0,         _load_op_insert_bin,
    _load_op_cd_int,         _load_op_cd_dyn_old,          _load_op_set_flags16,
    _load_op_set_attribute,  _load_op_move,                _load_op_cd_dyn,
    _load_op_move_rel,       _load_op_set_flags32,         _load_op_set_flags64,
    _load_op_rename_ns,      _load_op_rename_instance,     _load_op_move_rel_2,
    _load_op_rename_instance_2,
};

void run(load_state* st) {
  uint32_t magic = 0;
  if (!_load_read(st, &magic, sizeof magic)) return;
  if (magic != kIoMagic) {
    st->result = LOAD_INVALID_MAGIC;
    return;
  }
  for (;;) {
    uint8_t op = 0;
    if (!read_u8(st, &op)) {
      st->result = LOAD_OK;  // the end of the file
      return;
    }
    if ((op & 0x1f) >= kOpCount) {
      st->result = LOAD_INVALID_OP;
      return;
    }
    if (!kHandlers[op & 0x1f](st, static_cast<uint8_t>(op >> 5))) {
      if (st->result != LOAD_OK) st->stop = load_stop::kCode;
      return;
    }
  }
}

}  // namespace

int32_t _arbo_nif_io_load(ErlNifEnv* env, arbo_t* table, const char* path, int64_t checkpoint,
                          int32_t capture, const ErlNifPid* progress_pid, load_result* result) {
  result->checkpoint = -1;
  result->captured = am_undefined;
  table->generation++;
  std::unique_ptr<FILE, file_closer> f(std::fopen(path, "rb"));
  if (!f) return LOAD_OK;  // a missing file loads as nothing
  std::unique_ptr<unsigned char, free_deleter> buf(
      static_cast<unsigned char*>(enif_alloc(kLoadBufferSize)));
  if (!buf) return LOAD_MEMORY_ALLOCATION_ERROR;

  int64_t size = -1;
  if (std::fseek(f.get(), 0, SEEK_END) == 0) size = std::ftell(f.get());
  std::fseek(f.get(), 0, SEEK_SET);

  load_progress prog;
  const bool with_progress = progress_pid != nullptr && !enif_is_pid_undefined(progress_pid);
  if (with_progress) {
    prog.pid = *progress_pid;
    prog.start = prog.last = std::time(nullptr);
  }

  ARBO_ASSERT(table->root != nullptr);
  load_state st{};
  st.env = env;
  st.table = table;
  st.ctx = store_ctx{table, env, capture};
  st.capture = capture;
  st.f = f.get();
  st.path = path;
  st.file_size = size;
  st.checkpoint = checkpoint;
  st.res = result;
  st.buf = buf.get();
  st.prog = with_progress ? &prog : nullptr;
  constexpr uint32_t kInitialDepth = 8;
  std::unique_ptr<arbo_node*, free_deleter> stack(
      static_cast<arbo_node**>(enif_alloc(kInitialDepth * sizeof(arbo_node*))));
  std::unique_ptr<sl_append_hint, free_deleter> hints(
      static_cast<sl_append_hint*>(enif_alloc(kInitialDepth * sizeof(sl_append_hint))));
  ARBO_ASSERT(stack && hints);
  st.stack = stack.release();
  st.hints = hints.release();
  st.cap = kInitialDepth;
  forget_hints(&st);
  stack_push(&st, table->root);

  run(&st);

  enif_free(st.stack);
  enif_free(st.hints);
  result->file_size = static_cast<uint64_t>(size);  // -1 when it cannot be told
  result->table_size = table->size;
  return st.result;
}

const char* _arbo_nif_io_load_res_str(uint32_t code) {
  static constexpr const char* kTexts[] = {
      "ok",         "truncate",          "not_found",     "io",
      "invalid_magic", "invalid_op",     "invalid_node_type", "invalid_key_type",
      "invalid_data", "not_implemented", "memory_allocation_error", "deprecated_op",
  };
  return code < sizeof kTexts / sizeof kTexts[0] ? kTexts[code] : "undefined_error";
}

}  // namespace arbo
