%% Iterator stacks: per-process stacks, their repair when nodes leave the
%% tree (fixed cases and a model-based random sequence), their release when
%% the owning process dies, and the kept traps, run in a child VM.
-module(iter_tests).

-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-import(arbo_test_util, [with_table/1, reason/1, child_vm/2, shuffle/1, pick/1]).

%% Runs Fun in a fresh process and returns its result.
in_process(Fun) ->
    {Pid, Ref} = spawn_monitor(fun() -> exit({done, Fun()}) end),
    receive {'DOWN', Ref, process, Pid, Exit} -> {done, R} = Exit, R end.

push_all(T, Nodes) -> [ok = arbo:push_iter_node(T, N) || N <- Nodes], Nodes.

%% ---- repair when nodes leave the tree --------------------------------------------------------
%% Repair itself is followed by the model below and the store's own tests;
%% here a deletion by one process repairs another's stack, and del_all.
%% (Argument decoding and handles are swept by arbo_fuzz_tests.)

%% A stack never pushed reads 0 and pops quietly (growth past 8 entries and
%% per-process stacks are the model's and the holders' business).
repair_and_death_test() ->
    T = arbo:new(),
    ?assertEqual(0, arbo:get_iter_node(T)),
    ok = arbo:pop_iter_node(T),
    ?assertEqual(0, arbo:get_iter_node(T)),
    L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, ?ORDER_PLAIN),
    [I1, I2, _] = [arbo:add_hkey(T, L, K, ?KEY_INT) || K <- [1, 2, 3]],
    [A, B, C, D] = [holder(T, Ns) || Ns <- [[11], [22], [33], [L, I2]]],
    true = arbo:del_hkey(T, L, {2}, ?DEL_TAG),
    ?assertEqual(I1, top(D)),
    %% del_all repairs the first child's entries only, with 0.
    ok = arbo:del_all(T),
    ?assertEqual({0, 11}, {top(D), top(A)}),
    %% Stacks die with their processes, wherever they sit in the table's
    %% list; closing frees every stack, and a holder dying afterwards finds
    %% nothing.
    stop([B, D], kill),
    ?assertEqual({11, 33}, {top(A), top(C)}),
    stop([A], kill), ok = arbo:close(T), stop([C], stop),
    ?assertEqual(arbo_closed, reason(fun() -> arbo:get_iter_node(T) end)).

%% A process that pushes Nodes, then answers {top, From} until told to stop.
holder(T, Nodes) ->
    Self = self(),
    P = spawn(fun() -> push_all(T, Nodes), Self ! {pushed, self()}, serve(T) end),
    receive {pushed, P} -> P end.

serve(T) -> receive {top, From} -> From ! {top, self(), arbo:get_iter_node(T)}, serve(T); stop -> ok end.

top(P) -> P ! {top, self()}, receive {top, P, N} -> N end.

stop(Pids, How) ->
    [receive {'DOWN', R, _, _, _} -> ok end
     || P <- Pids, R <- [monitor(process, P)], _ <- [case How of kill -> exit(P, kill); stop -> P ! stop end]].

%% Random pushes, pops and deletions of list instances against a model of
%% the stack: after each step the top must agree.
repair_model_test_() ->
    {timeout, 120, fun() -> [repair_model(Mode) || Mode <- [0, 1, 3, 0, 3]] end}.

repair_model(Mode) ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, Mode),
        %% 150 instances: a user-ordered list indexes them (from 128 on).
        Live = [{K, arbo:add_hkey(T, L, K, ?KEY_INT)} || K <- shuffle(lists:seq(1, 150))],
        %% In list order: by key when sorted, by insertion when user-ordered.
        in_process(fun() -> steps(T, L, case Mode of 3 -> Live; _ -> lists:sort(Live) end, [], 400) end)
    end).

steps(_T, _L, _Live, _Stack, 0) -> ok;
steps(T, L, Live, Stack, N) ->
    {Live2, Stack2} =
        case {rand:uniform(10), Live, Stack} of
            {X, [_ | _], _} when X =< 4 -> {_, Node} = pick(Live), {Live, Stack ++ push_all(T, [Node])};
            {X, _, [_ | _]} when X =< 6 -> ok = arbo:pop_iter_node(T), {Live, lists:droplast(Stack)};
            {_, [_ | _], _} ->
                {K, Node} = pick(Live),
                true = arbo:del_hkey(T, L, {K}, ?DEL_TAG),
                {lists:keydelete(K, 1, Live), repair(Stack, Node, pred(Live, Node))};
            _ -> {Live, Stack}
        end,
    %% (an emptied stack must not be read: a kept trap)
    Stack2 =:= [] orelse ?assertEqual(lists:last(Stack2), arbo:get_iter_node(T)),
    ?assertEqual(length(Live2), arbo:num_children(T, L)),
    steps(T, L, Live2, Stack2, N - 1).

%% The predecessor in list order, or 2 for the first instance.
pred([{_, Node} | _], Node) -> 2;
pred([{_, P}, {_, Node} | _], Node) -> P;
pred([_ | Rest], Node) -> pred(Rest, Node).

%% The lowest entry holding Node becomes Repl, the entries above it 0.
repair(Stack, Node, Repl) ->
    case lists:splitwith(fun(E) -> E =/= Node end, Stack) of
        {_, []} -> Stack;
        {Below, [_ | Above]} -> Below ++ [Repl | [0 || _ <- Above]]
    end.

%% ---- process death -----------------------------------------------------------------------------

%% The memory of dead processes' stacks is given back: 100 processes each
%% hold 10,000 entries (80 KB), then die. The VM cannot report its memory
%% when its allocators are switched off (the sanitizer run): nothing to
%% measure there.
death_frees_memory_test_() ->
    [{timeout, 120, fun() -> with_table(fun death_frees_memory/1) end} || is_integer(catch erlang:memory(system))].

death_frees_memory(T) ->
    Mem = fun() -> erlang:garbage_collect(), erlang:memory(system) end,
    Pids = [holder(T, lists:seq(1, 10000)) || _ <- lists:seq(1, 100)],
    Peak = Mem(),
    stop(Pids, stop),
    %% Most of the 8 MB comes back (measured from the peak: what other
    %% suites free meanwhile can only add to it). The down callbacks run
    %% after the monitors fire; give them a moment.
    ?assert(lists:any(fun(_) -> timer:sleep(20), Peak - Mem() > 6500000 end, lists:seq(1, 50))).

%% ---- kept traps, in a child VM ------------------------------------------------------------------

-define(VM_SECS, 120).

%% A stalled child VM is ended by a watchdog of its own, started just before
%% the trap: a shell that kills the VM five seconds later. (An Erlang timer
%% could sit on the very scheduler the trap holds.)
-define(WATCHDOG, "open_port({spawn, \"sh -c \\\"sleep 5; kill -9 \" ++ os:getpid() ++ "
                  "\"\\\"\"}, []), ").

traps_test_() ->
    {timeout, 5 * ?VM_SECS, fun() ->
        New = "T = arbo:new(), R = arbo:get_root(T), ",
        %% Markers are written by the calling process itself, so that they
        %% are out before the trap can hold the scheduler that would print
        %% them otherwise.
        Mark = fun(M) -> "file:write_file(\"/dev/stderr\", \"" ++ M ++ "\\n\", [append]), " end,
        Emptied = "arbo:push_iter_node(T, R), arbo:pop_iter_node(T), ",
        %% {expression, exit status (any but 0 and 137 for an abort), text seen, text not seen}
        Aborted = fun(S) -> not lists:member(S, [0, 137]) end,
        Traps = [{"arbo:push_iter_node(T, 0), ", Aborted, "Assertion `node' failed", "returned"},
                 {Emptied ++ "arbo:pop_iter_node(T), ", Aborted, "Assertion `0' failed", "returned"},
                 {Emptied ++ "arbo:get_iter_node(T), ", Aborted, "Assertion `0' failed", "returned"},
                 %% Filter operator 6 re-reads its own tuple for ever. A bad
                 %% stack term raises badarg and keeps the shared lock:
                 %% readers go on, the next writer waits for ever.
                 {?WATCHDOG ++ "arbo:add_hkey_internal(T, R, 1), " ++ Mark("walking") ++ "arbo:first_child_nif(T, R, {6}, 0), ",
                  fun(S) -> S =:= 137 end, "walking", "returned"},
                 {?WATCHDOG ++ "try arbo:next_sibling_nif(T, R, {4, []}, 0, {[x], [y]}) catch error:{badarg, _, _} -> ok end, "
                  "R = arbo:get_root(T), " ++ Mark("read") ++ "arbo:add_hkey_internal(T, R, 1), ",
                  fun(S) -> S =:= 137 end, "read", "returned"}],
        [begin
             {Status, Out} = child_vm(New ++ Expr ++ Mark("returned") ++ "halt(0).", ?VM_SECS),
             ?assertEqual({true, true, false}, {StatusOk(Status), string:find(Out, Seen) =/= nomatch,
                                                string:find(Out, Unseen) =/= nomatch}, Out)
         end || {Expr, StatusOk, Seen, Unseen} <- Traps]
    end}.
