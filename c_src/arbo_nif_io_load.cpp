// The loader: replays a save file into a tree, record by record.
//
// The records' bytes come through the record reader
// (arbo_nif_io_load_read.cpp, state and reader in arbo_nif_io_load.h). The
// path from the root to the current node is a stack; beside each entry sits
// an append hint, so a saved sorted list (its instances arrive in ascending
// order) is rebuilt in O(1) per instance.
#include <cstdio>
#include <cstring>
#include <memory>

#include "arbo_alloc.h"
#include "arbo_atoms.h"
#include "arbo_bytes.h"
#include "arbo_io.h"
#include "arbo_nif_io_load.h"
#include "arbo_store.h"

namespace arbo {

// ---- finding a decoded key ------------------------------------------------------------

arbo_node* _arbo_nif_io_find_child(arbo_node* node, const decoded_key* key) {
  switch (key->kind) {
    case KF_HTAG:
    case KF_NS_HTAG:
    case KF_HKEY_INT:
    case KF_HKEY_INT_BTUPLE: return _arbo_nif_find_child_int(node, key->tag, key->ns);
    case KF_HKEY_BIN:
    case KF_HKEY_GEN:
      if (node->type() != T_DYN_NODE) return nullptr;
      return _arbo_nif_find_child_bin(node, key->kind == KF_HKEY_BIN ? 1 : 0, key->bytes(),
                                      key->len);
    default: return nullptr;
  }
}

// ---- hinted instance creation (store entry points) ---------------------------------

namespace {

// Sorted lists take the append hint; user order (and anything else) goes
// through the ordinary insertion.
arbo_node* link_instance(arbo_node* parent, arbo_node* node, store_ctx* ctx,
                         sl_append_hint* hint) {
  if (hint != nullptr && as_dyn(parent)->cmp <= ORDER_LENGTH_FIRST_BUT_LAST)
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
  if (parent == nullptr) return nullptr;
  arbo_node* n = _arbo_nif_dn_new_bin(parent, bytes, len, ctx, key_type);
  return n == nullptr ? nullptr : link_instance(parent, n, ctx, hint);
}

namespace {

struct free_deleter {
  void operator()(void* p) const { enif_free(p); }
};
struct file_closer {
  void operator()(FILE* f) const { std::fclose(f); }
};

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
    case KF_HTAG:
    case KF_NS_HTAG: n = _arbo_nif_add_hkey_int(st->cur, k.tag, k.ns, &st->ctx, ADD_LEAF, 0); break;
    case KF_HKEY_INT:
    case KF_HKEY_INT_BTUPLE:
      n = _arbo_nif_add_hkey_int_hinted(st->cur, k.tag, k.kind == KF_HKEY_INT_BTUPLE ? k.ns : 0,
                                        &st->ctx, st->hint());
      if (n != nullptr) n->set(k.kind == KF_HKEY_INT ? F_KEY_IS_TUPLE : F_KEY_IS_BTUPLE);
      break;
    case KF_HKEY_BIN:
    case KF_HKEY_GEN:
      n = _arbo_nif_add_hkey_bin_hinted(st->cur, k.bytes(), k.len, &st->ctx,
                                        k.kind == KF_HKEY_BIN ? KEY_OPAQUE : KEY_TUPLE, st->hint());
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

// Values up to 64 bytes are set as encoded values, longer ones as encoded
// values kept as a binary (no string form is made for them).
constexpr size_t kCsvalStringMax = 64;
inline int csval_kind(size_t len) { return len <= kCsvalStringMax ? VAL_CSVAL : VAL_CSVAL_BIN; }

// The path record of an integer instance key, the record a saved sorted
// list repeats once per instance.
constexpr uint8_t kOpCdHkeyInt = io_opcode(OP_CD, KF_HKEY_INT);

// The bytes of the csval at `at`, type byte included, when the `avail`
// bytes there hold all of it; 0 when they do not, or when the type is not
// one a fast path may take (the record-by-record path answers its error).
size_t csval_extent(const unsigned char* at, uint64_t avail) {
  if (avail == 0) return 0;
  if (at[0] == TYPE_EMPTY) return 1;
  int fixed = 0, width = 0;
  if (!csval_framing(at[0], &fixed, &width)) return 0;
  uint64_t total = 1 + static_cast<uint64_t>(fixed + width);
  if (width != 0) {
    if (avail < total) return 0;
    total += be_n(at + 1, width);
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
    if (len != 0) _arbo_nif_set_val(st->cur, &st->ctx, bytes, len, csval_kind(len));
    return 1;
  }
  decoded_val v;
  if (!_load_csval(st, &v)) return 0;
  if (v.len == 0) return 1;  // type 0: no value
  _arbo_nif_set_val(st->cur, &st->ctx, v.bytes(), v.len, csval_kind(v.len));
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
    if (avail < 6 || at[0] != kOpCdHkeyInt) return 1;
    size_t end = 5;
    const unsigned char* val = nullptr;
    size_t vlen = 0;
    int kind = 0;  // none
    if (at[5] == OP_INSERT) {
      vlen = csval_extent(at + 6, avail - 6);
      if (vlen == 0) return 1;
      end = 6 + vlen;
      val = at + 6;
      if (at[6] != TYPE_EMPTY) kind = csval_kind(vlen);
    } else if (at[5] == OP_INSERT_BIN0) {
      if (avail < 7) return 1;
      vlen = at[6];
      end = 7 + vlen;
      val = at + 7;
      kind = VAL_BINARY;  // (no capture below the top level)
    }
    if (end >= avail || at[end] != OP_CD_UP_1) return 1;
    const uint32_t key = be32(at + 1);
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
  if (st->pos < st->valid && st->buf[st->pos] == OP_INSERT) {
    st->pos++;
    st->consumed++;
    if (!_load_op_insert(st, 0)) return 0;
  }
  if (st->pos < st->valid && st->buf[st->pos] == OP_CD_UP_1) {
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
    case KF_HTAG:
    case KF_NS_HTAG:
    case KF_HKEY_INT:
    case KF_HKEY_INT_BTUPLE: _arbo_nif_del_hkey_int(st->cur, k.tag, k.ns, &st->ctx); return 1;
    case KF_HKEY_BIN:
    case KF_HKEY_GEN:
      if (st->cur->type() != T_DYN_NODE) {
        st->result = LOAD_INVALID_NODE_TYPE;
        return 0;
      }
      _arbo_nif_del_hkey_bin(st->cur, k.kind == KF_HKEY_BIN ? 1 : 0, k.bytes(), k.len, &st->ctx);
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
  if (k.kind != KF_HTAG) return stop(st, load_stop::kNamespaceKeyForm);
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
  _arbo_nif_set_val(st->cur, &st->ctx, bytes, static_cast<size_t>(len), VAL_BINARY);
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
  arbo_node* n = _arbo_nif_add_hkey_int(st->cur, k.tag, 0, &st->ctx, ADD_CONTAINER, 0);
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
  if (!old && k.kind > KF_NS_HTAG) return stop(st, load_stop::kListKeyForm);
  uint8_t mode = 0;
  if (!read_u8(st, &mode)) return 0;
  uint8_t cmp_mode = mode;
  if (old) cmp_mode = mode == 0 ? ORDER_PLAIN : (mode == 255 ? ORDER_USER : ORDER_LENGTH_FIRST);
  else if (mode > kOrderMax) return stop(st, load_stop::kListMode);
  arbo_node* n = _arbo_nif_add_hkey_int(st->cur, k.tag, k.ns, &st->ctx, ADD_LIST, cmp_mode);
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
  if (st->cur->type() != T_DYN_NODE || as_dyn(st->cur)->cmp != ORDER_USER) {
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

// Edits of a list's instances: current must be a list node.
int require_list(load_state* st) {
  if (st->cur->type() == T_DYN_NODE) return 1;
  st->result = LOAD_INVALID_NODE_TYPE;
  return 0;
}

int _load_op_move_rel_2(load_state* st, uint8_t form) {
  if (!require_list(st)) return 0;
  decoded_key k;
  if (!_load_key(st, form, &k)) return 0;
  arbo_node* child = _arbo_nif_io_find_child(st->cur, &k);
  uint8_t relation = 0, ref_form = 0;
  if (!read_u8(st, &relation) || !read_key_form(st, &ref_form)) return 0;
  decoded_key r;
  if (!_load_key(st, ref_form, &r)) return 0;
  arbo_node* ref = r.kind >= KF_HKEY_INT ? _arbo_nif_io_find_child(st->cur, &r) : nullptr;
  if (child != nullptr && ref != nullptr) {
    forget_hints(st);
    _arbo_nif_move_rel(st->cur, child, relation, ref, &st->ctx);
  }
  return 1;
}

// The new key's form is the store's key kind for a rename.
constexpr bool same_code(int a, int b) { return a == b; }
static_assert(same_code(KF_HKEY_INT, STORE_KEY_TAG) &&
              same_code(KF_HKEY_INT_BTUPLE, STORE_KEY_NS_INT) &&
              same_code(KF_HKEY_BIN, STORE_KEY_OPAQUE) && same_code(KF_HKEY_GEN, STORE_KEY_TUPLE));

int _load_op_rename_instance_2(load_state* st, uint8_t form) {
  if (!require_list(st)) return 0;
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
    if ((op & kOpMask) >= kOpCount) {
      st->result = LOAD_INVALID_OP;
      return;
    }
    if (!kHandlers[op & kOpMask](st, static_cast<uint8_t>(op >> kFormShift))) {
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
