%% Navigation: find_next_nif, flag queries and cmp_keys_nif/5 at the
%% boundary: how each key kind is decoded (4 and 27 integers, 5 encoded, 6
%% opaque) and the mode handed on (the comparison itself is pinned in
%% keys_test.cpp). (A container's chain:
%% edit_tests; lists, moves included: store_model_test.cpp, the tree layer's
%% moves_test_; hidden inactive instances: props_tests and
%% arbo_hostile_api_tests; argument decoding, handles and node types are
%% swept by arbo_fuzz_tests; filtered walks by filter_tests.)
-module(nav_tests).

-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-import(arbo_test_util, [with_table/1, shuffle/1, expect/1]).

%% Sorted lists: find_next_nif (strictly after the key, or at it with Mode
%% 1; with a filter the walk starts there). Positions, lookups and byte keys
%% in lists are followed by store_model_test.cpp.
sorted_list_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, ?ORDER_PLAIN),
        Keys = [2 * I || I <- lists:seq(1, 300)],
        ByKey = maps:from_list([{K, arbo:add_hkey(T, L, K, ?KEY_INT)} || K <- shuffle(Keys)]),
        Inst = fun(K) -> maps:get(K, ByKey, 0) end,
        expect([{find_absent, 0, arbo:find_child(T, L, {3}, ?FIND_TAG_ALT)},
                {find_pair, Inst(40), arbo:find_child(T, L, {0, 40}, ?FIND_NS_INT)}]),
        Next = [{5, 39, 0, [], 6}, {6, 39, 0, [], 8}, {6, 39, 1, [], 6}, {600, 39, 0, [], 0}, {{0, 6}, 40, 1, [], 6}, {5, 77, 0, [], 0},
                {6, 39, 0, {101, 1, 0, <<"10">>}, 10}],
        [?assertEqual({Key, Mode, F, Inst(Want)}, {Key, Mode, F, arbo:find_next_nif(T, L, Key, Code, Mode, F)})
         || {Key, Code, Mode, F, Want} <- Next]
    end).

%% Flag queries over children; has_descendant_with_flags' fourth argument
%% decides whether Node itself counts.
flags_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [C1, C2, C3] = [arbo:add_hkey_internal(T, R, K) || K <- [1, 2, 3]],
        G = arbo:add_hkey(T, C3, [0 | 1], ?KEY_TAG_ALT),
        [arbo:set_flag(T, N, F) || {N, F} <- [{C1, 2#0011}, {C2, 2#0110}, {G, 16#100000000}, {R, 2#10000}]],
        [?assertEqual({M, Count, With, Without}, {M, arbo:num_children_with_flag(T, R, M), arbo:has_child_with_flags(T, R, M),
                                                  arbo:has_child_without_flags(T, R, M)})
         || {M, Count, With, Without} <- [{2#0010, 2, true, true}, {2#1000, 0, false, true}, {0, 0, false, true}]],
        ?assertEqual([false, true, false, true, false], [arbo:has_child_without_flags(T, C3, 16#100000000) |
                      [arbo:has_descendant_with_flags(T, N, M, Self)
                       || {N, M, Self} <- [{R, 16#100000000, 0}, {R, 2#10000, 0}, {R, 2#10000, 1}, {C2, 2#0100, 0}]]])
    end).

%% {sign in modes 0, 1, 2, [Key1, Kind1, Key2, Kind2]}; modes 0 and 1 are
%% checked in both orders. Integer keys compare by signed tag only (the
%% namespace of a kind 27 key is not even read).
cmp_keys_test() ->
    Rows = [{[1, -1, 1], [<<"b">>, 6, <<"aa">>, 6]}, {[-1, -1, -1], [<<"ab">>, 6, <<"abc">>, 6]},
            {[0, 0, 0], [<<200, 3, "abc">>, 5, <<"abc">>, 6]}, {[-1, -1, -1], [-1, 4, 0, 4]},
            {[1, 1, 1], [16#7fffffff, 4, -16#80000000, 4]}, {[0, 0, 0], [{1, 5}, 27, {2, 5}, 27]},
            {[0, 0, 0], [{not_a_number, 5}, 27, 5, 4]}, {[-1, -1, -1], [{9, 4}, 27, 5, 4]}],
    Cmp = fun(K1, T1, K2, T2, M) -> max(-1, min(1, arbo:cmp_keys_nif(K1, T1, K2, T2, M))) end,
    [?assertEqual({Args, Want, [-W || W <- lists:sublist(Want, 2)]},
                  {Args, [Cmp(K1, T1, K2, T2, M) || M <- [0, 1, 2]], [Cmp(K2, T2, K1, T1, M) || M <- [0, 1]]})
     || {Want, [K1, T1, K2, T2] = Args} <- Rows].
