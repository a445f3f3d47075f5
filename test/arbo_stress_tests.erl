%% Concurrency under load, through the tree API: reader and writer processes
%% on several trees at once, iterator stacks of processes that die, saves
%% while writers queue, closes racing readers. Stale and closed answers are
%% counted; any other exception ends a worker and fails the run. Afterwards
%% every tree's invariants hold (counts agree with a full walk, sorted lists
%% in key order and found by key, user-ordered lists equal to the model kept
%% by the one writer that owns each), a writer gets through promptly, every
%% saved file verifies and loads into a consistent tree, and the library's
%% byte counter is back where it started, apart from the accounting it
%% keeps on purpose (see memory_check/3).
-module(arbo_stress_tests).
-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-export([figures/1]).
-import(arbo_test_util, [pick/1, shuffle/1]).

-define(SORTED_KEYS, 4000).  % key range of each tree's sorted list /2
-define(LEAVES, 48).         % tags of the leaves under the container /1

stress_test_() -> {timeout, 900, fun() -> run(quick) end}.

%% The same scenarios at Scale, asserted; the figures of the run.
figures(Scale) -> report(run(Scale)).

run(Scale) ->
    Dir = arbo_bench_sched:scratch(),
    %% trees, readers, writers, ms, saves, rounds, race_trees, race_ms (as zipped below)
    Sizes = case Scale of quick -> [2, 3, 3, 2500, 2, 2, 3, 150]; full -> [4, 6, 4, 60000, 8, 10, 4, 400] end,
    P = maps:from_list([{dir, Dir}, {prefill, case os:getenv("ARBO_ASAN") of "1" -> 1100; _ -> 2000 end}
                        | lists:zip([trees, readers, writers, ms, saves, rounds, race_trees, race_ms], Sizes)]),
    [erase(K) || {{stat, _} = K, _} <- get()],   % this process counts the binaries of prefills and loads
    try
        Base = lib_counter(),
        #{stats := S} = Mixed = mixed(P),
        Race = close_race(P),
        #{params => P, mixed => Mixed, race => Race, mem => memory_check(Base, lib_counter(), merge(S, Race))}
    after file:del_dir_r(Dir)
    end.

%% ---- scenario 1: mixed load on several trees at once ----------------------

mixed(#{trees := NT, readers := NR, writers := NW, ms := Ms} = P) ->
    Trees = [{I, build(I, P)} || I <- lists:seq(1, NT)],
    Start = now_ms(),
    #{writer := Wr, saver := #{saves := Saves}} = Stats =
        collect(spawn_load(Trees, P#{until => Start + Ms}, [{reader, NR}, {writer, NW}, {pushers, 1}, {saver, 1}]), Start + Ms + 300000),
    collect(spawn_load(Trees, P, [{lock_free, 1}]), now_ms() + 10000),
    %% lost: instances a writer's model holds that its list does not
    Lost = fun(W, I, Keys) -> length(maps:get({model, I, W}, Wr) -- Keys) end,
    Walked = [check_tree(T, fun(W, Keys) -> bump(lost, Lost(W, I, Keys)),
                                            ?assertEqual(maps:get({model, I, W}, Wr), Keys) end)
              || {I, T} <- Trees],
    %% a saved file loads into a consistent tree whose user-ordered lists are
    %% states their writers went through
    Loaded = [begin
                  {ok, L} = {arbo_file:verify(Path), arbo_tree:new()},
                  {ok, #{nodes := Nodes}} = arbo_tree:load(L, Path),
                  {_, Bins} = check_tree(L, fun(W, Keys) -> ?assert(lists:member(erlang:phash2(Keys), maps:get({history, I, W}, Wr))) end),
                  {ok, _} = {arbo_tree:close(L), bump(bins, Bins)},
                  Nodes
              end || {I, Path, _} <- Saves],
    [ok = arbo_tree:close(T) || {_, T} <- Trees],
    #{stats => Stats, saves => Saves, loaded => lists:sum(Loaded), walked => lists:sum([N || {N, _} <- Walked]),
      lost => stat(lost)}.

%% ---- scenario 2: close racing with readers, a writer and dying pushers ----
%% Every reader and writer stops because its tree answered closed: one that
%% did not would run past the round's deadline.

close_race(#{rounds := Rounds} = P) -> lists:foldl(fun merge/2, #{}, [race_round(P) || _ <- lists:seq(1, Rounds)]).

race_round(#{race_trees := NT, readers := NR, race_ms := Ms} = P) ->
    Trees = [{I, build(I, P#{prefill := 1100})} || I <- lists:seq(1, NT)],
    Deadline = now_ms() + 300000,
    Workers = spawn_load(Trees, P#{until => Deadline + 60000}, [{reader, NR}, {writer, 1}, {pushers, 1}]),
    timer:sleep(Ms),
    [ok = arbo_tree:close(T) || {_, T} <- Trees],
    collect(Workers, Deadline).

%% ---- trees and workers -----------------------------------------------------

%% /1 a container of leaves (some in namespaces), /2 a sorted list whose
%% instances carry a leaf 1 with a value, /3 a small sorted list where
%% readers and deleting writers meet all the time, /{4, W} one user-ordered
%% list per writer. Tree 1 hides inactive instances.
build(I, #{prefill := N, writers := NW}) ->
    T = arbo_tree:new(case I of 1 -> [hide_inactive]; _ -> [] end),
    R = arbo_tree:root(T),
    C = arbo_tree:add_container(T, R, 1),
    [S | _] = [arbo_tree:add_list(T, R, Key, Order)
               || {Key, Order} <- [{2, sorted}, {3, sorted} | [{{4, W}, user_order} || W <- lists:seq(1, NW)]]],
    [add_child(T, C, Tag) || Tag <- lists:seq(0, ?LEAVES - 1)],
    [add_child(T, S, {int, K}) || K <- lists:sublist(shuffle(lists:seq(0, ?SORTED_KEYS - 1)), N)],
    T.

add_child(T, L, {int, _} = K) -> set_value(T, arbo_tree:add_leaf(T, arbo_tree:add(T, L, K), 1), value());
add_child(T, C, Name) -> set_value(T, arbo_tree:add_leaf(T, C, Name), value()).

%% Count workers of each role on every tree, half of them through a handle
%% of their own, half through the creator's. A worker keeps its counters in
%% its process dictionary (an exception between two calls of one operation
%% loses none) and exits with them; collect/2 merges them by role.
spawn_load(Trees, Ctx, Roles) ->
    [spawn_monitor(fun() -> work(Role, Ctx#{tree => handle(T), idx => I, w => W}), exit({done, Role, stats()}) end)
     || {I, T} <- Trees, {Role, Count} <- Roles, W <- lists:seq(1, Count)].

collect(Workers, Deadline) ->
    lists:foldl(fun merge/2, #{}, [receive {'DOWN', Ref, _, _, {done, Role, S}} -> #{Role => S};
                                           {'DOWN', Ref, _, _, Crash} -> error({worker_crashed, Crash})
                                   after max(0, Deadline - now_ms()) -> error({worker_stuck, Pid})
                                   end || {Pid, Ref} <- Workers]).

merge(A, B) when is_map(A) -> maps:merge_with(fun(_, X, Y) -> merge(X, Y) end, A, B);
merge(A, B) when is_list(A) -> A ++ B;
merge(A, B) -> A + B.

bump(K) -> bump(K, 1).
bump(K, N) -> put({stat, K}, stat(K) + N).
stat(K) -> case get({stat, K}) of undefined -> 0; V -> V end.
stats() -> maps:from_list([{K, V} || {{stat, K}, V} <- get()]).

%% Repeat Step until the time limit or until the tree answers closed; the
%% answers documented for races are counted.
repeat(Step, #{until := Until} = Ctx) ->
    stat(arbo_closed) > 0 orelse now_ms() >= Until orelse begin
        bump(ops),
        try Step(Ctx) catch error:{E, _} when E =:= stale_node; E =:= arbo_closed -> bump(E) end,
        repeat(Step, Ctx)
    end.

%% A handle of the process's own or the creator's (when the tree is closed
%% already, the creator's: its calls answer closed in turn).
handle(T) -> try pick([T, arbo_tree:attach(T)]) catch error:{arbo_closed, _} -> T end.

work(reader, Ctx) -> repeat(fun read_op/1, Ctx);
work(pushers, Ctx) -> repeat(fun push_and_die/1, Ctx);
work(lock_free, #{tree := T}) ->   % a writer gets through: no lock, native or gate, was left held
    C = arbo_tree:lookup(T, [1]),
    ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, C, 1000), {int32, 1}),
    true = arbo_tree:delete(T, C, 1000);
work(saver, #{tree := T, idx := I, saves := N, ms := Ms, dir := Dir}) ->
    %% saves spread over the run, each holding the tree's lock for reading
    %% while writers queue behind it
    put({stat, saves}, [begin
                            timer:sleep(Ms div (N + 1)),
                            Path = filename:join(Dir, io_lib:format("tree~b-save~b.arbo", [I, J])),
                            {Us, ok} = timer:tc(arbo_tree, save, [T, Path]),
                            {I, Path, Us}
                        end || J <- lists:seq(1, N)]);
work(writer, #{idx := I, w := W} = Ctx) ->
    %% A writer owns the user-ordered list /{4, W} (nobody else changes it,
    %% so its model is exact) and shares the rest of the tree with the others.
    [put(K, V) || {K, V} <- [{model, []}, {history, [erlang:phash2([])]}, {index, false}, {grow, true}]],
    repeat(fun write_op/1, Ctx),
    [put({stat, {K, I, W}}, get(K)) || K <- [model, history]].

read_op(#{tree := T, writers := NW}) ->
    U = {4, rand:uniform(NW)},
    Key = {int, sorted_key()},
    case rand:uniform(5) of
        1 -> on(T, pick([[1, leaf_name()], [2, Key, 1], [3, {int, rand:uniform(8)}, 1]]), fun(N) -> arbo_tree:value(T, N) end);
        2 -> on(T, [pick([2, U])], fun(L) ->
                 At = pick([L, arbo_tree:find_after(T, L, Key), arbo_tree:nth_child(T, L, rand:uniform(40))]),
                 [arbo_tree:F(T, At) || At =/= none, F <- [num_children, key, flags, child_index, prev_sibling]]
             end);
        3 -> %% over more siblings than the library examines per call, the
             %% scheduler given away at every child
            F = pick([all, {value, eq, [1], <<"needle">>}, {exists, [1]}, {'not', {has_value, [1]}},
                      {flags_all, [], 4}, {'or', {flags_none, [1], 1}, {value, ne, [1], <<"needle">>}}]),
            Visit = fun(C, _) -> erlang:yield(), arbo_tree:flags(T, C) end,
            on(T, [pick([2, U])], fun(L) -> arbo_tree:fold(T, L, F, Visit, 0), bump(walks) end);
        4 -> %% the iterator stack of a live reader
            arbo_tree:iter_depth(T) >= 4 andalso arbo_tree:iter_pop(T),
            on(T, [2, Key], fun(N) -> arbo_tree:iter_push(T, N) end),
            arbo_tree:iter_top(T) =:= {error, stale} andalso bump(iter_stale);
        5 -> %% the values under the hot list /3, the scheduler given away
             %% between calls, sometimes in one pass through the gate
            Value = fun(R, N) -> erlang:yield(), arbo_tree:value_raw(R, N) end,
            Walk = fun(R) -> on(R, [3], fun(L) -> [on(R, arbo_tree:first_child(R, C), fun(N) -> Value(R, N) end)
                                                   || C <- arbo_tree:children(R, L)] end) end,
            (pick([Walk, fun(R) -> arbo_tree:reading(R, Walk) end]))(T)
    end.

%% A process that pushes nodes on its iterator stack and then exits, or is
%% killed at a random moment, stack and all.
push_and_die(#{tree := T}) ->
    {Pid, Ref} = spawn_monitor(fun() ->
        T1 = handle(T),
        Push = fun(Path) -> on(T1, Path, fun(N) -> arbo_tree:iter_push(T1, N) end) end,
        exit(try [Push(pick([[2, {int, sorted_key()}], [1, leaf_name()]])) || _ <- lists:seq(1, rand:uniform(4))],
                 arbo_tree:iter_top(T1), timer:sleep(rand:uniform(2) - 1), pushed
             catch error:{E, _} when E =:= stale_node; E =:= arbo_closed -> E end) end),
    rand:uniform(2) =:= 1 andalso begin timer:sleep(rand:uniform(2) - 1), exit(Pid, kill) end,
    receive {'DOWN', Ref, _, _, R} -> true = lists:member(R, [killed, pushed, stale_node, arbo_closed]) end,
    bump(R).

write_op(#{tree := T} = Ctx) ->
    {Parent, Key} = pick([{1, leaf_name()}, {2, {int, sorted_key()}}, {3, {int, rand:uniform(8)}}]),
    case rand:uniform(9) of
        N when N =< 3 -> own_list_op(Ctx);
        4 -> on(T, [Parent], fun(P) -> add_child(T, P, Key) end);
        5 -> on(T, [Parent], fun(P) -> arbo_tree:delete(T, P, Key) end);
        6 -> on(T, [1], fun(C) -> arbo_tree:delete_ns(T, C, rand:uniform(3)) end);
        7 -> on(T, [1, leaf_name()], fun(L) -> arbo_tree:rename_ns(T, L, rand:uniform(3)) end);
        8 -> on(T, [2, {int, sorted_key()}], fun(I) -> arbo_tree:set_active(T, I, rand:uniform(2) =:= 1),
                                                       arbo_tree:rename(T, I, {int, sorted_key()}) end);
        9 -> on(T, pick([[Parent, Key], [Parent, Key, 1]]), fun(N) -> node_op(T, N) end)
    end.

%% Values, flags and attributes of any node; wide flag values go to the
%% library's shared flags table.
node_op(T, N) ->
    case rand:uniform(5) of
        1 -> set_value(T, N, value());
        2 -> arbo_tree:set_flags(T, N, pick([4, 1 bsl rand:uniform(20), 1 bsl 40, 16#abcdef012345]));
        3 -> arbo_tree:clear_flags(T, N, 1 bsl rand:uniform(20));
        4 -> V = pick([{uint8, 1}, {int64, 5}, {string, <<"an attribute text">>}]),
             counted(V, arbo_tree:set_attr(T, N, rand:uniform(3), V));
        5 -> arbo_tree:delete_attr(T, N, rand:uniform(3))
    end.

set_value(T, N, V) -> counted(V, arbo_tree:set_value(T, N, V)).

%% A value set is one binary allocated in the library when it is held out of
%% line (held/1): a plain binary always, an encoded value beyond 10 bytes.
counted(V, ok) -> bump(bins, held(case is_binary(V) of true -> V; false -> {csval, arbo_val:encode(V)} end)).

held(V) -> case V of B when is_binary(B) -> 1; {csval, B} when byte_size(B) > 10 -> 1; _ -> 0 end.

value() ->
    pick([{int32, rand:uniform(1000)}, {string, <<"short">>}, <<"plain bytes">>, {string, <<"needle">>},
          {string, <<"a value longer than ten bytes">>}, {uint8, 3}]).

%% The owner's list: grow to 150 instances and shrink to 40, over and over,
%% so that its key index comes and goes (see model/1); moves and renames in
%% between. Every answer of the library is the model's.
own_list_op(#{tree := T, w := W}) ->
    L = arbo_tree:lookup(T, [{4, W}]),
    M = get(model),
    put(grow, Grow = (get(grow) orelse length(M) =< 40) andalso length(M) < 150),
    {K, O} = case M of [] -> {0, 0}; _ -> {pick(M), pick(M)} end,
    New = rand:uniform(200) - 1,   % keys of the list
    Free = not lists:member(New, M),
    Find = fun(X) -> arbo_tree:find(T, L, {int, X}) end,
    case rand:uniform(10) of
        N when N =< 5, Grow; N =< 2 -> arbo_tree:add(T, L, {int, New}), Free andalso model(M ++ [New]);
        N when N =< 5 -> Del = pick([New, K, K, K]),
                         expect(lists:member(Del, M), arbo_tree:delete(T, L, {int, Del}), M -- [Del]);
        _ when M =:= [] -> ok;
        N when N =< 7 -> {Where, Pair} = pick([{move_before, [K, O]}, {move_after, [O, K]}]),
                         expect(K =/= O, arbo_tree:Where(T, Find(K), Find(O)),
                                [Y || X <- M -- [K], Y <- case X of O -> Pair; _ -> [X] end]);
        8 -> expect(Free, arbo_tree:rename(T, Find(K), {int, New}), [case X of K -> New; _ -> X end || X <- M]);
        _ -> node_op(T, Find(K))
    end.

%% The library answered Answer where the model wants Want; when true, the
%% list is now M.
expect(Want, Answer, M) ->
    ?assertEqual(Want, Answer),
    Want andalso model(M).

%% The list is now M: a state recorded for the saved files. The list's key
%% index is built when it reaches 128 instances and dropped when a removal
%% leaves fewer than 64; a removal while it has one leaves the lookup record
%% counted (leaks).
model(M) ->
    {Old, New, Index} = {length(get(model)), length(M), get(index)},
    New < Old andalso Index andalso bump(leaks),
    put(index, if New > Old -> Index orelse New >= 128; New < Old -> Index andalso New >= 64; true -> Index end),
    put(model, M),
    put(history, [erlang:phash2(M) | get(history)]).

%% ---- checks after the load -------------------------------------------------

%% Walk a quiet tree with the raw library: every count agrees with the
%% walk, sorted lists are in key order and every instance is found by its
%% key, the hidden ones are not counted through a hiding handle, user-ordered
%% lists link both ways and are handed to CheckUser(W, Keys); the node count
%% is the walk's nodes and attributes. Returns the nodes walked and the
%% binaries held for values and attributes.
check_tree({arbo, Res, View, G} = T, CheckUser) ->
    P = {arbo, Res, 0, G},
    Root = arbo:get_root(P),
    Nodes = [Root | check_node(P, View, Root, CheckUser)],
    Attrs = lists:append([chain(P, arbo:get_attr_root(P, N)) || N <- Nodes]),
    ?assertEqual(arbo:get_size(T), length(Nodes) - 1 + length(Attrs)),
    {length(Nodes) - 1, lists:sum([held(arbo:get_val_raw(P, X)) || X <- Nodes ++ Attrs])}.

check_node(P, View, N, CheckUser) ->
    Kids = chain(P, arbo:first_child_nif(P, N, [], 0)),
    Shown = [C || C <- Kids, View =:= 0 orelse arbo:do_get_attr(P, C, 0) =:= []],
    ?assertEqual({length(Kids), length(Shown)}, {arbo:num_children(P, N), arbo:num_children(setelement(3, P, View), N)}),
    case arbo:get_type(P, N) of
        {2, Mode} when Kids =/= [] ->
            Keys = [K || C <- Kids, {K} <- [arbo:get_hkey0(P, C)]],
            ?assertEqual({Kids, lists:last(Kids)}, {[arbo:find_child(P, N, {K}, ?FIND_TAG) || K <- Keys], arbo:last_child(P, N)}),
            Mode =/= 3 andalso ?assertEqual(lists:usort(Keys), Keys),
            Mode =:= 3 andalso ?assertEqual(lists:droplast([0 | Kids]), [arbo:prev_sibling(P, N, C) || C <- Kids]),
            Mode =:= 3 andalso CheckUser(tl(arbo:get_hkey0(P, N)), Keys);
        _ -> ok
    end,
    lists:append([[C | check_node(P, View, C, CheckUser)] || C <- Kids]).

chain(_, 0) -> [];
chain(T, C) -> [C | chain(T, arbo:next_sibling_nif(T, C, [], 0))].

%% The library's byte counter and the capacity of its shared flags table,
%% once tables that earlier tests dropped are collected.
lib_counter() ->
    [erlang:garbage_collect(Pid) || Pid <- processes()],
    timer:sleep(50),
    arbo:alloc_info().

%% With every tree closed, the library's counter is back at its start but
%% for the accounting kept on purpose, all counted exactly by the run:
%% - 8 bytes lower for every binary ever allocated (all are freed by now; a
%%   release subtracts its 8-byte length header, the allocation never added
%%   it);
%% - 16 bytes higher for every removal from a user-ordered list that had its
%%   key index (the lookup record of the removal stays allocated);
%% - 512 bytes higher for every 64 entries the flags table grew by (it never
%%   shrinks).
%% The counter is unsigned 64-bit: the downward drift can take it below
%% zero, where it wraps; the difference is taken modulo 2^64, signed.
memory_check([Mem0, {8, Cap0, _}], [Mem1, {8, Cap1, _}], #{writer := Wr}) ->
    Bins = stat(bins) + maps:get(bins, Wr, 0),
    Leaks = maps:get(leaks, Wr, 0),
    Growth = (Cap1 - Cap0) div 64 * 512,
    Off = ((Mem1 - Mem0 - (Growth - 8 * Bins + 16 * Leaks) + (1 bsl 63)) band (1 bsl 64 - 1)) - (1 bsl 63),
    ?assertEqual(0, Off),
    #{bins => Bins, leaks => Leaks, growth => Growth, off => Off}.

%% ---- figures --------------------------------------------------------------

report(#{params := #{trees := NT, readers := NR, writers := NW, rounds := Rounds, race_trees := RT, ms := Ms},
         mixed := #{stats := S, saves := Saves, loaded := Loaded, walked := Walked, lost := Lost}, race := Race,
         mem := Mem}) ->
    Get = fun(St, Role, K) -> maps:get(K, maps:get(Role, St, #{}), 0) end,
    All = fun(K) -> lists:sum([Get(merge(S, Race), R, K) || R <- [reader, writer, pushers]]) end,
    [Reads, Writes, Walks] = [Get(S, R, K) || {R, K} <- [{reader, ops}, {writer, ops}, {reader, walks}]],
    [{Label, lists:flatten(io_lib:format(F, A))} || {Label, F, A} <- [
        {"mixed load: duration, trees at once", "~.1f s, ~b", [Ms / 1000, NT]},
        {"mixed load: processes", "~b readers, ~b writers, ~b savers, ~b pusher spawners; ~b iterator pushers "
         "started, ~b of them killed", [NR * NT, NW * NT, NT, NT, Get(S, pushers, ops), Get(S, pushers, killed)]},
        {"reader ops/s", "~b (~b ops, ~b filtered walks completed)", [Reads * 1000 div Ms, Reads, Walks]},
        {"writer ops/s", "~b (~b ops)", [Writes * 1000 div Ms, Writes]},
        {"saves during writes", "~b, longest ~.1f ms; all verified and loaded (~b records)",
         [length(Saves), lists:max([U || {_, _, U} <- Saves]) / 1000, Loaded]},
        {"close races", "~b trees closed under ~b readers, a writer and a pusher spawner each", [Rounds * RT, NR]},
        {"stale answers", "~b stale_node, ~b iterator tops stale", [All(stale_node), All(iter_stale)]},
        {"closed answers", "~b", [All(arbo_closed)]},
        {"invariants held", "yes: ~b trees, ~b nodes walked, ~b user-ordered lists equal to their writer's model, "
         "~b saved files consistent", [NT, Walked, NT * NW, length(Saves)]},
        {"memory back to baseline (bytes)", "~b off, after the kept drifts: -8 x ~b binaries freed, "
         "+16 x ~b indexed removals, +~b flags table growth", [maps:get(K, Mem) || K <- [off, bins, leaks, growth]]},
        {"lost", "~b instances of the writers' models missing from their lists", [Lost]}]].

%% ---- small helpers ---------------------------------------------------------

now_ms() -> erlang:monotonic_time(millisecond).

%% Fun(Node) for the node at Path (or a node already found); nothing for none.
on(T, Path, Fun) when is_list(Path) -> on(T, arbo_tree:lookup(T, Path), Fun);
on(_, none, _) -> none;
on(_, N, Fun) -> Fun(N).

leaf_name() -> pick([{rand:uniform(3), rand:uniform(16)}, rand:uniform(?LEAVES) - 1]).

sorted_key() -> rand:uniform(?SORTED_KEYS) - 1.

