%% Helpers shared by the tree-editing, property, handle, navigation and save
%% file suites (tables, exceptions and child walks come from walk_util).
-module(arbo_tree_util).

-export([child_keys/2, lib_mem/0, flags_free/0, type0_node/2, snapshot/1]).

-import(walk_util, [children/2]).

child_keys(T, Node) -> [arbo:get_hkey0(T, C) || C <- children(T, Node)].

lib_mem() -> hd(arbo:alloc_info()).

%% Free entries of the shared user-flags table.
flags_free() -> [_, {8, _Cap, Free}] = arbo:alloc_info(), Free.

%% A reference whose type bits read as 0: eight bytes into a childless leaf
%% (56 bytes), the type word falls on the leaf's null child link. Only fit
%% for functions that check the type before they read anything else.
type0_node(T, Parent) -> arbo:add_hkey(T, Parent, [7 | 4242], 3) + 8.

%% Every node below the root as {Key, Type, Value, Flags, Attributes,
%% Children}, children in chain order, attributes as {Key, Value}: two trees
%% hold the same data exactly when their snapshots are equal.
snapshot(T) -> [node_snapshot(T, C) || C <- children(T, arbo:get_root(T))].

node_snapshot(T, N) ->
    {arbo:get_hkey0(T, N), arbo:get_type(T, N), arbo:get_val_raw(T, N), arbo:get_flags(T, N),
     attrs(T, arbo:get_attr_root(T, N)), [node_snapshot(T, C) || C <- children(T, N)]}.

attrs(_T, 0) -> [];
attrs(T, A) ->
    [{arbo:get_hkey0(T, A), arbo:get_val_raw(T, A)} | attrs(T, arbo:next_sibling_nif(T, A, [], 0))].
