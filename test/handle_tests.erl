%% Table handles: creation figures, closed and malformed handles (one row
%% per way a term fails), close, destructor and library counter, concurrent
%% creation.
-module(handle_tests).
-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [reason/1, child_vm/2]).
-import(arbo_tree_util, [lib_mem/0]).

-define(ROOT_MEM, 112).  % a T_GEN_NODE_MAX record

fresh_table_test() ->
    T = arbo:new(),
    ?assertEqual({0, 0, ?ROOT_MEM, true}, {arbo:get_size(T), arbo:get_generation(T), arbo:get_mem(T),
                                           arbo:get_root(T) > 0}),
    ?assertEqual(ok, arbo:close(T)).

%% Every function that takes a handle, with arguments that pass their own
%% decoding, so that only the handle decides the outcome.
handle_calls(T, N) ->
    F = <<"/tmp/arbo_closed_test", 0>>,
    [{close, [T]}, {get_root, [T]}, {get_generation, [T]}, {get_size, [T]}, {get_mem, [T]},
     {add_hkey_dyn, [T, N, 1, 0]}, {add_hkey_internal, [T, N, 1]}, {add_hkey, [T, N, 1, 2]},
     {del_hkey, [T, N, 1, 13]}, {get_hkey0, [T, N]}, {del_ns, [T, N, 1]}, {rename_ns, [T, N, N, 1]},
     {del_all, [T]}, {num_children, [T, N]}, {num_children_with_flag, [T, N, 1]},
     {has_descendant_with_flags, [T, N, 1, 0]}, {has_child_with_flags, [T, N, 1]},
     {has_child_without_flags, [T, N, 1]}, {first_child_nif, [T, N, [], 0]},
     {next_sibling_nif, [T, N, [], 0]}, {next_sibling_nif, [T, N, [], 0, {[], []}]},
     {last_child, [T, N]}, {prev_sibling, [T, N, N]}, {get_child, [T, N, 1]},
     {find_child, [T, N, 1, 10]}, {find_next_nif, [T, N, 1, 39, 0, []]}, {move_to, [T, N, N, 0]},
     {move_rel_internal, [T, N, N, 0, N]}, {child_index, [T, N, N]}, {get_flags, [T, N]},
     {set_flags, [T, N, 1]}, {set_flag, [T, N, 1]}, {clr_flag, [T, N, 1]}, {get_type, [T, N]},
     {get_attr_root, [T, N]}, {do_get_attr, [T, N, 1]}, {do_set_attr, [T, N, 1, <<1>>]},
     {get_val_raw, [T, N]}, {set_val, [T, N, 18, <<1>>]}, {fprint_nif, [T, F]},
     {push_iter_node, [T, N]}, {pop_iter_node, [T]}, {get_iter_node, [T]},
     {load_nif, [T, F, -1, 0, undefined]}, {save_nif, [T, F, 0]}].

%% A closed handle is arbo_closed everywhere; a malformed one (one row per
%% way a term fails to be a handle) is badarg.
bad_handles_test_() ->
    T = arbo:new(),
    {arbo, Res, _, _} = T,
    Root = arbo:get_root(T),
    ok = arbo:close(T),
    Bad = [{arbo_closed, T}, {badarg, {tree, Res, 0, x}}, {badarg, {arbo, Res, 0}},
           {badarg, {arbo, make_ref(), 0, x}}, {badarg, {arbo, Res, 1 bsl 32, x}}, {badarg, Res}],
    [?_assertEqual({F, H, Want}, {F, H, reason(fun() -> apply(arbo, F, A) end)})
     || {Want, H} <- Bad, {F, A} <- handle_calls(H, Root)].

%% The library counter counts nodes of every table: close gives them back at
%% once, a table dropped without close through the destructor.
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
    ?assertEqual(ok, wait_for(fun() -> lib_mem() =:= Base end, 200)).

%% A fresh library in a fresh VM reports only its flags table.
alloc_info_fresh_library_test() ->
    {0, Out} = child_vm("io:format(\"~w~n\", [arbo:alloc_info()]), halt().", 60),
    ?assertEqual("[512,{8,64,64}]", hd(string:split(Out, "\n"))).

many_processes_create_and_close_test() ->
    Base = lib_mem(),
    Self = self(),
    Pids = [spawn_link(fun() ->
                Ts = [arbo:new() || _ <- lists:seq(1, 20)],
                Sizes = [arbo:get_size(T) || T <- Ts],
                [ok = arbo:close(T) || T <- Ts],
                Self ! {done, self(), lists:sum(Sizes)}
            end) || _ <- lists:seq(1, 16)],
    [receive {done, P, S} -> ?assertEqual(0, S) end || P <- Pids],
    ?assertEqual(Base, lib_mem()).

wait_for(_Pred, 0) -> timeout;
wait_for(Pred, N) ->
    erlang:garbage_collect(),
    case Pred() of
        true -> ok;
        false -> timer:sleep(10), wait_for(Pred, N - 1)
    end.
