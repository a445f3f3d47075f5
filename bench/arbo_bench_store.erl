%% Store rows of the benchmark harness: one list of N integer instances,
%% each with a 10-byte value, against ETS tables holding {Key, Value}, on the
%% same keys in the same order.
%%
%%   sorted list (mode 0)  vs ordered_set: insert in random order, insert in
%%                         ascending order, find every key, read every value
%%                         by key, delete every key, bytes per entry
%%   user-ordered list (mode 3, with its hash index) vs set: insert, find
%%                         every key, bytes per entry
%%
%% Sizes 100,000 and 1,000,000 (only 100,000, once, with ARBO_BENCH_QUICK=1).
%% Times are medians over the repetitions, arbo and ETS measured alternately
%% in each repetition. Bytes per entry are given twice: as the structures
%% count themselves (get_mem, ets:info(T, memory)) and as the growth of the
%% VM's erlang:memory(system) while the structure is built (the total minus
%% process heaps: the heap of the measuring process, which holds the keys,
%% belongs to neither side and only adds noise to erlang:memory(total)).
%% Neither figure sees the malloc'd bodies of a user-ordered list's index.
-module(arbo_bench_store).

-include("arbo_codes.hrl").
-export([rows/0]).

-define(SORTED_TAG, 1).
-define(USER_TAG, 2).

rows() ->
    Plan = case arbo_bench:quick() of
               true -> [{100000, 1}];
               false -> [{100000, 5}, {1000000, 3}]
           end,
    lists:append([size_rows(N, Reps) || {N, Reps} <- Plan]).

size_rows(N, Reps) ->
    rand:seed(exsss, {N, 17, 4711}),
    Random = [{K, value(K)} || K <- shuffle(lists:seq(1, N))],
    Ascending = [{K, value(K)} || K <- lists:seq(1, N)],
    Runs = [one_run(N, Random, Ascending) || _ <- lists:seq(1, Reps)],
    Med = fun(Key) -> arbo_bench:median([maps:get(Key, R) || R <- Runs]) end,
    Label = integer_to_list(N div 1000) ++ "k",
    Speed = case N of 100000 -> "arbo/peer <= 0.8"; _ -> "-" end,
    Row = fun(Name, Key, Peer) ->
              #{row => Name ++ ", " ++ Label, arbo => Med({arbo, Key}), peer => Med({ets, Key}),
                unit => "ns/op", peer_name => Peer, target => Speed}
          end,
    Bytes = fun(Name, Key, Peer) ->
                #{row => Name ++ ", " ++ Label, arbo => Med({arbo, Key}), peer => Med({ets, Key}),
                  unit => "bytes/entry", peer_name => Peer, target => "arbo <= 64"}
            end,
    [Row("sorted insert, random order", insert_random, "ets ordered_set"),
     Row("sorted insert, ascending", insert_asc, "ets ordered_set"),
     Row("sorted find every key", find, "ets ordered_set"),
     Row("sorted read value by key", read, "ets ordered_set"),
     Row("sorted delete every key", delete, "ets ordered_set"),
     Bytes("sorted bytes/entry (own count)", bytes_own, "ets ordered_set"),
     Bytes("sorted bytes/entry (VM growth)", bytes_vm, "ets ordered_set"),
     Row("user-ordered insert", user_insert, "ets set"),
     Row("user-ordered find every key", user_find, "ets set"),
     Bytes("user-ordered bytes/entry (own count)", user_bytes_own, "ets set"),
     Bytes("user-ordered bytes/entry (VM growth)", user_bytes_vm, "ets set")].

value(K) -> <<K:80>>.

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].

%% One repetition: every measurement once for arbo, then once for ETS.
one_run(N, Random, Ascending) ->
    A = arbo_sorted(N, Random, Ascending),
    E = ets_sorted(N, Random, Ascending),
    UA = arbo_user(N, Random),
    UE = ets_user(N, Random),
    maps:from_list([{{arbo, K}, V} || {K, V} <- maps:to_list(maps:merge(A, UA))]
                   ++ [{{ets, K}, V} || {K, V} <- maps:to_list(maps:merge(E, UE))]).

%% ---- arbo ------------------------------------------------------------------------

arbo_sorted(N, Random, Ascending) ->
    {T, L} = arbo_list(0),
    Insert = arbo_bench:ns_per_op(N, ok, fun() -> a_insert(T, L, Random) end),
    Find = arbo_bench:ns_per_op(N, ok, fun() -> a_find(T, L, Random) end),
    Read = arbo_bench:ns_per_op(N, ok, fun() -> a_read(T, L, Random) end),
    Delete = arbo_bench:ns_per_op(N, ok, fun() -> a_delete(T, L, Random) end),
    0 = arbo:num_children(T, L),
    ok = arbo:close(T),
    {T2, L2} = arbo_list(0),
    {Asc, Own, Vm} = arbo_build_measured(T2, L2, N, Ascending),
    ok = arbo:close(T2),
    #{insert_random => Insert, find => Find, read => Read, delete => Delete,
      insert_asc => Asc, bytes_own => Own, bytes_vm => Vm}.

arbo_user(N, Random) ->
    {T, L} = arbo_list(3),
    {Insert, Own, Vm} = arbo_build_measured(T, L, N, Random),
    Find = arbo_bench:ns_per_op(N, ok, fun() -> a_find(T, L, Random) end),
    ok = arbo:close(T),
    #{user_insert => Insert, user_find => Find, user_bytes_own => Own, user_bytes_vm => Vm}.

arbo_list(Mode) ->
    T = arbo:new(),
    L = arbo:add_hkey_dyn(T, arbo:get_root(T), case Mode of 0 -> ?SORTED_TAG; _ -> ?USER_TAG end,
                          Mode),
    {T, L}.

%% Builds the list, timing the insertions; the memory figures are taken
%% around the build, with the garbage of the measuring process collected.
arbo_build_measured(T, L, N, KVs) ->
    Mem0 = arbo:get_mem(T),
    Vm0 = vm_total(),
    Ns = arbo_bench:ns_per_op(N, ok, fun() -> a_insert(T, L, KVs) end),
    Vm1 = vm_total(),
    N = arbo:num_children(T, L),
    {Ns, (arbo:get_mem(T) - Mem0) / N, (Vm1 - Vm0) / N}.

a_insert(T, L, [{K, V} | Rest]) ->
    ok = arbo:set_val(T, arbo:add_hkey(T, L, K, ?KEY_INT), ?VAL_CSVAL, V),
    a_insert(T, L, Rest);
a_insert(_, _, []) -> ok.

a_find(T, L, [{K, _} | Rest]) ->
    case arbo:find_child(T, L, K, ?FIND_TAG_ALT) of
        0 -> error({missing, K});
        _ -> a_find(T, L, Rest)
    end;
a_find(_, _, []) -> ok.

a_read(T, L, [{K, V} | Rest]) ->
    {csval, V} = arbo:get_val_raw(T, arbo:find_child(T, L, K, ?FIND_TAG_ALT)),
    a_read(T, L, Rest);
a_read(_, _, []) -> ok.

a_delete(T, L, [{K, _} | Rest]) ->
    true = arbo:del_hkey(T, L, {K}, ?DEL_TAG),
    a_delete(T, L, Rest);
a_delete(_, _, []) -> ok.

%% ---- ETS ---------------------------------------------------------------------------

ets_sorted(N, Random, Ascending) ->
    E = ets:new(bench_sorted, [ordered_set, public]),
    Insert = arbo_bench:ns_per_op(N, ok, fun() -> e_insert(E, Random) end),
    Find = arbo_bench:ns_per_op(N, ok, fun() -> e_find(E, Random) end),
    Read = arbo_bench:ns_per_op(N, ok, fun() -> e_read(E, Random) end),
    Delete = arbo_bench:ns_per_op(N, ok, fun() -> e_delete(E, Random) end),
    0 = ets:info(E, size),
    ets:delete(E),
    E2 = ets:new(bench_sorted, [ordered_set, public]),
    {Asc, Own, Vm} = ets_build_measured(E2, N, Ascending),
    ets:delete(E2),
    #{insert_random => Insert, find => Find, read => Read, delete => Delete,
      insert_asc => Asc, bytes_own => Own, bytes_vm => Vm}.

ets_user(N, Random) ->
    E = ets:new(bench_set, [set, public]),
    {Insert, Own, Vm} = ets_build_measured(E, N, Random),
    Find = arbo_bench:ns_per_op(N, ok, fun() -> e_find(E, Random) end),
    ets:delete(E),
    #{user_insert => Insert, user_find => Find, user_bytes_own => Own, user_bytes_vm => Vm}.

ets_build_measured(E, N, KVs) ->
    Vm0 = vm_total(),
    Ns = arbo_bench:ns_per_op(N, ok, fun() -> e_insert(E, KVs) end),
    Vm1 = vm_total(),
    N = ets:info(E, size),
    {Ns, ets:info(E, memory) * erlang:system_info(wordsize) / N, (Vm1 - Vm0) / N}.

e_insert(E, [KV | Rest]) ->
    true = ets:insert(E, KV),
    e_insert(E, Rest);
e_insert(_, []) -> ok.

e_find(E, [{K, _} | Rest]) ->
    case ets:member(E, K) of
        false -> error({missing, K});
        true -> e_find(E, Rest)
    end;
e_find(_, []) -> ok.

e_read(E, [{K, V} | Rest]) ->
    V = ets:lookup_element(E, K, 2),
    e_read(E, Rest);
e_read(_, []) -> ok.

e_delete(E, [{K, _} | Rest]) ->
    true = ets:delete(E, K),
    e_delete(E, Rest);
e_delete(_, []) -> ok.

%% The VM's memory outside process heaps (ETS tables, NIF allocations).
vm_total() ->
    erlang:garbage_collect(),
    erlang:memory(system).
