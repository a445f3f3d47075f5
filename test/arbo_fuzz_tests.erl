%% Malformed input at every native function and random terms at every public
%% function, in a child VM so that an abort is reported rather than fatal.
%%
%% Each native has a row: the kind of every argument (what its decoder
%% accepts) and the steps it takes in order (decode an argument, decode the
%% handle, check a node's type, read a node, branch on a decoded code). The
%% model walks the steps over a call's arguments and names the outcome: the
%% exception of the first refusing step, a fixed answer, or a call that would
%% reach the store or read a made-up node. The first two are run and must
%% match exactly; of the rest only reading natives with edge-of-range values
%% and their own nodes are run (they must answer). So the fuzz never feeds
%% the kept traps (corrupt keys, filter loops, pushing node 0, empty iterator
%% stacks, a bad resume stack) and never changes the tree it fuzzes.
-module(arbo_fuzz_tests).
-include_lib("eunit/include/eunit.hrl").

-export([figures/1, setup/0, batch/3, api_sweep/1, finish/0]).

-define(STALL_MS, 20000).

fuzz_test_() ->
    {timeout, 900, fun() -> figures(quick) end}.

%% ---- driver (parent VM) -----------------------------------------------------

figures(Scale) ->
    T0 = erlang:monotonic_time(millisecond),
    Peer = start_child(),
    try
        ok = peer:call(Peer, ?MODULE, setup, [], 60000),
        Stats = lists:foldl(
                  fun({F, Kinds, _, _}, Acc) ->
                          Id = {F, length(Kinds)},
                          S = child_call(Peer, batch, [F, length(Kinds), Scale], Id, 600000),
                          ?assertEqual({Id, []}, {Id, maps:get(bad, S)}),
                          ?assert(maps:get(calls, S) > 0),
                          merge(S, Acc)
                  end, #{}, natives()),
        {ApiCalls, Funs, AllFuns} = child_call(Peer, api_sweep, [Scale], api_sweep, 600000),
        ?assertEqual(AllFuns, Funs),
        %% the tables still take a writer after all of it, and close cleanly
        ?assertEqual(ok, child_call(Peer, finish, [], finish, 60000)),
        ?assert(is_integer(peer:call(Peer, erlang, system_info, [process_count], 10000))),
        #{calls := Calls, one := One, random := Rand, skipped := Skipped, by := By} = Stats,
        {Edge, Malformed} = maps:take("edge values answered", By),
        Covered = length(lists:usort([{F, length(K)} || {F, K, _, _} <- natives()])),
        [{"natives covered", fmt("~b/49", [Covered])},
         {"malformed calls tried", fmt("~b (~b with one bad argument, ~b random combinations)",
                                       [Calls - Edge, One, Rand])},
         {"malformed calls by outcome",
          string:join([fmt("~s ~b", [K, V]) || {K, V} <- lists:sort(maps:to_list(Malformed))],
                      ", ")},
         {"edge-of-range values at reading natives, answered", integer_to_list(Edge)},
         {"combinations not run (valid, or reading a made-up node)", integer_to_list(Skipped)},
         {"unexpected outcomes", "0"},
         {"public API random calls tried",
          fmt("~b over ~b/~b exported functions", [ApiCalls, Funs, AllFuns])},
         {"VM alive", "yes (tables take a writer afterwards and close cleanly)"},
         {"duration", fmt("~.1f s", [(erlang:monotonic_time(millisecond) - T0) / 1000])}]
    after
        catch peer:stop(Peer)
    end.

fmt(F, A) -> lists:flatten(io_lib:format(F, A)).

start_child() ->
    Dirs = lists:usort([filename:absname(filename:dirname(code:which(M)))
                        || M <- [?MODULE, arbo, arbo_safety_tests, proper]]),
    case peer:start_link(#{connection => standard_io,
                           args => lists:append([["-pa", D] || D <- Dirs])}) of
        {ok, P} -> P;
        {ok, P, _} -> P
    end.

%% A child that dies or stalls names the batch it was running.
child_call(Peer, F, Args, What, Timeout) ->
    try peer:call(Peer, ?MODULE, F, Args, Timeout)
    catch C:R -> error({child_vm_failed, What, C, R})
    end.

merge(S, Acc) ->
    Sum = fun(_, X, Y) -> X + Y end,
    maps:fold(fun(by, V, A) -> A#{by => maps:merge_with(Sum, V, maps:get(by, A, #{}))};
                 (bad, _, A) -> A;
                 (K, V, A) -> A#{K => V + maps:get(K, A, 0)}
              end, Acc, S).

%% ---- the natives ------------------------------------------------------------
%% {Name, Kinds, ValidVariants, Steps}. Kinds: handle, node, u32, i32, u64,
%% i64, bin, path, htag, pair, key (a cmp_keys key), code (u32 with unknown
%% codes among the candidates), any / fixed (never replaced). Steps, in the
%% native's own order:
%%   {P, Kind}      argument P must decode, else badarg
%%   handle         argument 1: badarg when malformed, arbo_closed when closed
%%   {type, P}      a node whose type bits are 0 raises invalid_node_type
%%   {read, P}      the node is read (only real nodes may get here)
%%   {refuse, P, Pred, Out}  the node is read; Pred(NodeInfo) gives Out
%%   {branch, P, Fun}        continue with Fun(argument P)
%%   {raise, R} / {answer, V} / store (a valid call: never run)
natives() ->
    N = [{2, node}], H = [handle], Tp = [{type, 2}, store],
    [{new_arbo, [], [[]], [{check, fun is_reference/1}]},
     {close, [handle], [[t]], H ++ [store]},
     {get_root, [handle], [[t]], H ++ [store]},
     {get_generation, [handle], [[t]], H ++ [store]},
     {get_size, [handle], [[t]], H ++ [store]},
     {get_mem, [handle], [[t]], H ++ [store]},
     {alloc_info, [], [[]],
      [{check, fun([M, {8, C, F}]) -> M > 0 andalso C >= F; (_) -> false end}]},
     {add_hkey_dyn, [handle, node, htag, u32], [[t, r, 9, 0]],
      N ++ [{3, htag}, {4, u32}] ++ H ++ Tp},
     {add_hkey_internal, [handle, node, u32], [[t, r, 9]],
      N ++ [{3, u32}] ++ H ++ [{refuse, 2, fun is_dyn/1, {raise, badarg}} | Tp]},
     {add_hkey, [handle, node, any, code],
      [[t, r, 1, 2], [t, u, 5, 4], [t, l, kb, 5], [t, u, {1, 5}, 27]],
      N ++ [{4, u32}] ++ H ++ [{branch, 4, fun add_code/1}]},
     {del_hkey, [handle, node, any, code], [[t, r, 77, 13], [t, l, kb, 15], [t, u, {1, 77}, 29]],
      N ++ [{4, u32}] ++ H ++ [{branch, 4, fun del_code/1}]},
     {get_hkey0, [handle, node], [[t, g]], N ++ H ++ Tp},
     {del_ns, [handle, node, u32], [[t, r, 99]], N ++ [{3, u32}] ++ H ++ Tp},
     {rename_ns, [handle, node, node, u32], [[t, r, u, 1]],
      N ++ [{3, node}, {4, u32}] ++ H ++ [{read, 3}, {read, 2}, store]},
     {rename_instance0, [handle, node, node, any, code],
      [[t, l, li, kb, 5], [t, u, i, {1, 9}, 27], [t, u, i, 9, 4]],
      N ++ [{3, node}, {5, u32}, {branch, 5, fun rename_code/1}]},
     {del_all, [handle], [[t]], H ++ [store]},
     {num_children, [handle, node], [[t, r]], N ++ H ++ Tp},
     {num_children_with_flag, [handle, node, u64], [[t, r, 1]], N ++ [{3, u64}] ++ H ++ Tp},
     {has_descendant_with_flags, [handle, node, u64, u32], [[t, r, 1, 0]],
      N ++ [{3, u64}, {4, u32}] ++ H ++ Tp},
     {has_child_with_flags, [handle, node, u64], [[t, r, 1]], N ++ [{3, u64}] ++ H ++ Tp},
     {has_child_without_flags, [handle, node, u64], [[t, r, 1]], N ++ [{3, u64}] ++ H ++ Tp},
     {first_child_nif, [handle, node, any, i32], [[t, r, [], 0]], N ++ [{4, i32}] ++ H ++ Tp},
     {next_sibling_nif, [handle, node, any, i32], [[t, c, [], 0]], N ++ [{4, i32}] ++ H ++ Tp},
     {next_sibling_nif, [handle, node, any, i32, fixed], [[t, c, [], 0, {[], []}]],
      N ++ [{4, i32}] ++ H ++ Tp},
     {last_child, [handle, node], [[t, r]], N ++ H ++ Tp},
     {prev_sibling, [handle, node, node], [[t, r, c]],
      N ++ [{3, node}] ++ H ++ [{read, 2}, {read, 3}, store]},
     {get_child, [handle, node, u32], [[t, r, 1]], N ++ [{3, u32}] ++ H ++ Tp},
     {find_child, [handle, node, any, code], [[t, r, 1, 10], [t, l, kb, 12], [t, u, {1, 5}, 28]],
      N ++ [{4, u32}] ++ H ++ [{type, 2}, {branch, 4, fun find_code/1}]},
     {find_next_nif, [handle, node, any, code, u32, any],
      [[t, u, 1, 39, 0, []], [t, l, kb, 41, 1, []]],
      N ++ [{4, u32}, {5, u32}] ++ H ++ [{type, 2}, {branch, 4, fun next_code/1}]},
     {move_to, [handle, node, node, i32], [[t, u, i, 1]],
      N ++ [{3, node}, {4, i32}] ++ H ++
          [{refuse, 2, fun not_uo/1, {raise, badarg}}, {read, 3}, store]},
     {move_rel_internal, [handle, node, node, i32, node], [[t, u, i, 0, j]],
      N ++ [{3, node}, {4, i32}, {5, node}] ++ H ++ [{read, 2}, {read, 3}, {read, 5}, store]},
     {child_index, [handle, node, u64], [[t, r, c]],
      N ++ [{3, u64}] ++ H ++ [{branch, 3, fun(0) -> [{answer, 0}]; (_) -> Tp end}]},
     {get_flags, [handle, node], [[t, g]], N ++ H ++ Tp},
     {set_flags, [handle, node, u64], [[t, g, 0]], N ++ [{3, u64}] ++ H ++ Tp},
     {set_flag, [handle, node, u64], [[t, g, 0]], N ++ [{3, u64}] ++ H ++ Tp},
     {clr_flag, [handle, node, u64], [[t, g, 0]], N ++ [{3, u64}] ++ H ++ Tp},
     {get_type, [handle, node], [[t, g]], N ++ H ++ Tp},
     {get_attr_root, [handle, node], [[t, g]], N ++ H ++ Tp},
     {do_get_attr, [handle, node, u32], [[t, g, 1]], N ++ [{3, u32}] ++ H ++ Tp},
     {do_set_attr, [handle, node, u32, bin], [[t, g, 1, <<1>>]],
      N ++ [{3, u32}, {4, bin}] ++ H ++ Tp},
     {get_val_raw, [handle, node], [[t, g]], N ++ H ++ Tp},
     {set_val, [handle, node, u32, bin], [[t, g, 18, <<1>>]], N ++ [{3, u32}, {4, bin}] ++ H ++ Tp},
     {fprint_nif, [handle, path], [[t, path]], [{2, path}] ++ H ++ [store]},
     {cmp_keys_nif, [key, i32, key, i32, i32],
      [[kb, 5, kb2, 5, 0], [kb, 5, 7, 4, 1], [7, 4, {1, 2}, 27, 2], [<<"x">>, 6, kb, 5, 0]],
      [{2, i32}, {4, i32}, {5, i32}, {branch, [2, 4], fun cmp_kinds/1}]},
     {push_iter_node, [handle, u64], [[t, g]],     % pushing 0 is a kept trap: never run
      [{2, u64}] ++ H ++ [{branch, 2, fun(0) -> [unsafe]; (_) -> [store] end}]},
     {pop_iter_node, [handle], [[t]], H ++ [store]},
     {get_iter_node, [handle], [[t]], H ++ [store]},
     {load_nif, [handle, path, i64, i32, any], [[t, path, -1, 0, undefined]],
      [{2, path}, {3, i64}, {4, i32}] ++ H ++ [store]},
     {save_nif, [handle, path, u64], [[t, path, 0]], [{2, path}, {3, u64}] ++ H ++ [store]}].

add_code(C) when C =:= 2; C =:= 3 -> [{type, 2}, store];            % key not checked
add_code(4) -> [{3, i32}, {type, 2}, store];
add_code(C) when C =:= 5; C =:= 6 -> [{3, bin}, {read, 2}, store];  % no type check
add_code(27) -> [{3, pair}, {type, 2}, store];
add_code(_) -> [{raise, badarg}].

%% Byte keys live only in lists: another parent answers before the key is read.
del_code(C) when C =:= 13; C =:= 14 -> [{type, 2}, store];
del_code(C) when C =:= 15; C =:= 52 ->
    [{refuse, 2, fun not_dyn/1, {answer, false}}, {3, bin}, store];
del_code(29) -> [{3, pair}, {type, 2}, store];
del_code(_) -> [{raise, badarg}].

%% The list is read before the key and the handle; an unknown code reads nothing.
rename_code(C) when C =:= 5; C =:= 6; C =:= 27; C =:= 4 ->
    Key = maps:get(C, #{5 => bin, 6 => bin, 27 => pair, 4 => htag}),
    [{refuse, 2, fun not_dyn/1, {raise, badarg}}, {4, Key}, handle, store];
rename_code(_) -> [{answer, false}].

find_code(C) when C =:= 10; C =:= 11; C =:= 28 -> [store];
find_code(C) when C =:= 12; C =:= 53 -> [{refuse, 2, fun not_dyn/1, {answer, 0}}, {3, bin}, store];
find_code(_) -> [{answer, 0}].

next_code(C) when C >= 39, C =< 41; C =:= 54 -> [store];
next_code(_) -> [{answer, 0}].

%% Byte kinds (5, 6) sort before the others without reading either key.
cmp_kinds([A, B]) ->
    case {lists:member(A, [5, 6]), lists:member(B, [5, 6])} of
        {true, true} -> [{1, bin}, {3, bin}, store];
        {true, false} -> [{answer, -1}];
        {false, true} -> [{answer, 1}];
        {false, false} -> [{1, int_key(A)}, {3, int_key(B)}, store]
    end.
int_key(27) -> key27;
int_key(_) -> i32.

%% ---- the model --------------------------------------------------------------

outcome([], _, _) -> store;
outcome([{P, Kind} | Rest], A, E) when is_integer(P) ->
    case decodes(Kind, lists:nth(P, A)) of
        true -> outcome(Rest, A, E);
        false -> {raise, badarg}
    end;
outcome([handle | Rest], A, #{t := T, closed := Closed} = E) ->
    case handle_state(hd(A), T, Closed) of
        open -> outcome(Rest, A, E);
        closed -> {raise, arbo_closed};
        bad -> {raise, badarg}
    end;
outcome([{type, P} | Rest], A, E) ->
    case node_info(lists:nth(P, A), E) of
        type0 -> {raise, invalid_node_type};
        made_up -> unsafe;
        _ -> outcome(Rest, A, E)
    end;
outcome([{read, P} | Rest], A, E) ->
    case node_info(lists:nth(P, A), E) of
        {real, _} -> outcome(Rest, A, E);
        _ -> unsafe
    end;
outcome([{refuse, P, Pred, Out} | Rest], A, E) ->
    case node_info(lists:nth(P, A), E) of
        made_up -> unsafe;
        I -> case Pred(I) of true -> Out; false -> outcome(Rest, A, E) end
    end;
outcome([{branch, Ps, Fun} | Rest], A, E) when is_list(Ps) ->
    outcome(Fun([lists:nth(P, A) || P <- Ps]) ++ Rest, A, E);
outcome([{branch, P, Fun} | Rest], A, E) ->
    outcome(Fun(lists:nth(P, A)) ++ Rest, A, E);
outcome([Out | _], _, _) -> Out.

decodes(u32, X) -> is_integer(X) andalso X >= 0 andalso X < 1 bsl 32;
decodes(i32, X) -> is_integer(X) andalso X >= -(1 bsl 31) andalso X < 1 bsl 31;
decodes(u64, X) -> is_integer(X) andalso X >= 0 andalso X < 1 bsl 64;
decodes(i64, X) -> is_integer(X) andalso X >= -(1 bsl 63) andalso X < 1 bsl 63;
decodes(node, X) -> decodes(u64, X) andalso X =/= 0;
decodes(bin, X) -> is_binary(X);
decodes(path, X) -> is_binary(X) andalso nul_path(X);
decodes(htag, {I}) -> decodes(i32, I);
decodes(htag, X) when is_tuple(X) -> false;
decodes(htag, [Ns | T]) -> decodes(u32, Ns) andalso decodes(u32, T);
decodes(htag, X) -> decodes(u32, X);
decodes(pair, {A, B}) -> decodes(i32, A) andalso decodes(i32, B);
decodes(pair, _) -> false;
decodes(key27, {_, B}) -> decodes(i32, B);
decodes(key27, _) -> false.

%% A NUL, and only NULs after the first one except the very last byte.
nul_path(B) ->
    case binary:match(B, <<0>>) of
        nomatch -> false;
        {P, 1} ->
            Between = max(0, byte_size(B) - P - 2),
            binary:part(B, P + 1, Between) =:= binary:copy(<<0>>, Between)
    end.

%% The decode order of the handle: tuple of 4, the atom, a table resource,
%% unsigned 32-bit options; then a closed table.
handle_state({arbo, Res, O, _}, {arbo, Res, _, _}, _) -> opts(O, open);
handle_state({arbo, Res, O, _}, _, {arbo, Res, _, _}) -> opts(O, closed);
handle_state(_, _, _) -> bad.
opts(O, State) -> case decodes(u32, O) of true -> State; false -> bad end.

node_info(X, #{nodes := Nodes, n0 := N0}) ->
    case Nodes of
        #{X := I} -> {real, I};
        _ when X =:= N0 -> type0;
        _ -> made_up
    end.

is_dyn({real, {dyn, _}}) -> true;
is_dyn(_) -> false.
not_dyn(I) -> not is_dyn(I).
not_uo(I) -> I =/= {real, {dyn, 3}}.

%% ---- candidates ---------------------------------------------------------------

%% Terms that fail the decoder of Kind (or, for nodes, decode to something
%% that is not a live node of the right sort).
candidates(handle, N, #{t := {arbo, Res, _, _} = T, closed := {arbo, CRes, _, _} = Closed,
                        wrong := W}) ->
    Fixed = [Closed, {tree, Res, 0, x}, {arbo, Res, 0}, {arbo, Res, 0, x, y}, {arbo, make_ref(), 0, x},
             {arbo, W, 0, x}, {arbo, Res, -1, x}, {arbo, Res, 1 bsl 32, x}, {arbo, Res, 1.0, x},
             {arbo, CRes, -1, x}, {"arbo", Res, 0, x}, Res, W],
    take(N, Fixed, fun weird/0, fun(X) -> handle_state(X, T, Closed) =:= open end);
%% Node references that decode: the type-0 view, made-up ones, live nodes of
%% every sort (refused where the sort is wrong).
candidates(node, N, #{nodes := Nodes, n0 := N0, made_up := M}) ->
    [N0 | M] ++ maps:keys(Nodes) ++ take(N, [], fun weird/0, node);
candidates(code, N, _) ->
    [0, 1, 2, 7, 13, 15, 16, 26, 30, 42, 52, 99, 16#FFFFFFFF] ++ take(N, [], fun weird/0, u32);
candidates(key, N, _) ->
    take(N, [foo, 1.5, [1], <<1:3>>, {1, 1 bsl 31}, {1}], fun weird/0,
         fun(X) -> is_binary(X) orelse is_integer(X) orelse decodes(key27, X) end);
candidates(path, N, _) ->
    Near = [<<>>, <<"abc">>, <<"a", 0, "b", 0>>, <<"a", 0, 0, "b", "c">>, "/tmp/x\0"],
    take(N, Near, fun weird/0, path);
candidates(Kind, N, _) ->
    Near = #{htag => [{1, 2}, [3, 7], [-1 | 5], {1 bsl 31}, [1 | 1 bsl 32], {}],
             pair => [{1}, {1, 2, 3}, {a, 1}, {1, 1 bsl 31}, [1 | 2]],
             bin => [<<1:3>>, "abc", [<<1>>]]},
    take(N, maps:get(Kind, Near, []), fun weird/0, Kind).

take(N, Fixed, Gen, Kind) when is_atom(Kind) -> take(N, Fixed, Gen, fun(X) -> decodes(Kind, X) end);
take(N, Fixed, Gen, Valid) ->
    Edges = [0, -1, 1 bsl 31, -(1 bsl 31) - 1, 1 bsl 32, 1 bsl 63, -(1 bsl 63) - 1, 1 bsl 64,
             (1 bsl 64) + 1, 1 bsl 100, -(1 bsl 100)],
    Random = lists:sublist([X || X <- [Gen() || _ <- lists:seq(1, 3 * N)], not Valid(X)], N),
    [X || X <- Fixed ++ Edges, not Valid(X)] ++ Random.

weird() ->
    case rand:uniform(12) of
        1 -> Bits = rand:uniform(130), (rand:uniform(1 bsl Bits) - 1) * pick([1, -1]);
        2 -> pick([foo, undefined, true, '', arbo]);
        3 -> rand:uniform() * 1.0e20 - 5.0e19;
        4 -> rand:bytes(rand:uniform(12) - 1);
        5 -> <<(rand:uniform(255)):(rand:uniform(7))>>;
        6 -> [rand:uniform(300) || _ <- lists:seq(1, rand:uniform(4))];
        7 -> [rand:uniform(10) | rand:uniform(10) - 5];
        8 -> list_to_tuple([weird_leaf() || _ <- lists:seq(1, rand:uniform(5) - 1)]);
        9 -> #{a => weird_leaf()};
        10 -> pick([self(), make_ref(), fun() -> ok end]);
        11 -> -rand:uniform(1 bsl 70);
        12 -> rand:uniform(1 bsl 40) + (1 bsl 64)
    end.
weird_leaf() -> pick([rand:uniform(1 bsl 33) - 100, a, <<"b">>, 1.5, [], -(1 bsl 65)]).
pick(L) -> lists:nth(rand:uniform(length(L)), L).

%% ---- the child VM -----------------------------------------------------------

setup() ->
    [{module, M} = code:ensure_loaded(M) || M <- [arbo, arbo_tree, arbo_key, arbo_tree_util]],
    Dir = filename:join("/tmp", "arbo_fuzz_" ++ os:getpid()),
    ok = filelib:ensure_dir(filename:join(Dir, "x")),
    ok = file:set_cwd(Dir),
    T = arbo:new(),
    R = arbo:get_root(T),
    [Kb, Kb2] = [arbo_key:encode(K) || K <- [[{uint32, 5}], [{string, <<"k">>}, {uint32, 1}]]],
    L = arbo:add_hkey_dyn(T, R, 4, 0),
    U = arbo:add_hkey_dyn(T, R, [1 | 5], 3),
    P = #{t => T, r => R, c => arbo:add_hkey_internal(T, R, 1), g => arbo:add_hkey(T, R, 2, 3),
          l => L, li => arbo:add_hkey(T, L, Kb, 5), u => U, i => arbo:add_hkey(T, U, 1, 4),
          j => arbo:add_hkey(T, U, 2, 4), kb => Kb, kb2 => Kb2, path => <<"fuzz_out", 0>>},
    Nodes = maps:from_list([{maps:get(K, P), node_kind(T, maps:get(K, P))}
                            || K <- [r, c, g, l, li, u, i, j]]),
    Closed = arbo:new(),
    ClosedRoot = arbo:get_root(Closed),
    ok = arbo:close(Closed),
    Wrong = try crypto:hash_init(sha256) catch _:_ -> atomics:new(1, []) end,
    Env = #{t => T, closed => Closed, wrong => Wrong, places => P, nodes => Nodes,
            n0 => arbo_tree_util:type0_node(T, R),
            made_up => [8, 16#1000, (1 bsl 64) - 1, ClosedRoot, R + (1 bsl 40)],
            before => counters(T)},
    persistent_term:put(?MODULE, Env).

counters(T) -> [arbo:get_size(T), arbo:get_generation(T), arbo:get_mem(T)].

node_kind(T, N) ->
    case arbo:get_type(T, N) of
        {2, Mode} -> {dyn, Mode};
        {Type, _} -> Type
    end.

sizes(quick) -> {16, 80};
sizes(full) -> {if_asan(150, 300), if_asan(2000, 5000)}.
if_asan(A, R) -> case os:getenv("ARBO_ASAN") of "1" -> A; _ -> R end.

%% One native: every checked argument made bad alone in every valid variant,
%% then random combinations (each argument bad with probability 0.7).
batch(F, Arity, Scale) ->
    Env = persistent_term:get(?MODULE),
    {_, {F, Kinds, Variants0, Steps}} =
        lists:keyfind(Arity, 1, [{length(K), R} || {G, K, _, _} = R <- natives(), G =:= F]),
    Variants = [[place(X, Env) || X <- V] || V <- Variants0],
    {PerPos, Random} = sizes(Scale),
    Checked = [{P, K} || {P, K} <- lists:zip(lists:seq(1, length(Kinds)), Kinds),
                         K =/= any, K =/= fixed],
    One = case Checked of
              [] -> [{V, V} || V <- Variants];   % no arguments: the call itself
              _ -> [{V, replace(V, P, X)} || V <- Variants, {P, K} <- Checked,
                                             X <- candidates(K, PerPos, Env) ++ odd(K)]
          end,
    Rand = [begin
                V = pick(Variants),
                {V, lists:foldl(fun({P, K}, A) ->
                                        case rand:uniform() < 0.7 of
                                            true ->
                                                Bad = candidates(K, 3, Env) ++ odd(K),
                                                replace(A, P, pick(Bad));
                                            false -> A
                                        end
                                end, V, Checked)}
            end || Checked =/= [], _ <- lists:seq(1, Random)],
    Nodes = [P || {P, node} <- Checked],
    Run = fun(Group) -> fun({V, A}, S) -> run_one(F, {V, A, Nodes}, Steps, Env, Group, S) end end,
    S0 = #{calls => 0, one => 0, random => 0, skipped => 0, by => #{}, bad => []},
    lists:foldl(Run(random), lists:foldl(Run(one), S0, One), Rand).

%% Values that decode but sit at the edges of their range: a reading native
%% must answer them (a writing one is not called with them).
odd(u32) -> [0, 16#FFFFFFFF];
odd(u64) -> [0, 1, (1 bsl 64) - 1];
odd(i32) -> [-(1 bsl 31), (1 bsl 31) - 1];
odd(i64) -> [-(1 bsl 63), (1 bsl 63) - 1];
odd(_) -> [].

reading(F) ->
    lists:member(F, [get_root, get_generation, get_size, get_mem, get_hkey0, num_children,
                     num_children_with_flag, has_descendant_with_flags, has_child_with_flags,
                     has_child_without_flags, first_child_nif, next_sibling_nif, last_child,
                     prev_sibling, get_child, find_child, find_next_nif, child_index, get_flags,
                     get_type, get_attr_root, do_get_attr, get_val_raw, cmp_keys_nif, get_iter_node]).

place(X, #{places := P}) when is_atom(X) -> maps:get(X, P, X);
place(X, _) -> X.
replace(A, P, X) -> lists:sublist(A, P - 1) ++ [X] ++ lists:nthtail(P, A).

%% A call that reaches the store is run only for a reading native whose nodes
%% are the variant's own (their roles hold), and must answer.
run_one(F, {V, A, Nodes}, Steps, Env, Group, S) ->
    Want = case Steps of
               [{check, _}] -> check;
               _ -> case outcome(Steps, A, Env) of
                        store -> case reading(F) andalso [lists:nth(P, A) || P <- Nodes] =:=
                                          [lists:nth(P, V) || P <- Nodes] of
                                     true -> answers;
                                     false -> skip
                                 end;
                        unsafe -> skip;
                        O -> O
                    end
           end,
    case Want of
        skip -> S#{skipped := maps:get(skipped, S) + 1};
        _ ->
            Got = exec(F, A),
            Ok = case {Want, Got} of
                     {check, {answer, X}} -> (element(2, hd(Steps)))(X);
                     {answers, {answer, _}} -> true;
                     _ -> Want =:= Got
                 end,
            Label = case {Want, Got} of
                        {_, {raise, R}} -> atom_to_list(R);
                        {answers, _} -> "edge values answered";
                        _ -> "specified answers"
                    end,
            S#{calls := maps:get(calls, S) + 1,
               Group := maps:get(Group, S) + case Want of answers -> 0; _ -> 1 end,
               by := maps:update_with(Label, fun(X) -> X + 1 end, 1, maps:get(by, S)),
               bad := case Ok of
                          true -> maps:get(bad, S);
                          false -> lists:sublist([{A, want, Want, got, Got} | maps:get(bad, S)], 5)
                      end}
    end.

%% Each call in a fresh process: no iterator stack carries over, and a call
%% that never returns is reported as stalled.
exec(F, A) ->
    Self = self(),
    {Pid, Ref} = spawn_monitor(
                   fun() ->
                           Self ! {self(), try {answer, apply(arbo, F, A)}
                                           catch error:{R, File, Line} when is_atom(R), is_list(File),
                                                                            is_integer(Line), Line > 0 ->
                                                   {raise, R};
                                                 C:E -> {other, C, E}
                                           end}
                   end),
    receive
        {Pid, Res} -> erlang:demonitor(Ref, [flush]), Res;
        {'DOWN', Ref, _, _, Why} -> {died, Why}
    after ?STALL_MS -> exit(Pid, kill), stalled
    end.

%% Every exported public function, K times each with random arguments from
%% the safety suite's generators, through its own runner (fresh trees per
%% chunk, VM and lock checks after each).
api_sweep(Scale) ->
    K = case Scale of quick -> 2; full -> if_asan(40, 100) end,
    Funs = arbo_safety_tests:exported(),
    proper:global_state_init_size(8),
    Gen = proper_types:vector(5, arbo_safety_tests:arg()),
    Calls = [{MFA, element(2, proper_gen:safe_generate(Gen))} || MFA <- Funs, _ <- lists:seq(1, K)],
    Chunks = chunks(shuffle(Calls), 150),
    [true = arbo_safety_tests:run_calls(C) || C <- Chunks],
    {length(Calls), length(lists:usort([M || {M, _} <- Calls])), length(Funs)}.

chunks([], _) -> [];
chunks(L, N) when length(L) =< N -> [L];
chunks(L, N) -> {H, T} = lists:split(N, L), [H | chunks(T, N)].
shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].

%% The fuzzed table still takes a writer and a reader, then closes.
finish() ->
    #{t := T, places := #{r := R}, before := Before} = persistent_term:get(?MODULE),
    Before = counters(T),   % no malformed call changed the tree
    0 = arbo:get_iter_node(T),
    C = arbo:add_hkey_internal(T, R, 4242),
    true = is_integer(C) andalso arbo:get_child(T, R, arbo:child_index(T, R, C)) =:= C,
    ok = arbo:close(T),
    Probe = arbo:new(),
    ok = arbo:close(Probe),
    {ok, Dir} = file:get_cwd(),
    ok = file:set_cwd("/tmp"),
    ok = file:del_dir_r(Dir).
