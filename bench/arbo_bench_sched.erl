%% How long each class of call keeps a normal scheduler busy, against the
%% nearest ETS operation in the same run.
%%
%% Trees of N list instances (N = 1,000,000; 5,000,000 with BENCH_SCALE=big;
%% 100,000 with ARBO_BENCH_QUICK=1). The base tree holds, under the root:
%% a sorted list in namespace 5 whose instances each carry a value leaf (flag
%% 2#100 on every 1000th instance), a user-ordered list (with its hash index),
%% and a sorted list whose instances are all inactive but the last. Calls that
%% destroy their tree run on a fresh copy loaded from a file saved once.
%%
%% For every call three figures, over three runs: its median time; the longest block of a normal
%% scheduler while it ran, as the VM's long_schedule monitor reports it
%% (threshold 1 ms: 0 means no process or port ran 1 ms or more without a
%% break); and the longest lateness of one high-priority ticker per
%% scheduler that sleeps 1 ms at a time (of these two, the least of the
%% three runs'). The ticker also sees what the
%% monitor cannot: the OS taking the scheduler's thread away, for a dirty
%% scheduler's thread or another program on a shared machine; its floor is
%% the timer's own granularity, about 1 ms, on both sides.
%%
%% run/1 is also the bounded smoke test's engine (test/arbo_sched_tests.erl):
%% each case checks its call's result, so a contract that moved fails there.
-module(arbo_bench_sched).
-export([rows/0, run/1, watch/1, build/1, scratch/0, nul/1]).

-define(FLAG, 2#100).
-define(HIDE, 16#100).

rows() ->
    N = case {os:getenv("BENCH_SCALE"), arbo_bench:quick()} of
            {"big", _} -> 5000000;
            {_, true} -> 100000;
            _ -> 1000000
        end,
    Tag = " (" ++ integer_to_list(N div 1000) ++ "k)",
    lists:append(
      [[#{row => Name ++ ": longest block" ++ Tag, arbo => AB, peer => PB, unit => "ms",
          peer_name => Peer, target => "arbo <= 1"},
        #{row => Name ++ ": ticker lateness" ++ Tag, arbo => AL, peer => PL, unit => "ms",
          peer_name => Peer, target => "-"},
        #{row => Name ++ ": call time" ++ Tag, arbo => AT, peer => PT, unit => "ms",
          peer_name => Peer, target => "-"}]
       || #{name := Name, peer_name := Peer, arbo := {AT, AB, AL}, peer := {PT, PB, PL}}
              <- run(N)]).

%% Every case at N instances: [#{name, peer_name, arbo => {CallMs, BlockMs},
%% peer => {CallMs, BlockMs}}]. Crashes when a call answers other than its
%% contract says.
run(N) ->
    Dir = scratch(),
    warm_up(Dir),
    File = filename:join(Dir, "base.arbo"),
    try
        {T, Nodes} = build(N),
        true = arbo:save_nif(T, nul(File), 0),
        E = ets_table(N),
        try cases(T, Nodes, N, File, E, Dir)
        after
            arbo:close(T),
            ets:delete(E)
        end
    after
        os:cmd("rm -rf " ++ Dir)
    end.

cases(T, #{root := Root, sorted := L, user := U, inactive := IL, last := Last,
           first_user := FU, last_inactive := LastIL}, N, File, E, Dir) ->
    TV = setelement(3, T, ?HIDE),
    Size = fun() -> ets:info(E, size) end,
    Select = fun() -> select_all(E) end,
    Delete = {fun() -> ets_filled(N) end, fun(S) -> true = ets:delete(S) end},
    EtsExit = fun() -> owner_exit(fun() -> ets_filled(N) end) end,
    Copy = fun() -> copy(File) end,
    Cases =
    [c("num_children, hiding inactive", "ets:info(T, size)",
       fun() -> 1 = arbo:num_children(TV, IL) end, Size),
     c("num_children_with_flag", "ets:select/3",
       fun() -> Want = N div 1000, Want = arbo:num_children_with_flag(T, L, ?FLAG) end, Select),
     c("has_child_with_flags (none has it)", "ets:select/3",
       fun() -> false = arbo:has_child_with_flags(T, L, 2#1000) end, Select),
     c("get_child, last of the list", "ets:select/3",
       fun() -> Last = arbo:get_child(T, L, N) end, Select),
     c("child_index, last of the list", "ets:select/3",
       fun() -> N = arbo:child_index(T, L, Last) end, Select),
     c("prev_sibling, last of a sorted list", "ets:select/3",
       fun() -> true = arbo:prev_sibling(T, L, Last) > 0 end, Select),
     c("move_to, far into a user-ordered list", "ets:select/3",
       fun() -> true = is_boolean(arbo:move_to(T, U, FU, N - 1)) end, Select),
     c("first_child_nif hiding a run of inactive instances", "ets:select/3",
       fun() -> LastIL = arbo:first_child_nif(TV, IL, [], 0) end, Select),
     c("has_descendant_with_flags, whole tree", "ets:select/3",
       fun() -> false = arbo:has_descendant_with_flags(T, Root, 2#1000, 0) end, Select),
     c_on("del_hkey of a big subtree", "ets:delete/1", Copy,
          fun(C) -> true = arbo:del_hkey(C, arbo:get_root(C), [5 | 1], 13), arbo:close(C) end,
          Delete),
     c_on("del_hkey of a user-ordered list", "ets:delete/1", Copy,
          fun(C) -> true = arbo:del_hkey(C, arbo:get_root(C), 2, 13), arbo:close(C) end, Delete),
     c_on("del_ns", "ets:delete/1", Copy,
          fun(C) -> true = arbo:del_ns(C, arbo:get_root(C), 5), arbo:close(C) end, Delete),
     c_on("del_all", "ets:delete/1", Copy,
          fun(C) -> ok = arbo:del_all(C), 0 = arbo:get_size(C), arbo:close(C) end, Delete),
     c_on("close", "ets:delete/1", Copy, fun(C) -> ok = arbo:close(C) end, Delete),
     c("GC of an unclosed tree (its last holder exits)", "ETS owner exit",
       {fun() -> {hd(arbo:alloc_info()), owner_exit(fun() -> copy(File) end)} end,
        fun({Mem, Go}) -> Go(), freed(Mem) end},
       {EtsExit, fun(Go) -> Go() end}),
     c("arbo_tree owner exit (the keeper closes)", "ETS owner exit",
       {fun() -> Self = self(),
                 Go = owner_exit(fun() -> S = safe_copy(File), Self ! {tree, S}, S end),
                 receive {tree, S} -> {S, Go} end end,
        fun({S, Go}) -> Go(), closed(S) end},
       {EtsExit, fun(Go) -> Go() end}),
     c("add_hkey, N into a user-ordered list", "ets:insert/2, N times",
       fun() -> fill_user(N) end,
       fun() -> E1 = ets:new(arbo_bench_sched, [set, public]), ets_insert_each(E1, 1, N),
                ets:delete(E1) end),
     c_on("arbo_tree:select with a filter", "ets:select/3", fun() -> safe_copy(File) end,
          fun(S) -> Want = N div 1000,
                    Want = length(arbo_tree:select(S, sorted_list(S), {3, 1000, [], ?FLAG})),
                    arbo_tree:close(S) end,
          Select),
     c("a writer while save_nif holds the lock", "ets:insert/2 during ets:tab2file/2",
       fun() -> during(fun() -> true = arbo:save_nif(T, nul(filename:join(Dir, "s")), 0) end,
                       fun() -> arbo:set_flag(T, Last, 2#10000) end) end,
       fun() -> during(fun() -> ok = ets:tab2file(E, filename:join(Dir, "e")) end,
                       fun() -> ets:insert(E, {0, 0, 0}) end) end),
     c_on("a reader while load_nif holds the lock", "ets:info/2 during ets:file2tab/1",
          fun() -> arbo:new() end,
          fun(C) -> during(fun() -> {true, _} = arbo:load_nif(C, nul(File), -1, 0, undefined) end,
                           fun() -> arbo:get_size(C) end),
                    arbo:close(C) end,
          fun() -> ok = ets:tab2file(E, filename:join(Dir, "e2")),
                   during(fun() -> {ok, E2} = ets:file2tab(filename:join(Dir, "e2")),
                                   ets:delete(E2) end,
                          fun() -> ets:info(E, size) end) end),
     c_on("fprint_nif, 100k nodes", "ets:tab2file/2, 100k rows",
          fun() -> small(min(N, 100000)) end,
          fun(C) -> ok = arbo:fprint_nif(C, nul(filename:join(Dir, "p"))), arbo:close(C) end,
          {fun() -> ets_filled(min(N, 100000)) end,
           fun(S) -> ok = ets:tab2file(S, filename:join(Dir, "pe")), ets:delete(S) end})],
    [Case() || Case <- Cases].

%% One case: the arbo call and its peer, each watched once. A side is a fun,
%% or {Setup, Fun} when Fun needs state made before the watch starts. The
%% answer is a fun: cases run in the order listed (some change the tree).
c(Name, Peer, ArboSide, PeerSide) ->
    fun() ->
            os:getenv("ARBO_SCHED_DEBUG") =:= "1" andalso io:format("~s~n", [Name]),
            #{name => Name, peer_name => Peer, arbo => measure(ArboSide),
              peer => measure(PeerSide)}
    end.

c_on(Name, Peer, Setup, ArboFun, PeerSide) -> c(Name, Peer, {Setup, ArboFun}, PeerSide).

%% Three runs: the median time, and the shortest of the three longest
%% blocks. A block the call causes shows in every run; the machine's own
%% noise (another program taking the core) rarely hits all three.
measure(Side) ->
    Runs = [once(Side) || _ <- [1, 2, 3]],
    {arbo_bench:median([Ms || {Ms, _, _} <- Runs]), lists:min([L || {_, L, _} <- Runs]),
     lists:min([T || {_, _, T} <- Runs])}.

once({Setup, Fun}) ->
    S = Setup(),
    once(fun() -> Fun(S) end);
once(Fun) ->
    erlang:garbage_collect(),
    {_, Ms, Long, Late} = watch(Fun),
    {Ms, Long, Late}.

%% Runs Fun/0 while watching every normal scheduler; answers {Result,
%% CallMs, LongScheduleMs, TickerLateMs}.
watch(Fun) ->
    Prev = erlang:system_monitor(self(), [{long_schedule, 1}]),
    Tickers = [ticker(I) || I <- lists:seq(1, erlang:system_info(schedulers_online))],
    timer:sleep(5),
    %% The call runs in a process of its own: the monitor does not report
    %% the process it reports to.
    Self = self(),
    T0 = erlang:monotonic_time(microsecond),
    {Pid, Ref} = spawn_monitor(fun() -> Self ! {result, self(), Fun()} end),
    R = receive {result, Pid, Result} -> Result;
                {'DOWN', Ref, process, Pid, Why} -> error({case_failed, Why})
        end,
    Ms = (erlang:monotonic_time(microsecond) - T0) / 1000,
    receive {'DOWN', Ref, process, Pid, _} -> ok end,
    timer:sleep(5),
    Late = [receive {late, P, L} -> L end || P <- [begin P ! stop, P end || P <- Tickers]],
    restore(Prev),
    {R, Ms, long_schedules(0), lists:max(Late) / 1000}.

restore(undefined) -> erlang:system_monitor(undefined, []);
restore({Pid, Opts}) -> erlang:system_monitor(Pid, Opts).

%% The longest report, leaving out the VM's code loading (a module loaded
%% for the first time by whatever process happens to need it).
long_schedules(Max) ->
    Loaders = [whereis(erl_prim_loader), whereis(code_server)],
    receive {monitor, Who, long_schedule, Info} ->
        os:getenv("ARBO_SCHED_DEBUG") =:= "1" andalso io:format("  long ~p ~p~n", [Who, Info]),
        case lists:member(Who, Loaders) of
            true -> long_schedules(Max);
            false -> long_schedules(max(Max, proplists:get_value(timeout, Info, 0)))
        end
    after 0 -> Max
    end.

%% A high-priority process bound to one scheduler, sleeping 1 ms at a time:
%% the longest lateness of its wake-ups, in microseconds, is the longest
%% stretch for which that scheduler ran something else.
ticker(I) ->
    Parent = self(),
    spawn_opt(fun() -> tick(Parent, erlang:monotonic_time(microsecond), 0) end,
              [{scheduler, I}, {priority, high}]).

tick(Parent, Prev, Max) ->
    receive stop -> Parent ! {late, self(), Max}
    after 1 ->
        Now = erlang:monotonic_time(microsecond),
        tick(Parent, Now, max(Max, Now - Prev - 1000))
    end.

%% Runs Long in another process and Short over and over in this one until
%% Long is done; answers how many times Short ran.
during(Long, Short) ->
    Self = self(),
    {Pid, Ref} = spawn_monitor(fun() -> Long(), Self ! {done, self()} end),
    Count = repeat(Pid, Short, 0),
    receive {'DOWN', Ref, process, Pid, normal} -> Count end.

repeat(Pid, Short, Count) ->
    receive {done, Pid} -> Count
    after 0 -> Short(), repeat(Pid, Short, Count + 1)
    end.

%% Fun runs in a process that then waits; the answer is a fun that lets it
%% exit and returns when the exit has been seen (its heap, and with it the
%% last reference to what Fun made, is gone).
owner_exit(Fun) ->
    Self = self(),
    Pid = spawn(fun() -> Keep = Fun(), Self ! {ready, self()},
                         receive go -> Keep =/= none end end),
    receive {ready, Pid} -> ok end,
    fun() ->
            Ref = monitor(process, Pid),
            Pid ! go,
            receive {'DOWN', Ref, process, Pid, normal} -> ok end
    end.

%% Waits until the library holds no more than Mem bytes: a dropped tree is
%% freed in the background.
freed(Mem) ->
    case hd(arbo:alloc_info()) =< Mem of
        true -> ok;
        false -> timer:sleep(1), freed(Mem)
    end.

%% Waits until the keeper has closed the tree.
closed(S) ->
    case catch arbo:get_size(S) of
        N when is_integer(N) -> timer:sleep(1), closed(S);
        {'EXIT', {{arbo_closed, _, _}, _}} -> ok
    end.

%% Code the cases use is loaded, and the disk log server the ETS file
%% functions use started, before anything is watched: loading a module or
%% starting a server is not the call's work.
warm_up(Dir) ->
    [{module, M} = code:ensure_loaded(M)
     || M <- [arbo_tree, arbo_tree_filter, arbo_tree_keys, arbo_gate, arbo_file, arbo_key,
              arbo_val]],
    {T, _} = build(10),
    File = filename:join(Dir, "warm"),
    true = arbo:save_nif(T, nul(File), 0),
    S = safe_copy(File),
    [_] = arbo_tree:select(S, sorted_list(S), {3, 1000, [], ?FLAG}) ++ [x],
    arbo_tree:close(S),
    arbo:close(T),
    E = ets_filled(10),
    ok = ets:tab2file(E, File ++ ".ets"),
    {ok, E2} = ets:file2tab(File ++ ".ets"),
    ets:delete(E),
    ets:delete(E2).

%% ---- trees ----------------------------------------------------------------------

build(N) ->
    T = arbo:new(),
    Root = arbo:get_root(T),
    L = arbo:add_hkey_dyn(T, Root, [5 | 1], 0),
    U = arbo:add_hkey_dyn(T, Root, 2, 3),
    IL = arbo:add_hkey_dyn(T, Root, 3, 0),
    Last = lists:foldl(
             fun(K, _) ->
                     I = arbo:add_hkey(T, L, K, 4),
                     Leaf = arbo:add_hkey(T, I, 1, 2),
                     ok = arbo:set_val(T, Leaf, 17, <<12, (K rem 1000):32>>),
                     K rem 1000 =:= 0 andalso arbo:set_flag(T, I, ?FLAG),
                     I
             end, 0, lists:seq(1, N)),
    FirstUser = arbo:add_hkey(T, U, 1, 4),
    _ = [arbo:add_hkey(T, U, K, 4) || K <- lists:seq(2, N)],
    LastIL = lists:foldl(fun(K, _) ->
                                 I = arbo:add_hkey(T, IL, K, 4),
                                 K < N andalso arbo:do_set_attr(T, I, 0, <<12, 1:32>>),
                                 I
                         end, 0, lists:seq(1, N)),
    {T, #{root => Root, sorted => L, user => U, inactive => IL, last => Last,
          first_user => FirstUser, last_inactive => LastIL}}.

copy(File) ->
    C = arbo:new(),
    {true, _} = arbo:load_nif(C, nul(File), -1, 0, undefined),
    C.

safe_copy(File) ->
    S = arbo_tree:new(),
    {ok, _} = arbo_tree:load(S, File),
    S.

sorted_list(S) ->
    arbo_tree:find(S, arbo_tree:root(S), {5, 1}).

%% A loop that builds no list: a process heap of a million elements would
%% put the VM's own garbage collection into the figures.
fill_user(N) ->
    T = arbo:new(),
    U = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 3),
    add_each(T, U, 1, N),
    N = arbo:num_children(T, U),
    arbo:close(T).

add_each(_T, _U, K, N) when K > N -> ok;
add_each(T, U, K, N) ->
    _ = arbo:add_hkey(T, U, K, 4),
    add_each(T, U, K + 1, N).

ets_insert_each(_E, K, N) when K > N -> ok;
ets_insert_each(E, K, N) ->
    true = ets:insert(E, {K, K rem 1000, 0}),
    ets_insert_each(E, K + 1, N).

small(N) ->
    T = arbo:new(),
    L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
    _ = [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, N)],
    T.

ets_table(N) -> ets_filled(N).

ets_filled(N) ->
    E = ets:new(arbo_bench_sched, [ordered_set, public]),
    ets:insert(E, [{K, K rem 1000, case K rem 1000 of 0 -> ?FLAG; _ -> 0 end}
                   || K <- lists:seq(1, N)]),
    E.

select_all(E) ->
    Ms = [{{'$1', '_', '$3'}, [{'=:=', {'band', '$3', ?FLAG}, ?FLAG}], ['$1']}],
    select_more(ets:select(E, Ms, 1000), 0).

select_more('$end_of_table', Count) -> Count;
select_more({Keys, Cont}, Count) -> select_more(ets:select(Cont), Count + length(Keys)).

nul(P) -> <<(unicode:characters_to_binary(P))/binary, 0>>.

scratch() ->
    D = filename:join(case os:getenv("TMPDIR") of false -> "/tmp"; X -> X end,
                      "arbo_bench_sched_" ++ os:getpid() ++ "_" ++
                          integer_to_list(erlang:unique_integer([positive]))),
    ok = filelib:ensure_path(D),
    D.
