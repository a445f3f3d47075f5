%% The safety promise of the public API, checked in a peer VM so that a
%% failure (an aborted or stalled VM) is reported instead of ending the test
%% run: every key the codec accepts can be compared and stored, and two keys
%% the library's order takes for one are refused as a clash, never handed
%% out for each other. The random terms thrown at every public function
%% (they never crash the VM, stall it or leave a tree's lock held) are
%% generated here and thrown by the sweep of arbo_fuzz_tests. (Corrupt save
%% files: arbo_hostile_tests.)
-module(arbo_safety_tests).
-include_lib("proper/include/proper.hrl").
-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-export([in_child/0]).
%% shared with the native fuzz suite, which sweeps every public function
-export([exported/0, run_calls/1, arg/0]).

in_child_vm_test_() ->
    {timeout, 600, fun() -> ?assertEqual(true, arbo_test_util:peer_call(?MODULE, in_child, 540000)) end}.

%% Runs in the peer VM.
in_child() ->
    proper:quickcheck(accepted_keys(), [{numtests, 1500}, quiet]) orelse {counterexample, proper:counterexample()}.

%% ---- random terms for every public function -----------------------------------

exported() ->
    [{M, F, A} || M <- [arbo_tree, arbo_key, arbo_val, arbo_file],
                  {F, A} <- M:module_info(exports), F =/= module_info].

run_calls(Calls) ->
    #{tree := T, other_tree := Other} = Env = env(arbo_file_tests:config(), arbo_tree:new(), arbo_tree:new()),
    lists:foreach(fun({{M, F, A}, Args}) -> call(M, F, [fill(X, Env) || X <- lists:sublist(Args, A)])
                  end, Calls),
    %% the tree still answers readers and writers, or was closed
    Alive = try arbo_tree:clear(T), [] =:= arbo_tree:children(T, arbo_tree:root(T))
            catch error:{arbo_closed, _} -> true
            end,
    [arbo_tree:close(X) || X <- [T, Other]],
    Alive.

call(M, F, Args) ->
    {Pid, Ref} = spawn_monitor(fun() -> catch apply(M, F, Args) end),
    receive {'DOWN', Ref, process, Pid, _} -> ok after 20000 -> error({stalled, M, F, Args}) end.

%% Placeholders that stand for live values of this run.
arg() ->
    oneof([small_term(), tree, other_tree, closed_tree, node, stale_node, foreign_node, closed_node,
           filter(), key_arg(), {encoded, binary()}, list(key_elem()),
           oneof([sorted, user_order, inclusive, all]), function(2, small_term())]).

%% Small random terms (PropEr's any() grows too large to generate quickly).
small_term() ->
    oneof([int(), atom(), binary(), list(oneof([int(), atom()])), {int(), int()}, [int() | int()]]).

key_elem() -> oneof([{string, binary()}, {uint32, int()}, {binary, byte(), binary()}, small_term()]).
key_arg() -> oneof([{int, int()}, {pair, int(), int()}, {opaque, binary()}, {tuple, list(key_elem())}]).
filter() -> ?SIZED(S, filter(S)).
filter(0) ->
    oneof([{oneof([3, 4, 6, 7, 101]), int(), list(int()), binary()}, {6},
           {4, list(oneof([int(), [int() | int()]]))}, {value, oneof([eq, bad]), list(int()), binary()}]);
filter(S) ->
    oneof([filter(0), ?LAZY({oneof([0, 1, 'and', 'not']), filter(S div 2), filter(S div 2)})]).

env(T, Other, Closed) ->
    Stale = arbo_tree:add_leaf(T, arbo_tree:root(T), 77),
    true = arbo_tree:delete(T, arbo_tree:root(T), 77),
    ClosedRoot = arbo_tree:root(Closed),
    ok = arbo_tree:close(Closed),
    #{tree => T, other_tree => Other, closed_tree => Closed, closed_node => ClosedRoot,
      stale_node => Stale, foreign_node => arbo_tree:root(Other)}.

%% Nodes go stale as random deletions run: look them up afresh.
fill(node, #{tree := T} = Env) ->
    try lists:nth(rand:uniform(3), [arbo_tree:root(T), arbo_tree:lookup(T, [1, 2]),
                                    arbo_tree:lookup(T, [{2, 7}])])
    catch _:_ -> maps:get(stale_node, Env)
    end;
fill(X, Env) when is_atom(X) -> maps:get(X, Env, X);
fill(X, _) -> X.

%% ---- keys: what the codec accepts, the library parses -----------------------

%% PropEr of this OTP release cannot report an exception raised inside a
%% property: it is printed, and the case fails.
accepted_keys() ->
    ?FORALL({Bins, Mode}, {list(arbo_codec_tests:key_bytes()), oneof([0, 1, 2])},
        try
            Valid = lists:usort([B || B <- Bins, arbo_key:validate(B) =:= ok]),
            [arbo:cmp_keys_nif(A, ?KEY_TUPLE, B, Code, Mode)
             || A <- Valid, {B, Code} <- [{X, 5} || X <- Valid] ++ [{X, 6} || X <- Bins]],
            T = arbo_tree:new(),
            Order = lists:nth(Mode + 1, [sorted, sorted_length_first, sorted_length_first_but_last]),
            L = arbo_tree:add_list(T, arbo_tree:root(T), 1, Order),
            Added = [B || B <- Valid, try arbo_tree:add(T, L, {encoded, B}) of _ -> true
                                      catch error:{key_clash, _} -> false end],
            Kept = [B || B <- Bins, arbo_key:validate(B) =/= ok,
                         try arbo_tree:add(T, L, {encoded, B}) of _ -> true catch error:{badarg, _} -> false end],
            Keys = [arbo_key:encode(Es) || C <- arbo_tree:children(T, L), {tuple, Es} <- [arbo_tree:key(T, C)]],
            %% the order is not total across element types: a find may miss
            %% an instance that is there, but never answers another one
            Wrong = [B || B <- Valid, N <- [arbo_tree:find(T, L, {encoded, B})], N =/= none,
                          arbo_tree:key(T, N) =/= {tuple, element(2, arbo_key:decode(B))}],
            ok = arbo_tree:close(T),
            {lists:sort(Keys), Kept, Wrong} =:= {Added, [], []}
        catch C:R:S -> io:format(user, "~p~n", [{C, R, S}]), false
        end).
