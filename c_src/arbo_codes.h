// Every small number that crosses a boundary, named once: the key kinds with
// which Erlang tags a key argument, the value kinds of set_val, the orders of
// a list node, the element type codes the library itself looks at, and the
// opcodes and key forms of save files. The Erlang side names the same codes
// in include/arbo_codes.hrl; a change here is a change there.
//
// Each family is an unscoped enum: the values are part of the module's
// interface and of the file format, so they travel as plain integers.
#ifndef ARBO_CODES_H
#define ARBO_CODES_H

#include <cstdint>

namespace arbo {

// ---- key kinds -------------------------------------------------------------------
// add_hkey's kind argument; cmp_keys_nif reads KEY_TUPLE and KEY_OPAQUE as
// byte keys, KEY_NS_INT as {Ns, Int} and every other kind as an integer.
enum add_key_kind : unsigned {
  KEY_TAG = 2,      // integer tag: {Tag}, Tag or [Ns | Tag]
  KEY_TAG_ALT = 3,  // the same, under its second code
  KEY_INT = 4,      // signed 32-bit instance key
  KEY_TUPLE = 5,    // binary: encoded tuple key
  KEY_OPAQUE = 6,   // binary: one opaque element
  KEY_NS_INT = 27,  // {Ns, Int}
};
// del_hkey's kind argument.
enum del_key_kind : unsigned {
  DEL_TAG = 13,
  DEL_TAG_ALT = 14,
  DEL_TUPLE = 15,
  DEL_NS_INT = 29,
  DEL_OPAQUE = 52,
};
// find_child's kind argument.
enum find_key_kind : unsigned {
  FIND_TAG = 10,
  FIND_TAG_ALT = 11,
  FIND_TUPLE = 12,
  FIND_NS_INT = 28,
  FIND_OPAQUE = 53,
};
// find_next_nif's kind argument.
enum next_key_kind : unsigned {
  NEXT_INT = 39,
  NEXT_NS_INT = 40,
  NEXT_TUPLE = 41,
  NEXT_OPAQUE = 54,
};
// rename_instance0's kind argument is an add_key_kind (KEY_INT, KEY_TUPLE,
// KEY_OPAQUE, KEY_NS_INT); the store's rename takes its own kinds:
enum store_key_kind : int {
  STORE_KEY_TAG = 2,     // integer key, F_KEY_IS_TUPLE
  STORE_KEY_NS_INT = 3,  // integer key and namespace, F_KEY_IS_BTUPLE
  STORE_KEY_OPAQUE = 4,  // bytes, F_KEY_IS_TUPLE
  STORE_KEY_TUPLE = 5,   // bytes
};
// What _arbo_nif_add_hkey_int makes.
enum add_kind : int {
  ADD_LIST = 0,       // a list node (T_DYN_NODE) with the given order
  ADD_INSTANCE = 1,   // an integer-keyed instance of a list node
  ADD_CONTAINER = 2,  // a container (T_INT_NODE)
  ADD_LEAF = 3,       // a leaf (T_GEN_NODE_ONE)
};

// ---- value kinds (set_val) ---------------------------------------------------------
enum val_kind : int {
  VAL_CLEAR = 0,       // any kind not below clears the value
  VAL_CSVAL = 17,      // encoded value, inline up to 10 bytes
  VAL_BINARY = 18,     // plain binary
  VAL_CSVAL_BIN = 37,  // encoded value kept as a binary
};

// ---- list orders (a list node's `cmp`; key comparison modes 0 to 2) -----------------
enum list_order : uint8_t {
  ORDER_PLAIN = 0,
  ORDER_LENGTH_FIRST = 1,
  ORDER_LENGTH_FIRST_BUT_LAST = 2,
  ORDER_USER = 3,  // kept in the order the user gives, with a hash index
  kOrderMax = 4,   // the largest order a save file may name
};

// ---- element type codes ---------------------------------------------------------------
// The codes the library itself reads or the Erlang API names. Which codes
// exist and their lengths are two tables: the value-length table (kValLen,
// arbo_store.h) and the key parser's element table (arbo_nif_node_keys.cpp);
// test/type_codes_test.cpp holds them against the Erlang side's.
enum type_code : uint8_t {
  TYPE_EMPTY = 0,
  TYPE_INT8 = 6,
  TYPE_INT16 = 7,
  TYPE_INT32 = 8,
  TYPE_INT64 = 9,
  TYPE_UINT8 = 10,
  TYPE_UINT16 = 11,
  TYPE_UINT32 = 12,  // a save file's key form 3 with this type byte is a byte key
  TYPE_UINT64 = 13,
  TYPE_IPV4 = 15,
  TYPE_BOOL = 17,
  TYPE_DATE = 20,
  TYPE_FIXED28 = 27,  // 28-byte payload; sorts after TYPE_FIXED8_209
  TYPE_BITMASK32 = 29,
  TYPE_BITMASK64 = 30,
  TYPE_INT64_9 = 43,  // 9-byte payload ordered by its first 8 as a signed 64-bit
  TYPE_BITS = 50,     // bit string
  TYPE_STRING = 200,  // first of the string-like codes 200 to 206
  TYPE_REST = 204,    // opaque rest of the buffer
  TYPE_STRING32 = 205,
  TYPE_STRING_LAST = 206,
  TYPE_FIXED8_209 = 209,
};

// ---- save files ------------------------------------------------------------------------
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
constexpr uint8_t kOpMask = 0x1f;
constexpr int kFormShift = 5;

}  // namespace arbo

#endif  // ARBO_CODES_H
