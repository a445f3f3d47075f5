%% The gate between the tree API's readers and writers: a reader killed
%% inside it, the owner's exit, one pass for many calls.
-module(arbo_gate_tests).
-include_lib("eunit/include/eunit.hrl").

-import(arbo_tree_tests, [config/0]).

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
