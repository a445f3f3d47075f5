%% The tree API: every function on a small configuration tree, its errors
%% (one generator per error family), model-based random sequences on sorted
%% and user-ordered lists, filtered walks across the library's yields,
%% iterator stacks (inactive instances are nav_tests'), and the gate: a reader killed inside it, one pass for
%% many calls, the owner's exit.
-module(arbo_tree_tests).
-include_lib("proper/include/proper.hrl").
-include_lib("eunit/include/eunit.hrl").


%% A small configuration: /1 container, /1/2 sorted list of interfaces
%% keyed by name, each with leaves mtu (5) and enabled ({3, 6}); /7 a
%% user-ordered list of rules keyed by integers.
config() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:add_list(T, arbo_tree:add_container(T, R, 1), 2, sorted),
    [ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, Tag), V)
     || {Name, Mtu} <- [{<<"eth1">>, 1500}, {<<"eth0">>, 9000}, {<<"lo">>, 65536}],
        I <- [arbo_tree:add(T, Ifs, [{string, Name}])], {Tag, V} <- [{5, {uint32, Mtu}}, {{3, 6}, {bool, Mtu > 1500}}]],
    Rules = arbo_tree:add_list(T, R, 7, user_order),
    [arbo_tree:add(T, Rules, {int, K}) || K <- [30, 10, 20]],
    T.

keys(T, N) -> [arbo_tree:key(T, C) || C <- arbo_tree:children(T, N)].

%% Types, keys as read back, lookups by path and encoded key, the
%% neighbours at the ends, find_after, value, flag and attribute calls
%% (their encodings are the codec's and the store's business; moves and
%% deletion by key are the model's and the stress writers'), references
%% going stale (also on the iterator stack), namespaces and clear.
tour_test() ->
    T = config(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Rules = arbo_tree:find(T, R, 7),
    [Eth0, Eth1, Lo] = arbo_tree:children(T, Ifs),
    Mtu = arbo_tree:find(T, Eth0, 5),
    ?assertEqual({[{tuple, [{string, N}]} || N <- [<<"eth0">>, <<"eth1">>, <<"lo">>]], [{int, 30}, {int, 10}, {int, 20}]},
                 {keys(T, Ifs), keys(T, Rules)}),
    ?assertEqual([true, true, true, true], [arbo_tree:is_same(A, B) || {A, B} <- [{Eth0, arbo_tree:find(T, Ifs, {encoded, <<200, 4, "eth0">>})},
                     {Lo, arbo_tree:find_after(T, Ifs, [{string, <<"eth1">>}])},
                     {Eth1, arbo_tree:find_after(T, Ifs, [{string, <<"eth1">>}], inclusive)}, {Eth1, arbo_tree:prev_sibling(T, Lo)}]]),
    ?assertEqual({{bool, true}, {csval, <<12, 9000:32>>}, [root, container, {list, sorted}, instance, leaf, {list, user_order}]},
                 {arbo_tree:value(T, arbo_tree:lookup(T, [1, 2, [{string, <<"eth0">>}], {3, 6}])), arbo_tree:value_raw(T, Mtu),
                  [arbo_tree:type(T, N) || N <- [R, arbo_tree:find(T, R, 1), Ifs, Eth0, Mtu, Rules]]}),
    ?assertEqual({none, none, none, none, 3, 3}, {arbo_tree:next_sibling(T, Lo), arbo_tree:prev_sibling(T, Eth0),
                                                  arbo_tree:nth_child(T, Ifs, 4), arbo_tree:lookup(T, [1, 9]),
                                                  arbo_tree:child_index(T, Lo), arbo_tree:num_children(T, Ifs)}),
    %% an empty sorted list has no last child (the library answers a header)
    ?assertEqual(none, arbo_tree:last_child(T, arbo_tree:add_list(T, R, 8, sorted_length_first))),
    [ok = arbo_tree:F(T, Mtu, V) || {F, V} <- [{set_flags, 1 bsl 40 + 5}, {add_flags, 2}, {clear_flags, 1}]],
    [ok, ok, ok, ok] = [arbo_tree:clear_value(T, Mtu), arbo_tree:set_attr(T, Eth0, 1, {uint8, 3}),
                        arbo_tree:set_attr(T, Eth0, 2, {uint8, 4}), arbo_tree:delete_attr(T, Eth0, 2)],
    ?assertEqual({undefined, 1 bsl 40 + 6, [{uint8, 3}, undefined]},
                 {arbo_tree:value(T, Mtu), arbo_tree:flags(T, Mtu), [arbo_tree:attr(T, Eth0, Id) || Id <- [1, 2]]}),
    [ok = arbo_tree:iter_push(T, N) || N <- [R, Ifs]],
    {ok, Top} = arbo_tree:iter_top(T),
    ok = arbo_tree:delete(T, Eth1),
    ?assertError({stale_node, _}, arbo_tree:children(T, Ifs)),
    ?assertEqual({true, {error, stale}, 2, [ok, ok], {error, empty}},
                 {arbo_tree:is_same(Ifs, Top), arbo_tree:iter_top(T), arbo_tree:iter_depth(T),
                  [arbo_tree:iter_pop(T) || _ <- [1, 2]], arbo_tree:iter_pop(T)}),
    %% (the root's reference went stale with the deletion, like any other)
    NsLeaf = arbo_tree:add_leaf(T, arbo_tree:root(T), {4, 1}),
    ?assertEqual({true, {5, 1}}, {arbo_tree:rename_ns(T, NsLeaf, 5), arbo_tree:key(T, NsLeaf)}),
    %% onto a taken pair the library would drop the leaf: refused before it
    {Taken, ok} = {arbo_tree:add_leaf(T, arbo_tree:root(T), {6, 1}), arbo_tree:set_value(T, NsLeaf, <<"plain bytes">>)},
    Before = arbo_tree:info(T),
    ?assertEqual({false, Before, {6, 1}},
                 {arbo_tree:rename_ns(T, NsLeaf, 6), arbo_tree:info(T), arbo_tree:key(T, Taken)}),
    ?assertEqual([true, false], [arbo_tree:delete_ns(T, arbo_tree:root(T), 5) || _ <- [1, 2]]),
    ok = arbo_tree:clear(T),
    ?assertMatch(#{size := 0}, arbo_tree:info(T)),
    [ok, ok] = [arbo_tree:close(T), arbo_tree:close(T)].

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
    [E(badarg, fun() -> arbo_tree:find(T, R, {int, 1 bsl 31}) end), E(badarg, fun() -> arbo_tree:find(not_a_tree, R, 1) end),
     E(wrong_table, fun() -> arbo_tree:children(T, arbo_tree:root(Other)) end),
     E(arbo_closed, fun() -> arbo_tree:root(Closed) end), E(root, fun() -> arbo_tree:delete(T, R) end),
     E(wrong_node_type, fun() -> arbo_tree:add(T, R, {int, 1}) end), E(wrong_node_type, fun() -> arbo_tree:set_value(T, Eth0, {uint8, 1}) end),
     E(name_taken, fun() -> arbo_tree:add_container(T, Eth0, 5) end),
     E(not_user_ordered, fun() -> arbo_tree:move_to(T, Eth0, 0) end),
     E(not_a_child, fun() -> arbo_tree:move_before(T, arbo_tree:first_child(T, arbo_tree:find(T, R, 7)), Eth0) end)] ++
    %% filters the library must not see
    [E(bad_filter, fun() -> arbo_tree:select(T, Ifs, F) end) || F <- [{6, 1, 2}, {'not', {'not', {6}}}, {7, 1, [1], 1, -1}, {4, [[1, 2]]}]].

%% Filtered walks over enough siblings that the library yields on the way;
%% a fold whose fun deletes cannot go on.
filters_test() ->
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    Is = [{K, arbo_tree:add(T, L, {int, K})} || K <- lists:seq(1, 5000)],
    [ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, 2), {uint32, K}) || {K, I} <- Is],
    [ok = arbo_tree:set_flags(T, I, 16#10) || {K, I} <- Is, K rem 1000 =:= 0],
    Ks = fun(Ns) -> [K || {int, K} <- [arbo_tree:key(T, C) || C <- Ns]] end,
    Cases = [{[{'or', {value, le, [2], 1}, {value, ge, [2], 5000}}], [1, 5000]},
             {[{'and', {flags_all, [], 16#10}, {key, eq, 0, <<"2000">>}}], [2000]}, {[all, 2], [1, 2]}],
    [?assertEqual({Args, Want}, {Args, Ks(apply(arbo_tree, select, [T, L | Args]))}) || {Args, Want} <- Cases],
    ?assertEqual(4999, arbo_tree:fold(T, L, {'not', {value, eq, [2], <<"3">>}}, fun(_, A) -> A + 1 end, 0)),
    %% comparisons the library cannot make match, beside full matches (a
    %% plain binary holding an encoded string among them): text that is no
    %% number, a plain binary and an opaque key without a text form, the
    %% matching head of a text longer than its buffer
    U = arbo_tree:add_list(T, arbo_tree:root(T), 2, sorted),
    Q = fun(N) -> binary:copy(<<"q">>, N) end,
    Vals = [{string, <<"abc">>}, <<"abc">>, <<200, 1, "7">>, {string, Q(65)}, {string, Q(64)}, {uint8, 9}],
    Us = [{K, arbo_tree:add(T, U, {int, K})} || K <- lists:seq(1, length(Vals))],
    [ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, 2), V) || {{_, I}, V} <- lists:zip(Us, Vals)],
    UCases = [{{value, gt, [2], 8}, [1, 2, 4, 5, 6]}, {{value, eq, [2], Q(64)}, [2, 4, 5]}, {{value, eq, [2], <<"7">>}, [2, 3]}],
    [?assertEqual({F, Want}, {F, Ks(arbo_tree:select(T, U, F))}) || {F, Want} <- UCases],
    O = arbo_tree:add_list(T, arbo_tree:root(T), 3, sorted),
    _ = [arbo_tree:add(T, O, {opaque, B}) || B <- [<<"abc">>, <<200, 1, "x">>]],
    ?assertEqual([{opaque, <<"abc">>}], [arbo_tree:key(T, C) || C <- arbo_tree:select(T, O, {key, eq, 0, <<"y">>})]),
    ?assertError({stale_node, _}, arbo_tree:fold(T, L, all, fun(C, _) -> arbo_tree:delete(T, C) end, ok)),
    ok = arbo_tree:close(T).

%% ---- model-based sequences -------------------------------------------------

op() -> oneof([{add, key()}, {add, key()}, {delete, key()}, {rename, key(), key()}, {move, nat(), int()}]).
key() -> oneof([{int, int()}, {tuple, [{string, binary(2)}]}, {tuple, [{uint8, byte()}, {bool, boolean()}]}]).

%% Children are always the model's keys: in its order for user order, else
%% sorted by the library's own comparison; never duplicated.
list_model_test() ->
    Prop = ?FORALL({Mode, Ops}, {oneof([sorted, sorted_length_first, user_order]), list(op())}, run_model(Mode, Ops)),
    ?assertEqual(true, proper:quickcheck(Prop, [{numtests, 300}, quiet]) orelse {counterexample, proper:counterexample()}).

run_model(Order, Ops) ->
    T = arbo_tree:new(),
    _ = arbo_tree:add_list(T, arbo_tree:root(T), 1, Order),
    Final = lists:foldl(fun(Op, M) -> step(T, Order, Op, M) end, [], Ops),
    {Got, ok} = {keys(T, the_list(T)), arbo_tree:close(T)},
    Got =:= case Order of user_order -> Final; _ -> lists:sort(fun(A, B) -> cmp(A, B, Order) =< 0 end, Final) end.

cmp({int, A}, {int, B}, _) -> if A < B -> -1; A > B -> 1; true -> 0 end;
cmp({int, _}, _, _) -> 1;
cmp(_, {int, _}, _) -> -1;
cmp({tuple, A}, {tuple, B}, Order) -> arbo_key:compare(A, B, case Order of sorted -> plain; _ -> length_first end).

%% (References go stale as the generation moves: the list is looked up anew.)
the_list(T) -> arbo_tree:find(T, arbo_tree:root(T), 1).

%% A user-ordered list holds one key form; a rename keeps the form.
step(T, user_order, {add, K}, [First | _] = M) when element(1, K) =/= element(1, First) ->
    ?assertError({key_form, K}, arbo_tree:add(T, the_list(T), K)), M;
step(T, _, {add, K}, M) -> _ = arbo_tree:add(T, the_list(T), K), M ++ [K || not lists:member(K, M)];
step(T, _, {delete, K}, M) -> ?assertEqual(lists:member(K, M), arbo_tree:delete(T, the_list(T), K)), M -- [K];
step(T, _, {rename, K, New}, M) when element(1, K) =/= element(1, New) ->
    N = arbo_tree:find(T, the_list(T), K),
    N =:= none orelse ?assertError({key_form, New}, arbo_tree:rename(T, N, New)), M;
step(T, _, {rename, K, New}, M) ->
    N = arbo_tree:find(T, the_list(T), K),
    Done = N =/= none andalso arbo_tree:rename(T, N, New),
    ?assertEqual(N =/= none andalso not lists:member(New, M) orelse New =:= K, Done orelse New =:= K),
    [case X of K when Done -> New; _ -> X end || X <- M];
step(T, user_order, {move, I, Pos}, M) when M =/= [] ->
    K = lists:nth(I rem length(M) + 1, M),
    Want = move_model(M, K, Pos),
    ?assertEqual(Want =/= M, arbo_tree:move_to(T, arbo_tree:find(T, the_list(T), K), Pos)),
    Want;
step(_, _, {move, _, _}, M) -> M.

%% The library counts positions with the instance still in its place: a
%% move next to itself changes nothing.
move_model(M, K, Pos) when Pos < 0 -> (M -- [K]) ++ [K];
move_model(M, _K, Pos) when Pos > length(M) -> M;
move_model(M, K, Pos) ->
    {Before, After} = lists:split(Pos, M),
    Stays = lists:member(K, [hd(After ++ [none]), lists:last([none | Before])]),
    if Stays -> M; true -> (Before -- [K]) ++ [K] ++ (After -- [K]) end.

%% ---- the gate --------------------------------------------------------------

%% A process deleting the rules list /7; it exits with delete's answer.
writer(T) -> spawn_monitor(fun() -> exit(arbo_tree:delete(T, arbo_tree:root(T), 7)) end).

%% A reader killed between its announcement and its withdrawal does not
%% hold writers off: the keeper drops a dead reader's word.
killed_inside_gate_test() ->
    T = config(),
    Self = self(),
    Pid = spawn(fun() -> {arbo, _, _, {arbo_gate, _, _, Word}} = arbo_tree:attach(T),
                         atomics:add(Word, 1, 1),   % inside, as if preempted there
                         Self ! inside, receive never -> ok end end),
    receive inside -> ok end,
    {WPid, WRef} = writer(T),
    receive {'DOWN', WRef, _, _, _} -> error(writer_did_not_wait) after 200 -> exit(Pid, kill) end,
    receive {'DOWN', WRef, process, WPid, R} -> ?assertEqual(true, R) after 5000 -> error(writer_stuck) end,
    ok = arbo_tree:close(T).

owner_exit_closes_test() ->
    Self = self(),
    {Pid, Ref} = spawn_monitor(fun() -> Self ! {tree, config()} end),
    {arbo, _, _, {arbo_gate, Keeper, _, _}} = T = receive {tree, X} -> X end,
    MRef = erlang:monitor(process, Keeper),
    receive {'DOWN', Ref, process, Pid, _} -> receive {'DOWN', MRef, _, _, _} -> ok after 5000 -> error(keeper_alive) end end,
    ?assertError({arbo_closed, _}, arbo_tree:root(T)).

%% One pass through the gate for many calls: the reader handle works only
%% inside, only in its process; writers wait for the pass, and a pass that
%% meets a waiting writer does not deadlock on itself.
reading_test() ->
    T = config(),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Self = self(),
    Reader = arbo_tree:reading(T, fun(RT) ->
        Eth1 = arbo_tree:next_sibling(RT, arbo_tree:first_child(RT, Ifs)),
        %% nested, and the plain handle inside
        ?assertEqual({2, 3}, {arbo_tree:reading(T, fun(RT2) -> arbo_tree:num_children(RT2, Eth1) end),
                              arbo_tree:num_children(T, Ifs)}),
        ?assertError({in_reading, _}, arbo_tree:delete(T, Eth1)),
        ?assertError({in_reading, _}, arbo_tree:clear(RT)),
        %% a writer of another process waits; this pass still reads
        Self ! {writer, writer(T)},
        receive after 100 -> ok end,
        ?assertEqual({{tuple, [{string, <<"eth1">>}]}, 3}, {arbo_tree:key(RT, Eth1), length(arbo_tree:children(RT, Ifs))}),
        RT
    end),
    receive {writer, {W, WRef}} -> receive {'DOWN', WRef, process, W, Done} -> ?assertEqual(true, Done) end end,
    ?assertError({reading_over, _}, arbo_tree:root(Reader)),
    ok = arbo_tree:close(T).
