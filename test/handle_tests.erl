%% Table handles: creation figures, close, destructor and the library
%% counter. (Every native's handle check, closed and malformed, is swept by
%% arbo_fuzz_tests.)
-module(handle_tests).
-include_lib("eunit/include/eunit.hrl").

-import(arbo_test_util, [child_vm/2, lib_mem/0, expect/1]).

-define(ROOT_MEM, 112).  % a T_GEN_NODE_MAX record

new_table_test() ->
    T = arbo:new(),
    expect([{size, 0, arbo:get_size(T)}, {generation, 0, arbo:get_generation(T)}, {mem, ?ROOT_MEM, arbo:get_mem(T)},
            {root, true, arbo:get_root(T) > 0}]),
    ok = arbo:close(T).

%% The library counter counts nodes of every table: close gives them back at
%% once, a table dropped without close through the destructor, also when
%% many processes create and close tables at once.
close_and_destructor_test() ->
    Base = lib_mem(),
    T = arbo:new(),
    ?assertEqual(Base + ?ROOT_MEM, lib_mem()),
    ok = arbo:close(T),
    ?assertEqual(Base, lib_mem()),
    Self = self(),
    {Pid, Ref} = spawn_monitor(fun() -> T2 = arbo:new(), Self ! {made, lib_mem()},
                                        receive go -> arbo:get_size(T2) end end),
    receive {made, M} -> ?assertEqual(Base + ?ROOT_MEM, M) end,
    Pid ! go,
    receive {'DOWN', Ref, process, Pid, _} -> ok end,
    ?assertEqual(ok, wait_for(fun() -> lib_mem() =:= Base end, 200)),
    Pids = [spawn_monitor(fun() -> [ok = arbo:close(X) || X <- [arbo:new() || _ <- lists:seq(1, 20)]] end)
            || _ <- lists:seq(1, 16)],
    [receive {'DOWN', R, process, P, normal} -> ok end || {P, R} <- Pids],
    ?assertEqual(Base, lib_mem()).

%% A fresh library in a fresh VM reports only its flags table.
alloc_info_fresh_library_test() ->
    {0, Out} = child_vm("io:format(\"~w~n\", [arbo:alloc_info()]), halt().", 60),
    ?assertEqual("[512,{8,64,64}]", hd(string:split(Out, "\n"))).

wait_for(_Pred, 0) -> timeout;
wait_for(Pred, N) ->
    erlang:garbage_collect(),
    case Pred() of true -> ok; false -> timer:sleep(10), wait_for(Pred, N - 1) end.
