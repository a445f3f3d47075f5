%% Where the library's work runs, and that moving it kept every contract.
%%
%% - Depth: trees of 100,000 levels are walked, saved, loaded, deleted,
%%   closed and dropped in a child VM (a stack overflow kills that VM, not
%%   this one); the reliability run takes the same scenario to 1,000,000.
%% - Contracts of the calls that continue on a dirty scheduler: the same
%%   answers on both sides of the step and free budgets, counters and
%%   generation as the inline path leaves them, the lock released, a reader
%%   never seeing half of a deletion, filtered walks charged to the caller.
%% - A bounded run of the scheduler benchmark: no call keeps a normal
%%   scheduler 50 ms or more at 200,000 instances (50,000 on the sanitizer
%%   build), and every call answers what its contract says.
-module(arbo_sched_tests).
-include_lib("eunit/include/eunit.hrl").

-export([deep/1, figures/1, killed_waiters/0]).

-define(FLAG, 2#100).

%% ---- depth -------------------------------------------------------------------------

depth_in_child_vm_test_() ->
    {timeout, 300, fun() -> ?assertMatch([_ | _], in_child(deep, [100000])) end}.

%% The reliability run: the same scenario at a million levels.
figures(full) ->
    [_ | _] = in_child(deep, [1000000]).

%% A chain of Depth containers below the root, an attribute and a flag on
%% the deepest one. Runs in the child VM; every step checks its answer, and
%% the answer is the list of figures the reliability run prints.
deep(Depth) ->
    Dir = scratch(),
    try deep(Depth, filename:join(Dir, "a"), filename:join(Dir, "b"))
    after os:cmd("rm -rf " ++ Dir)
    end.

deep(Depth, FileA, FileB) ->
    T = arbo:new(),
    Fresh = arbo:get_mem(T),
    {BuildUs, Bottom} = timer:tc(fun() -> chain(T, arbo:get_root(T), Depth) end),
    arbo:set_flag(T, Bottom, ?FLAG),
    _ = arbo:do_set_attr(T, Bottom, 3, <<12, 7:32>>),
    Root = arbo:get_root(T),
    {WalkUs, Walked} =
        timer:tc(fun() -> {arbo:has_descendant_with_flags(T, Root, ?FLAG, 0),
                           arbo:has_descendant_with_flags(T, Root, 2#1000, 0)} end),
    Size = Depth + 1,  % the containers and the attribute
    {{true, false}, Size} = {Walked, arbo:get_size(T)},
    %% Saved, loaded and saved again: the same bytes.
    {SaveUs, true} = timer:tc(fun() -> arbo:save_nif(T, nul(FileA), 0) end),
    T2 = arbo:new(),
    {LoadUs, {true, _}} = timer:tc(fun() -> arbo:load_nif(T2, nul(FileA), -1, 0, undefined) end),
    Size = arbo:get_size(T2),
    true = arbo:save_nif(T2, nul(FileB), 0),
    {ok, Bytes} = file:read_file(FileA),
    {ok, Again} = file:read_file(FileB),
    true = arbo:has_descendant_with_flags(T2, arbo:get_root(T2), ?FLAG, 0),
    %% Deleted: counters back to those of an empty tree.
    Gen = arbo:get_generation(T),
    {DelUs, true} = timer:tc(fun() -> arbo:del_hkey(T, Root, 1, 13) end),
    After = {arbo:get_size(T), arbo:get_mem(T), arbo:get_generation(T) - Gen},
    {0, Fresh, 1} = After,
    ok = arbo:close(T),
    %% Cleared, closed, and dropped unclosed.
    {ClearUs, ok} = timer:tc(fun() -> arbo:del_all(T2) end),
    0 = arbo:get_size(T2),
    {true, _} = arbo:load_nif(T2, nul(FileA), -1, 0, undefined),
    {CloseUs, ok} = timer:tc(fun() -> arbo:close(T2) end),
    Mem = hd(arbo:alloc_info()),
    {Pid, Ref} = spawn_monitor(fun() ->
                                       T3 = arbo:new(),
                                       {true, _} = arbo:load_nif(T3, nul(FileA), -1, 0, undefined)
                               end),
    receive {'DOWN', Ref, process, Pid, normal} -> ok end,
    {FreedUs, ok} = timer:tc(fun() -> wait_until(fun() -> hd(arbo:alloc_info()) =< Mem end, 30000) end),
    %% The safe API's tree, closed by its keeper when its owner exits.
    {Owner, ORef} = spawn_monitor(fun() ->
                                          S = arbo_tree:new(),
                                          {ok, _} = arbo_tree:load(S, FileA),
                                          exit({tree, S})
                                  end),
    S = receive {'DOWN', ORef, process, Owner, {tree, S0}} -> S0 end,
    {KeeperUs, ok} = timer:tc(fun() -> wait_until(fun() -> catch_closed(S) end, 30000) end),
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

catch_closed(S) ->
    try arbo:get_size(S), false catch error:{arbo_closed, _, _} -> true end.

%% ---- contracts of the rescheduled calls ------------------------------------------------

%% A sorted list of N instances, each with a leaf, every 7th flagged and every
%% 5th inactive; a user-ordered list of N instances. The answers are computed
%% from the same rule in Erlang. N = 100 stays inline, 40,000 passes every
%% step budget.
answers_test_() ->
    [{integer_to_list(N) ++ " instances", {timeout, 120, fun() -> answers(N) end}}
     || N <- [100, 40000]].

answers(N) ->
    T = arbo:new(),
    TV = setelement(3, T, 16#100),
    Root = arbo:get_root(T),
    L = arbo:add_hkey_dyn(T, Root, 1, 0),
    U = arbo:add_hkey_dyn(T, Root, 2, 3),
    Is = [begin
              I = arbo:add_hkey(T, L, K, 4),
              _ = arbo:add_hkey(T, I, 1, 2),
              K rem 7 =:= 0 andalso arbo:set_flag(T, I, ?FLAG),
              K rem 5 =:= 0 andalso arbo:do_set_attr(T, I, 0, <<12, 0:32>>),
              I
          end || K <- lists:seq(1, N)],
    Us = [arbo:add_hkey(T, U, K, 4) || K <- lists:seq(1, N)],
    Last = lists:last(Is),
    Visible = [I || {K, I} <- lists:enumerate(Is), K rem 5 =/= 0],
    try
        {Dirty, Answers} =
            on_dirty(fun() ->
                             [arbo:num_children(TV, L), arbo:num_children_with_flag(T, L, ?FLAG),
                              arbo:has_child_with_flags(T, L, ?FLAG),
                              arbo:has_child_with_flags(T, L, 2#1000),
                              arbo:get_child(T, L, N), arbo:get_child(T, L, N div 2),
                              arbo:child_index(T, L, Last), arbo:prev_sibling(T, L, Last),
                              arbo:last_child(TV, L), arbo:get_child(TV, L, N div 2),
                              arbo:has_descendant_with_flags(T, Root, 2#1000, 0),
                              arbo:has_descendant_with_flags(T, Root, ?FLAG, 0)]
                     end),
        ?assertEqual([N - N div 5, N div 7, true, false, Last, lists:nth(N div 2, Is), N,
                      lists:nth(N - 1, Is), Last, lists:nth(N div 2, Visible), false, true], Answers),
        %% Past the step budget the walks continue on a dirty scheduler.
        ?assert(N < 40000 orelse Dirty > 0),
        %% Moves and deletions: answers, generation and counters.
        G0 = arbo:get_generation(T),
        ?assertEqual({true, G0 + 1}, {arbo:move_to(T, U, hd(Us), N - 1), arbo:get_generation(T)}),
        ?assertEqual(lists:nth(2, Us), arbo:get_child(T, U, 1)),
        ?assertEqual(hd(Us), arbo:get_child(T, U, N - 1)),
        Size = arbo:get_size(T),
        ?assertEqual({true, G0 + 2, Size - 2 * N - N div 5 - 1},
                     {arbo:del_hkey(T, Root, 1, 13), arbo:get_generation(T), arbo:get_size(T)}),
        ?assertEqual({false, G0 + 2}, {arbo:del_hkey(T, Root, 1, 13), arbo:get_generation(T)}),
        Empty = arbo:new(),
        ?assertEqual({ok, G0 + 3, 0, arbo:get_mem(Empty)},
                     {arbo:del_all(T), arbo:get_generation(T), arbo:get_size(T), arbo:get_mem(T)}),
        arbo:close(Empty)
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
        _ = [begin
                 L = arbo:add_hkey_dyn(T, Root, Tag, 0),
                 [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, N)]
             end || Tag <- [1, 2, [7 | 3]]],
        Self = self(),
        Readers = [spawn_link(fun() -> Self ! {seen, self(), read_loop(T, #{})} end)
                   || _ <- [1, 2]],
        Writer = spawn_link(fun() -> Self ! {wrote, write_loop(T, 0)} end),
        Dir = scratch(),
        try
            true = arbo:save_nif(T, nul(filename:join(Dir, "s")), 0),
            ?assertEqual(true, arbo:del_hkey(T, Root, 1, 13)),
            ?assertEqual(true, arbo:del_ns(T, Root, 7)),
            ?assertEqual(ok, arbo:del_all(T))
        after os:cmd("rm -rf " ++ Dir)
        end,
        [P ! stop || P <- [Writer | Readers]],
        Seen = lists:usort(lists:append([receive {seen, P, S} -> maps:keys(S) end || P <- Readers])),
        receive {wrote, _} -> ok end,
        %% Whole lists only: 3, 2, 1 or 0 of them, each a list node and N
        %% instances.
        ?assertEqual([], Seen -- [K * (N + 1) || K <- [0, 1, 2, 3]]),
        ?assertEqual(0, arbo:get_size(T)),
        ?assertEqual(ok, arbo:close(T))
    end}.

read_loop(T, Seen) ->
    receive stop -> Seen
    after 0 -> read_loop(T, Seen#{arbo:get_size(T) => true})
    end.

%% Writes that need the exclusive lock, interleaved with the deletions.
write_loop(T, Count) ->
    receive stop -> Count
    after 0 ->
        _ = arbo:set_flag(T, arbo:get_root(T), 2#10),
        write_loop(T, Count + 1)
    end.

%% Callers killed while their calls wait for the lock on a dirty scheduler
%% (a save holds it): the calls finish for nobody, an iterator push leaves no
%% stack behind, and the VM lives on. In a child VM: a failure is an abort.
killed_waiters_test_() ->
    {timeout, 120, fun() -> ?assertEqual({ok, 0}, in_child(killed_waiters, [])) end}.

killed_waiters() ->
    Dir = scratch(),
    T = arbo:new(),
    L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
    _ = [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, 1000000)],
    try
        [20, 20, 20] = [kill_round(T, L, filename:join(Dir, "s")) || _ <- [1, 2, 3]],
        %% The lock is free again, for a caller that is alive.
        ok = arbo:push_iter_node(T, L),
        L = arbo:get_iter_node(T),
        {arbo:close(T), 0}
    after os:cmd("rm -rf " ++ Dir)
    end.

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
    unlink(Saver),
    length([P || P <- Waiters, not is_process_alive(P)]).

%% Every call of a filtered walk hands the scheduler its time, whether it
%% ends in a yield or in a match: the caller's reductions grow by at least 1%
%% of a time slice (40) per call.
walk_charges_test() ->
    T = arbo:new(),
    L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
    _ = [begin
             I = arbo:add_hkey(T, L, K, 4),
             K rem 500 =:= 0 andalso arbo:set_flag(T, I, 2#10)
         end || K <- lists:seq(1, 20040)],
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

%% Fun's answer, and the time dirty CPU schedulers were busy meanwhile.
on_dirty(Fun) ->
    erlang:system_flag(microstate_accounting, true),
    erlang:system_flag(microstate_accounting, reset),
    R = Fun(),
    Stats = erlang:statistics(microstate_accounting),
    erlang:system_flag(microstate_accounting, false),
    {lists:sum([V || #{type := dirty_cpu_scheduler, counters := C} <- Stats,
                     {K, V} <- maps:to_list(C), K =/= sleep]), R}.

wait_until(Pred, Ms) when Ms =< 0 -> {timeout, Pred()};
wait_until(Pred, Ms) ->
    case Pred() of
        true -> ok;
        false -> timer:sleep(10), wait_until(Pred, Ms - 10)
    end.

in_child(F, A) ->
    Dirs = lists:usort([filename:absname(filename:dirname(code:which(M)))
                        || M <- [?MODULE, arbo_tree]]),
    %% {ok, Pid} or {ok, Pid, Node}, as this VM is distributed or not
    Peer = element(2, peer:start(#{connection => standard_io,
                                   args => lists:append([["-pa", D] || D <- Dirs])})),
    try peer:call(Peer, ?MODULE, F, A, 280000)
    catch C:R -> {child_vm_failed, C, R}
    after catch peer:stop(Peer)
    end.

nul(P) -> arbo_bench_sched:nul(P).

scratch() -> arbo_bench_sched:scratch().
