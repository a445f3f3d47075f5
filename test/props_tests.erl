%% Node properties from Erlang: types, user flags (inline and through the
%% shared table), attributes (incl. the inactive-count special case of
%% attribute 0 on a list node), values of each kind, their accounting and
%% lifetime. Values, flags and attributes in random sequences are checked
%% against a model in store_prop_tests.
-module(props_tests).
-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, children/2, hide/1]).
-import(arbo_tree_util, [lib_mem/0, flags_free/0]).

-define(ONE_MEM, 56).

get_type_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        U = arbo:add_hkey_dyn(T, R, 4, 3),
        Rows = [{R, {3, 0}}, {arbo:add_hkey_internal(T, R, 1), {1, 0}},
                {arbo:add_hkey_dyn(T, R, 2, 0), {2, 0}}, {arbo:add_hkey_dyn(T, R, 3, 2), {2, 2}},
                {U, {2, 3}}, {arbo:add_hkey(T, U, 1, 4), {3, 0}}, {arbo:add_hkey(T, R, 5, 3), {3, 0}}],
        ?assertEqual([W || {_, W} <- Rows], [arbo:get_type(T, N) || {N, _} <- Rows]),
        %% instances of a sorted list come in three heights; all read as 3
        S = arbo:add_hkey_dyn(T, R, 6, 0),
        ?assertEqual([{3, 0}], lists:usort([arbo:get_type(T, arbo:add_hkey(T, S, K, 4))
                                            || K <- lists:seq(1, 300)]))
    end).

%% ---- user flags ----------------------------------------------------------------

%% set_flag/clr_flag across the inline/shared-table boundary; the low bits of
%% the type word, the key and the value stay untouched.
flag_ops_test() ->
    with_table(fun(T) ->
        N = arbo:add_hkey(T, arbo:get_root(T), {-3}, 3),
        ok = arbo:set_val(T, N, 17, <<"val">>),
        Steps = [{set_flags, 5, 5}, {set_flag, 2, 7}, {clr_flag, 1, 6},
                 {set_flag, 16#400000, 16#400006}, {clr_flag, 16#400000, 6},
                 {set_flag, 16#ffffffffffffffff, 16#ffffffffffffffff},
                 {clr_flag, 16#ffffffffffffffff, 0}],
        [begin
             ?assertEqual({Op, Arg, Want}, {Op, Arg, arbo:Op(T, N, Arg)}),
             ?assertEqual({Op, Arg, Want, 16#FFFFFFFD, {csval, <<"val">>}, {3, 0}},
                          {Op, Arg, arbo:get_flags(T, N), arbo:get_hkey0(T, N),
                           arbo:get_val_raw(T, N), arbo:get_type(T, N)})
         end || {Op, Arg, Want} <- Steps],
        ?assertEqual(0, arbo:get_generation(T))
    end).

%% Values above 0x3fffff live in the library-wide table: one entry per
%% distinct value, shared by nodes and tables, never given back; the table
%% grows by 64 entries (512 bytes of the library counter) when full.
wide_flags_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [A, B] = [arbo:add_hkey(T, R, K, 3) || K <- [1, 2]],
        Wide = fun() -> 16#400000 bor (erlang:unique_integer([positive]) bsl 23) end,
        V = Wide(),
        Free0 = flags_free(),
        _ = arbo:set_flags(T, A, 16#3fffff),
        ?assertEqual(Free0, flags_free()),
        ?assertEqual(V, arbo:set_flags(T, A, V)),
        Free1 = case Free0 of 0 -> 63; _ -> Free0 - 1 end,
        ?assertEqual(Free1, flags_free()),
        ?assertEqual(V, arbo:set_flags(T, B, V)),
        with_table(fun(T2) -> V = arbo:set_flags(T2, arbo:add_hkey(T2, arbo:get_root(T2), 1, 3), V) end),
        ?assertEqual(5, arbo:set_flags(T, A, 5)),
        ?assertEqual({Free1, V}, {flags_free(), arbo:get_flags(T, B)}),
        %% fill the table to the last entry, then one more value grows it
        [_, {8, Cap, _}] = arbo:alloc_info(),
        [arbo:set_flags(T, A, Wide()) || _ <- lists:seq(1, Free1)],
        ?assertEqual(0, flags_free()),
        Lib = lib_mem(),
        W = Wide(),
        ?assertEqual(W, arbo:set_flags(T, A, W)),
        ?assertEqual([Lib + 512, {8, Cap + 64, 63}], arbo:alloc_info()),
        ?assertEqual({W, V}, {arbo:get_flags(T, A), arbo:get_flags(T, B)})
    end).

%% ---- attributes ------------------------------------------------------------------

attributes_test() ->
    with_table(fun(T) ->
        N = arbo:add_hkey(T, arbo:get_root(T), 1, 3),
        M0 = arbo:get_mem(T),
        A3 = arbo:do_set_attr(T, N, 3, <<1, 2>>),
        ?assertEqual({A3, {3, 0}}, {arbo:get_attr_root(T, N), arbo:get_type(T, A3)}),
        %% short values read back as encoded values, long ones as plain
        %% binaries: attributes carry no value-kind flags (kept)
        ?assertEqual({csval, <<1, 2>>}, arbo:do_get_attr(T, N, 3)),
        Long = binary:copy(<<9>>, 11),
        ?assertEqual(A3, arbo:do_set_attr(T, N, 3, Long)),
        ?assertEqual({Long, M0 + ?ONE_MEM + 19}, {arbo:do_get_attr(T, N, 3), arbo:get_mem(T)}),
        %% the list stays sorted by attribute key and the root follows its head
        A1 = arbo:do_set_attr(T, N, 1, <<"x">>),
        ?assertEqual(A1, arbo:do_set_attr(T, N, 7, <<"y">>)),
        ?assertEqual([{csval, <<"x">>}, [], Long, [], {csval, <<"y">>}],
                     [arbo:do_get_attr(T, N, K) || K <- [1, 2, 3, 4, 7]]),
        ?assertEqual(A1, arbo:do_set_attr(T, N, 3, <<>>)),
        A7 = arbo:do_set_attr(T, N, 1, <<>>),
        ?assertEqual({A7, M0 + ?ONE_MEM, 2}, {arbo:get_attr_root(T, N), arbo:get_mem(T), arbo:get_size(T)}),
        %% a value fetched earlier outlives the attribute
        Kept = arbo:do_get_attr(T, N, 7),
        ?assertEqual(0, arbo:do_set_attr(T, N, 7, <<>>)),
        ?assertEqual({{csval, <<"y">>}, M0}, {Kept, arbo:get_mem(T)})
    end).

%% Attribute 0 of a list node is its cached inactive count: setting it is an
%% increment, acted on only when the cache exists, and stores nothing. On
%% any other node attribute 0 is an ordinary attribute that marks the node
%% inactive.
attribute_zero_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
        [I1, I2, I3] = [arbo:add_hkey(T, L, K, 4) || K <- [1, 2, 3]],
        [?assertEqual(0, arbo:do_set_attr(T, L, 0, V))
         || V <- [<<8, 0, 0, 0, 5>>, <<1, 2, 3>>, <<>>, <<8, 0, 0, 0, 1, 0>>]],
        ?assertEqual({0, [], 4, 0}, {arbo:get_attr_root(T, L), arbo:do_get_attr(T, L, 0),
                                     arbo:get_size(T), arbo:get_generation(T)}),
        ?assertEqual(0, arbo:do_set_attr(T, I2, 0, <<>>)),
        A = arbo:do_set_attr(T, I2, 0, <<1>>),
        ?assertEqual(A, arbo:get_attr_root(T, I2)),
        ?assertEqual({3, 2}, {arbo:num_children(T, L), arbo:num_children(hide(T), L)}),
        ?assertEqual([I1, I3], children(hide(T), L)),
        ?assertEqual(0, arbo:do_set_attr(T, I2, 0, <<>>)),
        ?assertEqual({[I1, I2, I3], 1}, {children(hide(T), L), arbo:get_generation(T)})
    end).

%% ---- values ------------------------------------------------------------------

%% Each row replaces the previous value of one leaf: {kind, bytes, read back,
%% bytes held beyond the node}. The old value is given back exactly, and a
%% value handed out earlier stays intact after the leaf is gone.
values_test() ->
    B = fun(N) -> binary:copy(<<"v">>, N) end,
    Rows = [{17, B(10), {csval, B(10)}, 0}, {17, B(11), {csval, B(11)}, 11 + 8},
            {17, <<>>, undefined, 0}, {18, B(3), B(3), 3 + 8}, {18, <<>>, <<>>, 8},
            {37, B(2), {csval, B(2)}, 2 + 8}, {99, B(5), undefined, 0},
            {17, B(64), {csval, B(64)}, 64 + 8}, {0, B(1), undefined, 0}],
    with_table(fun(T) ->
        N = arbo:add_hkey(T, arbo:get_root(T), 1, 3),
        M0 = arbo:get_mem(T),
        Seen = [begin
                    ok = arbo:set_val(T, N, Kind, Bytes),
                    ?assertEqual({Kind, Bytes, Want, M0 + Extra},
                                 {Kind, Bytes, arbo:get_val_raw(T, N), arbo:get_mem(T)}),
                    {arbo:get_val_raw(T, N), Want}
                end || {Kind, Bytes, Want, Extra} <- Rows],
        true = arbo:del_hkey(T, arbo:get_root(T), 1, 13),
        _ = [binary:copy(<<"z">>, 300) || _ <- lists:seq(1, 10)],
        [?assertEqual(Want, Got) || {Got, Want} <- Seen]
    end).

%% Containers and lists keep no value; set_val answers ok regardless.
value_refused_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Targets = [arbo:add_hkey_internal(T, R, 1), arbo:add_hkey_dyn(T, R, 2, 0)],
        M = arbo:get_mem(T),
        [?assertEqual({ok, undefined}, {arbo:set_val(T, N, K, binary:copy(<<1>>, 20)),
                                        arbo:get_val_raw(T, N)}) || N <- Targets, K <- [17, 18, 37]],
        ?assertEqual(M, arbo:get_mem(T))
    end).

%% ---- error family ---------------------------------------------------------------

badarg_test_() ->
    {setup, fun arbo:new/0, fun arbo:close/1, fun(T) ->
        N = arbo:add_hkey(T, arbo:get_root(T), 1, 3),
        Calls = [{get_flags, [T, 0]}, {set_flags, [T, N, -1]}, {set_flag, [T, N, 1 bsl 64]},
                 {clr_flag, [T, N, foo]}, {set_flags, [T, 0, 1]}, {get_type, [T, <<>>]},
                 {get_attr_root, [T, -1]}, {do_get_attr, [T, N, -1]},
                 {do_get_attr, [T, N, 1 bsl 32]}, {do_set_attr, [T, N, 1, "bin"]},
                 {do_set_attr, [T, N, -1, <<1>>]}, {get_val_raw, [T, 0]},
                 {set_val, [T, N, -1, <<1>>]}, {set_val, [T, N, 17, x]},
                 {set_val, [T, 1.0, 17, <<1>>]}],
        [?_assertEqual({F, A, badarg}, {F, A, reason(fun() -> apply(arbo, F, A) end)})
         || {F, A} <- Calls]
    end}.
