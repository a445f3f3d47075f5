%% The tree API on a small configuration tree: reads, changes, moves, its
%% errors (one row per error path) and filtered walks across the library's
%% yields. (The library's own list model: store_model_test.cpp; key forms:
%% arbo_hostile_api_tests; the gate: arbo_gate_tests.)
-module(arbo_tree_tests).
-include_lib("eunit/include/eunit.hrl").

-import(arbo_file_tests, [config/0]).

keys(T, N) -> [arbo_tree:key(T, C) || C <- arbo_tree:children(T, N)].

%% The reading functions on the configuration tree, one named row each
%% (stepping, counting and find_after past a key: arbo_hostile_api_tests'
%% hidden instances; key order: store_model_test.cpp).
reads_test() ->
    T = config(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Rules = arbo_tree:find(T, R, {2, 7}),
    Eth1 = arbo_tree:first_child(T, Ifs),
    Mtu = arbo_tree:find(T, Eth1, 5),
    K = fun(none) -> none; (N) -> arbo_tree:key(T, N) end,
    S = fun(I) -> {tuple, [{string, <<"eth", (I + $0)>>}]} end,
    arbo_test_util:expect(
      [{find_after_inclusive, S(2), K(arbo_tree:find_after(T, Ifs, [{string, <<"eth2">>}], inclusive))},
       {types, [root, container, {list, sorted_length_first}, instance, leaf, {list, user_order}],
        [arbo_tree:type(T, N) || N <- [R, arbo_tree:find(T, R, 1), Ifs, Eth1, Mtu, Rules]]},
       %% an empty sorted list has no last child (the library answers a header)
       {empty_sorted_last, none, arbo_tree:last_child(T, arbo_tree:add_list(T, R, 8, sorted_length_first))},
       {value, binary:copy(<<1>>, 40), arbo_tree:value(T, arbo_tree:find(T, Eth1, {3, 6}))},
       {value_raw, {csval, <<12, 1501:32>>}, arbo_tree:value_raw(T, Mtu)}]),
    ok = arbo_tree:close(T).

%% Values, flags, attributes, namespace renames, references gone stale (also
%% on the iterator stack), deletion by namespace and clear.
changes_test() ->
    T = config(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Eth0 = arbo_tree:first_child(T, Ifs),
    Mtu = arbo_tree:find(T, Eth0, 5),
    [ok = arbo_tree:F(T, Mtu, V) || {F, V} <- [{set_flags, 1 bsl 40 + 5}, {add_flags, 2}, {clear_flags, 1}]],
    ok = arbo_tree:clear_value(T, Mtu),
    [ok = apply(arbo_tree, F, [T, Eth0 | A]) || {F, A} <- [{set_attr, [1, {uint8, 3}]}, {set_attr, [2, {uint8, 4}]},
                                                           {delete_attr, [2]}]],
    %% onto a taken pair the library would drop the moved leaf: refused
    NsLeaf = arbo_tree:add_leaf(T, R, {4, 1}),
    Taken = arbo_tree:add_leaf(T, R, {6, 1}),
    ok = arbo_tree:set_value(T, NsLeaf, <<"plain bytes">>),
    #{size := Size} = arbo_tree:info(T),
    arbo_test_util:expect(
      [{flags, 1 bsl 40 + 6, arbo_tree:flags(T, Mtu)}, {cleared, undefined, arbo_tree:value(T, Mtu)},
       {attrs, [{uint8, 3}, undefined], [arbo_tree:attr(T, Eth0, Id) || Id <- [1, 2]]},
       {rename_ns, [true, false], [arbo_tree:rename_ns(T, NsLeaf, Ns) || Ns <- [5, 6]]},
       {renamed, [{5, 1}, {6, 1}, Size],
        [arbo_tree:key(T, NsLeaf), arbo_tree:key(T, Taken), maps:get(size, arbo_tree:info(T))]},
       {delete_ns, [true, false], [arbo_tree:delete_ns(T, arbo_tree:root(T), 5) || _ <- [1, 2]]}]),
    Ifs2 = arbo_tree:lookup(T, [1, 2]),
    [ok = arbo_tree:iter_push(T, N) || N <- [arbo_tree:root(T), Ifs2]],
    ok = arbo_tree:delete(T, arbo_tree:nth_child(T, Ifs2, 2)),
    ?assertError({stale_node, _}, arbo_tree:children(T, Ifs2)),
    ?assertEqual({error, stale}, arbo_tree:iter_top(T)),
    ?assertEqual([ok, ok, {error, empty}], [arbo_tree:iter_pop(T) || _ <- [1, 2, 3]]),
    ok = arbo_tree:clear(T),
    ?assertMatch(#{size := 0}, arbo_tree:info(T)),
    ok = arbo_tree:close(T).

%% set_values/2 checks every node and value before it sets any: a node
%% that holds no value, a bad value, a malformed pair or a stale reference
%% anywhere in the list leaves every value as it was.
set_values_test() ->
    T = config(),
    R = arbo_tree:root(T),
    [A, B] = [arbo_tree:add_leaf(T, R, K) || K <- [20, 21]],
    ok = arbo_tree:set_values(T, [{A, <<"a">>}, {B, {uint8, 2}}]),
    Refused = [[{A, <<"x">>}, {arbo_tree:lookup(T, [1]), <<"y">>}],
               [{A, <<"x">>}, {B, empty}],
               [{A, <<"x">>}, B]],
    [?assertError(_, arbo_tree:set_values(T, P)) || P <- Refused],
    ok = arbo_tree:delete(T, arbo_tree:add_leaf(T, R, 22)),
    ?assertError({stale_node, _}, arbo_tree:set_values(T, [{A, <<"x">>}])),
    ?assertEqual([<<"a">>, {uint8, 2}], [arbo_tree:value(T, arbo_tree:lookup(T, [K])) || K <- [20, 21]]),
    ok = arbo_tree:close(T).

%% One row per error path of this layer (value and key encodings are the
%% codec's, the library's own refusals the native suites').
errors_test_() ->
    T = config(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Eth0 = arbo_tree:first_child(T, Ifs),
    [Closed, Other] = [arbo_tree:new(), arbo_tree:new()],
    ok = arbo_tree:close(Closed),
    E = fun(Reason, F) -> ?_assertError({Reason, _}, F()) end,
    [E(badarg, fun() -> arbo_tree:find(T, R, {int, 1 bsl 31}) end),
     E(badarg, fun() -> arbo_tree:find(not_a_tree, R, 1) end),
     E(wrong_table, fun() -> arbo_tree:children(T, arbo_tree:root(Other)) end),
     E(arbo_closed, fun() -> arbo_tree:root(Closed) end), E(root, fun() -> arbo_tree:delete(T, R) end),
     E(wrong_node_type, fun() -> arbo_tree:add(T, R, {int, 1}) end),
     E(wrong_node_type, fun() -> arbo_tree:set_value(T, Eth0, {uint8, 1}) end),
     E(name_taken, fun() -> arbo_tree:add_container(T, Eth0, 5) end),
     E(not_user_ordered, fun() -> arbo_tree:move_to(T, Eth0, 0) end),
     E(not_a_child, fun() -> arbo_tree:move_before(T, arbo_tree:lookup(T, [{2, 7}, {int, 30}]), Eth0) end)] ++
    %% pairs of the namespaces a save file cannot carry back
    [E(badarg, fun() -> arbo_tree:add(T, arbo_tree:find(T, R, {2, 7}), {pair, Ns, 1}) end) || Ns <- [0, 12, 256]] ++
    %% filters the library must not see
    [E(bad_filter, fun() -> arbo_tree:select(T, Ifs, F) end)
     || F <- [{6, 1, 2}, {'not', {'not', {6}}}, {7, 1, [1], 1, -1}, {4, [[1, 2]]}]] ++
    %% options that are not a list, and unknown or misspelled ones
    [?_assertError({badarg, {W, _}}, apply(M, F, A))
     || {W, M, F, A} <- [{options, arbo_tree, new, [hide_inactive]},
                         {option, arbo_tree, new, [[hide_inactiv]]},
                         {options, arbo_tree, save, [T, "/tmp/x", skip_flags]},
                         {option, arbo_tree, save, [T, "/tmp/x", [skip_flags]]},
                         {options, arbo_tree, load, [T, "/tmp/x", #{checkpoint => 1}]},
                         {option, arbo_file, load, [T, "/tmp/x", [capture]]}]].

%% Filtered walks over enough siblings that the library yields on the way;
%% a fold whose fun deletes cannot go on. (What values and keys compare
%% as: filter_tests.)
filters_test() ->
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    Is = [{K, arbo_tree:add(T, L, {int, K})} || K <- lists:seq(1, 5000)],
    [ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, 2), {uint32, K}) || {K, I} <- Is],
    [ok = arbo_tree:set_flags(T, I, 16#10) || {K, I} <- Is, K rem 1000 =:= 0],
    Ks = fun(Ns) -> [K || {int, K} <- [arbo_tree:key(T, C) || C <- Ns]] end,
    arbo_test_util:expect(
      [{'or', [1, 5000], Ks(arbo_tree:select(T, L, {'or', {value, le, [2], 1}, {value, ge, [2], 5000}}))},
       {'and', [2000], Ks(arbo_tree:select(T, L, {'and', {flags_all, [], 16#10}, {key, eq, 0, <<"2000">>}}))},
       {limit, [1, 2], Ks(arbo_tree:select(T, L, all, 2))},
       {'not', 4999, arbo_tree:fold(T, L, {'not', {value, eq, [2], <<"3">>}}, fun(_, A) -> A + 1 end, 0)}]),
    ?assertError({stale_node, _}, arbo_tree:fold(T, L, all, fun(C, _) -> arbo_tree:delete(T, C) end, ok)),
    ok = arbo_tree:close(T).

%% move_to counts positions with the instance still in its place: one row
%% per documented answer, from rules 30, -10, 20. (move_before and
%% move_after follow a model in arbo_stress_tests.)
moves_test_() ->
    Move = fun(K, At) ->
                   T = config(),
                   Rules = arbo_tree:find(T, arbo_tree:root(T), {2, 7}),
                   Moved = arbo_tree:move_to(T, arbo_tree:find(T, Rules, {int, K}), At),
                   {Moved, [N || {int, N} <- keys(T, Rules)], arbo_tree:close(T)}
           end,
    [?_assertEqual({K, At, {Moved, Order, ok}}, {K, At, Move(K, At)})
     || {K, At, Moved, Order} <- [{30, 0, false, [30, -10, 20]}, {30, 1, false, [30, -10, 20]},
                                  {30, 2, true, [-10, 30, 20]}, {-10, 3, true, [30, 20, -10]},
                                  {-10, 4, false, [30, -10, 20]}, {30, -1, true, [-10, 20, 30]}]].
