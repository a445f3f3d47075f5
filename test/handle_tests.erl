%% Table handles: creation figures, close, closed and malformed handles,
%% destructor and library counter, concurrent creation.
-module(handle_tests).
-include_lib("eunit/include/eunit.hrl").

-define(ROOT_MEM, 112).  % a T_GEN_NODE_MAX record

fresh_table_test() ->
    T = arbo:new(),
    ?assertEqual(0, arbo:get_size(T)),
    ?assertEqual(0, arbo:get_generation(T)),
    ?assertEqual(?ROOT_MEM, arbo:get_mem(T)),
    Root = arbo:get_root(T),
    ?assert(is_integer(Root) andalso Root > 0),
    ?assertEqual(ok, arbo:close(T)).

%% Every function that takes a handle, with arguments that pass their own
%% decoding, so that only the handle decides the outcome.
handle_calls(T, N) ->
    F = <<"/tmp/arbo_closed_test", 0>>,
    [{close, [T]}, {get_root, [T]}, {get_generation, [T]}, {get_size, [T]},
     {get_mem, [T]},
     {add_hkey_dyn, [T, N, 1, 0]}, {add_hkey_internal, [T, N, 1]},
     {add_hkey, [T, N, 1, 2]}, {del_hkey, [T, N, 1, 13]}, {get_hkey0, [T, N]},
     {del_ns, [T, N, 1]}, {rename_ns, [T, N, N, 1]}, {del_all, [T]},
     {num_children, [T, N]}, {num_children_with_flag, [T, N, 1]},
     {has_descendant_with_flags, [T, N, 1, 0]}, {has_child_with_flags, [T, N, 1]},
     {has_child_without_flags, [T, N, 1]}, {first_child_nif, [T, N, [], 0]},
     {next_sibling_nif, [T, N, [], 0]}, {next_sibling_nif, [T, N, [], 0, {[], []}]},
     {last_child, [T, N]}, {prev_sibling, [T, N, N]}, {get_child, [T, N, 1]},
     {find_child, [T, N, 1, 10]}, {find_next_nif, [T, N, 1, 39, 0, []]},
     {move_to, [T, N, N, 0]}, {move_rel_internal, [T, N, N, 0, N]},
     {child_index, [T, N, N]},
     {get_flags, [T, N]}, {set_flags, [T, N, 1]}, {set_flag, [T, N, 1]},
     {clr_flag, [T, N, 1]}, {get_type, [T, N]}, {get_attr_root, [T, N]},
     {do_get_attr, [T, N, 1]}, {do_set_attr, [T, N, 1, <<1>>]},
     {get_val_raw, [T, N]}, {set_val, [T, N, 18, <<1>>]}, {fprint_nif, [T, F]},
     {push_iter_node, [T, N]}, {pop_iter_node, [T]}, {get_iter_node, [T]},
     {load_nif, [T, F, -1, 0, undefined]}, {save_nif, [T, F, 0]}].

reason(Fun) ->
    try Fun() of R -> {returned, R}
    catch error:{Reason, File, Line} when is_list(File), is_integer(Line) -> Reason
    end.

closed_table_test_() ->
    T = arbo:new(),
    Root = arbo:get_root(T),
    ok = arbo:close(T),
    [{atom_to_list(F) ++ "/" ++ integer_to_list(length(A)),
      ?_assertEqual(arbo_closed, reason(fun() -> apply(arbo, F, A) end))}
     || {F, A} <- handle_calls(T, Root)].

%% A rename with an unknown key code answers false before the handle is read.
rename_instance_unknown_code_on_closed_test() ->
    T = arbo:new(),
    Root = arbo:get_root(T),
    ok = arbo:close(T),
    ?assertEqual(false, arbo:rename_instance0(T, Root, Root, <<>>, 7)).

malformed_handle_test_() ->
    T = arbo:new(),
    {arbo, Res, _, _} = T,
    Root = arbo:get_root(T),
    Bad = [{wrong_atom, {tree, Res, 0, x}},
           {arity_3, {arbo, Res, 0}},
           {arity_5, {arbo, Res, 0, x, y}},
           {not_a_resource, {arbo, make_ref(), 0, x}},
           {negative_options, {arbo, Res, -1, x}},
           {big_options, {arbo, Res, 1 bsl 32, x}},
           {not_a_tuple, [arbo, Res, 0, x]},
           {bare_resource, Res}],
    [{atom_to_list(Name) ++ " " ++ atom_to_list(F),
      ?_assertEqual(badarg, reason(fun() -> apply(arbo, F, A) end))}
     || {Name, H} <- Bad, {F, A} <- handle_calls(H, Root),
        %% decoded before the handle: a rename with code 7 never reads it
        F =/= rename_instance0].

bad_node_reference_test_() ->
    T = arbo:new(),
    [?_assertEqual(badarg, reason(fun() -> arbo:get_flags(T, N) end))
     || N <- [0, -1, 1 bsl 64, foo, 1.0, <<>>]].

%% The library counter counts nodes of every table; a table dropped without
%% close gives its nodes back through the destructor.
destructor_frees_dropped_table_test() ->
    Base = lib_mem(),
    Self = self(),
    {Pid, Ref} = spawn_monitor(fun() ->
        T = arbo:new(),
        Self ! {made, lib_mem()},
        receive go -> ok end,
        _ = arbo:get_size(T)
    end),
    receive {made, M} -> ?assertEqual(Base + ?ROOT_MEM, M) end,
    Pid ! go,
    receive {'DOWN', Ref, process, Pid, _} -> ok end,
    ?assertEqual(ok, wait_for(fun() -> lib_mem() =:= Base end, 200)).

close_frees_at_once_test() ->
    Base = lib_mem(),
    T = arbo:new(),
    ?assertEqual(Base + ?ROOT_MEM, lib_mem()),
    ok = arbo:close(T),
    ?assertEqual(Base, lib_mem()).

%% A fresh library in a fresh VM reports only its flags table.
alloc_info_fresh_library_test() ->
    Out = child_vm_eval("io:format(\"~w\", [arbo:alloc_info()])"),
    ?assertEqual("[512,{8,64,64}]", Out).

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

%% ---- helpers -------------------------------------------------------------

lib_mem() ->
    [Mem, _] = arbo:alloc_info(),
    Mem.

wait_for(_Pred, 0) -> timeout;
wait_for(Pred, N) ->
    erlang:garbage_collect(),
    case Pred() of
        true -> ok;
        false -> timer:sleep(10), wait_for(Pred, N - 1)
    end.

child_vm_eval(Expr) ->
    Ebin = filename:dirname(code:which(arbo)),
    Cmd = "erl -noshell -pa '" ++ Ebin ++ "' -eval '" ++ Expr ++ ", halt().'",
    string:trim(os:cmd(Cmd)).
