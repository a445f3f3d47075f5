%% Helpers shared by the tree-editing, property and store model suites.
-module(arbo_tree_util).

-export([with_table/1, with_table/2, reason/1, children/2, child_keys/2, lib_mem/0,
         flags_free/0, type0_node/2, hide_inactive/1]).

%% Node record sizes, as the allocator counts them.
-define(ONE_MEM, 56).

%% Runs Fun(T) on a fresh table and closes the table afterwards, so that no
%% test leaves a tree for the garbage collector to free at some later moment
%% (the library counter must only move where a test moves it).
with_table(Fun) -> with_table(0, Fun).

with_table(Options, Fun) ->
    T = arbo:new(Options),
    try Fun(T)
    after catch arbo:close(T)
    end.

%% The Reason of an exception raised by the library, or {returned, Result}.
reason(Fun) ->
    try Fun() of R -> {returned, R}
    catch error:{Reason, File, Line} when is_list(File), is_integer(Line) -> Reason
    end.

%% The children of Node in chain order, by the unfiltered walk.
children(T, Node) ->
    walk(T, arbo:first_child_nif(T, Node, [], 0)).

walk(_T, 0) -> [];
walk(T, C) -> [C | walk(T, arbo:next_sibling_nif(T, C, [], 0))].

child_keys(T, Node) -> [arbo:get_hkey0(T, C) || C <- children(T, Node)].

lib_mem() ->
    [Mem, _] = arbo:alloc_info(),
    Mem.

%% Free entries of the shared user-flags table.
flags_free() ->
    [_, {8, _Cap, Free}] = arbo:alloc_info(),
    Free.

%% A reference whose type bits read as 0: eight bytes into a childless leaf,
%% the type word falls on the leaf's null child link. Only fit for functions
%% that check the type before they read anything else.
type0_node(T, Parent) ->
    Leaf = arbo:add_hkey(T, Parent, [7 | 4242], 3),
    Fake = Leaf + 8,
    true = Fake + 16 + 4 =< Leaf + ?ONE_MEM,
    Fake.

%% The same table seen with inactive nodes hidden.
hide_inactive({arbo, Res, _, Any}) -> {arbo, Res, 16#100, Any}.
