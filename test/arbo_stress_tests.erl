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

-export([figures/1]).

-define(SORTED_KEYS, 4000).  % key range of each tree's sorted list /2
-define(USER_KEYS, 200).     % key range of each writer's user-ordered list /{4, W}
-define(LEAVES, 48).         % tags of the leaves under the container /1
-define(MAX_OPS, 2000000).   % per worker, besides the time limit
-define(NEEDLE, <<"needle">>).

stress_test_() ->
    {timeout, 900, fun() -> run(quick) end}.

%% The same scenarios at Scale, asserted; the figures of the run.
figures(Scale) -> report(run(Scale)).

params(Scale) ->
    Asan = os:getenv("ARBO_ASAN") =:= "1",
    Base = #{dir => dir(), prefill => case Asan of true -> 1100; false -> 2000 end},
    maps:merge(Base, case Scale of
                         quick -> #{trees => 2, readers => 3, writers => 3, ms => 2500,
                                    saves => 2, rounds => 2, race_trees => 3, race_ms => 150};
                         full -> #{trees => 4, readers => 6, writers => 4, ms => 60000,
                                   saves => 8, rounds => 10, race_trees => 4, race_ms => 400}
                     end).

dir() ->
    D = filename:join("/tmp", "arbo_stress_" ++ os:getpid()),
    ok = filelib:ensure_dir(filename:join(D, "x")),
    D.

run(Scale) ->
    P = params(Scale),
    try
        Base = lib_counter(),
        Mixed = mixed(P),
        Race = close_race(P),
        Mem = memory_check(Base, lib_counter(), [Mixed, Race]),
        #{params => P, mixed => Mixed, race => Race, mem => Mem}
    after
        file:del_dir_r(maps:get(dir, P))
    end.

%% ---- scenario 1: mixed load on several trees at once ----------------------

mixed(#{trees := NT, readers := NR, writers := NW, ms := Ms, saves := NS} = P) ->
    Trees = [{I, build(I, P)} || I <- lists:seq(1, NT)],
    Deadline = now_ms() + Ms,
    Start = now_ms(),
    Workers = lists:append(
                [[spawn_worker(reader, fun reader/1, Ctx#{r => R}) || R <- lists:seq(1, NR)]
                 ++ [spawn_worker(writer, fun writer/1, Ctx#{w => W}) || W <- lists:seq(1, NW)]
                 ++ [spawn_worker(pushers, fun pushers/1, Ctx),
                     spawn_worker(saver, fun saver/1, Ctx#{saves => NS})]
                 || {I, T} <- Trees,
                    Ctx <- [#{tree => T, idx => I, writers => NW, until => Deadline,
                              ms => Ms, dir => maps:get(dir, P)}]]),
    Stats = collect(Workers, Deadline + 300000),
    Elapsed = now_ms() - Start,
    Models = maps:from_list([{{I, W}, M} || #{model := {I, W, M}} <- maps:get(writer, Stats)]),
    Histories = maps:from_list([{{I, W}, sets:from_list(H)}
                               || #{history := {I, W, H}} <- maps:get(writer, Stats)]),
    Walked = [begin
                  lock_free(T),
                  check_tree(T, fun(W, Keys) -> ?assertEqual(maps:get({I, W}, Models), Keys) end)
              end || {I, T} <- Trees],
    Saves = [S || #{saves := Ss} <- maps:get(saver, Stats), S <- Ss],
    Loaded = [load_saved(Path, I, Histories) || {I, Path, _} <- Saves],
    [ok = arbo_tree:close(T) || {_, T} <- Trees],
    [?assertError({arbo_closed, _}, arbo_tree:root(T)) || {_, T} <- Trees],
    #{stats => Stats, elapsed => Elapsed, walked => lists:sum(Walked),
      saves => Saves, loaded => Loaded, models => maps:size(Models),
      bins => lists:sum([B || {_, B} <- Loaded]) + lists:sum([prefill_bins(T) || {_, T} <- Trees])}.

%% A saved file verifies, loads, holds a consistent tree whose user-ordered
%% lists are states their writers went through, and is closed again.
load_saved(Path, I, Histories) ->
    ok = arbo_file:verify(Path),
    L = arbo_tree:new(),
    {ok, #{nodes := Nodes}} = arbo_tree:load(L, Path),
    check_tree(L, fun(W, Keys) ->
                          ?assert(sets:is_element(erlang:phash2(Keys), maps:get({I, W}, Histories)))
                  end),
    Bins = held_binaries(L),
    ok = arbo_tree:close(L),
    ok = file:delete(Path),
    {Nodes, Bins}.

%% ---- scenario 2: close racing with readers, writers and dying pushers -----

close_race(#{rounds := Rounds, race_trees := NT, readers := NR, race_ms := Ms} = P) ->
    Results = [race_round(P#{prefill => 1100}, NT, NR, Ms) || _ <- lists:seq(1, Rounds)],
    Stats = lists:foldl(fun merge_roles/2, #{}, [S || {S, _} <- Results]),
    #{stats => Stats, trees => Rounds * NT, bins => lists:sum([B || {_, B} <- Results])}.

race_round(P, NT, NR, Ms) ->
    Trees = [{I, build(I, P)} || I <- lists:seq(1, NT)],
    Safety = now_ms() + 300000,
    Workers = lists:append(
                [[spawn_worker(reader, fun reader/1, Ctx#{r => R}) || R <- lists:seq(1, NR)]
                 ++ [spawn_worker(writer, fun writer/1, Ctx#{w => 1}),
                     spawn_worker(pushers, fun pushers/1, Ctx)]
                 || {I, T} <- Trees,
                    Ctx <- [#{tree => T, idx => I, writers => 1, until => {closed, Safety}}]]),
    timer:sleep(Ms),
    [ok = arbo_tree:close(T) || {_, T} <- Trees],
    Stats = collect(Workers, Safety),
    %% every worker stopped because the tree answered closed
    [?assert(maps:get(closed, S, 0) > 0) || Role <- [reader, writer], S <- maps:get(Role, Stats)],
    {Stats, lists:sum([prefill_bins(T) || {_, T} <- Trees])}.

%% ---- trees ---------------------------------------------------------------

%% /1 a container of leaves (some in namespaces), /2 a sorted list whose
%% instances carry a leaf 1 with a value (a few say "needle"), /3 a small
%% sorted list where readers and deleting writers meet all the time, /{4, W}
%% one user-ordered list per writer. Tree 1 hides inactive instances.
build(I, #{prefill := N, writers := NW}) ->
    T = arbo_tree:new(case I of 1 -> [hide_inactive]; _ -> [] end),
    R = arbo_tree:root(T),
    C = arbo_tree:add_container(T, R, 1),
    [ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, C, Tag), {int32, Tag})
     || Tag <- lists:seq(0, ?LEAVES - 1)],
    S = arbo_tree:add_list(T, R, 2, sorted),
    Keys = lists:sublist(shuffle(lists:seq(0, ?SORTED_KEYS - 1)), N),
    [begin
         Inst = arbo_tree:add(T, S, {int, K}),
         ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, Inst, 1), leaf_value(K))
     end || K <- Keys],
    [arbo_tree:add_list(T, R, {4, W}, user_order) || W <- lists:seq(1, NW)],
    arbo_tree:add_list(T, R, 3, sorted),
    put({prefill_bins, T}, length([K || K <- Keys, bins(leaf_value(K)) =:= 1])),
    T.

prefill_bins(T) -> get({prefill_bins, T}).

leaf_value(K) when K rem 97 =:= 0 -> {string, ?NEEDLE};
leaf_value(K) -> {string, <<"value of instance ", (integer_to_binary(K))/binary>>}.

%% ---- workers ---------------------------------------------------------------

%% A worker keeps its counters in its process dictionary (an exception
%% between two calls of one operation loses none) and exits with them.
spawn_worker(Role, Fun, Ctx) ->
    {Pid, Ref} = spawn_monitor(fun() -> Fun(Ctx), exit({done, Role, stats()}) end),
    {Pid, Ref}.

collect(Workers, Deadline) ->
    lists:foldl(
      fun({Pid, Ref}, Acc) ->
              receive
                  {'DOWN', Ref, process, Pid, {done, Role, S}} ->
                      maps:update_with(Role, fun(L) -> [S | L] end, [S], Acc);
                  {'DOWN', Ref, process, Pid, Other} -> error({worker_crashed, Other})
              after max(0, Deadline - now_ms()) ->
                      error({worker_stuck, Pid, erlang:process_info(Pid, current_stacktrace)})
              end
      end, #{}, Workers).

merge_roles(A, B) -> maps:merge_with(fun(_, X, Y) -> X ++ Y end, A, B).

bump(K) -> bump(K, 1).
bump(K, N) -> put({stat, K}, stat(K) + N).
stat(K) -> case get({stat, K}) of undefined -> 0; V -> V end.
stats() -> maps:from_list([{K, V} || {{stat, K}, V} <- get()]).

%% Repeat Step until the time limit (or, racing a close, until the tree
%% answers closed); the answers documented for races are counted.
repeat(Step, #{until := Until} = Ctx) ->
    Stop = stat(ops) >= ?MAX_OPS orelse
        case Until of
            {closed, Safety} -> stat(closed) > 0 orelse now_ms() >= Safety;
            Deadline -> now_ms() >= Deadline
        end,
    Stop orelse begin attempt(Step, Ctx), repeat(Step, Ctx) end.

attempt(Step, Ctx) ->
    bump(ops),
    try Step(Ctx)
    catch error:{stale_node, _} -> bump(stale);
          error:{arbo_closed, _} -> bump(closed)
    end.

%% Half of the processes go through their own handle, half through the
%% creator's.
handle(T) ->
    try rand:uniform(2) =:= 1 andalso arbo_tree:attach(T) of
        false -> T;
        T1 -> T1
    catch error:{arbo_closed, _} -> T    % its calls answer closed in turn
    end.

reader(#{tree := T0} = Ctx) ->
    repeat(fun read_op/1, Ctx#{tree := handle(T0)}).

read_op(#{tree := T, writers := NW}) ->
    case rand:uniform(13) of
        11 -> on(T, [3, {int, rand:uniform(8)}, 1], fun(N) -> arbo_tree:value_raw(T, N) end);
        12 -> hot_walk(T);
        13 -> %% one pass through the gate for many calls: deletions wait for it
            arbo_tree:reading(T, fun hot_walk/1);
        1 -> on(T, [1, leaf_name()], fun(N) -> arbo_tree:value(T, N) end);
        2 -> on(T, [2, {int, sorted_key()}, 1], fun(N) -> arbo_tree:value_raw(T, N) end);
        3 -> on(T, [pick([1, 2, {4, rand:uniform(NW)}])],
                fun(N) -> arbo_tree:num_children(T, N) end);
        4 -> %% a walk over more siblings than the library examines per call
            on(T, [2], fun(S) -> arbo_tree:select(T, S, pick(filters())), bump(walks) end);
        5 -> %% a walk that gives the scheduler away at every child
            on(T, [pick([2, {4, rand:uniform(NW)}])],
               fun(L) ->
                       arbo_tree:fold(T, L, pick(filters()),
                                      fun(C, N) -> erlang:yield(),
                                                   _ = arbo_tree:flags(T, C), N + 1 end, 0),
                       bump(walks)
               end);
        6 -> iter_op(T);
        7 -> on(T, [2], fun(S) -> arbo_tree:find_after(T, S, {int, sorted_key()}) end);
        8 -> on(T, [{4, rand:uniform(NW)}],
                fun(L) -> on(T, arbo_tree:nth_child(T, L, rand:uniform(40)),
                             fun(C) -> arbo_tree:child_index(T, C), arbo_tree:prev_sibling(T, C)
                             end)
                end);
        9 -> on(T, [2, {int, sorted_key()}],
                fun(I) -> {arbo_tree:key(T, I), arbo_tree:type(T, I), arbo_tree:is_active(T, I),
                           arbo_tree:attr(T, I, 1), arbo_tree:flags(T, I)}
                end);
        10 -> on(T, [1, {rand:uniform(3), rand:uniform(16)}], fun(N) -> arbo_tree:value(T, N) end)
    end.

%% The values under the small list /3, the scheduler given away between
%% calls.
hot_walk(T) ->
    on(T, [3], fun(L) -> [on(T, arbo_tree:first_child(T, C),
                             fun(N) -> erlang:yield(), arbo_tree:value_raw(T, N) end)
                          || C <- arbo_tree:children(T, L)]
               end).

filters() ->
    [all, {value, eq, [1], ?NEEDLE}, {exists, [1]}, {'not', {has_value, [1]}},
     {flags_all, [], 4}, {'or', {flags_none, [1], 1}, {value, ne, [1], ?NEEDLE}}].

iter_op(T) ->
    case arbo_tree:iter_depth(T) of
        D when D >= 4 -> arbo_tree:iter_pop(T);
        _ -> on(T, [2, {int, sorted_key()}], fun(N) -> arbo_tree:iter_push(T, N) end)
    end,
    case arbo_tree:iter_top(T) of
        {error, stale} -> bump(iter_stale);
        _ -> ok
    end.

%% Processes that push nodes on their iterator stacks and then exit, or are
%% killed at a random moment, stack and all.
pushers(Ctx) -> repeat(fun push_and_die/1, Ctx).

push_and_die(#{tree := T}) ->
    {Pid, Ref} = spawn_monitor(
                   fun() ->
                           T1 = handle(T),
                           R = try
                                   [on(T1, pick([[2, {int, sorted_key()}], [1, leaf_name()]]),
                                       fun(N) -> arbo_tree:iter_push(T1, N) end)
                                    || _ <- lists:seq(1, rand:uniform(4))],
                                   _ = arbo_tree:iter_top(T1),
                                   receive after rand:uniform(2) - 1 -> pushed end
                               catch error:{stale_node, _} -> stale;
                                     error:{arbo_closed, _} -> closed
                               end,
                           exit(R)
                   end),
    rand:uniform(2) =:= 1 andalso begin
                                      receive after rand:uniform(2) - 1 -> ok end,
                                      exit(Pid, kill)
                                  end,
    bump(pushers),
    receive
        {'DOWN', Ref, process, Pid, killed} -> bump(killed);
        {'DOWN', Ref, process, Pid, pushed} -> ok;
        {'DOWN', Ref, process, Pid, stale} -> bump(stale);
        {'DOWN', Ref, process, Pid, closed} -> bump(closed);
        {'DOWN', Ref, process, Pid, Other} -> error({pusher_crashed, Other})
    end.

%% Saves spread over the run, each holding the tree's lock for reading while
%% writers queue behind it.
saver(#{tree := T, idx := I, saves := N, ms := Ms, dir := Dir}) ->
    Saves = [begin
                 timer:sleep(Ms div (N + 1)),
                 Path = filename:join(Dir, io_lib:format("tree~b-save~b.arbo", [I, J])),
                 T0 = erlang:monotonic_time(microsecond),
                 ok = arbo_tree:save(T, Path),
                 {I, Path, erlang:monotonic_time(microsecond) - T0}
             end || J <- lists:seq(1, N)],
    put({stat, saves}, Saves).

%% A writer owns the user-ordered list /{4, W} (nobody else changes it, so
%% its model is exact) and shares the rest of the tree with the others.
writer(#{tree := T0, idx := I, w := W} = Ctx) ->
    put(model, []),
    put(history, [erlang:phash2([])]),
    put(index, false),
    put(grow, true),
    repeat(fun write_op/1, Ctx#{tree := handle(T0)}),
    put({stat, model}, {I, W, get(model)}),
    put({stat, history}, {I, W, get(history)}).

write_op(#{tree := T} = Ctx) ->
    case rand:uniform(18) of
        N when N =< 6 -> own_list_op(Ctx);
        17 -> on(T, [3], fun(L) -> I = arbo_tree:add(T, L, {int, rand:uniform(8)}),
                                   set_value(T, arbo_tree:add_leaf(T, I, 1), value())
                         end);
        18 -> on(T, [3], fun(L) -> arbo_tree:delete(T, L, {int, rand:uniform(8)}) end);
        7 -> on(T, [1], fun(C) -> set_value(T, arbo_tree:add_leaf(T, C, leaf_name()), value()) end);
        8 -> on(T, [1], fun(C) -> arbo_tree:delete(T, C, leaf_name()) end);
        9 -> on(T, [1], fun(C) -> arbo_tree:delete_ns(T, C, rand:uniform(3)) end);
        10 -> on(T, [1, {rand:uniform(3), rand:uniform(16)}],
                 fun(L) -> arbo_tree:rename_ns(T, L, rand:uniform(3)) end);
        11 -> on(T, pick([[1, leaf_name()], [2, {int, sorted_key()}, 1], [2, {int, sorted_key()}]]),
                 fun(N) -> node_op(T, N) end);
        12 -> on(T, [2], fun(S) ->
                                 I = arbo_tree:add(T, S, {int, sorted_key()}),
                                 V = case rand:uniform(30) of 1 -> {string, ?NEEDLE}; _ -> value() end,
                                 set_value(T, arbo_tree:add_leaf(T, I, 1), V)
                         end);
        13 -> on(T, [2], fun(S) -> arbo_tree:delete(T, S, {int, sorted_key()}) end);
        14 -> on(T, [2, {int, sorted_key()}],
                 fun(I) -> arbo_tree:rename(T, I, {int, sorted_key()}) end);
        15 -> on(T, [2, {int, sorted_key()}],
                 fun(I) -> arbo_tree:set_active(T, I, rand:uniform(2) =:= 1) end);
        16 -> on(T, [2, {int, sorted_key()}], fun(I) -> set_value(T, I, value()) end)
    end.

%% Values, flags and attributes of any node; wide flag values go to the
%% library's shared flags table.
node_op(T, N) ->
    case rand:uniform(6) of
        1 -> set_value(T, N, value());
        2 -> arbo_tree:set_flags(T, N, pick([1 bsl rand:uniform(20), 1 bsl 40, 16#abcdef012345]));
        3 -> arbo_tree:add_flags(T, N, 4);
        4 -> arbo_tree:clear_flags(T, N, 1 bsl rand:uniform(20));
        5 -> V = pick([{uint8, 1}, {int64, 5}, {string, <<"an attribute text">>}]),
             ok = arbo_tree:set_attr(T, N, rand:uniform(3), V),
             bump(bins, bins(V));
        6 -> arbo_tree:delete_attr(T, N, rand:uniform(3))
    end.

%% A value set is one binary allocated in the library when it is held out of
%% line: a plain binary always, an encoded value beyond 10 bytes.
set_value(T, N, V) ->
    ok = arbo_tree:set_value(T, N, V),
    bump(bins, bins(V)).

bins(V) when is_binary(V) -> 1;
bins(V) -> case byte_size(arbo_val:encode(V)) > 10 of true -> 1; false -> 0 end.

value() ->
    pick([{int32, rand:uniform(1000)}, {string, <<"short">>}, <<"plain bytes">>,
          {string, <<"a value longer than ten bytes">>}, {uint8, 3}]).

%% The owner's list: grow to 150 instances and shrink to 40, over and over,
%% so that its key index comes and goes; moves and renames in between. The
%% model follows every answer of the library, and every state is recorded
%% for the saved files.
own_list_op(#{tree := T, w := W}) ->
    L = arbo_tree:lookup(T, [{4, W}]),
    M = get(model),
    Len = length(M),
    Grow = case get(grow) of
               true when Len >= 150 -> false;
               false when Len =< 40 -> true;
               G -> G
           end,
    put(grow, Grow),
    K = case M of [] -> 0; _ -> pick(M) end,
    case rand:uniform(10) of
        N when N =< 5, Grow; N =< 2 ->
            New = rand:uniform(?USER_KEYS) - 1,
            _ = arbo_tree:add(T, L, {int, New}),
            lists:member(New, M) orelse begin
                                            put(index, get(index) orelse Len + 1 >= 128),
                                            model(M ++ [New])
                                        end;
        N when N =< 5 ->
            Del = case rand:uniform(4) of 1 -> rand:uniform(?USER_KEYS) - 1; _ -> K end,
            Found = lists:member(Del, M),
            ?assertEqual(Found, arbo_tree:delete(T, L, {int, Del})),
            Found andalso begin
                              %% the lookup record of a removal from an indexed list stays counted
                              get(index) andalso bump(leaks),
                              put(index, get(index) andalso Len > 64),
                              model(M -- [Del])
                          end;
        6 when M =/= [] ->
            Pos = rand:uniform(Len + 3) - 2,
            Want = move_to(M, K, Pos),
            ?assertEqual(Want =/= false,
                         arbo_tree:move_to(T, arbo_tree:find(T, L, {int, K}), Pos)),
            Want =/= false andalso model(Want);
        7 when M =/= [] ->
            O = pick(M),
            Where = pick([move_before, move_after]),
            Moved = arbo_tree:Where(T, arbo_tree:find(T, L, {int, K}), arbo_tree:find(T, L, {int, O})),
            ?assertEqual(K =/= O, Moved),
            Moved andalso model(insert(Where, K, O, M -- [K]));
        8 when M =/= [] ->
            New = rand:uniform(?USER_KEYS) - 1,
            Free = not lists:member(New, M),
            ?assertEqual(Free, arbo_tree:rename(T, arbo_tree:find(T, L, {int, K}), {int, New})),
            Free andalso model([case X of K -> New; _ -> X end || X <- M]);
        _ when M =/= [] ->
            node_op(T, arbo_tree:find(T, L, {int, K}));
        _ -> ok
    end.

model(M) ->
    put(model, M),
    put(history, [erlang:phash2(M) | get(history)]).

%% Move K to position Pos, the position counting K where it stands: the new
%% order, or false when nothing moves.
move_to(M, K, Pos) ->
    Len = length(M),
    Target = if Pos < 0; Pos =:= Len -> none;
                Pos > Len -> past;
                true -> lists:nth(Pos + 1, M)
             end,
    Before = fun(X) -> lists:takewhile(fun(Y) -> Y =/= X end, M) end,
    if
        Target =:= past; Target =:= K -> false;
        Target =:= none -> lists:last(M) =/= K andalso (M -- [K]) ++ [K];
        true ->
            case lists:last([none | Before(Target)]) of
                K -> false;
                _ -> insert(move_before, K, Target, M -- [K])
            end
    end.

insert(Where, K, O, M) ->
    {A, [O | B]} = lists:splitwith(fun(X) -> X =/= O end, M),
    case Where of
        move_before -> A ++ [K, O | B];
        move_after -> A ++ [O, K | B]
    end.

%% ---- checks after the load -------------------------------------------------

%% A writer gets through at once: no lock, native or gate, was left held.
lock_free(T) ->
    {Pid, Ref} = spawn_monitor(fun() ->
                                       C = arbo_tree:lookup(T, [1]),
                                       L = arbo_tree:add_leaf(T, C, 1000),
                                       ok = arbo_tree:set_value(T, L, {int32, 1}),
                                       true = arbo_tree:delete(T, C, 1000),
                                       exit(through)
                               end),
    receive {'DOWN', Ref, process, Pid, R} -> ?assertEqual(through, R)
    after 10000 -> exit(Pid, kill), error(lock_held)
    end.

%% Walk the whole tree with the raw library (nothing else runs now): every
%% count agrees with the walk, sorted lists are in key order and every
%% instance is found by its key, user-ordered lists link both ways and are
%% handed to CheckUser(W, Keys); the node count is the walk's nodes and
%% attributes. Returns the number of nodes walked.
check_tree(T, CheckUser) ->
    {arbo, Res, View, G} = T,
    Plain = {arbo, Res, 0, G},
    Root = arbo:get_root(T),
    Nodes = check_node(Plain, View, Root, CheckUser) - 1,
    Attrs = lists:sum([length(attrs(Plain, arbo:get_attr_root(Plain, N)))
                       || N <- [Root | descendants(Plain, Root)]]),
    ?assertEqual(arbo:get_size(T), Nodes + Attrs),
    Nodes.

check_node(P, View, N, CheckUser) ->
    Kids = chain(P, arbo:first_child_nif(P, N, [], 0)),
    ?assertEqual(length(Kids), arbo:num_children(P, N)),
    case arbo:get_type(P, N) of
        {2, Mode} when Kids =/= [] ->
            Keys = [K || C <- Kids, {K} <- [arbo:get_hkey0(P, C)]],
            ?assertEqual(length(Kids), length(Keys)),
            [?assertEqual(C, arbo:find_child(P, N, {K}, 10)) || {C, K} <- lists:zip(Kids, Keys)],
            ?assertEqual(lists:last(Kids), arbo:last_child(P, N)),
            Hidden = length([C || C <- Kids, arbo:do_get_attr(P, C, 0) =/= []]),
            View =:= 0 orelse ?assertEqual(length(Kids) - Hidden,
                                           arbo:num_children(setelement(3, P, View), N)),
            case Mode of
                3 ->
                    ?assertEqual([0 | lists:droplast(Kids)],
                                 [arbo:prev_sibling(P, N, C) || C <- Kids]),
                    [4 | W] = arbo:get_hkey0(P, N),
                    CheckUser(W, Keys);
                _ ->
                    ?assertEqual(lists:usort(Keys), Keys)
            end;
        _ -> ok
    end,
    1 + lists:sum([check_node(P, View, C, CheckUser) || C <- Kids]).

chain(_, 0) -> [];
chain(T, C) -> [C | chain(T, arbo:next_sibling_nif(T, C, [], 0))].

descendants(T, N) ->
    lists:append([[C | descendants(T, C)] || C <- chain(T, arbo:first_child_nif(T, N, [], 0))]).

attrs(_, 0) -> [];
attrs(T, A) -> [A | attrs(T, arbo:next_sibling_nif(T, A, [], 0))].

%% Binaries the library holds for a quiet tree's values and attributes.
held_binaries(T) ->
    {arbo, Res, _, G} = T,
    P = {arbo, Res, 0, G},
    Root = arbo:get_root(P),
    Long = fun(B) when is_binary(B) -> 1;
              ({csval, B}) when byte_size(B) > 10 -> 1;
              (_) -> 0
           end,
    lists:sum([Long(arbo:get_val_raw(P, X))
               || N <- [Root | descendants(P, Root)],
                  X <- [N | attrs(P, arbo:get_attr_root(P, N))]]).

%% The library's byte counter and the capacity of its shared flags table,
%% once tables that earlier tests dropped are collected.
lib_counter() ->
    [erlang:garbage_collect(Pid) || Pid <- processes()],
    timer:sleep(50),
    [Mem, {8, Cap, _}] = arbo:alloc_info(),
    {Mem, Cap}.

%% With every tree closed, the library's counter is back at its start but
%% for the accounting kept on purpose, all counted exactly by the run:
%% - 8 bytes lower for every binary ever allocated (all are freed by now; a
%%   release subtracts its 8-byte length header, the allocation never added
%%   it);
%% - 16 bytes higher for every removal from a user-ordered list that had its
%%   key index (the lookup record of the removal stays allocated);
%% - 512 bytes higher for every 64 entries the flags table grew by (it never
%%   shrinks).
memory_check({Mem0, Cap0}, {Mem1, Cap1}, Scenarios) ->
    Sum = fun(K, Roles) -> lists:sum([maps:get(K, S, 0) || Role <- Roles, #{stats := St} <- Scenarios,
                                                         S <- maps:get(Role, St, [])]) end,
    Bins = Sum(bins, [writer, reader]) + lists:sum([B || #{bins := B} <- Scenarios]),
    Leaks = Sum(leaks, [writer]),
    Growth = (Cap1 - Cap0) div 64 * 512,
    %% The counter is unsigned 64-bit: the downward drift can take it below
    %% zero, where it wraps. Compare modulo 2^64, as a signed difference.
    Off = case (Mem1 - Mem0 - (Growth - 8 * Bins + 16 * Leaks)) band (1 bsl 64 - 1) of
              D when D >= 1 bsl 63 -> D - (1 bsl 64);
              D -> D
          end,
    ?assertEqual(0, Off),
    #{bins => Bins, leaks => Leaks, growth => Growth, off => Off}.

%% ---- figures --------------------------------------------------------------

report(#{params := P, mixed := Mx, race := Rc, mem := Mem}) ->
    #{stats := S, elapsed := Ms} = Mx,
    Sum = fun(St, Role, K) -> lists:sum([maps:get(K, X, 0) || X <- maps:get(Role, St, [])]) end,
    All = fun(K) -> lists:sum([Sum(St, R, K) || #{stats := St} <- [Mx, Rc],
                                              R <- [reader, writer, pushers]]) end,
    Rate = fun(Role) -> Sum(S, Role, ops) * 1000 div max(1, Ms) end,
    #{trees := NT, readers := NR, writers := NW, rounds := Rounds, race_trees := RT} = P,
    Saves = maps:get(saves, Mx),
    [{"mixed load: duration", fmt("~.1f s", [Ms / 1000])},
     {"mixed load: trees at once", fmt("~b", [NT])},
     {"mixed load: processes", fmt("~b readers, ~b writers, ~b savers, ~b pusher spawners; "
                                   "~b iterator pushers started, ~b of them killed",
                                   [NR * NT, NW * NT, NT, NT,
                                    Sum(S, pushers, pushers), Sum(S, pushers, killed)])},
     {"reader ops/s", fmt("~b (~b ops, ~b filtered walks completed)",
                          [Rate(reader), Sum(S, reader, ops), Sum(S, reader, walks)])},
     {"writer ops/s", fmt("~b (~b ops)", [Rate(writer), Sum(S, writer, ops)])},
     {"saves during writes", fmt("~b, longest ~.1f ms; all verified and loaded (~b records)",
                                 [length(Saves), lists:max([0 | [U || {_, _, U} <- Saves]]) / 1000,
                                  lists:sum([N || {N, _} <- maps:get(loaded, Mx)])])},
     {"close races", fmt("~b trees closed under ~b readers, a writer and a pusher spawner each",
                         [maps:get(trees, Rc), NR])},
     {"stale answers", fmt("~b stale_node, ~b iterator tops stale", [All(stale), All(iter_stale)])},
     {"closed answers", fmt("~b", [All(closed)])},
     {"invariants held", fmt("yes: ~b trees, ~b nodes walked, ~b user-ordered lists equal to "
                             "their writer's model, ~b saved files consistent",
                             [NT, maps:get(walked, Mx), maps:get(models, Mx), length(Saves)])},
     {"locks", "free after the load (a writer got through on every tree)"},
     {"memory back to baseline (bytes)",
      fmt("~b off, after the kept drifts: -8 x ~b binaries freed, +16 x ~b indexed removals, "
          "+~b flags table growth", [maps:get(off, Mem), maps:get(bins, Mem),
                                     maps:get(leaks, Mem), maps:get(growth, Mem)])},
     {"race rounds", fmt("~b x ~b trees", [Rounds, RT])},
     {"lost", "0"}].

fmt(F, A) -> lists:flatten(io_lib:format(F, A)).

%% ---- small helpers ---------------------------------------------------------

now_ms() -> erlang:monotonic_time(millisecond).

%% Fun(Node) for the node at Path (or a node already found); nothing for none.
on(T, Path, Fun) when is_list(Path) -> on(T, arbo_tree:lookup(T, Path), Fun);
on(_, none, _) -> none;
on(_, N, Fun) -> Fun(N).

leaf_name() ->
    case rand:uniform(4) of
        1 -> {rand:uniform(3), rand:uniform(16)};
        _ -> rand:uniform(?LEAVES) - 1
    end.

sorted_key() -> rand:uniform(?SORTED_KEYS) - 1.

pick(L) -> lists:nth(rand:uniform(length(L)), L).

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].
