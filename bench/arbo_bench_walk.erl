%% Stepping and filtered walks over one large sorted list against an ETS
%% ordered_set holding the same keys, values and flags.
%%
%% The list has N integer-keyed instances (N = 1,000,000, or 100,000 with
%% ARBO_BENCH_QUICK=1). Instance K holds the encoded value K rem 1000
%% (an unsigned 32-bit element) and user flag 2#100 when K rem 1000 is 0; the
%% ETS rows are {K, K rem 1000, Flags}. Both are filled with the same keys in
%% the same order, once in ascending order and once in a random order (a
%% list that grew over time: its nodes lie scattered in memory).
%%
%% Rows:
%% - stepping: next_sibling_nif/4 from the first instance to the end, against
%%   ets:next/2 from the first key to the end (ns per step), and the cost of a
%%   native call that does nothing but decode the handle and take the lock
%%   (get_generation/1) against the same ets:next/2 step;
%% - probing: find_next_nif/6 with random keys against ets:next/2 with the same
%%   keys (ns per probe);
%% - filtered walks, nodes examined per second: a user-flag mask and a numeric
%%   value comparison, each walking the whole list through its yields,
%%   against ets:select/3 with the equivalent match spec, 1000 rows per
%%   continuation.
-module(arbo_bench_walk).

-include("arbo_codes.hrl").
-export([rows/0]).

-define(FLAG, 2#100).
-define(LIMIT, 990).

rows() ->
    Quick = os:getenv("ARBO_BENCH_QUICK") =:= "1",
    N = case Quick of true -> 100000; false -> 1000000 end,
    Runs = case Quick of true -> 1; false -> 5 end,
    lists:append([layout(Order, N, Runs) || Order <- [ascending, random]]).

layout(Order, N, Runs) ->
    T = arbo:new(),
    E = ets:new(arbo_bench_walk, [ordered_set, public]),
    try measure(T, E, N, Runs, Order)
    after
        arbo:close(T),
        ets:delete(E)
    end.

measure(T, E, N, Runs, Order) ->
    L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, ?ORDER_PLAIN),
    Keys = case Order of
               ascending -> lists:seq(1, N);
               random -> shuffle(lists:seq(1, N))
           end,
    [begin
         I = arbo:add_hkey(T, L, K, ?KEY_INT),
         arbo:set_val(T, I, ?VAL_CSVAL, <<12, (K rem 1000):32>>),
         K rem 1000 =:= 0 andalso arbo:set_flag(T, I, ?FLAG),
         ets:insert(E, {K, K rem 1000, flags(K)})
     end || K <- Keys],
    Flagged = N div 1000,
    Above = N div 1000 * (999 - ?LIMIT),

    %% With the floor of any native call: the handle decoded, the lock taken
    %% and released, nothing else.
    [Step, EtsStep, Floor] =
        [arbo_bench:median(L1)
         || L1 <- arbo_bench:turns(Runs, [fun() -> ns(N, N, fun() -> step(T, arbo:first_child_nif(T, L, [], 0), 0) end) end,
                                          fun() -> ns(N, N, fun() -> ets_step(E, ets:first(E), 0) end) end,
                                          fun() -> ns(N, N, fun() -> bare(T, N, 0) end) end])],

    FlagF = {3, 1000, [], ?FLAG},
    FlagMs = [{{'$1', '_', '$3'}, [{'=:=', {'band', '$3', ?FLAG}, ?FLAG}], ['$1']}],
    {FlagWalk, FlagSel} = med(Runs, fun() -> per_s(N, Flagged, fun() -> walk(T, L, FlagF) end) end,
                              fun() -> per_s(N, Flagged, fun() -> select(E, FlagMs) end) end),

    NumF = {3, 3, [], integer_to_binary(?LIMIT)},
    NumMs = [{{'$1', '$2', '_'}, [{'>', '$2', ?LIMIT}], ['$1']}],
    {NumWalk, NumSel} = med(Runs, fun() -> per_s(N, Above, fun() -> walk(T, L, NumF) end) end,
                            fun() -> per_s(N, Above, fun() -> select(E, NumMs) end) end),

    Tag = ", " ++ integer_to_list(N div 1000) ++ "k " ++ atom_to_list(Order),
    Ks = [rand:uniform(N) - 1 || _ <- lists:seq(1, 100000)],
    P = length(Ks),
    {Probe, EtsProbe} = med(Runs, fun() -> ns(P, P, fun() -> probe(T, L, Ks, 0) end) end,
                            fun() -> ns(P, P, fun() -> ets_probe(E, Ks, 0) end) end),
    Probes = [#{row => "probe find_next_nif/6" ++ Tag, arbo => Probe, peer => EtsProbe,
                unit => "ns/op", peer_name => "ets:next/2", target => "arbo/peer <= 0.6"}],
    [#{row => "step next_sibling_nif/4" ++ Tag, arbo => Step, peer => EtsStep, unit => "ns/op",
       peer_name => "ets:next/2", target => "arbo/peer <= 0.6"},
     #{row => "bare call get_generation/1, against a step" ++ Tag, arbo => Floor, peer => EtsStep,
       unit => "ns/op", peer_name => "ets:next/2", target => "-"}] ++
    Probes ++
    [#{row => "filtered walk, flag mask" ++ Tag, arbo => FlagWalk, peer => FlagSel,
       unit => "nodes/s", peer_name => "ets:select/3", target => "arbo/peer >= 3"},
     #{row => "filtered walk, value > " ++ integer_to_list(?LIMIT) ++ Tag,
       arbo => NumWalk, peer => NumSel, unit => "nodes/s", peer_name => "ets:select/3",
       target => "arbo/peer >= 3"}].

flags(K) when K rem 1000 =:= 0 -> ?FLAG;
flags(_) -> 0.

%% ---- the loops (each answers how many items it saw, checked by the caller) ----

step(_T, 0, Count) -> Count;
step(T, C, Count) -> step(T, arbo:next_sibling_nif(T, C, [], 0), Count + 1).

bare(_T, 0, Count) -> Count;
bare(T, Left, Count) ->
    arbo:get_generation(T),
    bare(T, Left - 1, Count + 1).

ets_step(_E, '$end_of_table', Count) -> Count;
ets_step(E, K, Count) -> ets_step(E, ets:next(E, K), Count + 1).

probe(_T, _L, [], Count) -> Count;
probe(T, L, [K | Ks], Count) ->
    case arbo:find_next_nif(T, L, K, ?NEXT_INT, 0, []) of
        0 -> error(not_found);
        _ -> probe(T, L, Ks, Count + 1)
    end.

ets_probe(_E, [], Count) -> Count;
ets_probe(E, [K | Ks], Count) ->
    case ets:next(E, K) of
        '$end_of_table' -> error(not_found);
        _ -> ets_probe(E, Ks, Count + 1)
    end.

%% A whole filtered walk: yields resumed, matches stepped past. Answers the
%% number of matches.
walk(T, L, F) -> walk(T, F, arbo:first_child_nif(T, L, F, 0), 0).

walk(_T, _F, 0, Count) -> Count;
walk(T, F, {yield, Stack, N}, Count) -> walk(T, F, arbo:next_sibling_nif(T, N, F, 0, Stack), Count);
walk(T, F, N, Count) -> walk(T, F, arbo:next_sibling_nif(T, N, F, 0), Count + 1).

select(E, Ms) -> select_more(ets:select(E, Ms, 1000), 0).

select_more('$end_of_table', Count) -> Count;
select_more({Keys, Cont}, Count) -> select_more(ets:select(Cont), Count + length(Keys)).

%% ---- measuring ---------------------------------------------------------------------

%% Nanoseconds per item for Items items; Fun must answer Want.
ns(Items, Want, Fun) ->
    T0 = erlang:monotonic_time(nanosecond),
    Want = Fun(),
    (erlang:monotonic_time(nanosecond) - T0) / Items.

%% Items per second.
per_s(Items, Want, Fun) -> 1.0e9 / ns(Items, Want, Fun).

%% Medians of Runs measurements of arbo and of its peer, taken in turns.
med(Runs, Arbo, Peer) ->
    [A, P] = arbo_bench:turns(Runs, [Arbo, Peer]),
    {arbo_bench:median(A), arbo_bench:median(P)}.

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].
