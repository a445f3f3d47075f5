// The saver: a depth-first walk that writes one block of records per node.
//
// Every record goes straight to the stdio stream: a header of at most 10
// bytes in one fwrite, the payload (key, value or attribute bytes) from where
// it lies in a second one. The first incomplete write ends the walk.
#include <cstdio>

#include "arbo_alloc.h"
#include "arbo_io.h"
#include "arbo_store.h"
#include "arbo_walk.h"

namespace arbo {

namespace {

struct save_ctx {
  ErlNifEnv* env;
  FILE* f;
  int err;
  uint64_t skip_mask;
};

// Big-endian header builder: at most 10 bytes.
struct rec_header {
  unsigned char b[10];
  size_t n = 0;
  void u8(uint8_t v) { b[n++] = v; }
  void u16(uint16_t v) {
    u8(static_cast<uint8_t>(v >> 8));
    u8(static_cast<uint8_t>(v));
  }
  void u32(uint32_t v) {
    u16(static_cast<uint16_t>(v >> 16));
    u16(static_cast<uint16_t>(v));
  }
};

// The save holds the stream's lock from open to close (flockfile), so each
// record goes through fwrite_unlocked: fwrite without taking that lock again.
int write_rec(save_ctx* c, const rec_header& h, const unsigned char* payload, size_t len) {
  if (fwrite_unlocked(h.b, 1, h.n, c->f) != h.n ||
      (len != 0 && fwrite_unlocked(payload, 1, len, c->f) != len)) {
    c->err = SAVE_IO;
    return 0;
  }
  return 1;
}

// ---- path writers, codes 0..7 ---------------------------------------------------

int _save_node_path_htag(save_ctx* c, const arbo_node* n, key_bytes) {
  rec_header h;
  h.u8(io_opcode(n->type() == T_INT_NODE ? OP_CD_INT : OP_CD, KF_HTAG));
  h.u32(n->hkey());
  return write_rec(c, h, nullptr, 0);
}

int _save_node_path_dyn_htag(save_ctx* c, const arbo_node* n, key_bytes) {
  rec_header h;
  h.u8(io_opcode(OP_CD_DYN, KF_HTAG));
  h.u32(n->hkey());
  h.u8(as_dyn(n)->cmp);
  return write_rec(c, h, nullptr, 0);
}

int _save_node_path_ns_htag(save_ctx* c, const arbo_node* n, key_bytes) {
  rec_header h;
  h.u8(io_opcode(OP_CD, KF_NS_HTAG));
  h.u32(node_ns(n));
  h.u32(n->hkey());
  return write_rec(c, h, nullptr, 0);
}

int _save_node_path_dyn_ns_htag(save_ctx* c, const arbo_node* n, key_bytes) {
  rec_header h;
  h.u8(io_opcode(OP_CD_DYN, KF_NS_HTAG));
  h.u32(node_ns(n));
  h.u32(n->hkey());
  h.u8(as_dyn(n)->cmp);
  return write_rec(c, h, nullptr, 0);
}

int _save_node_path_hkey_int(save_ctx* c, const arbo_node* n, key_bytes) {
  rec_header h;
  h.u8(io_opcode(OP_CD, KF_HKEY_INT));
  h.u32(n->hkey());
  return write_rec(c, h, nullptr, 0);
}

// The ns of an instance keyed by {Type, Int} holds the type byte.
int _save_node_path_hkey_int_btuple(save_ctx* c, const arbo_node* n, key_bytes) {
  rec_header h;
  h.u8(io_opcode(OP_CD, KF_HKEY_INT_BTUPLE));
  h.u8(static_cast<uint8_t>(node_ns(n)));
  h.u32(n->hkey());
  return write_rec(c, h, nullptr, 0);
}

int _save_node_path_hkey_bin(save_ctx* c, const arbo_node*, key_bytes k) {
  rec_header h;
  h.u8(io_opcode(OP_CD, KF_HKEY_BIN));
  h.u32(static_cast<uint32_t>(k.len));
  return write_rec(c, h, k.ptr, static_cast<uint32_t>(k.len));
}

int _save_node_path_hkey_gen(save_ctx* c, const arbo_node*, key_bytes k) {
  rec_header h;
  h.u8(io_opcode(OP_CD, KF_HKEY_GEN));
  h.u32(static_cast<uint32_t>(k.len));
  return write_rec(c, h, k.ptr, static_cast<uint32_t>(k.len));
}

using path_writer = int (*)(save_ctx*, const arbo_node*, key_bytes);
constexpr path_writer kPathWriters[] = {
    _save_node_path_htag,        _save_node_path_dyn_htag,        _save_node_path_ns_htag,
    _save_node_path_dyn_ns_htag, _save_node_path_hkey_int,        _save_node_path_hkey_int_btuple,
    _save_node_path_hkey_bin,    _save_node_path_hkey_gen,
};

// ---- value writers, codes 0..3 ----------------------------------------------------

int _save_node_value_noop(save_ctx*, bin_ref) { return 1; }

int _save_node_value_insert(save_ctx* c, bin_ref v) {
  rec_header h;
  h.u8(OP_INSERT);
  return write_rec(c, h, v.ptr, v.len);
}

int _save_node_value_insert_bin0(save_ctx* c, bin_ref v) {
  rec_header h;
  h.u8(OP_INSERT_BIN0);
  h.u8(static_cast<uint8_t>(v.len));
  return write_rec(c, h, v.ptr, v.len);
}

int _save_node_value_insert_bin(save_ctx* c, bin_ref v) {
  rec_header h;
  h.u8(OP_INSERT_BIN);
  h.u32(static_cast<uint32_t>(v.len));
  return write_rec(c, h, v.ptr, v.len);
}

using value_writer = int (*)(save_ctx*, bin_ref);
constexpr value_writer kValueWriters[] = {
    _save_node_value_noop,
    _save_node_value_insert,
    _save_node_value_insert_bin0,
    _save_node_value_insert_bin,
};

// ---- flags writers, codes 0..4 ------------------------------------------------------

// One set_flags record: the opcode, then the low `bytes` bytes of the flags,
// big-endian.
int write_flags(save_ctx* c, uint8_t op, int bytes, uint64_t f) {
  rec_header h;
  h.u8(op);
  for (int i = bytes - 1; i >= 0; --i) h.u8(static_cast<uint8_t>(f >> (8 * i)));
  return write_rec(c, h, nullptr, 0);
}

int _save_node_flags_0(save_ctx*, uint64_t) { return 1; }
int _save_node_flags_8(save_ctx* c, uint64_t f) { return write_flags(c, OP_SET_FLAGS8, 1, f); }
int _save_node_flags_16(save_ctx* c, uint64_t f) { return write_flags(c, OP_SET_FLAGS16, 2, f); }
int _save_node_flags_32(save_ctx* c, uint64_t f) { return write_flags(c, OP_SET_FLAGS32, 4, f); }
int _save_node_flags_64(save_ctx* c, uint64_t f) { return write_flags(c, OP_SET_FLAGS64, 8, f); }

using flags_writer = int (*)(save_ctx*, uint64_t);
constexpr flags_writer kFlagsWriters[] = {
    _save_node_flags_0, _save_node_flags_8, _save_node_flags_16, _save_node_flags_32,
    _save_node_flags_64,
};

// ---- choosing the writers ------------------------------------------------------------

// The path writer code for a node, first rule that applies. -1: the node's
// binary key is missing (SAVE_NO_KEY).
int path_code(const arbo_node* n, key_bytes* key) {
  if (n->has(F_KEY_IS_BIN)) {
    if (n->key == 0 && n->type() < T_GEN_NODE_ONE) return -1;
    *key = node_key_bytes(n);
    return n->has(F_KEY_IS_TUPLE) ? 6 : 7;
  }
  if ((n->type() & 0x6) != 0 && node_ns(n) != 0) {
    if (n->has(F_KEY_IS_BTUPLE)) return 5;
    return n->type() == T_DYN_NODE ? 3 : 2;
  }
  if (n->has(F_KEY_IS_TUPLE)) return 4;
  if (n->type() == T_DYN_NODE) return 1;
  return 0;
}

int value_code(int fetched, size_t len) {
  switch (fetched) {
    case 1: return 1;
    case 2: return len < 256 ? 2 : 3;
    default: return 0;
  }
}

int flags_code(uint64_t f) {
  if (f == 0) return 0;
  if (f < 0x100) return 1;
  if (f < 0x10000) return 2;
  if (f < 0x100000000ull) return 3;
  return 4;
}

int write_attributes(save_ctx* c, const arbo_node* n) {
  for (const arbo_node* a = n->attr; a != nullptr; a = sibling(a)) {
    bin_ref v{0, nullptr};
    if (_arbo_nif_fetch_bin_value(a, &v) == 0) continue;
    rec_header h;
    h.u8(OP_SET_ATTRIBUTE);
    h.u32(a->hkey());
    // An attribute value delimits itself: no length of its own.
    if (!write_rec(c, h, v.ptr, v.len)) return 0;
  }
  return 1;
}

}  // namespace

// Depth first: a node's records, its children, then its "up" record, then
// the next sibling; the walk keeps its path off the C stack.
int _save_children(save_ctx* c, const arbo_node* parent) {
  auto enter = [c](const arbo_node* n) {
    if (c->skip_mask != 0 && (_arbo_nif_get_flags(c->env, n) & c->skip_mask) == c->skip_mask)
      return Step::kSkip;
    key_bytes key{nullptr, 0};
    const int pc = path_code(n, &key);
    if (pc < 0) {
      c->err = SAVE_NO_KEY;
      return Step::kStop;
    }
    if (!kPathWriters[pc](c, n, key)) return Step::kStop;
    bin_ref v{0, nullptr};
    const int fetched = _arbo_nif_fetch_bin_value(n, &v);
    if (!kValueWriters[value_code(fetched, v.len)](c, v)) return Step::kStop;
    const uint64_t flags = _arbo_nif_get_flags(c->env, n);
    if (!kFlagsWriters[flags_code(flags)](c, flags)) return Step::kStop;
    if (!write_attributes(c, n)) return Step::kStop;
    return Step::kEnter;
  };
  auto leave = [c] {
    rec_header up;
    up.u8(OP_CD_UP_1);
    return write_rec(c, up, nullptr, 0) != 0;
  };
  return walk_below(parent, sibling, enter, leave) ? 1 : 0;
}

int _arbo_nif_io_save(ErlNifEnv* env, arbo_t* table, const char* path, uint64_t skip_mask) {
  FILE* f = std::fopen(path, "wb");
  if (f == nullptr) return SAVE_IO;
  save_ctx c{env, f, SAVE_OK, skip_mask};
  // The stream is ours alone: its lock is taken once for the whole save
  // rather than twice per record.
  flockfile(f);
  const uint32_t magic = kIoMagic;
  if (std::fwrite(&magic, sizeof magic, 1, f) != 1) {
    c.err = SAVE_IO;
  } else if (table->size != 0) {
    rec_header begin;
    begin.u8(OP_BEGIN_TRANS);
    if (write_rec(&c, begin, nullptr, 0) && _save_children(&c, table->root)) {
      rec_header end;
      end.u8(OP_TRANS_END);
      write_rec(&c, end, nullptr, 0);
    }
  }
  // Buffered bytes that never reach the file (a full disk) are a failed
  // save too: flush before the close, whose own result is not looked at.
  if (std::fflush(f) != 0 && c.err == SAVE_OK) c.err = SAVE_IO;
  funlockfile(f);
  std::fclose(f);
  return c.err;
}

const char* _arbo_nif_io_save_res_str(int code) {
  switch (code) {
    case SAVE_OK: return "ok";
    case SAVE_IO: return "io";
    case SAVE_NO_KEY: return "no_key";
    default: return "";
  }
}

}  // namespace arbo
