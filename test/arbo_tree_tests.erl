%% The tree API: every function on a small configuration tree, its errors
%% (one generator per error family), model-based random sequences on sorted
%% and user-ordered lists, filtered walks across the library's yields,
%% iterator stacks, and the gate: stale and foreign references, readers
%% racing deleters, a process killed inside the gate, the owner's exit.
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
    ?assertEqual({none, none, none}, {arbo_tree:next_sibling(T, Lo), arbo_tree:prev_sibling(T, Eth0),
                                      arbo_tree:nth_child(T, Ifs, 4)}),
    ?assertEqual({3, 3}, {arbo_tree:child_index(T, Lo), arbo_tree:num_children(T, Ifs)}),
    ?assertEqual(none, arbo_tree:lookup(T, [1, 9])),
    ?assert(arbo_tree:is_same(Lo, arbo_tree:find_after(T, Ifs, [{string, <<"eth1">>}]))),
    ?assert(arbo_tree:is_same(Eth1, arbo_tree:find_after(T, Ifs, [{string, <<"eth1">>}], inclusive))),
    %% an empty sorted list has no last child (the library answers a header)
    Empty = arbo_tree:add_list(T, R, 8, sorted_length_first),
    ?assertEqual(none, arbo_tree:last_child(T, Empty)),
    %% adding again returns the same node
    ?assert(arbo_tree:is_same(Eth0, arbo_tree:add(T, Ifs, [{string, <<"eth0">>}]))),
    ?assert(arbo_tree:is_same(Ifs, arbo_tree:add_list(T, arbo_tree:find(T, R, 1), 2, sorted))),
    ?assertMatch(#{size := 16, epoch := 0}, arbo_tree:info(T)),
    ok = arbo_tree:close(T),
    ok = arbo_tree:close(T).

instance_keys_test() ->
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    Keys = [{int, -5}, {int, 7}, {pair, 2, 7}, {pair, 0, 9}, {pair, 3, -1},
            {tuple, [{uint8, 1}, {ipv4, {10, 0, 0, 1}}]}, {opaque, <<"raw", 0, 1>>},
            {tuple, [{date, {2026, 11, 22}}, {bool, false}]}],
    Nodes = [arbo_tree:add(T, L, K) || K <- Keys],
    [?assertEqual(K, arbo_tree:key(T, N)) || {K, N} <- lists:zip(Keys, Nodes)],
    [?assert(arbo_tree:is_same(N, arbo_tree:find(T, L, K))) || {K, N} <- lists:zip(Keys, Nodes)],
    %% byte keys sort before integer keys
    ?assertMatch([{tuple, _}, {tuple, _}, {opaque, _}, {int, -5} | _], keys(T, L)),
    ?assertEqual(true, arbo_tree:rename(T, hd(Nodes), {int, 100})),
    ?assertEqual({int, 100}, arbo_tree:key(T, hd(Nodes))),
    ?assertEqual(false, arbo_tree:rename(T, hd(Nodes), {int, 7})),
    ?assertEqual(true, arbo_tree:rename(T, hd(Nodes), [{string, <<"x">>}])),
    ok = arbo_tree:close(T).

values_flags_attrs_test() ->
    T = config(),
    Eth0 = arbo_tree:lookup(T, [1, 2, [{string, <<"eth0">>}]]),
    Mtu = arbo_tree:find(T, Eth0, 5),
    Big = binary:copy(<<"v">>, 300),
    [begin ok = arbo_tree:set_value(T, Mtu, V), ?assertEqual(V, arbo_tree:value(T, Mtu)) end
     || V <- [<<"plain">>, Big, {string, Big}, {ipv4, {1, 2, 3, 4}}, {int64, -1},
              {binary, 24, <<1, 2, 3>>}]],
    ok = arbo_tree:clear_value(T, Mtu),
    ?assertEqual(undefined, arbo_tree:value(T, Mtu)),
    F = 1 bsl 40 + 5,
    ok = arbo_tree:set_flags(T, Mtu, F),
    ok = arbo_tree:add_flags(T, Mtu, 2),
    ok = arbo_tree:clear_flags(T, Mtu, 1),
    ?assertEqual((F bor 2) band bnot 1, arbo_tree:flags(T, Mtu)),
    [begin ok = arbo_tree:set_attr(T, Eth0, Id, V), ?assertEqual(V, arbo_tree:attr(T, Eth0, Id)) end
     || {Id, V} <- [{1, {uint8, 3}}, {2, {string, Big}}, {1 bsl 32 - 1, {bool, false}}]],
    ok = arbo_tree:delete_attr(T, Eth0, 2),
    ?assertEqual(undefined, arbo_tree:attr(T, Eth0, 2)),
    ?assertEqual(undefined, arbo_tree:attr(T, Eth0, 9)),
    ok = arbo_tree:close(T).

%% move_to is covered by the user-order model; the relative moves here.
moves_test() ->
    T = config(),
    Rules = arbo_tree:find(T, arbo_tree:root(T), 7),
    [R30, R10, R20] = arbo_tree:children(T, Rules),
    ?assert(arbo_tree:move_before(T, R20, R30)),
    ?assertEqual([{int, 20}, {int, 30}, {int, 10}], keys(T, Rules)),
    ?assert(arbo_tree:move_after(T, R20, R10)),
    ?assertEqual([{int, 30}, {int, 10}, {int, 20}], keys(T, Rules)),
    ?assertNot(arbo_tree:move_after(T, R20, R20)),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    ?assertError({not_user_ordered, _}, arbo_tree:move_to(T, arbo_tree:first_child(T, Ifs), 0)),
    ?assertError({not_a_child, _}, arbo_tree:move_before(T, R10, arbo_tree:first_child(T, Ifs))),
    ok = arbo_tree:close(T).

%% Deletion by key is covered by the models; references, namespaces, clear.
delete_test() ->
    T = config(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    ok = arbo_tree:delete(T, arbo_tree:find(T, Ifs, [{string, <<"eth1">>}])),
    ?assertError({stale_node, _}, arbo_tree:children(T, Ifs)),
    NsLeaf = arbo_tree:add_leaf(T, arbo_tree:root(T), {4, 1}),
    ?assertEqual(true, arbo_tree:rename_ns(T, NsLeaf, 5)),
    ?assertEqual({5, 1}, arbo_tree:key(T, NsLeaf)),
    ?assertEqual(true, arbo_tree:delete_ns(T, arbo_tree:root(T), 5)),
    ?assertEqual(false, arbo_tree:delete_ns(T, arbo_tree:root(T), 5)),
    ?assertError({root, _}, arbo_tree:delete(T, arbo_tree:root(T))),
    ok = arbo_tree:clear(T),
    ?assertEqual([], arbo_tree:children(T, arbo_tree:root(T))),
    ?assertMatch(#{size := 0}, arbo_tree:info(T)),
    ?assertError({stale_node, _}, arbo_tree:children(T, R)),
    ok = arbo_tree:close(T).

%% One generator per error family.
errors_test_() ->
    T = config(),
    Other = arbo_tree:new(),
    R = arbo_tree:root(T),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Eth0 = arbo_tree:first_child(T, Ifs),
    Leaf = arbo_tree:find(T, Eth0, 5),
    Foreign = arbo_tree:root(Other),
    Closed = arbo_tree:new(),
    ClosedRoot = arbo_tree:root(Closed),
    ok = arbo_tree:close(Closed),
    E = fun(Reason, F) -> ?_assertError({Reason, _}, F()) end,
    [{"malformed arguments",
      [E(badarg, fun() -> arbo_tree:find(T, R, -1) end),
       E(badarg, fun() -> arbo_tree:find(T, R, {int, 1 bsl 31}) end),
       E(badarg, fun() -> arbo_tree:find(T, Ifs, {encoded, <<1, 2>>}) end),
       E(badarg, fun() -> arbo_tree:find(T, x, 1) end),
       E(badarg, fun() -> arbo_tree:find(not_a_tree, R, 1) end),
       E(badarg, fun() -> arbo_tree:add_list(T, R, 9, random) end),
       E(badarg, fun() -> arbo_tree:add_leaf(T, R, {1, -1}) end),
       E(badarg, fun() -> arbo_tree:nth_child(T, R, 0) end),
       E(badarg, fun() -> arbo_tree:set_flags(T, Leaf, 1 bsl 64) end),
       E(badarg, fun() -> arbo_tree:set_attr(T, Leaf, 0, {uint8, 1}) end),
       E(badarg, fun() -> arbo_tree:set_value(T, Leaf, empty) end),
       E(bad_value, fun() -> arbo_tree:set_value(T, Leaf, {uint8, 256}) end),
       E(bad_key_element, fun() -> arbo_tree:add(T, Ifs, [{string, 42}]) end),
       E(badarg, fun() -> arbo_tree:new([bogus]) end)]},
     {"references of another tree", E(wrong_table, fun() -> arbo_tree:children(T, Foreign) end)},
     {"closed tree",
      [E(arbo_closed, fun() -> arbo_tree:root(Closed) end),
       E(arbo_closed, fun() -> arbo_tree:children(Closed, ClosedRoot) end),
       E(arbo_closed, fun() -> arbo_tree:clear(Closed) end),
       E(arbo_closed, fun() -> arbo_tree:save(Closed, "/tmp/arbo_closed_save") end)]},
     {"wrong kind of node",
      [E(wrong_node_type, fun() -> arbo_tree:add(T, R, {int, 1}) end),
       E(wrong_node_type, fun() -> arbo_tree:add_leaf(T, Ifs, 3) end),
       E(wrong_node_type, fun() -> arbo_tree:set_value(T, Eth0, {uint8, 1}) end),
       E(wrong_node_type, fun() -> arbo_tree:set_value(T, Ifs, {uint8, 1}) end),
       E(wrong_node_type, fun() -> arbo_tree:rename(T, Leaf, {int, 1}) end),
       E(name_taken, fun() -> arbo_tree:add_container(T, Eth0, 5) end)]},
     {"filters the library must not see",
      [E(bad_filter, fun() -> arbo_tree:select(T, Ifs, F) end)
       || F <- [{6, 1, 2}, {0, {4, []}, {6}}, {3, 7, [1], <<"x">>}, {3, 999, [1], <<"x">>},
                {101, 1, -1, <<>>}, {value, like, [5], <<"1">>}, {exists, [-1]},
                {'not', {'not', {6}}}, {7, 1, [1], 1, -1}, nonsense, {4, [[1, 2]]}]]}].

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
    Cases = [{{value, gt, [2], 4998}, [4999, 5000]},
             {{'or', {value, le, [2], 1}, {value, ge, [2], 5000}}, [1, 5000]},
             {{'and', {flags_all, [], 16#10}, {key, eq, 0, <<"2000">>}}, [2000]},
             {{'and', {value, ge, [2], 3}, {3, 6, [2], <<"5">>}}, [3, 4, 5]}],
    [?assertEqual({F, Want}, {F, Ks(arbo_tree:select(T, L, F))}) || {F, Want} <- Cases],
    ?assertEqual(N - 1, length(arbo_tree:select(T, L, {'not', {value, eq, [2], <<"3">>}}))),
    ?assertEqual([1, 2], Ks(arbo_tree:select(T, L, all, 2))),
    ?assertEqual(N, arbo_tree:fold(T, L, {exists, [2]}, fun(_, A) -> A + 1 end, 0)),
    %% a fold whose fun deletes cannot go on
    ?assertError({stale_node, _},
                 arbo_tree:fold(T, L, all, fun(C, _) -> arbo_tree:delete(T, C) end, ok)),
    ok = arbo_tree:close(T).

iterator_stack_test() ->
    T = config(),
    R = arbo_tree:root(T),
    ?assertEqual({error, empty}, arbo_tree:iter_pop(T)),
    ?assertEqual({error, empty}, arbo_tree:iter_top(T)),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    ok = arbo_tree:iter_push(T, R),
    ok = arbo_tree:iter_push(T, Ifs),
    ?assertEqual(2, arbo_tree:iter_depth(T)),
    {ok, Top} = arbo_tree:iter_top(T),
    ?assert(arbo_tree:is_same(Ifs, Top)),
    ok = arbo_tree:iter_pop(T),
    ok = arbo_tree:iter_push(T, arbo_tree:first_child(T, Ifs)),
    ok = arbo_tree:delete(T, arbo_tree:first_child(T, Ifs)),
    ?assertEqual({error, stale}, arbo_tree:iter_top(T)),
    ok = arbo_tree:iter_pop(T),
    ok = arbo_tree:iter_pop(T),
    ?assertEqual({error, empty}, arbo_tree:iter_pop(T)),
    ok = arbo_tree:close(T).

%% ---- model-based sequences -------------------------------------------------

op() ->
    oneof([{add, key()}, {add, key()}, {delete, key()}, {rename, key(), key()},
           {find, key()}, {move, nat(), int()}]).
key() ->
    oneof([{int, int()}, {tuple, [{string, binary(2)}]}, {tuple, [{uint8, byte()}, {bool, boolean()}]}]).

%% Sorted lists: children are always the model's keys, sorted by the
%% library's own comparison and without duplicates.
sorted_list_test() ->
    ?PROP(?FORALL({Mode, Ops}, {oneof([sorted, sorted_length_first]), list(op())},
                  run_model(Mode, Ops)), 150).

%% User order: children are always the model's list in its order.
user_order_test() ->
    ?PROP(?FORALL(Ops, list(op()), run_model(user_order, Ops)), 150).

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
step(T, _, {find, K}, M) ->
    ?assertEqual(lists:member(K, M), arbo_tree:find(T, the_list(T), K) =/= none),
    M;
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

%% Readers walk, find and read values while writers delete and re-add: every
%% reader call either works or raises stale_node, and nothing reads freed
%% memory (the sanitizer build runs this too).
readers_against_deleters_test_() ->
    {timeout, 60, fun() ->
        T = arbo_tree:new(),
        _ = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
        Fill = fun() -> [ok = arbo_tree:set_value(T, arbo_tree:add(T, the_list(T), {int, K}), {uint8, 1})
                         || K <- lists:seq(1, 200)] end,
        Fill(),
        Parent = self(),
        Reader = fun Loop(0, Stale) -> Parent ! {done, Stale};
                     Loop(N, Stale) ->
                         S = try
                                 Li = the_list(T),
                                 I = arbo_tree:find(T, Li, {int, 100}),
                                 I =/= none andalso arbo_tree:value(T, I),
                                 walk(T, arbo_tree:first_child(T, Li)),
                                 %% walks hold addresses across many native
                                 %% steps inside one pass through the gate
                                 true = 200 >= length(arbo_tree:children(T, Li)),
                                 arbo_tree:select(T, Li, {value, eq, [], <<"1">>}),
                                 Stale
                             catch error:{stale_node, _} -> Stale + 1
                             end,
                         Loop(N - 1, S)
                 end,
        Readers = [spawn_link(fun() -> Reader(300, 0) end) || _ <- [1, 2, 3]],
        [begin
             [arbo_tree:delete(T, the_list(T), {int, K}) || K <- lists:seq(1, 200, 3)],
             Fill()
         end || _ <- lists:seq(1, 30)],
        Stales = [receive {done, S} -> S end || _ <- Readers],
        ?assert(lists:sum(Stales) >= 0),
        ?assertEqual(200, arbo_tree:num_children(T, the_list(T))),
        ok = arbo_tree:close(T)
    end}.

walk(_, none) -> ok;
walk(T, N) -> walk(T, arbo_tree:next_sibling(T, N)).

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

%% A caller killed while its deletion runs cannot leave the writer side
%% held: the keeper runs it.
killed_writer_test() ->
    T = config(),
    {Pid, Ref} = spawn_monitor(fun() -> arbo_tree:clear(T) end),
    exit(Pid, kill),
    receive {'DOWN', Ref, _, _, _} -> ok end,
    ?assertMatch([_ | _], arbo_tree:children(T, arbo_tree:root(T)) ++ [x]),
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
            Mtu = arbo_tree:find(RT, Eth1, 5),
            ?assertEqual({csval, <<12, 1500:32>>}, arbo_tree:value_raw(RT, Mtu)),
            %% nested, and the plain handle inside
            2 = arbo_tree:reading(T, fun(RT2) -> arbo_tree:num_children(RT2, Eth1) end),
            ?assertEqual(3, arbo_tree:num_children(T, Ifs)),
            ?assertError({in_reading, _}, arbo_tree:delete(T, Eth1)),
            ?assertError({in_reading, _}, arbo_tree:clear(RT)),
            %% a writer of another process waits; this pass still reads
            {W, WRef} = spawn_monitor(fun() -> exit(arbo_tree:delete(T, R, 7)) end),
            receive after 100 -> ok end,
            ?assertEqual(3, length(arbo_tree:children(T, Ifs))),
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
    ?assertNot(arbo_tree:is_active(T, B)),
    ?assertEqual({uint8, 1}, arbo_tree:attr(T, B, 4)),
    ?assertEqual([{int, 1}, {int, 3}], keys(T, L)),
    ?assertEqual(2, arbo_tree:num_children(T, L)),
    ?assert(arbo_tree:is_same(C, arbo_tree:next_sibling(T, A))),
    ?assert(arbo_tree:is_same(C, arbo_tree:nth_child(T, L, 2))),
    %% the mark survives a save and a load
    F = filename:join("/tmp", "arbo_inactive_" ++ os:getpid()),
    ok = arbo_tree:save(T, F),
    T2 = arbo_tree:new([hide_inactive]),
    {ok, _} = arbo_tree:load(T2, F),
    ?assertEqual([{int, 1}, {int, 3}], keys(T2, arbo_tree:find(T2, arbo_tree:root(T2), 1))),
    ok = arbo_tree:set_active(T, B, true),
    ?assert(arbo_tree:is_active(T, B)),
    ?assertEqual(3, arbo_tree:num_children(T, L)),
    ?assertError({wrong_node_type, _}, arbo_tree:set_active(T, L, false)),
    ?assertError({badarg, _}, arbo_tree:set_active(T, A, maybe)),
    [arbo_tree:close(X) || X <- [T, T2]],
    file:delete(F).
