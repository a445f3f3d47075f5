%% Node properties at the boundary: types, the flag calls, attribute bytes
%% held, the inactive-count special case of attribute 0 on a list node, and
%% the lifetime of values handed out. Values, flags and attributes in random
%% sequences are checked against a model in store_prop_tests.
-module(props_tests).
-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, children/2, hide/1]).
-import(arbo_tree_util, [flags_free/0]).

-define(ONE_MEM, 56).

%% get_type of every node kind; instances of a sorted list come in three
%% heights, all read as leaves.
get_type_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [U, S] = [arbo:add_hkey_dyn(T, R, K, M) || {K, M} <- [{4, 3}, {6, 0}]],
        Rows = [{R, {3, 0}}, {arbo:add_hkey_internal(T, R, 1), {1, 0}}, {U, {2, 3}}, {S, {2, 0}},
                {arbo:add_hkey_dyn(T, R, 3, 2), {2, 2}}, {arbo:add_hkey(T, U, 1, 4), {3, 0}}]
               ++ [{arbo:add_hkey(T, S, K, 4), {3, 0}} || K <- lists:seq(1, 300)],
        ?assertEqual([W || {_, W} <- Rows], [arbo:get_type(T, N) || {N, _} <- Rows])
    end).

%% ---- user flags ----------------------------------------------------------------

%% The flag calls at the boundary, across the inline/shared-table boundary
%% (its slots and growth are pinned in alloc_test.cpp): the key and value
%% stay untouched, no generation moves. A wide value is shared by tables.
flags_test() ->
    with_table(fun(T) ->
        N = arbo:add_hkey(T, arbo:get_root(T), {-3}, 3),
        ok = arbo:set_val(T, N, 17, <<"val">>),
        Steps = [{set_flags, 5, 5}, {set_flag, 2, 7}, {clr_flag, 1, 6}, {set_flag, 16#400000, 16#400006},
                 {clr_flag, 16#400000, 6}, {set_flag, 16#ffffffffffffffff, 16#ffffffffffffffff},
                 {clr_flag, 16#ffffffffffffffff, 0}],
        [?assertEqual({Op, Arg, Want, Want, 16#FFFFFFFD, {csval, <<"val">>}, {3, 0}, 0},
                      {Op, Arg, arbo:Op(T, N, Arg), arbo:get_flags(T, N), arbo:get_hkey0(T, N),
                       arbo:get_val_raw(T, N), arbo:get_type(T, N), arbo:get_generation(T)})
         || {Op, Arg, Want} <- Steps],
        V = 16#400000 bor (erlang:unique_integer([positive]) bsl 23),
        V = arbo:set_flags(T, N, V),
        Free = flags_free(),
        with_table(fun(T2) -> V = arbo:set_flags(T2, arbo:add_hkey(T2, arbo:get_root(T2), 1, 3), V) end),
        ?assertEqual({Free, V}, {flags_free(), arbo:get_flags(T, N)})
    end).

%% ---- attributes ------------------------------------------------------------------

%% Values and order are pinned in store_test.cpp and followed by the store
%% model; here the bytes held and a value outliving its attribute.
attributes_test() ->
    with_table(fun(T) ->
        N = arbo:add_hkey(T, arbo:get_root(T), 1, 3),
        M0 = arbo:get_mem(T),
        A = arbo:do_set_attr(T, N, 3, <<1, 2>>),
        ?assertEqual({A, M0 + ?ONE_MEM}, {arbo:get_attr_root(T, N), arbo:get_mem(T)}),
        ?assertEqual(A, arbo:do_set_attr(T, N, 3, binary:copy(<<9>>, 11))),
        ?assertEqual(M0 + ?ONE_MEM + 19, arbo:get_mem(T)),
        Kept = arbo:do_get_attr(T, N, 3),
        ?assertEqual(0, arbo:do_set_attr(T, N, 3, <<>>)),
        _ = [binary:copy(<<"z">>, 300) || _ <- lists:seq(1, 10)],
        ?assertEqual({binary:copy(<<9>>, 11), M0}, {Kept, arbo:get_mem(T)})
    end).

%% Attribute 0 of a list node is its cached inactive count: setting it is an
%% increment, acted on only when the cache exists, and stores nothing. On
%% any other node attribute 0 is an ordinary attribute that marks the node
%% inactive.
attribute_zero_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
        [I1, I2, I3] = [arbo:add_hkey(T, L, K, 4) || K <- [1, 2, 3]],
        [?assertEqual(0, arbo:do_set_attr(T, L, 0, V)) || V <- [<<8, 0, 0, 0, 5>>, <<1, 2, 3>>, <<>>]],
        ?assertEqual({0, [], 4, 0}, {arbo:get_attr_root(T, L), arbo:do_get_attr(T, L, 0),
                                     arbo:get_size(T), arbo:get_generation(T)}),
        A = arbo:do_set_attr(T, I2, 0, <<1>>),
        ?assertEqual({A, 3, 2, [I1, I3]}, {arbo:get_attr_root(T, I2), arbo:num_children(T, L),
                                           arbo:num_children(hide(T), L), children(hide(T), L)}),
        ?assertEqual(0, arbo:do_set_attr(T, I2, 0, <<>>)),
        ?assertEqual({[I1, I2, I3], 1}, {children(hide(T), L), arbo:get_generation(T)})
    end).

%% ---- values ------------------------------------------------------------------

%% A value handed out stays intact after it is replaced and its leaf is gone
%% (the read-back of each kind is followed by the store model, the bytes
%% held pinned in store_test.cpp). Containers and lists keep no value;
%% set_val answers ok regardless.
values_test() ->
    B = fun(N) -> binary:copy(<<"v">>, N) end,
    with_table(fun(T) ->
        R = arbo:get_root(T),
        N = arbo:add_hkey(T, R, 1, 3),
        Seen = [begin ok = arbo:set_val(T, N, K, V), arbo:get_val_raw(T, N) end
                || {K, V} <- [{18, B(64)}, {17, B(11)}, {17, B(3)}]],
        true = arbo:del_hkey(T, R, 1, 13),
        _ = [binary:copy(<<"z">>, 300) || _ <- lists:seq(1, 10)],
        ?assertEqual([B(64), {csval, B(11)}, {csval, B(3)}], Seen),
        Targets = [arbo:add_hkey_internal(T, R, 1), arbo:add_hkey_dyn(T, R, 2, 0)],
        M1 = arbo:get_mem(T),
        ?assertEqual({[ok, ok], [undefined, undefined], M1},
                     {[arbo:set_val(T, X, 18, B(20)) || X <- Targets], [arbo:get_val_raw(T, X) || X <- Targets],
                      arbo:get_mem(T)})
    end).

%% ---- error family ---------------------------------------------------------------

%% One row per refused argument: node reference, flag value, attribute key,
%% attribute bytes, value kind, value bytes.
badarg_test_() ->
    {setup, fun arbo:new/0, fun arbo:close/1, fun(T) ->
        N = arbo:add_hkey(T, arbo:get_root(T), 1, 3),
        Calls = [{get_flags, [T, 0]}, {get_type, [T, <<>>]}, {set_val, [T, 1.0, 17, <<1>>]},
                 {set_flag, [T, N, 1 bsl 64]}, {set_flags, [T, N, -1]}, {do_get_attr, [T, N, 1 bsl 32]},
                 {do_set_attr, [T, N, 1, "bin"]}, {set_val, [T, N, -1, <<1>>]}, {set_val, [T, N, 17, x]}],
        [?_assertEqual({F, A, badarg}, {F, A, reason(fun() -> apply(arbo, F, A) end)}) || {F, A} <- Calls]
    end}.
