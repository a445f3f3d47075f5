%% Durable stores: batches against a tree changed through the plain API,
%% journals cut and corrupted byte by byte, compactions interrupted in a
%% child VM, concurrent committers and the sync policies.
-module(arbo_db_tests).
-include_lib("eunit/include/eunit.hrl").

-export([commit_and_compact/3, log/2]).

%% ---- helpers ------------------------------------------------------------------------

scratch(Name) ->
    D = filename:join("/tmp", "arbo_db_" ++ os:getpid() ++ "_" ++ Name),
    os:cmd("rm -rf '" ++ D ++ "'"),
    D.

%% A tree's contents as its saved bytes: equal bytes, equal trees.
dump(T) ->
    F = filename:join("/tmp", "arbo_db_dump_" ++ os:getpid()),
    ok = arbo_tree:save(T, F),
    {ok, B} = file:read_file(F),
    ok = file:delete(F),
    B.

copy(T) ->
    F = filename:join("/tmp", "arbo_db_copy_" ++ os:getpid()),
    ok = arbo_tree:save(T, F),
    C = arbo_tree:new(),
    {ok, _} = arbo_tree:load(C, F),
    ok = file:delete(F),
    C.

open(Name, Dir) -> open(Name, Dir, #{}).
open(Name, Dir, Opts) -> arbo_db:open(Name, Opts#{dir => Dir}).

%% What a store holds: its tree and its last sequence number.
state(Db) -> {dump(arbo_db:tree(Db)), maps:get(seq, arbo_db:info(Db))}.

%% Close and open again: what is read back is what the store held.
reopen(Db, Name, Dir) ->
    Expect = state(Db),
    ok = arbo_db:close(Db),
    {ok, Db2} = open(Name, Dir),
    ?assertEqual(Expect, state(Db2)),
    Db2.

%% Open, read what the store holds, close.
holds(Name, Dir, Opts) ->
    {ok, Db} = open(Name, Dir, Opts),
    S = state(Db),
    ok = arbo_db:close(Db),
    S.

%% Open a store, commit each batch, close: the tree after each.
committed(Name, Dir, Batches) ->
    {ok, Db} = open(Name, Dir),
    Dumps = [begin {ok, _} = arbo_db:commit(Db, B), dump(arbo_db:tree(Db)) end || B <- Batches],
    ok = arbo_db:close(Db),
    Dumps.

journal(Dir) ->
    {ok, Names} = file:list_dir(Dir),
    [J] = [filename:join(Dir, N) || N <- Names, lists:prefix("journal-", N)],
    J.

%% Run F with the console's log handler silent: the warnings and errors it
%% provokes are expected (and checked where they are promised).
quiet(F) ->
    {ok, #{level := Level}} = logger:get_handler_config(default),
    ok = logger:set_handler_config(default, level, none),
    try F() after logger:set_handler_config(default, level, Level) end.

%% ---- the plain API as the reference -------------------------------------------------

%% Apply a batch to a copy of the reference through arbo_tree: {ok, Copy}
%% or {fail, Index} for the first operation the plain API refuses.
reference(Ref, Ops) ->
    C = copy(Ref),
    case ref_ops(C, Ops, 1) of
        ok -> {ok, C};
        Fail -> arbo_tree:close(C), Fail
    end.

ref_ops(_, [], _) -> ok;
ref_ops(T, [Op | More], I) ->
    case catch ref_op(T, Op) of
        ok -> ref_ops(T, More, I + 1);
        _ -> {fail, I}
    end.

node(T, P) ->
    case arbo_tree:lookup(T, P) of
        none -> throw(none);
        N -> N
    end.

parent(T, P) -> node(T, lists:droplast(P)).

ok(true) -> ok;
ok(ok) -> ok;
ok(X) when is_tuple(X) -> ok.  % a node

ref_op(T, {container, P}) -> ok(arbo_tree:add_container(T, parent(T, P), lists:last(P)));
ref_op(T, {leaf, P}) -> ok(arbo_tree:add_leaf(T, parent(T, P), lists:last(P)));
ref_op(T, {list, P, O}) -> ok(arbo_tree:add_list(T, parent(T, P), lists:last(P), O));
ref_op(T, {instance, P, K}) -> ok(arbo_tree:add(T, node(T, P), K));
ref_op(T, {set, P, V}) -> arbo_tree:set_value(T, node(T, P), V);
ref_op(T, {clear_value, P}) -> arbo_tree:clear_value(T, node(T, P));
ref_op(T, {set_flags, P, F}) -> arbo_tree:set_flags(T, node(T, P), F);
ref_op(T, {set_attr, P, Id, V}) -> arbo_tree:set_attr(T, node(T, P), Id, V);
ref_op(T, {delete_attr, P, Id}) -> arbo_tree:delete_attr(T, node(T, P), Id);
ref_op(T, {set_active, P, B}) -> arbo_tree:set_active(T, node(T, P), B);
ref_op(T, {delete, P}) -> arbo_tree:delete(T, node(T, P));
ref_op(T, {delete_ns, P, Ns}) -> _ = arbo_tree:delete_ns(T, node(T, P), Ns), ok;
ref_op(T, {rename, P, K}) -> ok(arbo_tree:rename(T, node(T, P), K));
ref_op(T, {move, P, W}) ->
    N = node(T, P),
    _ = case W of
            first -> arbo_tree:move_to(T, N, 0);
            last -> arbo_tree:move_to(T, N, -1);
            {position, X} -> arbo_tree:move_to(T, N, X);
            {Rel, K} ->
                O = node(T, lists:droplast(P) ++ [K]),
                arbo_tree:is_same(N, O) andalso throw(same),
                case Rel of
                    before -> arbo_tree:move_before(T, N, O);
                    'after' -> arbo_tree:move_after(T, N, O)
                end
        end,
    ok;
ref_op(T, clear) -> arbo_tree:clear(T).

%% ---- random batches -----------------------------------------------------------------

pick(L) -> lists:nth(rand:uniform(length(L)), L).

containers() -> [[1], [2], [1, 10]].
leaves() -> [[3], [{5, 3}], [1, 11], [1, 10, 12], [4, 2, 20]].
lists() -> [{[4], user_order}, {[{6, 4}], sorted}, {[1, 13], user_order}].
keys() -> [1, 2, 3, {int, 4}, {pair, 7, 1}, [{string, <<"a">>}, {int32, 1}], {opaque, <<"k">>}].
instances() -> [L ++ [K] || {L, _} <- lists(), K <- keys()].
valued() -> leaves() ++ [L ++ [K] || {L, _} <- lists(), K <- [1, 2, 3, {pair, 7, 1}]].
anything() -> containers() ++ leaves() ++ [L || {L, _} <- lists()] ++ instances().
values() -> [<<"v">>, binary:copy(<<"x">>, 300), {int32, 42}, {string, binary:copy(<<"s">>, 80)}].

%% One operation of each kind, some more often: leaves, lists and instances
%% twice, operations on the user-ordered list [4] three times over.
random_op() ->
    {L, O} = pick(lists()),
    {LI, _} = pick(lists()),
    I4 = [4, rand:uniform(3)],
    pick([{container, pick(containers())}, {leaf, pick(leaves())}, {leaf, pick(leaves())},
          {list, L, O}, {list, L, O}, {instance, LI, pick(keys())}, {instance, LI, pick(keys())},
          {set, pick(valued()), pick(values())}, {set, pick(valued()), <<"w">>},
          {clear_value, pick(valued())}, {set_active, pick(instances()), pick([true, false])},
          {set_flags, pick(anything()), pick([0, 5, 300, 1 bsl 20, 1 bsl 40])},
          {set_attr, pick(anything()), pick([1, 7]), {int32, rand:uniform(9)}},
          {delete_attr, pick(anything()), pick([1, 7])},
          {delete, pick(pick([anything(), instances(), leaves()]))},
          {delete_ns, pick([[], [1], [4]]), pick([0, 5, 7])},
          {rename, pick(instances()), pick(keys())},
          {move, pick(instances()), pick([first, last, {position, 1}, {before, 1}, {'after', 2},
                                          {before, {pair, 7, 1}}])},
          pick([{leaf, [3]}, {container, [2]}, {leaf, [1, 11]}]), {container, [1]},
          {list, [1, 13], user_order}, {list, [4], user_order}, {instance, [4], rand:uniform(3)},
          {set_active, I4, pick([true, false])},
          {rename, I4, pick([1, 2, 3, {int, 100 + rand:uniform(3)}])},
          {move, I4, pick([first, last, {position, 1}, {'after', 2}])}]).

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

%% Every batch is answered as the plain API would take it: committed whole
%% (the store's tree then equals the reference) or refused at the operation
%% the plain API refuses (nothing changed). Two stores take the same
%% batches: one applies them call by call, the other through the loader
%% from the frame's records. Reopened, from the journal alone and after a
%% snapshot, each equals the reference too.
random_batches_test_() ->
    {timeout, 120, fun() ->
        rand:seed(exsss, {18, 19, 20}),
        Stores = [{db_model, scratch("model"), #{}}, {db_model_native, scratch("model_n"),
                                                       #{direct_max => 0}}],
        Dbs0 = [begin {ok, D} = open(N, Dir, O), D end || {N, Dir, O} <- Stores],
        put(committed, 0),
        {Dbs, _} =
            lists:foldl(
              fun(I, {Dbs, Ref}) ->
                      Ops = random_batch(),
                      Answers = [arbo_db:commit(Db, Ops) || Db <- Dbs],
                      Ref1 =
                          case {lists:usort([A || {A, _} <- Answers]), reference(Ref, Ops)} of
                              {[ok], {ok, R}} ->
                                  arbo_tree:close(Ref),
                                  put(committed, get(committed) + 1),
                                  R;
                              {[error], {fail, At}} ->
                                  %% and nothing changed: the trees are compared below
                                  [?assertMatch({error, {At, _, _}}, A) || A <- Answers],
                                  Ref;
                              Other -> error({mismatch, Ops, Answers, Other})
                          end,
                      [?assertEqual(dump(Ref1), dump(arbo_db:tree(Db))) || Db <- Dbs],
                      Dbs1 = case I rem 100 of
                                 0 -> [reopen(Db, N, Dir) || {Db, {N, Dir, _}} <- lists:zip(Dbs, Stores)];
                                 50 -> [ok = arbo_db:snapshot(Db) || Db <- Dbs], Dbs;
                                 _ -> Dbs
                             end,
                      {Dbs1, Ref1}
              end, {Dbs0, arbo_tree:new()}, lists:seq(1, 600)),
        [ok = arbo_db:close(reopen(Db, N, Dir)) || {Db, {N, Dir, _}} <- lists:zip(Dbs, Stores)],
        %% both answers are common
        ?assert(get(committed) > 100)
    end}.

%% Every kind of operation, committed and compared with the plain API, in
%% memory and replayed from the journal.
every_kind_test() ->
    Batches = [[{container, [1]}, {leaf, [1, 2]}, {leaf, [{3, 4}]}, {list, [5], user_order},
                {list, [{6, 7}], sorted_length_first}, {instance, [5], 1}, {instance, [5], 2},
                {instance, [5], 3}, {list, [11], user_order}, {instance, [11], {pair, 3, 4}}, {instance, [{6, 7}], [{string, <<"k">>}]},
                {instance, [{6, 7}], {opaque, <<"o">>}}, {leaf, [5, 1, 9]}],
               [{set, [1, 2], <<"short">>}, {set, [{3, 4}], binary:copy(<<"l">>, 300)},
                {set, [5, 1], {int32, -5}}, {set, [5, 2], {string, binary:copy(<<"s">>, 90)}},
                {set, [5, 1, 9], {bool, true}}],
               [{set_flags, [1], 7}, {set_flags, [1, 2], 1 bsl 12}, {set_flags, [5, 1], 1 bsl 20},
                {set_flags, [5], 1 bsl 40}],
               [{set_attr, [1, 2], 1, {int32, 1}}, {set_attr, [5, 2], 9, {string, <<"a">>}}],
               [{delete_attr, [1, 2], 1}],
               [{clear_value, [{3, 4}]}],
               [{set_active, [5, 2], false}, {set_active, [5, 1], false}],
               [{set_active, [5, 1], true}],
               [{move, [5, 2], first}, {move, [5, 3], {position, 1}}],
               [{move, [5, 1], {before, 2}}, {move, [5, 2], {'after', 3}}, {move, [5, 1], last}],
               [{rename, [5, 1], {int, 10}}, {rename, [{6, 7}, {opaque, <<"o">>}], {opaque, <<"p">>}}],
               [{delete, [{6, 7}, [{string, <<"k">>}]]}, {delete, [1, 2]}],
               [{leaf, [{9, 1}]}, {leaf, [{9, 2}]}, {leaf, [{8, 1}]}],
               [{delete_ns, [], 9}],
               [clear, {leaf, [1]}, {set, [1], <<"after clear">>}]],
    {Refs, _} = lists:mapfoldl(fun(Ops, Ref) -> {ok, R} = reference(Ref, Ops), {dump(R), R} end,
                               arbo_tree:new(), Batches),
    Dir = scratch("kinds"),
    Dumps = committed(db_kinds, Dir, Batches),
    ?assertEqual(Refs, Dumps),
    %% the journal replays each step to the same tree, and every step changed it
    ?assertEqual(Dumps, replayed(db_kinds, Dir)),
    ?assertEqual(length(Batches), length(lists:usort(Dumps))).

%% The tree after each frame, replayed: the journal cut after frame N.
replayed(Name, Dir) ->
    J = journal(Dir),
    {ok, Bin} = file:read_file(J),
    [begin
         ok = file:write_file(J, binary:part(Bin, 0, End)),
         element(1, holds(Name, Dir, #{}))
     end || End <- tl(frame_starts(Bin, 36)) ++ [byte_size(Bin)]].

%% ---- refusals -----------------------------------------------------------------------

refusal_test() ->
    Dir = scratch("refusal"),
    {ok, Db} = open(db_refusal, Dir),
    {ok, 1} = arbo_db:commit(Db, [{container, [1]}, {leaf, [1, 2]}, {list, [3], sorted},
                                  {instance, [3], 5}, {instance, [3], {opaque, <<"o">>}},
                                  {list, [4], user_order}, {instance, [4], 1}]),
    Before = dump(arbo_db:tree(Db)),
    Cases = [{[{set, [1, 2], <<"ok">>}, {set, [9], <<"x">>}], 2, no_node},
             {[{set, [1], <<"x">>}], 1, wrong_node_type},
             {[{set, [3, 5], <<"a">>}, {set, [3, 9], <<"b">>}], 2, no_node},
             {[{set, [3, 5], <<"a">>}, {set, [3, {opaque, <<"o">>}], <<"b">>}], 2, wrong_node_type},
             {[{instance, [3], 6}, {delete, [3, 5]}, {set, [3, 6], <<"x">>},
               {set, [3, 5], <<"y">>}], 4, no_node},
             {[{set, [3, 5], <<"a">>}, {set, [3, 5], empty}], 2, {bad_value, empty}},
             {[{leaf, [1, 7]}, {container, [1, 7]}], 2, {name_taken, leaf}},
             {[{instance, [1], 3}], 1, wrong_node_type},
             {[{leaf, [3, 4]}], 1, wrong_node_type},
             {[{delete, [1, 2]}, {set, [1, 2], <<"x">>}], 2, no_node},
             {[{delete, [1]}, {leaf, [1, 2]}], 2, no_node},
             {[clear, {set, [1, 2], <<"x">>}], 2, no_node},
             {[{delete_ns, [], 0}, {set, [1, 2], <<"x">>}], 2, no_node},
             {[{rename, [3, 5], {int, 6}}, {set, [3, 5], <<"x">>}], 2, no_node},
             {[{instance, [3], 6}, {rename, [3, 5], 6}], 2, key_taken},
             {[{move, [3, 5], first}], 1, not_user_ordered},
             {[{move, [4, 1], {before, 2}}], 1, {no_node, 2}},
             {[{move, [4, 1], {before, 1}}], 1, same_node},
             {[{move, [4, 1], sideways}], 1, {bad_position, sideways}},
             {[{set_active, [1, 2], false}], 1, wrong_node_type},
             {[{set_flags, [], 1}], 1, root},
             {[{set_flags, [1], -1}], 1, {bad_flags, -1}},
             {[{set_attr, [1], 0, {int32, 1}}], 1, {bad_attribute, 0}},
             {[{set, [1, 2], {nonsense, 1}}], 1, {bad_value, {nonsense, 1}}},
             {[{list, [5], shuffled}], 1, {bad_order, shuffled}},
             {[{instance, [3], {pair, 12, 1}}], 1, {bad_key, {pair, 12, 1}}},
             {[{instance, [3], {pair, 256, 1}}], 1, {bad_key, {pair, 256, 1}}},
             {[{instance, [3], {encoded, <<255, 1>>}}], 1, {bad_key, {encoded, <<255, 1>>}}},
             {[{leaf, [1, -1]}], 1, {bad_key, -1}},
             {[{container, [{1, 2}]}], 1, {bad_key, {1, 2}}},
             {[{frobnicate, [1]}], 1, bad_op},
             {[{set, not_a_path, <<"x">>}], 1, bad_path}],
    [?assertEqual({Ops, {error, {I, lists:nth(I, Ops), R}}}, {Ops, arbo_db:commit(Db, Ops)})
     || {Ops, I, R} <- Cases],
    ?assertEqual(Before, dump(arbo_db:tree(Db))),
    ?assertMatch(#{seq := 1}, arbo_db:info(Db)),
    %% and nothing of them reached the journal
    Db2 = reopen(Db, db_refusal, Dir),
    ?assertMatch({error, {already_open, _}}, open(db_refusal, Dir)),
    ?assertEqual({error, {dir_in_use, Db2}}, open(db_refusal_2, Dir ++ "/../" ++ filename:basename(Dir))),
    %% the read handle refuses every change; closing the store closes it
    T = arbo_db:tree(Db2),
    Root = arbo_tree:root(T),
    [?assertError({read_only, _}, apply(arbo_tree, F, [T | A]))
     || {F, A} <- [{add_leaf, [Root, 99]}, {delete, [arbo_tree:lookup(T, [1])]}, {clear, []},
                   {set_value, [arbo_tree:lookup(T, [1, 2]), <<"x">>]}]],
    ?assertEqual(Before, dump(T)),
    ok = arbo_db:close(Db2),
    ?assertError({arbo_closed, _}, arbo_tree:root(T)).

%% ---- journals cut and corrupted ------------------------------------------------------

%% Four frames; Dumps holds the tree after each.
four_frames(Name, Dir) ->
    Dumps = committed(Name, Dir, [[{list, [1], sorted}, {instance, [1], 1}],
                                  [{set, [1, 1], <<"one">>}, {instance, [1], 2}],
                                  [{set, [1, 2], {int32, 2}}, {set_flags, [1, 2], 3}],
                                  [{instance, [1], 3}, {set, [1, 3], <<"three">>},
                                   {delete, [1, 1]}]]),
    J = journal(Dir),
    {ok, Bin} = file:read_file(J),
    {J, Bin, Dumps, frame_starts(Bin, 36)}.

frame_starts(Bin, Pos) when Pos < byte_size(Bin) ->
    <<_:Pos/binary, Len:32, _/binary>> = Bin,
    [Pos | frame_starts(Bin, Pos + 16 + Len)];
frame_starts(_, _) -> [].

%% A last frame cut at any byte, or zeroed, opens to the frame before it;
%% the cut bytes are gone from the file, and the next commit follows on.
torn_tail_test_() ->
    {timeout, 60, fun() -> quiet(fun torn_tail/0) end}.

torn_tail() ->
    Dir = scratch("torn"),
    {J, Bin, Dumps, Starts} = four_frames(db_torn, Dir),
    Last = lists:last(Starts),
    ok = logger:add_handler(arbo_db_tests, ?MODULE, #{config => #{to => self()},
                                                       level => warning}),
    Third = lists:nth(3, Dumps),
    Zeroed = <<(binary:part(Bin, 0, Last))/binary, 0:((byte_size(Bin) - Last) * 8)>>,
    Tails = [binary:part(Bin, 0, Cut) || Cut <- lists:seq(Last, byte_size(Bin) - 1)]
        ++ [Zeroed],
    [begin
         ok = file:write_file(J, Torn),
         ?assertEqual({byte_size(Torn), {Third, 3}}, {byte_size(Torn), holds(db_torn, Dir, #{})}),
         ?assertEqual(Last, filelib:file_size(J)),
         %% a warning says how many bytes went, from where
         Dropped = byte_size(Torn) - Last,
         ?assertEqual(if Dropped > 0 -> {Dropped, Last}; true -> no_warning end,
                      receive {warning, [db_torn, _, D, At]} -> {D, At}
                      after 100 -> no_warning
                      end)
     end || Torn <- Tails],
    ok = logger:remove_handler(arbo_db_tests),
    %% after a cut, new frames follow on and replay
    {ok, Db} = open(db_torn, Dir),
    ?assertEqual({ok, 4}, arbo_db:commit(Db, [{instance, [1], 9}])),
    ok = arbo_db:close(reopen(Db, db_torn, Dir)).

%% A logger handler that passes warnings on to a test process.
log(#{level := warning, msg := {_, Args}}, #{config := #{to := Pid}}) -> Pid ! {warning, Args};
log(_, _) -> ok.

%% A flipped bit in a middle frame (header or payload) refuses the open
%% with the frame's offset; recover => true opens to the frame before it.
corrupt_middle_test() -> quiet(fun corrupt_middle/0).

corrupt_middle() ->
    Dir = scratch("corrupt"),
    {J, Bin, Dumps, Starts} = four_frames(db_corrupt, Dir),
    Second = lists:nth(2, Starts),
    Third = lists:nth(3, Starts),
    [begin
         <<A:Bit/bits, B:1, C/bits>> = Bin,
         ok = file:write_file(J, <<A:Bit/bits, (1 - B):1, C/bits>>),
         ?assertEqual({Bit, {error, {corrupt_journal, J, Second}}},
                      {Bit, open(db_corrupt, Dir)}),
         ?assertEqual({Bit, {hd(Dumps), 1}}, {Bit, holds(db_corrupt, Dir, #{recover => true})}),
         ok = file:write_file(J, Bin)
     end || Bit <- [Second * 8 + 2, (Second + 5) * 8, (Second + 13) * 8 + 7, (Third - 1) * 8]].

%% A journal from before a snapshot, put where the new one is, is not
%% replayed: its header names the old snapshot.
stale_journal_test() ->
    Dir = scratch("stale"),
    {ok, Db} = open(db_stale, Dir),
    {ok, _} = arbo_db:commit(Db, [{leaf, [1]}, {set, [1], <<"a">>}]),
    {ok, Old} = file:read_file(journal(Dir)),
    ok = arbo_db:snapshot(Db),
    {ok, _} = arbo_db:commit(Db, [{set, [1], <<"b">>}]),
    ok = arbo_db:close(Db),
    New = journal(Dir),
    ok = file:write_file(New, Old),
    ?assertEqual({error, {stale_journal, New}}, open(db_stale, Dir)),
    %% nor is a journal of a snapshot that is missing
    ok = file:write_file(filename:join(Dir, "journal-00000000000000ff-"
                                       "00000000000000000000000000000000.log"), Old),
    ?assertMatch({error, {missing_snapshot, _}}, open(db_stale, Dir)).

%% ---- compaction killed at every step -------------------------------------------------

%% In the child: commit batches, then compact and stop the VM at Step.
commit_and_compact(Dir, Step, Batches) ->
    {ok, Db} = arbo_db:open(db_child, #{dir => Dir, crash_at => Step}),
    [{ok, _} = arbo_db:commit(Db, B) || B <- Batches],
    arbo_db:snapshot(Db).

child() ->
    Args = lists:append([["-pa", filename:absname(filename:dirname(code:which(M)))]
                         || M <- [?MODULE, arbo_tree]]),
    {ok, Peer, _} = peer:start(#{connection => standard_io, args => Args}),
    Peer.

compaction_killed_test_() ->
    {timeout, 120, fun() ->
        Batches = [[{list, [1], sorted}] | [[{instance, [1], I}, {set, [1, I], <<I:32>>}]
                                            || I <- lists:seq(1, 20)]],
        Expect = lists:last(committed(db_compact, scratch("compact_ref"), Batches)),
        [begin
             Dir = scratch("compact_" ++ atom_to_list(Step)),
             Peer = child(),
             Outcome = (catch peer:call(Peer, ?MODULE, commit_and_compact, [Dir, Step, Batches])),
             catch peer:stop(Peer),
             ?assertMatch({'EXIT', _}, Outcome),
             ?assertEqual({Step, {Expect, 21}}, {Step, holds(db_compact, Dir, #{})}),
             %% and it goes on from there
             {ok, Db} = open(db_compact, Dir),
             {ok, 22} = arbo_db:commit(Db, [{instance, [1], 99}]),
             ok = arbo_db:close(reopen(Db, db_compact, Dir)),
             {ok, Names} = file:list_dir(Dir),
             ?assertEqual({Step, 2}, {Step, length(Names)})
         end || Step <- [snapshot_write, snapshot_renamed, journal_started, old_removed]]
    end}.

%% A compaction that fails after its snapshot was written leaves no new
%% snapshot behind: the commits after it, in the old journal, are there at
%% the next open. Temporary files are removed at open.
compaction_failed_test() -> quiet(fun compaction_failed/0).

compaction_failed() ->
    Dir = scratch("compact_fail"),
    {ok, Db} = open(db_compact_fail, Dir, #{fail_at => journal_write}),
    {ok, 1} = arbo_db:commit(Db, [{leaf, [1]}, {set, [1], <<"before">>}]),
    ?assertEqual({error, injected}, arbo_db:snapshot(Db)),
    {ok, 2} = arbo_db:commit(Db, [{set, [1], <<"after">>}]),
    ?assertMatch(#{snapshot_seq := 0}, arbo_db:info(Db)),
    ok = file:write_file(filename:join(Dir, ".left.tmp"), <<"x">>),
    Db2 = reopen(Db, db_compact_fail, Dir),
    {ok, Names} = file:list_dir(Dir),
    ?assertEqual(["LOCK", "journal", "snap"], lists:sort([hd(string:split(N, "-")) || N <- Names])),
    %% an empty batch answers the last seq and writes nothing
    #{journal_bytes := JB} = arbo_db:info(Db2),
    ?assertEqual({ok, 2}, arbo_db:commit(Db2, [])),
    ?assertMatch(#{seq := 2, journal_bytes := JB}, arbo_db:info(Db2)),
    ok = arbo_db:close(Db2).

%% ---- writers --------------------------------------------------------------------------

%% Concurrent committers get distinct, gapless sequence numbers, in the
%% order of the journal; everything acknowledged is there after a reopen.
concurrent_test_() ->
    {timeout, 60, fun() ->
        Dir = scratch("concurrent"),
        {ok, Db} = open(db_conc, Dir),
        {ok, 1} = arbo_db:commit(Db, [{list, [1], sorted}]),
        Self = self(),
        Commit = fun(K) ->
                         {ok, S} = arbo_db:commit(Db, [{instance, [1], K}, {set, [1, K], <<K:16>>}]),
                         S
                 end,
        [spawn_link(fun() -> Self ! {done, [Commit(W * 1000 + I) || I <- lists:seq(1, 25)]} end)
         || W <- lists:seq(1, 8)],
        All = lists:append([receive {done, S} -> S end || _ <- lists:seq(1, 8)]),
        ?assertEqual(lists:seq(2, 201), lists:sort(All)),
        Db2 = reopen(Db, db_conc, Dir),
        ?assertEqual(200, arbo_tree:num_children(arbo_db:tree(Db2),
                                                 arbo_tree:lookup(arbo_db:tree(Db2), [1]))),
        ok = arbo_db:close(Db2)
    end}.

%% Each policy keeps what was acknowledged over a close and reopen; sync/1
%% and info/1 report the sync; a journal past compact_bytes compacts.
policies_test() ->
    [begin
         Dir = scratch("policy"),
         {ok, Db} = open(db_policy, Dir, #{sync => Policy, compact_bytes => 4096}),
         [{ok, _} = arbo_db:commit(Db, [{leaf, [I]}, {set, [I], binary:copy(<<I>>, 100)}])
          || I <- lists:seq(1, 60)],
         %% always syncs each write, interval within its period, none only on sync/1
         T0 = erlang:monotonic_time(millisecond),
         {ok, _} = arbo_db:commit(Db, [{set, [1], <<"again">>}]),
         timer:sleep(200),
         #{last_sync := LS0} = arbo_db:info(Db),
         ?assertEqual({Policy, Policy =/= none}, {Policy, is_integer(LS0) andalso LS0 >= T0}),
         ok = arbo_db:sync(Db),
         #{seq := 61, snapshot_seq := Snap, journal_bytes := JB, last_sync := LS} = arbo_db:info(Db),
         %% synced by now; compacted on the way
         ?assertEqual({Policy, true, true, true}, {Policy, LS >= T0, Snap > 0, JB < 4096 + 200}),
         ok = arbo_db:close(reopen(Db, db_policy, Dir))
     end || Policy <- [always, {interval, 50}, none]],
    ?assertError({badarg, _}, arbo_db:commit(db_policy, not_a_list)).

%% ---- frames for followers -------------------------------------------------------------

%% A second store fed with the first one's frames, as a subscriber gets
%% them and as frames_since/2 reads them back, holds the same tree; frames
%% out of order or malformed are refused.
follower_test() ->
    {ok, A} = open(db_leader, scratch("leader")),
    {ok, B} = open(db_follower, scratch("follower")),
    ok = arbo_db:subscribe(A),
    Batches = [[{list, [1], user_order}, {instance, [1], 1}, {instance, [1], 2}],
               [{set, [1, 1], <<"a">>}, {move, [1, 2], first}, {set_active, [1, 1], false}],
               [{leaf, [2]}, {set, [2], {int32, 7}}, {clear_value, [2]}, clear, {leaf, [3]}]],
    [{ok, _} = arbo_db:commit(A, Ops) || Ops <- Batches],
    Frames = lists:append([receive {arbo_db_frames, db_leader, F} -> F end || _ <- Batches]),
    ?assertEqual([1, 2, 3], [Seq || {Seq, _} <- Frames]),
    ?assertEqual({ok, Frames}, arbo_db:frames_since(A, 0)),
    ?assertEqual({ok, tl(Frames)}, arbo_db:frames_since(A, 1)),
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


%% ---- one VM per directory --------------------------------------------------------------

%% A store open in another VM keeps this VM out; once that VM is killed,
%% the lock it left is taken over.
lock_test_() ->
    {timeout, 60, fun() ->
        Dir = scratch("lock"),
        Peer = child(),
        {ok, _} = peer:call(Peer, arbo_db, open, [db_lock, #{dir => Dir}]),
        OsPid = peer:call(Peer, os, getpid, []),
        ?assertEqual({error, {locked, filename:join(Dir, "LOCK"), OsPid}},
                     arbo_db:open(db_lock, #{dir => Dir})),
        os:cmd("kill -9 " ++ OsPid),
        catch peer:stop(Peer),
        {ok, Db} = arbo_db:open(db_lock, #{dir => Dir}),
        ok = arbo_db:close(Db),
        ?assertNot(filelib:is_file(filename:join(Dir, "LOCK")))
    end}.
