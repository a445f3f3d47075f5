// Instance keys: the element parser of encoded tuple keys and the one key
// order used by every sorted list and by cmp_keys_nif.
//
// Contract
// - Comparison allocates nothing and copies nothing; only the sign of a
//   result is meaningful where it comes from a byte comparison.
// - Modes: 0 plain, 1 length first, 2 length first except for the last
//   element; other values behave as 0.
// - A corrupt key (unknown element type, element past the end of its buffer)
//   aborts the runtime: keys are not validated on entry.
#ifndef ARBO_KEYS_H
#define ARBO_KEYS_H

#include <erl_nif.h>

#include <cstdint>

#include "arbo_node.h"

namespace arbo {

// Reads the element at buf (buf_len bytes remain): header length, payload
// length, type code and whether it counts as variable-length. With `single`
// set the whole buffer is one opaque element (type 204).
void get_tuple_key(int single, const unsigned char* buf, int32_t buf_len, int32_t* hdr_len,
                   int32_t* payload_len, int* type, int* varlen);

int cmp_tuple_key(const unsigned char* a, int32_t alen, int a_single, const unsigned char* b,
                  int32_t blen, int b_single, int mode);

// Key of a stored node against a search key: (bytes, len, indicator, 0) for
// byte keys, (null, 0, key, ns) for integer keys. Byte keys sort first.
int cmp(const arbo_node* node, const unsigned char* bytes, int32_t len, int32_t int_key,
        uint32_t ns, int mode);

// Keys given as Erlang terms with their kind codes; 1 and *result set, or 0
// when a term does not decode for its kind.
int _arbo_nif_cmp_keys(ErlNifEnv* env, ERL_NIF_TERM t1, int kind1, ERL_NIF_TERM t2, int kind2,
                       int mode, int* result);
int _arbo_nif_cmp_bin_keys(ErlNifEnv* env, ERL_NIF_TERM t1, int kind1, ERL_NIF_TERM t2, int kind2,
                           int mode, int* result);
int _arbo_nif_cmp_int_keys(ErlNifEnv* env, ERL_NIF_TERM t1, int kind1, ERL_NIF_TERM t2, int kind2,
                           int mode, int* result);

// Callbacks of a user-ordered list's hash index (keys are ht_key records).
uint32_t ht_hash_from_key(const void* key);
int ht_keys_equal(const void* a, const void* b);
// Releases a key record through the allocator; `arg` is the arbo_t*.
void free_key(void* key, uint64_t arg);

}  // namespace arbo

#endif  // ARBO_KEYS_H
