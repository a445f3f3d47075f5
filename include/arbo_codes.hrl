%% Every small number the library and its save files share with Erlang,
%% named once: key kinds, value kinds, list orders, element type codes and
%% record opcodes. The native side names the same codes in c_src/arbo_codes.h.
%% Applications that build {binary, Type, Content} key elements or csvals by
%% hand can use the type codes.
-ifndef(ARBO_CODES_HRL).
-define(ARBO_CODES_HRL, true).

%% Key kinds of add_hkey and cmp_keys_nif (rename_instance0 takes KEY_INT,
%% KEY_TUPLE, KEY_OPAQUE and KEY_NS_INT).
-define(KEY_TAG, 2).          % integer tag: {Tag}, Tag or [Ns | Tag]
-define(KEY_TAG_ALT, 3).      % the same, under its second code
-define(KEY_INT, 4).          % signed 32-bit instance key
-define(KEY_TUPLE, 5).        % binary: encoded tuple key
-define(KEY_OPAQUE, 6).       % binary: one opaque element
-define(KEY_NS_INT, 27).      % {Ns, Int}
%% del_hkey.
-define(DEL_TAG, 13).
-define(DEL_TAG_ALT, 14).
-define(DEL_TUPLE, 15).
-define(DEL_NS_INT, 29).
-define(DEL_OPAQUE, 52).
%% find_child.
-define(FIND_TAG, 10).
-define(FIND_TAG_ALT, 11).
-define(FIND_TUPLE, 12).
-define(FIND_NS_INT, 28).
-define(FIND_OPAQUE, 53).
%% find_next_nif.
-define(NEXT_INT, 39).
-define(NEXT_NS_INT, 40).
-define(NEXT_TUPLE, 41).
-define(NEXT_OPAQUE, 54).

%% Node types as get_type reads them ({Type, Order}): every general node
%% (leaf, instance, attribute, root) reads as NODE_GEN.
-define(NODE_CONTAINER, 1).
-define(NODE_LIST, 2).
-define(NODE_GEN, 3).

%% Value kinds of set_val; any other kind clears the value.
-define(VAL_CLEAR, 0).
-define(VAL_CSVAL, 17).       % encoded value
-define(VAL_BINARY, 18).      % plain binary
-define(VAL_CSVAL_BIN, 37).   % encoded value kept as a binary

%% List orders (add_hkey_dyn's mode; cmp_keys_nif's modes are the first three).
-define(ORDER_PLAIN, 0).
-define(ORDER_LENGTH_FIRST, 1).
-define(ORDER_LENGTH_FIRST_BUT_LAST, 2).
-define(ORDER_USER, 3).
-define(ORDER_MAX, 4).        % the largest order a save file may name

%% Element type codes with a named Erlang form (arbo_val) or a special rule.
-define(T_EMPTY, 0).
-define(T_INT8, 6).
-define(T_INT16, 7).
-define(T_INT32, 8).
-define(T_INT64, 9).
-define(T_UINT8, 10).
-define(T_UINT16, 11).
-define(T_UINT32, 12).
-define(T_UINT64, 13).
-define(T_IPV4, 15).
-define(T_BOOL, 17).
-define(T_DATE, 20).
-define(T_BITMASK32, 29).
-define(T_BITMASK64, 30).
-define(T_BITS, 50).
-define(T_STRING, 200).
-define(T_REST, 204).
-define(T_STRING32, 205).

%% Save files: the magic, operation numbers (low 5 bits of the opcode byte)
%% and key forms (high 3 bits).
-define(OP_ZERO, 0).
-define(OP_BEGIN_TRANS_INVALID, 1).
-define(OP_BEGIN_TRANS, 2).
-define(OP_TRANS_END, 3).
-define(OP_CHECKPOINT_SET, 4).
-define(OP_NOOP, 5).
-define(OP_CD, 6).
-define(OP_CD_UP_1, 7).
-define(OP_CD_UP, 8).
-define(OP_INSERT, 9).
-define(OP_DELETE, 10).
-define(OP_SET_FLAGS8, 11).
-define(OP_DELETE_NS, 12).
-define(OP_INSERT_BIN0, 13).
-define(OP_INSERT_BIN, 14).
-define(OP_CD_INT, 15).
-define(OP_CD_DYN_OLD, 16).
-define(OP_SET_FLAGS16, 17).
-define(OP_SET_ATTRIBUTE, 18).
-define(OP_MOVE, 19).
-define(OP_CD_DYN, 20).
-define(OP_MOVE_REL, 21).
-define(OP_SET_FLAGS32, 22).
-define(OP_SET_FLAGS64, 23).
-define(OP_RENAME_NS, 24).
-define(OP_RENAME_INSTANCE, 25).
-define(OP_MOVE_REL_2, 26).
-define(OP_RENAME_INSTANCE_2, 27).
-define(OP_LAST, 27).

-define(KF_HTAG, 0).
-define(KF_NS_HTAG, 1).
-define(KF_HKEY_INT, 2).
-define(KF_HKEY_INT_BTUPLE, 3).
-define(KF_HKEY_BIN, 4).
-define(KF_HKEY_GEN, 5).

%% The opcode byte of operation Op with a path in key form Form.
-define(OPCODE(Op, Form), ((Form) bsl 5 bor (Op))).

-endif.
