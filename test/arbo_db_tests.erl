%% Durable stores: batches against a tree changed through the plain API,
%% journals cut and corrupted byte by byte, refused batches, concurrent
%% committers under each sync policy, the follower calls.
-module(arbo_db_tests).
-include_lib("eunit/include/eunit.hrl").

-export([log/2, scratch/1, dump/1, reopen/3]).

%% ---- helpers ------------------------------------------------------------------------

%% A scratch directory, removed if it is there.
scratch(Name) ->
    D = arbo_test_util:tmp(Name),
    os:cmd("rm -rf '" ++ D ++ "'"),
    D.

%% A tree's contents as its saved bytes (equal bytes, equal trees), and a
%% plain tree loaded from them.
dump(T) -> saved(T, fun file:read_file/1).
copy(T) -> saved(T, fun(F) -> C = arbo_tree:new(), {ok, _} = arbo_tree:load(C, F), {ok, C} end).

saved(T, Read) ->
    F = arbo_test_util:tmp("saved"),
    ok = arbo_tree:save(T, F),
    {ok, R} = Read(F),
    ok = file:delete(F),
    R.

open(Name, Dir) -> open(Name, Dir, #{}).
open(Name, Dir, Opts) -> arbo_db:open(Name, Opts#{dir => Dir}).

%% What a store holds: its tree and its last sequence number.
state(Db) -> {dump(arbo_db:tree(Db)), maps:get(seq, arbo_db:info(Db))}.

%% Close and open again: what is read back is what the store held.
reopen(Db, Name, Dir) -> reopen(Db, Name, Dir, #{}).
reopen(Db, Name, Dir, Opts) ->
    Expect = state(Db),
    ok = arbo_db:close(Db),
    {ok, Db2} = open(Name, Dir, Opts),
    ?assertEqual(Expect, state(Db2)),
    Db2.

%% Open, read what the store holds, close.
holds(Name, Dir, Opts) ->
    {ok, Db} = open(Name, Dir, Opts),
    S = state(Db),
    ok = arbo_db:close(Db),
    S.

%% Run F with the console's log handler silent: the warnings and errors it
%% provokes are expected (and checked where they are promised).
quiet(F) ->
    {ok, #{level := Level}} = logger:get_handler_config(default),
    ok = logger:set_handler_config(default, level, none),
    try F() after logger:set_handler_config(default, level, Level) end.

%% ---- the plain API as the reference -------------------------------------------------

%% Apply a batch to a copy of the reference through arbo_tree: {ok, Copy}
%% or {fail, Index} for the first operation the plain API refuses (raises,
%% or answers false or an error).
reference(Ref, Ops) ->
    C = copy(Ref),
    case lists:dropwhile(fun({_, Op}) -> ref_ok(C, Op) end, lists:enumerate(Ops)) of
        [] -> {ok, C};
        [{I, _} | _] -> arbo_tree:close(C), {fail, I}
    end.

ref_ok(T, Op) ->
    try ref_op(T, Op) of
        false -> false;
        {error, _} -> false;
        _ -> true
    catch _:_ -> false
    end.

node(T, P) ->
    case arbo_tree:lookup(T, P) of
        none -> throw(none);
        N -> N
    end.

parent(T, P) -> node(T, lists:droplast(P)).

%% Most operations are the arbo_tree function of the same name on the node
%% at the path; nodes are added to the parent's path.
ref_op(T, clear) -> arbo_tree:clear(T);
ref_op(T, {delete_ns, P, Ns}) -> _ = arbo_tree:delete_ns(T, node(T, P), Ns), ok;
ref_op(T, {move, P, W}) ->
    N = node(T, P),
    _ = case W of
            first -> arbo_tree:move_to(T, N, 0);
            last -> arbo_tree:move_to(T, N, -1);
            {position, X} -> arbo_tree:move_to(T, N, X);
            {Rel, K} ->
                O = node(T, lists:droplast(P) ++ [K]),
                arbo_tree:is_same(N, O) andalso throw(same),
                apply(arbo_tree, list_to_atom("move_" ++ atom_to_list(Rel)), [T, N, O])
        end,
    ok;
ref_op(T, Op) ->
    case tuple_to_list(Op) of
        [Add, P | Args] when Add =:= container; Add =:= leaf; Add =:= list ->
            Fun = list_to_atom("add_" ++ atom_to_list(Add)),
            apply(arbo_tree, Fun, [T, parent(T, P), lists:last(P) | Args]);
        [F, P | Args] ->
            Fun = proplists:get_value(F, [{instance, add}, {set, set_value}], F),
            apply(arbo_tree, Fun, [T, node(T, P) | Args])
    end.

%% Batches committed on two stores, one applying them call by call and one
%% through the loader from its frame's records, and on a plain tree through
%% arbo_tree. Each is committed whole (both stores then equal the plain
%% tree) or refused at the operation arbo_tree refuses, changing nothing.
%% Every Every batches both stores are reopened from their journals;
%% half-way between, they take a snapshot. The number of batches committed.
against_reference(Name, Batches, Every) ->
    Stores = [{list_to_atom(Name ++ S), scratch(Name ++ S), O}
              || {S, O} <- [{"", #{}}, {"_loader", #{direct_max => 0}}]],
    Reopen = fun(Dbs) -> [reopen(Db, N, Dir, O) || {Db, {N, Dir, O}} <- lists:zip(Dbs, Stores)] end,
    Step = fun({I, Ops}, {Dbs, Ref, Committed}) ->
                   Answers = [arbo_db:commit(Db, Ops) || Db <- Dbs],
                   {Ref1, C1} =
                       case {lists:usort([A || {A, _} <- Answers]), reference(Ref, Ops)} of
                           {[ok], {ok, R}} -> arbo_tree:close(Ref), {R, Committed + 1};
                           {[error], {fail, At}} ->
                               [?assertMatch({error, {At, _, _}}, A) || A <- Answers],
                               {Ref, Committed};
                           Other -> error({mismatch, Ops, Answers, Other})
                       end,
                   [?assertEqual(dump(Ref1), dump(arbo_db:tree(Db))) || Db <- Dbs],
                   Dbs1 = if I rem Every =:= 0 -> Reopen(Dbs);
                             I rem Every =:= Every div 2 -> [ok = arbo_db:snapshot(Db) || Db <- Dbs], Dbs;
                             true -> Dbs
                          end,
                   {Dbs1, Ref1, C1}
           end,
    Dbs0 = [begin {ok, D} = open(N, Dir, O), D end || {N, Dir, O} <- Stores],
    {Dbs, Ref, Committed} = lists:foldl(Step, {Dbs0, arbo_tree:new(), 0}, lists:enumerate(Batches)),
    [ok = arbo_db:close(Db) || Db <- Reopen(Dbs)],
    arbo_tree:close(Ref),
    Committed.

%% ---- random batches -----------------------------------------------------------------

pick(L) -> lists:nth(rand:uniform(length(L)), L).

lists() ->
    [{[4], user_order}, {[{6, 4}], sorted}, {[1, 13], user_order}, {[{6, 7}], sorted_length_first}].
keys() -> [1, 2, 3, {int, 4}, {pair, 7, 1}, [{string, <<"a">>}, {int32, 1}], {opaque, <<"k">>}].
instances() -> [L ++ [K] || {L, _} <- lists(), K <- keys()].
%% Some paths of each kind, some of them never made.
anything() -> [[1], [2], [1, 10], [3], [{5, 3}], [1, 11], [1, 10, 12], [4, 2, 20]] ++ instances().
values() ->
    [<<"v">>, binary:copy(<<"x">>, 300), {int32, 42}, {string, binary:copy(<<"s">>, 80)}, {bool, true}].

%% One operation of any kind; the user-ordered list [4] and its instances
%% 1..3 are named more often, so that moves and renames find their nodes.
random_op() ->
    {L, O} = pick(lists()),
    [P, I, I4] = [pick(anything()), pick(instances()), [4, rand:uniform(3)]],
    Leaves = [[3], [{5, 3}], [1, 11], [1, 10, 12], [4, 1, 9]],
    V = pick(Leaves ++ [Li ++ [K] || {Li, _} <- lists(), K <- [1, 2, 3, {pair, 7, 1}]]),
    pick([{container, pick([[1], [2], [1, 10]])}, {leaf, pick(Leaves)},
          {list, L, O}, {instance, L, pick(keys())}, {set, V, pick(values())}, {clear_value, V},
          {set_active, I, pick([true, false])}, {set_flags, P, pick([0, 5, 300, 1 bsl 20, 1 bsl 40])},
          {set_attr, P, pick([1, 7]), {int32, rand:uniform(9)}}, {delete_attr, P, pick([1, 7])},
          {delete, P}, {delete_ns, pick([[], [1], [4]]), pick([0, 5, 7])}, {rename, I, pick(keys())},
          {move, I, pick([first, last, {position, 1}, {before, 1}, {'after', 2}])},
          {container, [1]}, {list, [1, 13], user_order}, {list, [4], user_order},
          {instance, [4], rand:uniform(3)}, {set_active, I4, pick([true, false])},
          {rename, I4, pick([1, 2, 3, {int, 100 + rand:uniform(3)}])},
          {move, I4, pick([first, last, {position, 1}, {position, 2}, {'after', 2}])}]).

random_batch() ->
    case rand:uniform(40) of
        1 -> [clear, {list, [4], user_order}];
        %% values set on siblings, other operations between them
        N when N =< 8 ->
            {L, O} = pick(lists()),
            Keys = [1, 2, 3, {pair, 7, 1}],
            [{container, [1]}, {list, L, O} | [{instance, L, K} || K <- Keys]]
                ++ [case rand:uniform(10) of
                        1 -> random_op();
                        _ -> {set, L ++ [pick(Keys)], pick(values())}
                    end || _ <- lists:seq(1, 2 + rand:uniform(6))];
        _ -> [random_op() || _ <- lists:seq(1, rand:uniform(3))]
    end.

random_batches_test_() ->
    {timeout, 120, fun() ->
        rand:seed(exsss, {18, 19, 20}),
        %% both answers are common
        ?assert(against_reference("db_model", [random_batch() || _ <- lists:seq(1, 600)], 40) > 100)
    end}.

%% ---- refusals -----------------------------------------------------------------------

%% A refused batch answers the operation at fault and why; nothing of it
%% reaches the tree or the journal.
refusal_test() ->
    Dir = scratch("refusal"),
    {ok, Db} = open(db_refusal, Dir),
    {ok, 1} = arbo_db:commit(Db, [{container, [1]}, {leaf, [1, 2]}, {list, [3], sorted},
                                  {instance, [3], 5}, {instance, [3], {opaque, <<"o">>}},
                                  {list, [4], user_order}, {instance, [4], 1}]),
    Before = dump(arbo_db:tree(Db)),
    Cases = [{[{set, [1, 2], <<"ok">>}, {set, [9], <<"x">>}], 2, no_node},
             {[{set, [1], <<"x">>}], 1, wrong_node_type},
             %% values set on siblings take a shorter way
             {[{set, [3, 5], <<"a">>}, {set, [3, 9], <<"b">>}], 2, no_node},
             {[{set, [3, 5], <<"a">>}, {set, [3, {opaque, <<"o">>}], <<"b">>}], 2, wrong_node_type},
             %% what the batch's own earlier operations did
             {[{instance, [3], 6}, {delete, [3, 5]}, {set, [3, 6], <<"x">>},
               {set, [3, 5], <<"y">>}], 4, no_node},
             {[{leaf, [1, 7]}, {container, [1, 7]}], 2, {name_taken, leaf}},
             {[{delete, [1]}, {leaf, [1, 2]}], 2, no_node},
             {[clear, {set, [1, 2], <<"x">>}], 2, no_node},
             {[{rename, [3, 5], {int, 6}}, {set, [3, 5], <<"x">>}], 2, no_node},
             {[{instance, [3], 6}, {rename, [3, 5], 6}], 2, key_taken},
             {[{move, [3, 5], first}], 1, not_user_ordered},
             {[{move, [4, 1], {before, 1}}], 1, same_node},
             {[{set_flags, [], 1}], 1, root},
             {[{set_attr, [1], 0, {int32, 1}}], 1, {bad_attribute, 0}},
             {[{instance, [3], {pair, 12, 1}}], 1, {bad_key, {pair, 12, 1}}},
             {[{frobnicate, [1]}], 1, bad_op}],
    [?assertEqual({Ops, {error, {I, lists:nth(I, Ops), R}}}, {Ops, arbo_db:commit(Db, Ops)})
     || {Ops, I, R} <- Cases],
    Db2 = reopen(Db, db_refusal, Dir),
    ?assertEqual({Before, 1}, state(Db2)),
    ?assertMatch({error, {already_open, _}}, open(db_refusal, Dir)),
    ?assertEqual({error, {dir_in_use, Db2}}, open(db_refusal_2, Dir ++ "/../" ++ filename:basename(Dir))),
    %% the read handle refuses every change; closing the store closes it
    T = arbo_db:tree(Db2),
    ?assertError({read_only, _}, arbo_tree:set_value(T, arbo_tree:lookup(T, [1, 2]), <<"x">>)),
    ok = arbo_db:close(Db2),
    ?assertError({arbo_closed, _}, arbo_tree:root(T)).

%% ---- journals cut and corrupted ------------------------------------------------------

%% The offsets of a journal's frames.
frame_starts(Bin, Pos) when Pos < byte_size(Bin) ->
    <<_:Pos/binary, Len:32, _/binary>> = Bin,
    [Pos | frame_starts(Bin, Pos + 16 + Len)];
frame_starts(_, _) -> [].

%% A flipped bit in a middle frame (header or payload) refuses the open
%% with the frame's offset; recover => true opens to the frame before it.
%% A last frame cut at any byte, or zeroed, opens to the frame before it;
%% the cut bytes are gone from the file, a warning says how many went from
%% where, and the next commit follows on. A journal of an older snapshot is
%% not replayed onto a newer one, nor a journal of a snapshot that is missing.
journal_test_() ->
    {timeout, 60, fun() -> quiet(fun journal/0) end}.

journal() ->
    Dir = scratch("journal"),
    {ok, Db0} = open(db_journal, Dir),
    Dumps = [begin {ok, _} = arbo_db:commit(Db0, B), dump(arbo_db:tree(Db0)) end
             || B <- [[{list, [1], sorted}, {instance, [1], 1}],
                      [{set, [1, 1], <<"one">>}, {instance, [1], 2}],
                      [{set, [1, 2], {int32, 2}}, {set_flags, [1, 2], 3}],
                      [{instance, [1], 3}, {set, [1, 3], <<"three">>}, {delete, [1, 1]}]]],
    ok = arbo_db:close(Db0),
    [J] = filelib:wildcard(filename:join(Dir, "journal-*")),
    {ok, Bin} = file:read_file(J),
    [_, Second, Third, Last] = frame_starts(Bin, 36),
    [begin
         <<A:Bit/bits, B:1, C/bits>> = Bin,
         ok = file:write_file(J, <<A:Bit/bits, (1 - B):1, C/bits>>),
         ?assertEqual({Bit, {error, {corrupt_journal, J, Second}}}, {Bit, open(db_journal, Dir)}),
         ?assertEqual({Bit, {hd(Dumps), 1}}, {Bit, holds(db_journal, Dir, #{recover => true})})
     end || Bit <- [Second * 8 + 2, (Second + 5) * 8, (Second + 13) * 8 + 7, (Third - 1) * 8]],
    ok = logger:add_handler(?MODULE, ?MODULE, #{config => #{to => self()}, level => warning}),
    Zeroed = <<(binary:part(Bin, 0, Last))/binary, 0:((byte_size(Bin) - Last) * 8)>>,
    [begin
         ok = file:write_file(J, Torn),
         ?assertEqual({byte_size(Torn), {lists:nth(3, Dumps), 3}, Last},
                      {byte_size(Torn), holds(db_journal, Dir, #{}), filelib:file_size(J)}),
         Dropped = byte_size(Torn) - Last,
         ?assertEqual(if Dropped > 0 -> {Dropped, Last}; true -> no_warning end,
                      receive {warning, [db_journal, _, D, At]} -> {D, At} after 100 -> no_warning end)
     end || Torn <- [binary:part(Bin, 0, Cut) || Cut <- lists:seq(Last, byte_size(Bin) - 1)] ++ [Zeroed]],
    ok = logger:remove_handler(?MODULE),
    {ok, Db} = open(db_journal, Dir),
    ?assertEqual({ok, 4}, arbo_db:commit(Db, [{instance, [1], 9}])),
    Db2 = reopen(Db, db_journal, Dir),
    ok = arbo_db:snapshot(Db2),
    ok = arbo_db:close(Db2),
    [New] = filelib:wildcard(filename:join(Dir, "journal-*")),
    ok = file:write_file(New, Bin),
    ?assertEqual({error, {stale_journal, New}}, open(db_journal, Dir)),
    ok = file:write_file(filename:join(Dir, "journal-00000000000000ff-"
                                       "00000000000000000000000000000000.log"), Bin),
    ?assertMatch({error, {missing_snapshot, _}}, open(db_journal, Dir)).

%% A logger handler that passes warnings on to a test process.
log(#{level := warning, msg := {_, Args}}, #{config := #{to := Pid}}) -> Pid ! {warning, Args};
log(_, _) -> ok.

%% ---- writers ---------------------------------------------------------------

%% Under each policy 8 concurrent committers get distinct, gapless sequence
%% numbers and all they were answered is there after a reopen. info/1
%% reports the sync (always: at each write; interval: within its period;
%% none: only on sync/1), the compaction of a journal past compact_bytes
%% and no replication.
policies_test_() ->
    {timeout, 60, fun() -> [policy(P) || P <- [always, {interval, 50}, none]] end}.

policy(Policy) ->
    Dir = scratch("policy"),
    {ok, Db} = open(db_policy, Dir, #{sync => Policy, compact_bytes => 4096}),
    {ok, 1} = arbo_db:commit(Db, [{list, [1], sorted}]),
    T0 = erlang:monotonic_time(millisecond),
    Self = self(),
    Commit = fun(K) -> {ok, S} = arbo_db:commit(Db, [{instance, [1], K}, {set, [1, K], <<K:16>>}]), S end,
    [spawn_link(fun() -> Self ! {done, [Commit(W * 1000 + I) || I <- lists:seq(1, 25)]} end)
     || W <- lists:seq(1, 8)],
    Seqs = lists:append([receive {done, S} -> S end || _ <- lists:seq(1, 8)]),
    ?assertEqual(lists:seq(2, 201), lists:sort(Seqs)),
    timer:sleep(200),
    #{last_sync := LS0, snapshot_seq := Snap, replication := Repl} = arbo_db:info(Db),
    ok = arbo_db:sync(Db),
    #{last_sync := LS} = arbo_db:info(Db),
    ?assertEqual({Policy, Policy =/= none, true, true, #{role => none}},
                 {Policy, is_integer(LS0) andalso LS0 >= T0, LS >= T0, Snap > 0, Repl}),
    Db2 = reopen(Db, db_policy, Dir),
    T = arbo_db:tree(Db2),
    ?assertEqual(200, arbo_tree:num_children(T, arbo_tree:lookup(T, [1]))),
    ok = arbo_db:close(Db2).

%% ---- frames for followers -------------------------------------------------------------

%% A second store fed with the first one's frames, as frames_since/2 reads
%% them back, holds the same tree; frames out of order or malformed are
%% refused. (The replication suite feeds followers as subscribers.)
follower_test() ->
    {ok, A} = open(db_leader, scratch("leader")),
    {ok, B} = open(db_follower, scratch("follower")),
    [{ok, _} = arbo_db:commit(A, Ops)
     || Ops <- [[{list, [1], user_order}, {instance, [1], 1}, {instance, [1], 2}],
                [{set, [1, 1], <<"a">>}, {move, [1, 2], first}, {set_active, [1, 1], false}],
                [{leaf, [2]}, {set, [2], {int32, 7}}, {clear_value, [2]}, clear, {leaf, [3]}]]],
    {ok, Frames} = arbo_db:frames_since(A, 0),
    ?assertEqual([1, 2, 3], [Seq || {Seq, _} <- Frames]),
    ?assertEqual({error, {out_of_order, 1, 2}}, arbo_db:append(B, tl(Frames))),
    ?assertEqual({ok, 1}, arbo_db:append(B, [hd(Frames)])),
    ?assertEqual({error, {out_of_order, 2, 1}}, arbo_db:append(B, Frames)),
    [{2, P2}, {3, _}] = tl(Frames),
    ?assertEqual({error, {bad_frame, 2}}, arbo_db:append(B, [{2, <<"R", P2/binary>>}])),
    ?assertEqual({ok, 3}, arbo_db:append(B, tl(Frames))),
    ?assertEqual(state(A), state(B)),
    %% a compacted leader sends its snapshot instead
    ok = arbo_db:snapshot(A),
    ?assertEqual({error, {compacted, 3}}, arbo_db:frames_since(A, 2)),
    ?assertEqual({ok, []}, arbo_db:frames_since(A, 3)),
    [ok = arbo_db:close(D) || D <- [A, reopen(B, db_follower, maps:get(dir, arbo_db:info(B)))]].

%% A follower applies a batch by the operations that came with its frame
%% only when they make that very frame: otherwise the frame holds.
frame_over_ops_test() ->
    {ok, A} = open(db_leader, scratch("leader")),
    {ok, B} = open(db_follower, scratch("follower")),
    Base = [{container, [1]}, {leaf, [1, 2]}],
    Set = fun(V) -> [{set, [1, 2], V}] end,
    [{ok, _} = arbo_db:commit(A, Ops) || Ops <- [Base, Set(<<"frame">>)]],
    {ok, [{1, P1}, {2, P2}]} = arbo_db:frames_since(A, 0),
    Append = fun(Frames, Ops) -> gen_server:call(B, {repl, {append, Frames, Ops, none}}) end,
    ?assertEqual({ok, 1}, Append([{1, P1}], #{1 => Base})),
    ?assertEqual({ok, 2}, Append([{2, P2}], #{2 => Set(<<"ops">>)})),
    ?assertEqual(state(A), state(B)),
    [ok = arbo_db:close(D) || D <- [A, B]].

%% A subscriber gets each write's frames with the operations of the batches
%% the store applied call by call, not of those it loaded.
subscribe_test() ->
    {ok, A} = open(db_sub, scratch("sub")),
    ok = arbo_db:subscribe(A),
    Small = [{container, [1]}, {leaf, [1, 2]}, {set, [1, 2], <<"v">>}],
    Big = [{list, [3], sorted} | [{instance, [3], K} || K <- lists:seq(1, 100)]],
    [{ok, _} = arbo_db:commit(A, Ops) || Ops <- [Small, Big]],
    Got = [receive {arbo_db_frames, db_sub, [{S, _}], Ops} -> {S, Ops} after 1000 -> none end
           || S <- [1, 2]],
    ?assertEqual([{1, #{1 => Small}}, {2, #{}}], Got),
    ok = arbo_db:close(A).

%% Under sync => always the journal is opened O_SYNC, so that a write
%% returns once it is on disk; under {interval, Ms} it is not.
o_sync_test() ->
    Sync = fun(Policy) ->
        Dir = scratch("osync"),
        {ok, Db} = open(db_osync, Dir, #{sync => Policy}),
        [J] = filelib:wildcard(filename:join(Dir, "journal-*")),
        [Fd] = [F || F <- filelib:wildcard("/proc/self/fd/*"), file:read_link_all(F) =:= {ok, J}],
        {ok, Info} = file:read_file("/proc/self/fdinfo/" ++ filename:basename(Fd)),
        {match, [Flags]} = re:run(Info, "flags:\\s*([0-7]+)", [{capture, all_but_first, list}]),
        ok = arbo_db:close(Db),
        list_to_integer(Flags, 8) band 8#4010000 =:= 8#4010000
    end,
    ?assertEqual([true, false], [Sync(always), Sync({interval, 1000})]).
