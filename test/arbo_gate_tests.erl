%% The gate between the tree API's readers and writers: a reader killed
%% inside it, one pass for many calls, callbacks that misbehave, which calls
%% move the epoch, a keeper killed in the middle of a write. (A tree closed
%% for every process and handle: arbo_hostile_api_tests; the owner's exit
%% and a killed keeper: arbo_app_tests.)
-module(arbo_gate_tests).
-include_lib("eunit/include/eunit.hrl").

-import(arbo_file_tests, [config/0]).
-import(arbo_test_util, [tmp/1]).

%% A process deleting the rules list; it exits with delete's answer.
writer(T) -> spawn_monitor(fun() -> exit(arbo_tree:delete(T, arbo_tree:root(T), {2, 7})) end).

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
        ?assertEqual(2, arbo_tree:reading(T, fun(RT2) -> arbo_tree:num_children(RT2, Eth1) end)),
        ?assertError({in_reading, _}, arbo_tree:delete(T, Eth1)),
        ?assertError({in_reading, _}, arbo_tree:clear(RT)),
        %% a writer of another process waits; this pass still reads
        Self ! {writer, writer(T)},
        receive after 100 -> ok end,
        ?assertEqual(9, length(arbo_tree:children(RT, Ifs))),
        spawn(fun() -> Self ! {elsewhere, catch arbo_tree:root(RT)} end),
        RT
    end),
    receive {writer, {W, WRef}} -> receive {'DOWN', WRef, process, W, Done} -> ?assertEqual(true, Done) end end,
    ?assertMatch({elsewhere, {'EXIT', {{reading_over, _}, _}}}, receive {elsewhere, _} = E -> E end),
    ?assertError({reading_over, _}, arbo_tree:root(Reader)),
    ok = arbo_tree:close(T).

%% Callbacks that raise, exit, throw or block leave the gate free: a writer
%% in another process gets through.
callbacks_test() ->
    T = config(),
    Ifs = arbo_tree:lookup(T, [1, 2]),
    Calls = [fun(F) -> arbo_tree:fold(T, Ifs, all, fun(C, A) -> F(C), A end, 0) end,
             fun(F) -> arbo_tree:reading(T, F) end],
    [catch Call(F) || F <- [fun(_) -> error(boom) end, fun(_) -> exit(boom) end, fun(_) -> throw(boom) end],
                      Call <- Calls],
    Self = self(),
    Blocked = spawn(fun() -> arbo_tree:fold(T, Ifs, all, fun(_, A) -> Self ! blocked, receive _ -> A end end, 0) end),
    receive blocked -> ok end,
    {W, WRef} = writer(T),
    receive {'DOWN', WRef, process, W, R} -> ?assertEqual(true, R) after 2000 -> error(writer_stuck) end,
    exit(Blocked, kill),
    ok = arbo_tree:close(T).

%% Which calls move the epoch, as the module documentation says.
epoch_moves_test() ->
    T = arbo_tree:new(),
    R = fun() -> arbo_tree:root(T) end,
    F = tmp("epoch"),
    Calls = [{additions, false, fun() -> arbo_tree:add_leaf(T, R(), {3, 3}),
                                         L = arbo_tree:add_list(T, R(), 1, user_order),
                                         [arbo_tree:add(T, L, {int, N}) || N <- [1, 2]] end},
             {set_value, false, fun() -> arbo_tree:set_value(T, arbo_tree:find(T, R(), {3, 3}), <<"v">>) end},
             {set_flags, false, fun() -> arbo_tree:set_flags(T, R(), 7) end},
             {set_attr, false, fun() -> arbo_tree:set_attr(T, R(), 1, {bool, true}) end},
             {move_to, false, fun() -> arbo_tree:move_to(T, arbo_tree:lookup(T, [1, {int, 2}]), 0) end},
             {rename_ns, false, fun() -> arbo_tree:rename_ns(T, arbo_tree:find(T, R(), {3, 3}), 4) end},
             {delete_nothing, false, fun() -> arbo_tree:delete(T, R(), 99) end},
             {save, false, fun() -> arbo_tree:save(T, F) end},
             {rename, true, fun() -> arbo_tree:rename(T, arbo_tree:lookup(T, [1, {int, 2}]), {int, 3}) end},
             {delete, true, fun() -> arbo_tree:delete(T, arbo_tree:lookup(T, [1, {int, 3}])) end},
             {delete_key, true, fun() -> arbo_tree:delete(T, R(), {4, 3}) end},
             {load, true, fun() -> arbo_tree:load(T, F) end},
             {delete_ns, true, fun() -> arbo_tree:delete_ns(T, R(), 4) end},
             {clear, true, fun() -> arbo_tree:clear(T) end}],
    Epoch = fun() -> maps:get(epoch, arbo_tree:info(T)) end,
    Wrong = [{Name, Moves} || {Name, Moves, Call} <- Calls, E0 <- [Epoch()], _ <- [Call()], (Epoch() =/= E0) =/= Moves],
    file:delete(F),
    ?assertEqual([], Wrong),
    ok = arbo_tree:close(T).

%% A keeper killed in the middle of a write (here a load it runs) leaves
%% no reader waiting for ever: they answer arbo_closed.
keeper_killed_inside_write_test_() ->
    {timeout, 60, fun() ->
        T = arbo_tree:new(),
        L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
        [arbo_tree:add(T, L, {int, N}) || N <- lists:seq(1, 200000)],
        ok = arbo_tree:save(T, F = tmp("keeper_write")),
        R = arbo_tree:root(T),
        {arbo, _, _, {arbo_gate, Keeper, _, Word}} = T,
        Self = self(),
        %% a reader with its word registered, which the writer bit reaches
        Reader = spawn(fun() -> A = arbo_tree:attach(T), arbo_tree:root(A),
                                receive go -> Self ! {self(), catch arbo_tree:num_children(A, R)} end end),
        spawn(fun() -> catch arbo_tree:load(T, F) end),
        %% the keeper is inside the load once the writer bit shows
        Inside = fun Wait() -> atomics:get(Word, 1) band (1 bsl 22) =/= 0 orelse (erlang:yield() andalso Wait()) end,
        Inside(),
        exit(Keeper, kill),
        Reader ! go,
        Got = receive {Reader, G} -> G after 20000 -> stuck end,
        file:delete(F),
        ?assertMatch({'EXIT', {{arbo_closed, _}, _}}, Got)
    end}.
