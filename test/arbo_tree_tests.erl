%% The tree API: every function on a small configuration tree, its errors
%% (one generator per error family), model-based random sequences on sorted
%% and user-ordered lists, filtered walks across the library's yields,
%% iterator stacks, and the gate: a reader killed inside it, one pass for
%% many calls, the owner's exit.
-module(arbo_tree_tests).
-include_lib("proper/include/proper.hrl").
-include_lib("eunit/include/eunit.hrl").

-define(PROP(P, N),
        ?assertEqual(true, case proper:quickcheck(P, [{numtests, N}, quiet]) of
                               true -> true;
                               _ -> {counterexample, proper:counterexample()}
                           end)).

%% A small configuration: /1 container, /1/2 sorted list of interfaces
%% keyed by name, each with leaves mtu (5) and enabled ({3, 6}); /7 a
%% user-ordered list of rules keyed by integers.
config() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    C = arbo_tree:add_container(T, R, 1),
    Ifs = arbo_tree:add_list(T, C, 2, sorted),
    [begin
         I = arbo_tree:add(T, Ifs, [{string, Name}]),
         ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, 5), {uint32, Mtu}),
         ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, {3, 6}), {bool, Mtu > 1500})
     end || {Name, Mtu} <- [{<<"eth1">>, 1500}, {<<"eth0">>, 9000}, {<<"lo">>, 65536}]],
    Rules = arbo_tree:add_list(T, R, 7, user_order),
    [arbo_tree:add(T, Rules, {int, K}) || K <- [30, 10, 20]],
    T.

keys(T, N) -> [arbo_tree:key(T, C) || C <- arbo_tree:children(T, N)].

tour_test() ->
    T = config(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Rules = arbo_tree:find(T, R, 7),
    ?assertEqual([{tuple, [{string, N}]} || N <- [<<"eth0">>, <<"eth1">>, <<"lo">>]],
                 keys(T, Ifs)),
    ?assertEqual([{int, 30}, {int, 10}, {int, 20}], keys(T, Rules)),
    [Eth0, Eth1, Lo] = arbo_tree:children(T, Ifs),
    ?assert(arbo_tree:is_same(Eth0, arbo_tree:find(T, Ifs, {encoded, <<200, 4, "eth0">>}))),
    ?assertEqual({bool, true}, arbo_tree:value(T, arbo_tree:lookup(T, [1, 2, [{string, <<"eth0">>}], {3, 6}]))),
    ?assertEqual({csval, <<12, 9000:32>>}, arbo_tree:value_raw(T, arbo_tree:find(T, Eth0, 5))),
    ?assertEqual([root, container, {list, sorted}, instance, leaf, {list, user_order}],
                 [arbo_tree:type(T, N) || N <- [R, arbo_tree:find(T, R, 1), Ifs, Eth0,
                                                arbo_tree:find(T, Eth0, 5), Rules]]),
    ?assert(arbo_tree:is_same(Eth1, arbo_tree:prev_sibling(T, Lo))),
    ?assertEqual({none, none, none, none}, {arbo_tree:next_sibling(T, Lo), arbo_tree:prev_sibling(T, Eth0),
                                            arbo_tree:nth_child(T, Ifs, 4), arbo_tree:lookup(T, [1, 9])}),
    ?assertEqual({3, 3}, {arbo_tree:child_index(T, Lo), arbo_tree:num_children(T, Ifs)}),
    ?assert(arbo_tree:is_same(Lo, arbo_tree:find_after(T, Ifs, [{string, <<"eth1">>}]))),
    ?assert(arbo_tree:is_same(Eth1, arbo_tree:find_after(T, Ifs, [{string, <<"eth1">>}], inclusive))),
    %% an empty sorted list has no last child (the library answers a header)
    ?assertEqual(none, arbo_tree:last_child(T, arbo_tree:add_list(T, R, 8, sorted_length_first))),
    ?assert(arbo_tree:is_same(Ifs, arbo_tree:add_list(T, arbo_tree:find(T, R, 1), 2, sorted))),
    ?assertMatch(#{size := 16, epoch := 0}, arbo_tree:info(T)),
    Mtu = arbo_tree:find(T, Eth0, 5),
    Big = binary:copy(<<"v">>, 300),
    [begin ok = arbo_tree:set_value(T, Mtu, V), ?assertEqual(V, arbo_tree:value(T, Mtu)) end
     || V <- [<<"plain">>, {string, Big}, {ipv4, {1, 2, 3, 4}}]],
    ok = arbo_tree:clear_value(T, Mtu),
    ?assertEqual(undefined, arbo_tree:value(T, Mtu)),
    ok = arbo_tree:set_flags(T, Mtu, 1 bsl 40 + 5),
    ok = arbo_tree:add_flags(T, Mtu, 2),
    ok = arbo_tree:clear_flags(T, Mtu, 1),
    ?assertEqual(1 bsl 40 + 6, arbo_tree:flags(T, Mtu)),
    [ok = arbo_tree:set_attr(T, Eth0, Id, V) || {Id, V} <- [{1, {uint8, 3}}, {2, {string, Big}}]],
    ok = arbo_tree:delete_attr(T, Eth0, 2),
    ?assertEqual([{uint8, 3}, undefined], [arbo_tree:attr(T, Eth0, Id) || Id <- [1, 2]]),
    ok = arbo_tree:close(T),
    ok = arbo_tree:close(T).

%% move_to and deletion by key are covered by the model; relative moves,
%% references (also on the iterator stack), namespaces and clear here.
moves_delete_test() ->
    T = config(),
    R = arbo_tree:root(T),
    Rules = arbo_tree:find(T, R, 7),
    [R30, R10, R20] = arbo_tree:children(T, Rules),
    ?assert(arbo_tree:move_before(T, R20, R30)),
    ?assert(arbo_tree:move_after(T, R30, R10)),
    ?assertEqual([{int, 20}, {int, 10}, {int, 30}], keys(T, Rules)),
    ?assertNot(arbo_tree:move_after(T, R20, R20)),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    ?assertError({not_user_ordered, _}, arbo_tree:move_to(T, arbo_tree:first_child(T, Ifs), 0)),
    ?assertError({not_a_child, _}, arbo_tree:move_before(T, R10, arbo_tree:first_child(T, Ifs))),
    ?assertEqual({error, empty}, arbo_tree:iter_top(T)),
    [ok = arbo_tree:iter_push(T, N) || N <- [R, Ifs]],
    {ok, Top} = arbo_tree:iter_top(T),
    ?assert(arbo_tree:is_same(Ifs, Top)),
    ok = arbo_tree:delete(T, arbo_tree:find(T, Ifs, [{string, <<"eth1">>}])),
    ?assertError({stale_node, _}, arbo_tree:children(T, Ifs)),
    ?assertEqual({{error, stale}, 2}, {arbo_tree:iter_top(T), arbo_tree:iter_depth(T)}),
    [ok = arbo_tree:iter_pop(T) || _ <- [1, 2]],
    ?assertEqual({error, empty}, arbo_tree:iter_pop(T)),
    NsLeaf = arbo_tree:add_leaf(T, arbo_tree:root(T), {4, 1}),
    ?assertEqual(true, arbo_tree:rename_ns(T, NsLeaf, 5)),
    ?assertEqual({5, 1}, arbo_tree:key(T, NsLeaf)),
    ?assertEqual([true, false], [arbo_tree:delete_ns(T, arbo_tree:root(T), 5) || _ <- [1, 2]]),
    ?assertError({root, _}, arbo_tree:delete(T, arbo_tree:root(T))),
    ok = arbo_tree:clear(T),
    ?assertMatch(#{size := 0}, arbo_tree:info(T)),
    ?assertError({stale_node, _}, arbo_tree:children(T, R)),
    ok = arbo_tree:close(T).

%% One row per error path.
errors_test_() ->
    T = config(),
    Other = arbo_tree:new(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Eth0 = arbo_tree:first_child(T, Ifs),
    Closed = arbo_tree:new(),
    ok = arbo_tree:close(Closed),
    E = fun(Reason, F) -> ?_assertError({Reason, _}, F()) end,
    [E(badarg, fun() -> arbo_tree:find(T, R, {int, 1 bsl 31}) end),
     E(badarg, fun() -> arbo_tree:find(not_a_tree, R, 1) end),
     E(badarg, fun() -> arbo_tree:set_flags(T, arbo_tree:find(T, Eth0, 5), 1 bsl 64) end),
     E(bad_value, fun() -> arbo_tree:set_value(T, arbo_tree:find(T, Eth0, 5), {uint8, 256}) end),
     E(bad_key_element, fun() -> arbo_tree:add(T, Ifs, [{string, 42}]) end),
     E(wrong_table, fun() -> arbo_tree:children(T, arbo_tree:root(Other)) end),
     E(arbo_closed, fun() -> arbo_tree:root(Closed) end),
     E(wrong_node_type, fun() -> arbo_tree:add(T, R, {int, 1}) end),
     E(wrong_node_type, fun() -> arbo_tree:set_value(T, Eth0, {uint8, 1}) end),
     E(name_taken, fun() -> arbo_tree:add_container(T, Eth0, 5) end)] ++
    %% filters the library must not see
    [E(bad_filter, fun() -> arbo_tree:select(T, Ifs, F) end)
     || F <- [{6, 1, 2}, {0, {4, []}, {6}}, {3, 999, [1], <<"x">>}, {'not', {'not', {6}}},
              {7, 1, [1], 1, -1}, {4, [[1, 2]]}]].

%% Filtered walks over enough siblings that the library yields on the way.
filters_test() ->
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    N = 5000,
    [begin
         I = arbo_tree:add(T, L, {int, K}),
         ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, 2), {uint32, K}),
         K rem 1000 =:= 0 andalso arbo_tree:set_flags(T, I, 16#10)
     end || K <- lists:seq(1, N)],
    Ks = fun(Ns) -> [K || {int, K} <- [arbo_tree:key(T, C) || C <- Ns]] end,
    Cases = [{{'or', {value, le, [2], 1}, {value, ge, [2], 5000}}, [1, 5000]},
             {{'and', {flags_all, [], 16#10}, {key, eq, 0, <<"2000">>}}, [2000]}],
    [?assertEqual({F, Want}, {F, Ks(arbo_tree:select(T, L, F))}) || {F, Want} <- Cases],
    ?assertEqual([1, 2], Ks(arbo_tree:select(T, L, all, 2))),
    ?assertEqual(N - 1, arbo_tree:fold(T, L, {'not', {value, eq, [2], <<"3">>}},
                                       fun(_, A) -> A + 1 end, 0)),
    %% a fold whose fun deletes cannot go on
    ?assertError({stale_node, _},
                 arbo_tree:fold(T, L, all, fun(C, _) -> arbo_tree:delete(T, C) end, ok)),
    ok = arbo_tree:close(T).

%% ---- model-based sequences -------------------------------------------------

op() ->
    oneof([{add, key()}, {add, key()}, {delete, key()}, {rename, key(), key()},
           {move, nat(), int()}]).
key() ->
    oneof([{int, int()}, {tuple, [{string, binary(2)}]}, {tuple, [{uint8, byte()}, {bool, boolean()}]}]).

%% Children are always the model's keys: in its order for user order, else
%% sorted by the library's own comparison; never duplicated.
list_model_test() ->
    ?PROP(?FORALL({Mode, Ops}, {oneof([sorted, sorted_length_first, user_order]), list(op())},
                  run_model(Mode, Ops)), 300).

run_model(Order, Ops) ->
    T = arbo_tree:new(),
    _ = arbo_tree:add_list(T, arbo_tree:root(T), 1, Order),
    Final = lists:foldl(fun(Op, M) -> step(T, Order, Op, M) end, [], Ops),
    L = arbo_tree:find(T, arbo_tree:root(T), 1),
    Got = keys(T, L),
    Want = case Order of
               user_order -> Final;
               _ -> lists:sort(fun(A, B) -> cmp(A, B, Order) =< 0 end, Final)
           end,
    ok = arbo_tree:close(T),
    Got =:= Want.

cmp({int, A}, {int, B}, _) -> if A < B -> -1; A > B -> 1; true -> 0 end;
cmp({int, _}, _, _) -> 1;
cmp(_, {int, _}, _) -> -1;
cmp({tuple, A}, {tuple, B}, Order) ->
    arbo_key:compare(A, B, case Order of sorted -> plain; _ -> length_first end).

the_list(T) -> arbo_tree:find(T, arbo_tree:root(T), 1).

step(T, _, {add, K}, M) ->
    _ = arbo_tree:add(T, the_list(T), K),
    case lists:member(K, M) of true -> M; false -> M ++ [K] end;
step(T, _, {delete, K}, M) ->
    ?assertEqual(lists:member(K, M), arbo_tree:delete(T, the_list(T), K)),
    M -- [K];
step(T, _, {rename, K, New}, M) ->
    case arbo_tree:find(T, the_list(T), K) of
        none -> M;
        N ->
            Done = arbo_tree:rename(T, N, New),
            ?assertEqual(not lists:member(New, M) orelse New =:= K, Done orelse New =:= K),
            case Done of
                true -> [case X of K -> New; _ -> X end || X <- M];
                false -> M
            end
    end;
step(T, user_order, {move, I, Pos}, M) when M =/= [] ->
    K = lists:nth(I rem length(M) + 1, M),
    N = arbo_tree:find(T, the_list(T), K),
    Moved = arbo_tree:move_to(T, N, Pos),
    Want = move_model(M, K, Pos),
    ?assertEqual(Want =/= M, Moved),
    Want;
step(_, _, {move, _, _}, M) -> M.

%% The library counts positions with the instance still in its place.
move_model(M, K, Pos) when Pos < 0 -> (M -- [K]) ++ [K];
move_model(M, _K, Pos) when Pos > length(M) -> M;
move_model(M, K, Pos) ->
    {Before, After} = lists:split(Pos, M),
    case After of
        [K | _] -> M;
        _ ->
            case lists:last([none | Before]) of
                K -> M;
                _ -> (Before -- [K]) ++ [K] ++ (After -- [K])
            end
    end.

%% ---- the gate --------------------------------------------------------------

%% A reader killed between its announcement and its withdrawal does not
%% hold writers off: the keeper drops a dead reader's word.
killed_inside_gate_test() ->
    T = config(),
    Self = self(),
    Pid = spawn(fun() ->
                        {arbo, _, _, {arbo_gate, _, _, Word}} = arbo_tree:attach(T),
                        atomics:add(Word, 1, 1),   % inside, as if preempted there
                        Self ! inside,
                        receive never -> ok end
                end),
    receive inside -> ok end,
    Writer = spawn_monitor(fun() -> exit(arbo_tree:delete(T, arbo_tree:root(T), 7)) end),
    {WPid, WRef} = Writer,
    receive {'DOWN', WRef, _, _, _} -> error(writer_did_not_wait) after 200 -> ok end,
    exit(Pid, kill),
    receive {'DOWN', WRef, process, WPid, R} -> ?assertEqual(true, R)
    after 5000 -> error(writer_stuck)
    end,
    ok = arbo_tree:close(T).

owner_exit_closes_test() ->
    Self = self(),
    {Pid, Ref} = spawn_monitor(fun() -> Self ! {tree, config()} end),
    T = receive {tree, X} -> X end,
    receive {'DOWN', Ref, process, Pid, _} -> ok end,
    {arbo, _, _, {arbo_gate, Keeper, _, _}} = T,
    MRef = erlang:monitor(process, Keeper),
    receive {'DOWN', MRef, _, _, _} -> ok after 5000 -> error(keeper_alive) end,
    ?assertError({arbo_closed, _}, arbo_tree:root(T)).

%% One pass through the gate for many calls: the reader handle works only
%% inside, only in its process; writers wait for the pass, and a pass that
%% meets a waiting writer does not deadlock on itself.
reading_test() ->
    T = config(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Self = self(),
    {Keys, Reader} =
        arbo_tree:reading(T, fun(RT) ->
            First = arbo_tree:first_child(RT, Ifs),
            Eth1 = arbo_tree:next_sibling(RT, First),
            %% nested, and the plain handle inside
            2 = arbo_tree:reading(T, fun(RT2) -> arbo_tree:num_children(RT2, Eth1) end),
            ?assertEqual(3, arbo_tree:num_children(T, Ifs)),
            ?assertError({in_reading, _}, arbo_tree:delete(T, Eth1)),
            ?assertError({in_reading, _}, arbo_tree:clear(RT)),
            %% a writer of another process waits; this pass still reads
            {W, WRef} = spawn_monitor(fun() -> exit(arbo_tree:delete(T, R, 7)) end),
            receive after 100 -> ok end,
            ?assertEqual(3, length(arbo_tree:children(RT, Ifs))),
            Self ! {writer, W, WRef},
            {[arbo_tree:key(RT, N) || N <- [First, Eth1]], RT}
        end),
    ?assertEqual([{tuple, [{string, <<"eth0">>}]}, {tuple, [{string, <<"eth1">>}]}], Keys),
    receive {writer, W, WRef} ->
        receive {'DOWN', WRef, process, W, Done} -> ?assertEqual(true, Done)
        after 5000 -> error(writer_stuck)
        end
    end,
    ?assertError({reading_over, _}, arbo_tree:root(Reader)),
    ok = arbo_tree:close(T).

%% Inactive instances, hidden by a tree made with hide_inactive.
inactive_test() ->
    T = arbo_tree:new([hide_inactive]),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    [A, B, C] = [arbo_tree:add(T, L, {int, K}) || K <- [1, 2, 3]],
    ok = arbo_tree:set_attr(T, B, 4, {uint8, 1}),
    ok = arbo_tree:set_active(T, B, false),
    ?assertEqual({false, {uint8, 1}}, {arbo_tree:is_active(T, B), arbo_tree:attr(T, B, 4)}),
    ?assertEqual([{int, 1}, {int, 3}], keys(T, L)),
    ?assert(arbo_tree:is_same(C, arbo_tree:next_sibling(T, A))),
    ?assert(arbo_tree:is_same(C, arbo_tree:nth_child(T, L, 2))),
    ok = arbo_tree:set_active(T, B, true),
    ?assertEqual({true, 3}, {arbo_tree:is_active(T, B), arbo_tree:num_children(T, L)}),
    ?assertError({wrong_node_type, _}, arbo_tree:set_active(T, L, false)),
    ok = arbo_tree:close(T).
