%% Node properties at the boundary: types, attribute bytes held, the
%% inactive-count special case of attribute 0 on a list node, and the
%% lifetime of values handed out. The flag calls are checked in
%% alloc_test.cpp; argument decoding is swept by arbo_fuzz_tests.
-module(props_tests).
-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-import(arbo_test_util, [with_table/1, children/2, hide/1, expect/1]).


%% get_type of every node kind; instances of a sorted list come in three
%% heights, all read as leaves. Containers and lists keep no value, and
%% set_val on them answers ok regardless.
get_type_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [C, U, S, D] = [arbo:add_hkey_internal(T, R, 1) | [arbo:add_hkey_dyn(T, R, K, M) || {K, M} <- [{4, 3}, {6, 0}, {3, 2}]]],
        Rows = [{R, {3, 0}}, {C, {1, 0}}, {U, {2, 3}}, {S, {2, 0}}, {D, {2, 2}}, {arbo:add_hkey(T, U, 1, ?KEY_INT), {3, 0}}]
               ++ [{arbo:add_hkey(T, S, K, ?KEY_INT), {3, 0}} || K <- lists:seq(1, 300)],
        ?assertEqual([W || {_, W} <- Rows], [arbo:get_type(T, N) || {N, _} <- Rows]),
        ?assertEqual({[ok, ok], [undefined, undefined], arbo:get_mem(T)},
                     {[arbo:set_val(T, X, ?VAL_BINARY, <<"v">>) || X <- [C, U]], [arbo:get_val_raw(T, X) || X <- [C, U]], arbo:get_mem(T)})
    end).

%% Replacing an attribute keeps its node (the bytes held are pinned by
%% edit_tests' accounting); attribute and value binaries handed out stay
%% intact after they are replaced and their node is gone.
values_and_attributes_test() ->
    B = fun(N) -> binary:copy(<<"v">>, N) end,
    with_table(fun(T) ->
        N = arbo:add_hkey(T, R = arbo:get_root(T), 1, ?KEY_TAG_ALT),
        A = arbo:do_set_attr(T, N, 3, <<1, 2>>),
        ?assertEqual({A, A}, {arbo:get_attr_root(T, N), arbo:do_set_attr(T, N, 3, B(11))}),
        Kept = arbo:do_get_attr(T, N, 3),
        Seen = [begin ok = arbo:set_val(T, N, K, V), arbo:get_val_raw(T, N) end
                || {K, V} <- [{18, B(64)}, {17, B(11)}, {17, B(3)}]],
        _ = [binary:copy(<<"z">>, 300) || true <- [arbo:del_hkey(T, R, 1, ?DEL_TAG)], _ <- lists:seq(1, 10)],
        ?assertEqual({B(11), [B(64), {csval, B(11)}, {csval, B(3)}]}, {Kept, Seen})
    end).

%% Attribute 0 of a list node is its cached inactive count: setting it is an
%% increment, acted on only when the cache exists, and stores nothing. On
%% any other node attribute 0 is an ordinary attribute that marks the node
%% inactive.
attribute_zero_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, ?ORDER_PLAIN),
        [I1, I2, I3] = [arbo:add_hkey(T, L, K, ?KEY_INT) || K <- [1, 2, 3]],
        ?assertEqual([0, 0, 0], [arbo:do_set_attr(T, L, 0, V) || V <- [<<8, 0, 0, 0, 5>>, <<1, 2, 3>>, <<>>]]),
        expect([{attr_root, 0, arbo:get_attr_root(T, L)}, {attr_0, [], arbo:do_get_attr(T, L, 0)},
                {size, 4, arbo:get_size(T)}, {generation, 0, arbo:get_generation(T)}]),
        A = arbo:do_set_attr(T, I2, 0, <<1>>),
        expect([{attr_root, A, arbo:get_attr_root(T, I2)}, {count, 3, arbo:num_children(T, L)},
                {count_hidden, 2, arbo:num_children(hide(T), L)}, {children_hidden, [I1, I3], children(hide(T), L)}]),
        ?assertEqual(0, arbo:do_set_attr(T, I2, 0, <<>>)),
        expect([{children_hidden, [I1, I2, I3], children(hide(T), L)}, {generation, 1, arbo:get_generation(T)}])
    end).
