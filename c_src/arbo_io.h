// Save files: the record-stream format, the saver and the loader.
//
// Contract
// - Thread safety: the saver runs under the table's shared lock, the loader
//   under its exclusive lock, each held by the caller for the whole call.
//   Neither takes a lock of its own; the loader sends progress messages from
//   inside the exclusive section, each from its own environment.
// - The saver never changes the tree. A failed save leaves a partial file.
// - The loader replays records into the tree one by one and never rolls
//   back: whatever was applied before an error or a "truncate" stays.
// - The loader trusts nothing in the file: every length is checked against
//   the bytes the file still holds before anything is allocated, so a huge
//   length field answers "io" without a huge allocation.
// - Memory: scratch through enif_alloc/enif_free; keys and values read from
//   the file are owned by the loader and freed after the store copied them.
//
// Format (all multi-byte fields big-endian, except the magic, which is the
// 32-bit constant kIoMagic in host order, i.e. EE DA 00 01): the magic, then
// records. A record is an opcode byte (operation in bits 0-4, key form in
// bits 5-7) and its payload. The saver writes
//   magic [02 block* 03]      (nothing after the magic for an empty tree)
//   block = path [value] [flags] attribute* block* 07
#ifndef ARBO_IO_H
#define ARBO_IO_H

#include <erl_nif.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "arbo_node.h"

namespace arbo {

constexpr uint32_t kIoMagic = 0x0100DAEE;
constexpr size_t kLoadBufferSize = 0x100000;  // 1 MiB read buffer

// Operation numbers (low 5 bits of the opcode byte).
enum io_op : uint8_t {
  OP_ZERO = 0,
  OP_BEGIN_TRANS_INVALID = 1,
  OP_BEGIN_TRANS = 2,
  OP_TRANS_END = 3,
  OP_CHECKPOINT_SET = 4,
  OP_NOOP = 5,
  OP_CD = 6,
  OP_CD_UP_1 = 7,
  OP_CD_UP = 8,
  OP_INSERT = 9,
  OP_DELETE = 10,
  OP_SET_FLAGS8 = 11,
  OP_DELETE_NS = 12,
  OP_INSERT_BIN0 = 13,
  OP_INSERT_BIN = 14,
  OP_CD_INT = 15,
  OP_CD_DYN_OLD = 16,
  OP_SET_FLAGS16 = 17,
  OP_SET_ATTRIBUTE = 18,
  OP_MOVE = 19,
  OP_CD_DYN = 20,
  OP_MOVE_REL = 21,
  OP_SET_FLAGS32 = 22,
  OP_SET_FLAGS64 = 23,
  OP_RENAME_NS = 24,
  OP_RENAME_INSTANCE = 25,
  OP_MOVE_REL_2 = 26,
  OP_RENAME_INSTANCE_2 = 27,
  kOpCount = 28,
};

// Key forms (high 3 bits of the opcode byte); 6 and 7 are invalid.
enum io_key_form : uint8_t {
  KF_HTAG = 0,
  KF_NS_HTAG = 1,
  KF_HKEY_INT = 2,
  KF_HKEY_INT_BTUPLE = 3,
  KF_HKEY_BIN = 4,
  KF_HKEY_GEN = 5,
  kKeyFormCount = 6,
};

constexpr uint8_t io_opcode(uint8_t op, uint8_t form) {
  return static_cast<uint8_t>(op | (form << 5));
}

inline uint64_t _arbo_nif_io_htobe64(uint64_t v) { return __builtin_bswap64(v); }
inline uint64_t _arbo_nif_io_be64toh(uint64_t v) { return __builtin_bswap64(v); }
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the magic is written in host order and must read EE DA 00 01");

// ---- saver -------------------------------------------------------------------------
enum save_result : int {
  SAVE_OK = 0,
  SAVE_IO = 1,      // open failed or a write did not complete
  SAVE_NO_KEY = 2,  // a binary-keyed node below T_GEN_NODE_ONE without its key
};

// Writes the tree to `path` ("wb"). Nodes whose user flags contain every bit
// of a non-zero `skip_mask` are left out with their subtrees.
int _arbo_nif_io_save(ErlNifEnv* env, arbo_t* table, const char* path, uint64_t skip_mask);
// "ok", "io", "no_key"; "" for any other code.
const char* _arbo_nif_io_save_res_str(int code);

// ---- loader ------------------------------------------------------------------------
enum load_result_code : int32_t {
  LOAD_OK = 0,
  LOAD_TRUNCATE = 1,
  LOAD_NOT_FOUND = 2,  // reserved, never set by the loader
  LOAD_IO = 3,
  LOAD_INVALID_MAGIC = 4,
  LOAD_INVALID_OP = 5,
  LOAD_INVALID_NODE_TYPE = 6,
  LOAD_INVALID_KEY_TYPE = 7,
  LOAD_INVALID_DATA = 8,
  LOAD_NOT_IMPLEMENTED = 9,
  LOAD_MEMORY_ALLOCATION_ERROR = 10,
  LOAD_DEPRECATED_OP = 11,
};

// What a load reports back, eight 64-bit words in this order. The caller
// zeroes it; the loader fills it.
struct load_result {
  ERL_NIF_TERM captured;   // "undefined", or the captured top-level binary
  uint64_t trans_count;    // begin_trans records seen (32-bit count)
  uint64_t file_size;      // bytes in the file, set at the end
  uint64_t table_size;     // the table's node count after the load
  uint64_t reserved4;      // left at 0
  uint64_t reserved5;      // left at 0
  int64_t trunc_pos;       // file position reported with "truncate"
  int64_t checkpoint;      // -1, or the checkpoint recorded with argument -2
};
static_assert(sizeof(load_result) == 64, "eight 64-bit words");

// Replays the save file at `path` into `table`. `checkpoint`: -2 records the
// first checkpoint and stops at the next, >= 0 passes only that checkpoint,
// any other negative value stops at the first. `capture` >= 1 copies a short
// binary value of the top-level child (ns 0, key 0) into result->captured.
// `progress_pid` may be the undefined pid (no messages). A missing file is
// "ok" with the tree unchanged; the generation is incremented in any case.
int32_t _arbo_nif_io_load(ErlNifEnv* env, arbo_t* table, const char* path, int64_t checkpoint,
                          int32_t capture, const ErlNifPid* progress_pid, load_result* result);
// Why a load ended. Every operation handler that ends a load says which
// of these it is. Those marked "ok" set no result code: the load answers
// "ok" although the rest of the file was not applied (the file format keeps
// them so); callers that must know put a marker record before each record
// and count the markers reached (see arbo_file).
enum class load_stop : uint8_t {
  kEnd,                // the end of the file: every record applied
  kCode,               // a result code was set: an error, or "truncate"
  kAboveRoot,          // "ok": cd_up_1 or cd_up with only the root on the stack
  kValueAtRoot,        // "ok": insert, insert_bin0 or insert_bin at the root
  kChildRefused,       // "ok": cd, cd_int or cd_dyn made no child (another kind
                       //       holds the key, or the node takes no such child)
  kListKeyForm,        // "ok": cd_dyn with a key of a kind above 1
  kListMode,           // "ok": cd_dyn with an ordering mode above 4
  kNamespaceKeyForm,   // "ok": delete_ns with a key of a kind other than 0
  kMoveTargetMissing,  // "ok": move of a child that is not there
};
// Skipped without ending the load: rename_ns and rename_instance_2 of a
// missing child, move_rel_2 when either instance is missing or the
// reference key is a tag.

// Atom text of a load result code; "undefined_error" above 11.
const char* _arbo_nif_io_load_res_str(uint32_t code);

// Scratch for bytes read from the file: short runs stay in `local` (an
// allocation per record costs more than the record itself), longer ones go
// to enif_alloc. Not copyable: `bytes` may point into the object.
template <size_t N>
struct read_bytes {
  unsigned char* bytes = nullptr;
  unsigned char local[N];
  read_bytes() = default;
  read_bytes(const read_bytes&) = delete;
  read_bytes& operator=(const read_bytes&) = delete;
  ~read_bytes() { release(); }
  // Room for n bytes (never a 0-byte allocation); null when refused.
  unsigned char* reserve(size_t n) {
    release();
    bytes = n <= N ? local : static_cast<unsigned char*>(enif_alloc(n + 1));
    return bytes;
  }
  void release() {
    if (bytes != nullptr && bytes != local) enif_free(bytes);
    bytes = nullptr;
  }
};

// A key decoded from the file: kind is the key form it came from, except
// that form 3 with type byte 12 decodes as kind 5 (a generic binary key).
// Binary kinds (4, 5) own their bytes, released with the key.
struct decoded_key {
  int kind = -1;
  uint32_t ns = 0;   // namespace, or the type byte of kind 3
  uint32_t tag = 0;  // integer tag or instance key
  read_bytes<48> buf;
  uint32_t len = 0;
  const unsigned char* bytes() const { return buf.bytes; }
};

// The child of `node` with that key: kinds 0..3 by tag and namespace, kinds
// 4 and 5 by bytes but only under a T_DYN_NODE; anything else finds nothing.
arbo_node* _arbo_nif_io_find_child(arbo_node* node, const decoded_key* key);

// A csval read from the file: type byte, length prefix and payload as they
// stood (len 0: type 0, no value). _arbo_nif_val_destroy releases it.
struct decoded_val {
  read_bytes<80> buf;
  size_t len = 0;
  const unsigned char* bytes() const { return buf.bytes; }
};
void _arbo_nif_val_destroy(decoded_val* val);

// Progress of a load: a message is due when the interval has passed since
// the last one. The interval is 30 s until the first message, 60 s after it
// and 300 s from the fifth on.
struct load_progress {
  ErlNifPid pid;
  time_t start = 0;
  time_t last = 0;
  uint32_t count = 0;
  uint32_t interval = 30;
};
// True when a message is due at `now`; then advances last, count, interval.
bool _load_progress_due(load_progress* p, time_t now);

}  // namespace arbo

#endif  // ARBO_IO_H
