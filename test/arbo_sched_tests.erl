%% Where the library's work runs, and that moving it kept every contract.
%%
%% - Depth: trees of 100,000 levels are walked, saved, loaded, deleted,
%%   closed and dropped in a child VM (a stack overflow kills that VM, not
%%   this one); the reliability run takes the same scenario to 1,000,000.
%% - Walks past the step budget continue on a dirty scheduler and answer as
%%   the inline walk does; a reader never sees half of a big deletion;
%%   callers killed while they wait for the lock leave nothing held; filtered
%%   walks are charged to the caller.
%% - A bounded run of the scheduler benchmark: no call keeps a normal
%%   scheduler 50 ms or more at 200,000 instances (50,000 on the sanitizer
%%   build), and every call answers what its contract says.
-module(arbo_sched_tests).
-include_lib("eunit/include/eunit.hrl").

-export([deep/1, figures/1, killed_waiters/0]).

-import(arbo_bench_sched, [nul/1]).

-define(FLAG, 2#100).

%% ---- depth -------------------------------------------------------------------------

depth_in_child_vm_test_() ->
    {timeout, 300, fun() -> ?assertMatch([_ | _], in_child(deep, [100000])) end}.

%% The reliability run: the same scenario at a million levels.
figures(full) -> [_ | _] = in_child(deep, [1000000]).

in_child(F, A) -> arbo_hostile_tests:in_child(#{}, {?MODULE, F, A}, 280000).

%% A chain of Depth containers below the root, an attribute and a flag on
%% the deepest one. Runs in the child VM; every step checks its answer, and
%% the answer is the list of figures the reliability run prints.
deep(Depth) -> in_scratch(fun(Dir) -> deep(Depth, filename:join(Dir, "a"), filename:join(Dir, "b")) end).

deep(Depth, FileA, FileB) ->
    T = arbo:new(),
    Root = arbo:get_root(T),
    Fresh = arbo:get_mem(T),
    {BuildUs, Bottom} = timer:tc(fun() -> chain(T, Root, Depth) end),
    arbo:set_flag(T, Bottom, ?FLAG),
    _ = arbo:do_set_attr(T, Bottom, 3, <<12, 7:32>>),
    {WalkUs, {true, false}} =
        timer:tc(fun() -> {arbo:has_descendant_with_flags(T, Root, ?FLAG, 0),
                           arbo:has_descendant_with_flags(T, Root, 2#1000, 0)} end),
    Size = Depth + 1,  % the containers and the attribute
    Size = arbo:get_size(T),
    %% Saved, loaded and saved again: the same bytes.
    Load = fun(To) -> {true, _} = arbo:load_nif(To, nul(FileA), -1, 0, undefined) end,
    {SaveUs, true} = timer:tc(fun() -> arbo:save_nif(T, nul(FileA), 0) end),
    T2 = arbo:new(),
    {LoadUs, _} = timer:tc(fun() -> Load(T2) end),
    {Size, true} = {arbo:get_size(T2), arbo:save_nif(T2, nul(FileB), 0)},
    [{ok, Bytes}, {ok, Again}] = [file:read_file(F) || F <- [FileA, FileB]],
    true = arbo:has_descendant_with_flags(T2, arbo:get_root(T2), ?FLAG, 0),
    %% Deleted: counters back to those of an empty tree.
    Gen = arbo:get_generation(T),
    {DelUs, true} = timer:tc(fun() -> arbo:del_hkey(T, Root, 1, 13) end),
    {0, Fresh, 1} = After = {arbo:get_size(T), arbo:get_mem(T), arbo:get_generation(T) - Gen},
    ok = arbo:close(T),
    %% Cleared, closed, and dropped unclosed.
    {ClearUs, ok} = timer:tc(fun() -> arbo:del_all(T2) end),
    0 = arbo:get_size(T2),
    Load(T2),
    {CloseUs, ok} = timer:tc(fun() -> arbo:close(T2) end),
    Mem = hd(arbo:alloc_info()),
    {Pid, Ref} = spawn_monitor(fun() -> Load(arbo:new()) end),
    receive {'DOWN', Ref, process, Pid, normal} -> ok end,
    {FreedUs, ok} = timer:tc(fun() -> wait_until(fun() -> hd(arbo:alloc_info()) =< Mem end) end),
    %% The safe API's tree, closed by its keeper when its owner exits.
    {Owner, ORef} = spawn_monitor(fun() ->
                                          S = arbo_tree:new(),
                                          {ok, _} = arbo_tree:load(S, FileA),
                                          exit({tree, S})
                                  end),
    S = receive {'DOWN', ORef, process, Owner, {tree, S0}} -> S0 end,
    Closed = fun() -> try arbo:get_size(S), false catch error:{arbo_closed, _, _} -> true end end,
    {KeeperUs, ok} = timer:tc(fun() -> wait_until(Closed) end),
    Ms = fun(Us) -> f("~.1f ms", [Us / 1000]) end,
    [{"levels", integer_to_list(Depth)},
     {"built, raw calls", Ms(BuildUs)},
     {"descendant-flag search, hit and miss", Ms(WalkUs)},
     {"saved", f("~b bytes in ~s", [byte_size(Bytes), Ms(SaveUs)])},
     {"loaded", f("~b nodes in ~s", [Size, Ms(LoadUs)])},
     {"saved again, same bytes", atom_to_list(Bytes =:= Again)},
     {"deleted with del_hkey", Ms(DelUs)},
     {"size, mem and generation step after the delete", f("~p (a fresh tree's mem: ~b)", [After, Fresh])},
     {"cleared with del_all", Ms(ClearUs)},
     {"closed", Ms(CloseUs)},
     {"dropped unclosed: library memory back within", Ms(FreedUs)},
     {"owner of a safe tree exits: closed by its keeper within", Ms(KeeperUs)}].

f(Fmt, Args) -> lists:flatten(io_lib:format(Fmt, Args)).

chain(_T, Node, 0) -> Node;
chain(T, Node, Left) -> chain(T, arbo:add_hkey_internal(T, Node, 1), Left - 1).

%% Within 30 s.
wait_until(Pred) -> wait_until(Pred, 3000).
wait_until(Pred, 0) -> {timeout, Pred()};
wait_until(Pred, Left) ->
    case Pred() of
        true -> ok;
        false -> timer:sleep(10), wait_until(Pred, Left - 1)
    end.

%% ---- contracts of the rescheduled calls ------------------------------------------------
%% (Deletions past the free budget: the depth scenario and the benchmark run.)

%% A sorted list of N instances, each with a leaf, every 7th flagged and every
%% 5th inactive; a user-ordered list and a container of N children each. The
%% answers are computed from the same rule in Erlang. N = 100 stays inline;
%% at 40,000 every walk passes the step budget and must continue dirty.
answers_test_() ->
    [{integer_to_list(N) ++ " instances", {timeout, 120, fun() -> answers(N) end}}
     || N <- [100, 40000]].

answers(N) ->
    T = arbo:new(),
    TV = setelement(3, T, 16#100),
    Root = arbo:get_root(T),
    C = arbo:add_hkey_internal(T, Root, 3),
    {L, Is} = list(T, 1, 0, N, fun(K, I) ->
                                       _ = arbo:add_hkey(T, I, 1, 2),
                                       _ = arbo:add_hkey_internal(T, C, K),
                                       K rem 7 =:= 0 andalso arbo:set_flag(T, I, ?FLAG),
                                       K rem 5 =:= 0 andalso arbo:do_set_attr(T, I, 0, <<12, 0:32>>)
                               end),
    {U, Us} = list(T, 2, 3, N, fun(_, _) -> ok end),
    Last = lists:last(Is),
    Visible = [I || {K, I} <- lists:enumerate(Is), K rem 5 =/= 0],
    Cases = [{num_children_hiding, N - N div 5, fun() -> arbo:num_children(TV, L) end},
             {num_children_container, N, fun() -> arbo:num_children(T, C) end},
             {with_flag, N div 7, fun() -> arbo:num_children_with_flag(T, L, ?FLAG) end},
             {has_no_flag, false, fun() -> arbo:has_child_with_flags(T, L, 2#1000) end},
             {get_child, lists:nth(N div 2, Is), fun() -> arbo:get_child(T, L, N div 2) end},
             {get_child_hiding, lists:nth(N div 2, Visible), fun() -> arbo:get_child(TV, L, N div 2) end},
             {child_index, N, fun() -> arbo:child_index(T, L, Last) end},
             {prev_sibling, lists:nth(N - 1, Is), fun() -> arbo:prev_sibling(T, L, Last) end},
             {no_descendant, false, fun() -> arbo:has_descendant_with_flags(T, Root, 2#1000, 0) end},
             {move_to, true, fun() -> arbo:move_to(T, U, hd(Us), N - 1) end}],
    try
        G0 = arbo:get_generation(T),
        Got = [{Name, Dirty orelse N < 40000, R} || {Name, _, F} <- Cases, {Dirty, R} <- [on_dirty(F)]],
        ?assertEqual([{Name, true, Want} || {Name, Want, _} <- Cases], Got),
        ?assertEqual({G0 + 1, lists:nth(2, Us), hd(Us)},
                     {arbo:get_generation(T), arbo:get_child(T, U, 1), arbo:get_child(T, U, N - 1)})
    after
        arbo:close(T)
    end.

%% Readers and writers under way while big deletions and a save hold the lock:
%% every reader sees the tree before or after a deletion, never in between,
%% and every call returns (the lock is released on every path).
atomic_deletion_test_() ->
    {timeout, 120, fun() ->
        N = 30000,
        T = arbo:new(),
        Root = arbo:get_root(T),
        _ = [list(T, Tag, 0, N, fun(_, _) -> ok end) || Tag <- [1, 2, [7 | 3]]],
        Self = self(),
        Loop = fun(Step, Acc) -> Self ! {self(), loop(Step, Acc)} end,
        Seen = fun(S) -> S#{arbo:get_size(T) => true} end,
        Write = fun(C) -> arbo:set_flag(T, Root, 2#10), C + 1 end,   % waits for the exclusive lock
        Workers = [spawn_link(fun() -> Loop(F, A) end) || {F, A} <- [{Seen, #{}}, {Seen, #{}}, {Write, 0}]],
        in_scratch(fun(Dir) ->
                           true = arbo:save_nif(T, nul(filename:join(Dir, "s")), 0),
                           ?assertEqual(true, arbo:del_hkey(T, Root, 1, 13)),
                           ?assertEqual(true, arbo:del_ns(T, Root, 7)),
                           ?assertEqual(ok, arbo:del_all(T))
                   end),
        [W ! stop || W <- Workers],
        [R1, R2, _] = [receive {W, R} -> R end || W <- Workers],
        %% Whole lists only: 3, 2, 1 or 0 of them, each a list node and N
        %% instances.
        ?assertEqual([], maps:keys(maps:merge(R1, R2)) -- [K * (N + 1) || K <- [0, 1, 2, 3]]),
        ?assertEqual(0, arbo:get_size(T)),
        ?assertEqual(ok, arbo:close(T))
    end}.

loop(Step, Acc) -> receive stop -> Acc after 0 -> loop(Step, Step(Acc)) end.

%% Callers killed while their calls wait for the lock on a dirty scheduler
%% (a save holds it): the calls finish for nobody, an iterator push leaves no
%% stack behind, and the VM lives on. In a child VM: a failure is an abort.
killed_waiters_test_() ->
    {timeout, 120, fun() -> ?assertEqual(ok, in_child(killed_waiters, [])) end}.

killed_waiters() ->
    T = arbo:new(),
    {L, _} = list(T, 1, 0, 1000000, fun(_, _) -> ok end),
    in_scratch(fun(Dir) -> [kill_round(T, L, filename:join(Dir, "s")) || _ <- [1, 2, 3]] end),
    %% The lock is free again, for a caller that is alive.
    ok = arbo:push_iter_node(T, L),
    L = arbo:get_iter_node(T),
    arbo:close(T).

%% One save holding the lock, 20 callers waiting for it, all killed.
kill_round(T, L, File) ->
    Self = self(),
    Saver = spawn_link(fun() -> Self ! {saved, arbo:save_nif(T, nul(File), 0)} end),
    timer:sleep(2),
    Waiters = [spawn(fun() -> Self ! {going, self()}, arbo:push_iter_node(T, L),
                              arbo:del_hkey(T, L, 7, 13) end)
               || _ <- lists:seq(1, 20)],
    [receive {going, P} -> ok end || P <- Waiters],
    timer:sleep(5),
    [exit(P, kill) || P <- Waiters],
    receive {saved, true} -> ok end,
    unlink(Saver).

%% Every call of a filtered walk hands the scheduler its time, whether it
%% ends in a yield or in a match: the caller's reductions grow by at least 1%
%% of a time slice (40) per call.
walk_charges_test() ->
    T = arbo:new(),
    {L, _} = list(T, 1, 0, 20040, fun(K, I) -> K rem 500 =:= 0 andalso arbo:set_flag(T, I, 2#10) end),
    Charged = [{Yields, Matches, R1 - R0 >= (Yields + Matches) * 40}
               || F <- [{3, 1000, [], ?FLAG}, {3, 1000, [], 2#10}],
                  {reductions, R0} <- [process_info(self(), reductions)],
                  {Yields, Matches} <- [walk(T, F, arbo:first_child_nif(T, L, F, 0), 0, 0)],
                  {reductions, R1} <- [process_info(self(), reductions)]],
    arbo:close(T),
    ?assertEqual([{20, 0, true}, {0, 40, true}], Charged).

walk(_T, _F, 0, Yields, Matches) -> {Yields, Matches};
walk(T, F, {yield, Stack, N}, Yields, Matches) ->
    walk(T, F, arbo:next_sibling_nif(T, N, F, 0, Stack), Yields + 1, Matches);
walk(T, F, N, Yields, Matches) -> walk(T, F, arbo:next_sibling_nif(T, N, F, 0), Yields, Matches + 1).

%% ---- the bounded scheduler run ------------------------------------------------------

no_long_block_test_() ->
    {timeout, 600, fun() ->
        N = case os:getenv("ARBO_ASAN") of "1" -> 50000; _ -> 200000 end,
        Blocks = [{Name, Long} || #{name := Name, arbo := {_, Long, _}} <- arbo_bench_sched:run(N)],
        ?assertEqual([], [B || {_, Long} = B <- Blocks, Long >= 50])
    end}.

%% ---- helpers -------------------------------------------------------------------------

%% A list Tag in Order under the root, instances 1..N, Fun(K, Instance) on
%% each: the list and its instances.
list(T, Tag, Order, N, Fun) ->
    L = arbo:add_hkey_dyn(T, arbo:get_root(T), Tag, Order),
    {L, [begin I = arbo:add_hkey(T, L, K, 4), Fun(K, I), I end || K <- lists:seq(1, N)]}.

%% Whether dirty CPU schedulers did any work while Fun ran, and its answer.
on_dirty(Fun) ->
    erlang:system_flag(microstate_accounting, true),
    erlang:system_flag(microstate_accounting, reset),
    R = Fun(),
    Stats = erlang:statistics(microstate_accounting),
    erlang:system_flag(microstate_accounting, false),
    {lists:sum([V || #{type := dirty_cpu_scheduler, counters := C} <- Stats,
                     {K, V} <- maps:to_list(C), K =/= sleep]) > 0, R}.

%% Fun(Dir) with a scratch directory, removed afterwards.
in_scratch(Fun) ->
    Dir = arbo_bench_sched:scratch(),
    try Fun(Dir) after os:cmd("rm -rf " ++ Dir) end.
