%% The safe tree API against the raw library on the hot paths: find by key,
%% next sibling, value read, each call through the gate on its own and all
%% of them inside one arbo_tree:reading/2 pass. Both run on the same tree, the same nodes, in
%% the same order; batches of the two alternate and each side keeps its best
%% batch, so that a busy machine slows both alike. Where the safe side walks
%% a list of node references, the raw side reads its addresses out of the
%% same list, so that both touch the same memory.
%%
%% The tree: a sorted list of N instances keyed by an encoded string key
%% (like interface names), and a sorted list of N integer instances, each
%% with a uint32 value. N = 100,000 (10,000 with ARBO_BENCH_QUICK=1).
-module(arbo_bench_api).

-include("arbo_codes.hrl").
-export([rows/0, main/0]).

main() ->
    [io:format("~-34s raw ~7.1f ns  safe ~7.1f ns  overhead ~5.1f%~n",
               [Name, Raw, Safe, 100 * (Safe / Raw - 1)])
     || #{row := Name, arbo := Safe, peer := Raw} <- rows()],
    ok.

%% Rows for the harness (arbo_bench): the safe call against the raw one.
rows() ->
    [#{row => "safe API: " ++ Name, arbo => Safe, peer => Raw, unit => "ns/op",
       peer_name => "raw arbo", target => "arbo/peer <= 1.2"}
     || {Name, Raw, Safe} <- measure()].

%% [{Operation, RawNs, SafeNs}]
measure() ->
    Quick = os:getenv("ARBO_BENCH_QUICK") =:= "1",
    N = case Quick of true -> 10000; false -> 100000 end,
    Rounds = case Quick of true -> 5; false -> 15 end,
    T = arbo_tree:new(),
    try measure(T, N, Rounds)
    after arbo_tree:close(T)
    end.

name(I) -> <<"ge-0/0/", (integer_to_binary(I))/binary>>.

measure(T, N, Rounds) ->
    Root = arbo_tree:root(T),
    Ifs = arbo_tree:add_list(T, Root, 1, sorted),
    Ints = arbo_tree:add_list(T, Root, 2, sorted),
    _ = [arbo_tree:add(T, Ifs, [{string, name(K)}]) || K <- lists:seq(1, N)],
    Valued = [begin
                  I = arbo_tree:add(T, Ints, {int, K}),
                  ok = arbo_tree:set_value(T, I, {uint32, K}),
                  I
              end || K <- lists:seq(1, N)],
    %% Lookup keys in a scattered order, as both sides are given them.
    Order = [K || {_, K} <- lists:sort([{erlang:phash2(K), K} || K <- lists:seq(1, N)])],
    StrKeys = [arbo_key:encode([{string, name(K)}]) || K <- Order],
    IntKeys = [{K} || K <- Order],
    Addr = fun(Ref) -> element(4, Ref) end,
    IfsA = Addr(Ifs),
    IntsA = Addr(Ints),
    Refs = Valued,
    Cases =
        [{"find (string key, 100k list)",
          fun() -> each(fun(K) -> arbo:find_child(T, IfsA, K, ?FIND_TUPLE) end, StrKeys) end,
          fun() -> each(fun(K) -> arbo_tree:find(T, Ifs, {encoded, K}) end, StrKeys) end},
         {"find (integer key)",
          fun() -> each(fun(K) -> arbo:find_child(T, IntsA, K, ?FIND_TAG) end, IntKeys) end,
          fun() -> each(fun({K}) -> arbo_tree:find(T, Ints, {int, K}) end, IntKeys) end},
         {"next sibling (walk)",
          fun() -> walk_raw(T, arbo:first_child_nif(T, IfsA, [], 0), 0) end,
          fun() -> walk_safe(T, arbo_tree:first_child(T, Ifs), 0) end},
         {"value read",
          fun() -> each(fun(R) -> arbo:get_val_raw(T, Addr(R)) end, Refs) end,
          fun() -> each(fun(R) -> arbo_tree:value_raw(T, R) end, Refs) end},
         %% The same calls inside one arbo_tree:reading/2 pass.
         {"find (string key), in reading/2",
          fun() -> each(fun(K) -> arbo:find_child(T, IfsA, K, ?FIND_TUPLE) end, StrKeys) end,
          fun() -> arbo_tree:reading(T, fun(RT) ->
                       each(fun(K) -> arbo_tree:find(RT, Ifs, {encoded, K}) end, StrKeys) end) end},
         {"find (integer key), in reading/2",
          fun() -> each(fun(K) -> arbo:find_child(T, IntsA, K, ?FIND_TAG) end, IntKeys) end,
          fun() -> arbo_tree:reading(T, fun(RT) ->
                       each(fun({K}) -> arbo_tree:find(RT, Ints, {int, K}) end, IntKeys) end) end},
         {"walk with fold/5 (gate per 64 steps)",
          fun() -> walk_raw(T, arbo:first_child_nif(T, IfsA, [], 0), 0) end,
          fun() -> arbo_tree:fold(T, Ifs, all, fun(_, C) -> C + 1 end, 0) end},
         {"next sibling, in reading/2",
          fun() -> walk_raw(T, arbo:first_child_nif(T, IfsA, [], 0), 0) end,
          fun() -> arbo_tree:reading(T, fun(RT) ->
                       walk_safe(RT, arbo_tree:first_child(RT, Ifs), 0) end) end},
         {"value read, in reading/2",
          fun() -> each(fun(R) -> arbo:get_val_raw(T, Addr(R)) end, Refs) end,
          fun() -> arbo_tree:reading(T, fun(RT) ->
                       each(fun(R) -> arbo_tree:value_raw(RT, R) end, Refs) end) end}],
    [begin
         {Raw, Safe} = best(Rounds, RawF, SafeF, infinity, infinity),
         {Name, Raw * 1000 / N, Safe * 1000 / N}
     end || {Name, RawF, SafeF} <- Cases].

%% Both sides drop their results, so that neither pays for keeping them.
each(F, [X | Xs]) -> _ = F(X), each(F, Xs);
each(_, []) -> ok.

walk_raw(_, 0, C) -> C;
walk_raw(T, A, C) -> walk_raw(T, arbo:next_sibling_nif(T, A, [], 0), C + 1).

walk_safe(_, none, C) -> C;
walk_safe(T, R, C) -> walk_safe(T, arbo_tree:next_sibling(T, R), C + 1).

best(0, _, _, Raw, Safe) -> {Raw, Safe};
best(K, RawF, SafeF, Raw, Safe) ->
    {R, _} = timer:tc(RawF),
    {S, _} = timer:tc(SafeF),
    best(K - 1, RawF, SafeF, min(R, Raw), min(S, Safe)).
