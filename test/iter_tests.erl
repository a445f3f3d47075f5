%% Iterator stacks: per-process stacks, their repair when nodes leave the
%% tree (fixed cases and a model-based random sequence), their release when
%% the owning process dies, and the kept traps, run in a child VM.
-module(iter_tests).

-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, child_vm/2]).

%% Runs Fun in a fresh process and returns its result.
in_process(Fun) ->
    {Pid, Ref} = spawn_monitor(fun() -> exit({done, Fun()}) end),
    receive {'DOWN', Ref, process, Pid, {done, R}} -> R;
            {'DOWN', Ref, process, Pid, Other} -> error(Other)
    end.

push_all(T, Nodes) -> [ok = arbo:push_iter_node(T, N) || N <- Nodes], ok.

%% ---- one process's stack ------------------------------------------------------------------

fresh_process_test() ->
    with_table(fun(T) ->
        ?assertEqual({0, ok, 0}, in_process(fun() ->
            {arbo:get_iter_node(T), arbo:pop_iter_node(T), arbo:get_iter_node(T)}
        end))
    end).

push_pop_test() ->
    with_table(fun(T) ->
        in_process(fun() ->
            %% Nine pushes grow the stack once (8 entries, then 16).
            push_all(T, lists:seq(101, 109)),
            ?assertEqual(109, arbo:get_iter_node(T)),
            Tops = [begin ok = arbo:pop_iter_node(T), arbo:get_iter_node(T) end
                    || _ <- lists:seq(1, 8)],
            ?assertEqual(lists:seq(108, 101, -1), Tops),
            push_all(T, lists:seq(1, 40)),
            ?assertEqual(40, arbo:get_iter_node(T)),
            %% Other processes have stacks of their own.
            ?assertEqual(0, in_process(fun() -> arbo:get_iter_node(T) end)),
            ?assertEqual(777, in_process(fun() -> arbo:push_iter_node(T, 777),
                                                  arbo:get_iter_node(T) end)),
            ?assertEqual(40, arbo:get_iter_node(T))
        end)
    end).

bad_args_test() ->
    with_table(fun(T) ->
        ?assertEqual(badarg, reason(fun() -> arbo:push_iter_node(T, -1) end)),
        ?assertEqual(badarg, reason(fun() -> arbo:push_iter_node(T, x) end)),
        ?assertEqual(badarg, reason(fun() -> arbo:push_iter_node({arbo, x, 0, 0}, 1) end)),
        ?assertEqual(badarg, reason(fun() -> arbo:get_iter_node({x}) end)),
        ?assertEqual(badarg, reason(fun() -> arbo:pop_iter_node(1) end))
    end),
    T = arbo:new(),
    ok = arbo:close(T),
    [?assertEqual(arbo_closed, reason(F))
     || F <- [fun() -> arbo:push_iter_node(T, 1) end, fun() -> arbo:pop_iter_node(T) end,
              fun() -> arbo:get_iter_node(T) end]].

%% ---- repair when nodes leave the tree --------------------------------------------------------

repair_cases_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        U = arbo:add_hkey_dyn(T, R, 2, 3),
        [I1, I2, I3, I4, I5] = [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, 5)],
        [U1, U2, U3] = [arbo:add_hkey(T, U, K, 4) || K <- [30, 10, 20]],
        [C1, C2, C3] = [arbo:add_hkey(T, R, [4 | K], 3) || K <- [1, 2, 3]],
        Top = fun() -> arbo:get_iter_node(T) end,
        Pop = fun() -> ok = arbo:pop_iter_node(T) end,
        in_process(fun() ->
            %% The entry becomes the predecessor; everything above it null,
            %% while pos stays where it was.
            push_all(T, [R, L, I3, I4, I5]),
            true = arbo:del_hkey(T, L, {3}, 13),
            ?assertEqual(0, Top()),
            Pop(), ?assertEqual(0, Top()),
            Pop(), ?assertEqual(I2, Top()),
            %% Only the lowest entry holding the node is replaced.
            push_all(T, [I1, I4, I1]),
            true = arbo:del_hkey(T, L, {1}, 14),
            ?assertEqual(0, Top()),
            Pop(), Pop(), ?assertEqual(2, Top()),     % before the first child
            Pop(), ?assertEqual(I2, Top()),
            %% User-ordered lists: the predecessor in user order, or 2.
            push_all(T, [U3]),
            true = arbo:del_hkey(T, U, {20}, 13),
            ?assertEqual(U2, Top()),
            push_all(T, [U1]),
            true = arbo:del_hkey(T, U, {30}, 13),
            ?assertEqual(2, Top()),
            %% Containers: the previous child, by key or by namespace.
            push_all(T, [C2]),
            true = arbo:del_hkey(T, R, [4 | 2], 13),
            ?assertEqual(C1, Top()),
            Pop(),
            push_all(T, [C3]),
            true = arbo:del_ns(T, R, 4),
            ?assertEqual(U, Top()),
            %% A node that no stack holds leaves the stacks alone.
            true = arbo:del_hkey(T, L, {5}, 13),
            ?assertEqual(U, Top()),
            %% del_all repairs the first child's entries only, with 0.
            push_all(T, [L]),
            ok = arbo:del_all(T),
            ?assertEqual(0, Top())
        end),
        ?assertEqual(0, arbo:num_children(T, R))
    end).

%% A deletion by one process repairs the stacks of every process.
repair_other_process_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        [I1, I2, _] = [arbo:add_hkey(T, L, K, 4) || K <- [1, 2, 3]],
        Self = self(),
        Holder = spawn_link(fun() ->
            push_all(T, [L, I2]),
            Self ! pushed,
            receive check -> Self ! {top, arbo:get_iter_node(T)} end
        end),
        receive pushed -> ok end,
        true = arbo:del_hkey(T, L, {2}, 13),
        Holder ! check,
        ?assertEqual(I1, receive {top, N} -> N end)
    end).

%% Random pushes, pops and deletions of list instances against a model of
%% the stack: after each step the top must agree.
repair_model_test_() ->
    {timeout, 120, fun() ->
        [repair_model(Mode) || Mode <- [0, 1, 3, 0, 3]]
    end}.

repair_model(Mode) ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, Mode),
        %% 150 instances: a user-ordered list indexes them (from 128 on).
        Keys = shuffle(lists:seq(1, 150)),
        Live0 = [{K, arbo:add_hkey(T, L, K, 4)} || K <- Keys],
        %% In list order: by key when sorted, by insertion when user-ordered.
        Live = case Mode of 3 -> Live0; _ -> lists:sort(Live0) end,
        in_process(fun() -> steps(T, L, Live, [], 400) end)
    end).

steps(_T, _L, _Live, _Stack, 0) -> ok;
steps(T, L, Live, Stack, N) ->
    {Live2, Stack2} =
        case rand:uniform(10) of
            X when X =< 4, Live =/= [] ->
                {_, Node} = pick(Live),
                ok = arbo:push_iter_node(T, Node),
                {Live, Stack ++ [Node]};
            X when X =< 6, Stack =/= [] ->
                ok = arbo:pop_iter_node(T),
                {Live, lists:droplast(Stack)};
            _ when Live =/= [] ->
                {K, Node} = pick(Live),
                true = arbo:del_hkey(T, L, {K}, 13),
                {lists:keydelete(K, 1, Live), repair(Stack, Node, pred(Live, Node))};
            _ ->
                {Live, Stack}
        end,
    case Stack2 of
        [] -> ok;
        _ -> ?assertEqual(lists:last(Stack2), arbo:get_iter_node(T))
    end,
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

pick(L) -> lists:nth(rand:uniform(length(L)), L).

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].

%% ---- process death -----------------------------------------------------------------------------

%% Stacks die with their processes, wherever they sit in the table's list.
death_unlinks_test() ->
    with_table(fun(T) ->
        Self = self(),
        Holder = fun(Node) ->
                         spawn(fun() ->
                                       arbo:push_iter_node(T, Node),
                                       Self ! {pushed, self()},
                                       loop(T)
                               end)
                 end,
        [A, B, C] = Pids = [Holder(N) || N <- [11, 22, 33]],
        [receive {pushed, P} -> ok end || P <- Pids],
        Kill = fun(P) -> Ref = monitor(process, P), exit(P, kill),
                         receive {'DOWN', Ref, _, _, _} -> ok end end,
        Top = fun(P) -> P ! {top, self()}, receive {top, P, N} -> N end end,
        Kill(B),
        ?assertEqual({11, 33}, {Top(A), Top(C)}),
        Kill(C),
        ?assertEqual(11, Top(A)),
        Kill(A),
        %% A new process starts with nothing.
        ?assertEqual(0, in_process(fun() -> arbo:get_iter_node(T) end))
    end).

loop(T) ->
    receive {top, From} -> From ! {top, self(), arbo:get_iter_node(T)}, loop(T) end.

%% The memory of dead processes' stacks is given back: 100 processes each
%% hold 10,000 entries (80 KB), then die. The VM cannot report its memory
%% when its allocators are switched off (the sanitizer run): nothing to
%% measure there.
death_frees_memory_test_() ->
    case catch erlang:memory(system) of
        N when is_integer(N) -> death_frees_memory();
        _ -> []
    end.

death_frees_memory() ->
    {timeout, 120, fun() ->
        with_table(fun(T) ->
            Self = self(),
            Before = sys_mem(),
            Pids = [spawn(fun() ->
                                  push_all(T, lists:seq(1, 10000)),
                                  Self ! {pushed, self()},
                                  receive stop -> ok end
                          end) || _ <- lists:seq(1, 100)],
            [receive {pushed, P} -> ok end || P <- Pids],
            Held = sys_mem() - Before,
            Refs = [monitor(process, P) || P <- Pids],
            [P ! stop || P <- Pids],
            [receive {'DOWN', R, _, _, _} -> ok end || R <- Refs],
            %% The down callbacks run after the monitors fire; give them a moment.
            Left = settle(Before, 50),
            ?assert(Held > 7000000),
            ?assert(Left < 1500000),
            ?assertEqual(0, arbo:get_iter_node(T))
        end)
    end}.

sys_mem() -> erlang:garbage_collect(), erlang:memory(system).

settle(Before, 0) -> sys_mem() - Before;
settle(Before, N) ->
    case sys_mem() - Before of
        D when D < 1500000 -> D;
        _ -> timer:sleep(20), settle(Before, N - 1)
    end.

%% Closing frees every stack; a holder dying afterwards finds nothing to do.
close_test() ->
    T = arbo:new(),
    Self = self(),
    P = spawn(fun() -> arbo:push_iter_node(T, 5), Self ! pushed, receive stop -> ok end end),
    receive pushed -> ok end,
    ok = arbo:close(T),
    Ref = monitor(process, P),
    P ! stop,
    receive {'DOWN', Ref, _, _, _} -> ok end,
    ?assertEqual(arbo_closed, reason(fun() -> arbo:get_iter_node(T) end)).

%% ---- kept traps, in a child VM ------------------------------------------------------------------

-define(VM_SECS, 120).

%% A stalled child VM is ended by a watchdog of its own, started just before
%% the trap: a shell that kills the VM five seconds later. (An Erlang timer
%% could sit on the very scheduler the trap holds.)
-define(WATCHDOG, "open_port({spawn, \"sh -c \\\"sleep 5; kill -9 \" ++ os:getpid() ++ "
                  "\"\\\"\"}, []), ").

traps_test_() ->
    {timeout, 5 * ?VM_SECS, fun() ->
        Abort = fun(Expr, Text) ->
                        {Status, Out} = child_vm(Expr, ?VM_SECS),
                        ?assertNotEqual(0, Status),
                        ?assertNotEqual(137, Status),
                        ?assertNotEqual(nomatch, string:find(Out, Text))
                end,
        Stall = fun(Expr, Seen, Unseen) ->
                        {Status, Out} = child_vm(?WATCHDOG ++ Expr, ?VM_SECS),
                        ?assertEqual({137, Out}, {Status, Out}),
                        ?assertNotEqual(nomatch, string:find(Out, Seen)),
                        ?assertEqual(nomatch, string:find(Out, Unseen))
                end,
        New = "T = arbo:new(), R = arbo:get_root(T), ",
        %% Markers are written by the calling process itself, so that they
        %% are out before the trap can hold the scheduler that would print
        %% them otherwise.
        Mark = fun(M) -> "file:write_file(\"/dev/stderr\", \"" ++ M ++ "\\n\", [append]), " end,
        Abort(New ++ "arbo:push_iter_node(T, 0), halt(0).", "Assertion `node' failed"),
        Abort(New ++ "arbo:push_iter_node(T, R), arbo:pop_iter_node(T), arbo:pop_iter_node(T), "
              "halt(0).", "Assertion `0' failed"),
        Abort(New ++ "arbo:push_iter_node(T, R), arbo:pop_iter_node(T), arbo:get_iter_node(T), "
              "halt(0).", "Assertion `0' failed"),
        %% Filter operator 6 re-reads its own tuple for ever.
        Stall(New ++ "arbo:add_hkey_internal(T, R, 1), " ++ Mark("walking") ++
              "arbo:first_child_nif(T, R, {6}, 0), " ++ Mark("returned") ++ "halt(0).",
              "walking", "returned"),
        %% A bad stack term raises badarg and keeps the shared lock: readers
        %% go on, the next writer waits for ever.
        Stall(New ++ "try arbo:next_sibling_nif(T, R, {4, []}, 0, {[x], [y]}) "
              "catch error:{badarg, _, _} -> ok end, R = arbo:get_root(T), " ++ Mark("read") ++
              "arbo:add_hkey_internal(T, R, 1), " ++ Mark("written") ++ "halt(0).",
              "read", "written")
    end}.
