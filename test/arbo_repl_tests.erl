%% Replicated stores on several nodes of this machine (started with `peer'):
%% followers equal to their leader after random batches, followers killed
%% and brought back (from the journal, then from a snapshot), a leader
%% killed and a follower promoted, the old leader's return, and a split.
%% The same scenarios, many times over with random kill points, give the
%% figures of `make reliability' (figures/1).
-module(arbo_repl_tests).
-include_lib("eunit/include/eunit.hrl").

-export([figures/1, dump/1, committer/4, distributed/0]).

-define(NAME, arbo_repl_t).

%% ---- nodes --------------------------------------------------------------------------

%% This VM joins the distribution (it may have started without it); every
%% peer loads our code and library and keeps its connections to itself:
%% no mesh made behind the tests' back, no partition "prevented" for them.
distributed() ->
    case node() of
        nonode@nohost ->
            _ = os:cmd("epmd -daemon"),
            Name = list_to_atom("arbo_repl_tests_" ++ os:getpid()),
            {ok, _} = net_kernel:start([Name, shortnames]);
        _ -> ok
    end,
    erlang:set_cookie(arbo_repl_cookie).

start_node(Name) ->
    Ebin = filename:dirname(code:which(arbo_db)),
    TestEbin = filename:dirname(code:which(?MODULE)),
    {ok, P, N} = peer:start(#{name => Name, wait_boot => 60000,
                              args => ["-pa", Ebin, "-pa", TestEbin,
                                       "-setcookie", atom_to_list(erlang:get_cookie()),
                                       "-connect_all", "false",
                                       "+sbwt", "none", "+sbwtdcpu", "none", "+sbwtdio", "none",
                                       "-kernel", "prevent_overlapping_partitions", "false"]}),
    {P, N}.

%% A killed node stops at once, as a crash would: nothing is flushed.
kill({P, N}) ->
    catch erpc:call(N, erlang, halt, [137, [{flush, false}]], 5000),
    catch peer:stop(P),
    ok.

stop({P, _}) -> catch peer:stop(P), ok.

%% Nodes A, B, C with store directories under Root, stopped and removed
%% after Fun.
with_nodes(Fun) ->
    distributed(),
    Root = filename:join("/tmp", "arbo_repl_" ++ os:getpid() ++ "_" ++
                            integer_to_list(erlang:unique_integer([positive]))),
    Names = [list_to_atom(peer:random_name(X)) || X <- ["a", "b", "c"]],
    Nodes = [start_node(X) || X <- Names],
    put(nodes, Nodes),
    try Fun(Root, Nodes)
    after
        [stop(X) || X <- get(nodes)],
        os:cmd("rm -rf '" ++ Root ++ "'")
    end.

%% Replace a node (killed) by a new one of the same name.
restart({_, N} = Old) ->
    [Name, _] = string:split(atom_to_list(N), "@"),
    New = start_node(list_to_atom(Name)),
    put(nodes, [case X of Old -> New; _ -> X end || X <- get(nodes)]),
    New.

dir(Root, {_, N}) -> filename:join(Root, atom_to_list(N)).

open(Root, {_, N} = X, Opts) ->
    {ok, _} = erpc:call(N, arbo_db, open, [?NAME, Opts#{dir => dir(Root, X)}]),
    ok.

leader(Root, X, Followers, Ack) ->
    open(Root, X, #{replicas => [N || {_, N} <- Followers], ack => Ack, ack_timeout => 1000}).

follower(Root, X, {_, L}) -> open(Root, X, #{follow => L}).

%% A leads B and C under ack => majority, with the list the batches write.
majority_group(Root, A, B, C) ->
    leader(Root, A, [B, C], majority),
    follower(Root, B, A),
    follower(Root, C, A),
    {ok, S} = commit(A, base()),
    S.

commit({_, N}, Ops) -> erpc:call(N, arbo_db, commit, [?NAME, Ops], 30000).
info({_, N}) -> erpc:call(N, arbo_db, info, [?NAME]).
seq(X) -> maps:get(seq, info(X)).
role(X) -> maps:get(role, maps:get(replication, info(X))).

%% A store's tree as its saved bytes: equal bytes, equal trees.
dump(Name) ->
    F = filename:join("/tmp", "arbo_repl_dump_" ++ os:getpid()),
    ok = arbo_tree:save(arbo_db:tree(Name), F),
    {ok, B} = file:read_file(F),
    ok = file:delete(F),
    B.

dump_of({_, N}) -> erpc:call(N, ?MODULE, dump, [?NAME]).

%% Wait until X has applied Seq, then compare its tree with Ref's.
same(Ref, X, Seq) ->
    {_, N} = X,
    ok = erpc:call(N, arbo_db, wait_for, [?NAME, Seq, 20000]),
    ?assertEqual(dump_of(Ref), dump_of(X)).

%% ---- batches ------------------------------------------------------------------------

base() -> [{container, [1]}, {list, [1, 2], sorted}].

%% Batch I: writes instance I (and changes a few others), so that the
%% presence of I's value shows whether batch I is in a tree.
batch(I) ->
    K = rand:uniform(50),
    [{instance, [1, 2], I}, {leaf, [1, 2, I, 3]}, {set, [1, 2, I, 3], <<"v", (integer_to_binary(I))/binary>>},
     {instance, [1, 2], 100000 + K}, {leaf, [1, 2, 100000 + K, 4]}, {set, [1, 2, 100000 + K, 4], {int32, I}}]
        ++ case rand:uniform(4) of
               1 -> D = 100000 + rand:uniform(50), [{instance, [1, 2], D}, {delete, [1, 2, D]}];
               _ -> []
           end.

%% Batches from a committer on node N, numbered From.., until told to stop
%% or the node goes: it reports the batches acknowledged.
committer(Parent, N, From, Count) ->
    Acked = committed(N, From, From + Count - 1, []),
    Parent ! {acked, self(), Acked}.

committed(_, I, Last, Acc) when I > Last -> Acc;
committed(N, I, Last, Acc) ->
    receive stop -> Acc
    after 0 ->
        case catch erpc:call(N, arbo_db, commit, [?NAME, batch(I)], 30000) of
            {ok, _} -> committed(N, I + 1, Last, [I | Acc]);
            {error, no_quorum} -> committed(N, I + 1, Last, Acc);
            _ -> Acc
        end
    end.

has(X, I) ->
    {_, N} = X,
    T = erpc:call(N, arbo_db, tree, [?NAME]),
    erpc:call(N, arbo_tree, lookup, [T, [1, 2, I, 3]]) =/= none.

%% ---- tests --------------------------------------------------------------------------

repl_test_() ->
    [{Title, {timeout, 120, Fun}}
     || {Title, Fun} <- [{"followers equal the leader after random batches", fun equal_after_batches/0},
                         {"a killed follower catches up from the journal, then from a snapshot",
                          fun follower_catches_up/0},
                         {"a promoted follower holds every majority commit; the old leader converges",
                          fun promote_after_leader_killed/0},
                         {"a split fails majority commits with no_quorum and heals",
                          fun split_and_heal/0},
                         {"followers holding frames their leader lost are rebuilt from its snapshot",
                          fun leader_lost_frames/0},
                         {"promote refuses when a more advanced member compacted past the node",
                          fun promote_behind/0},
                         {"a follower outside replicas counts for ack one, not for majority",
                          fun unlisted_follower/0}]].

equal_after_batches() ->
    with_nodes(fun(Root, [A, B, C]) ->
        leader(Root, A, [B, C], majority),
        follower(Root, B, A),
        {ok, _} = commit(A, base()),
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(1, 40)],
        %% C starts late: its first frames come from the leader's journal.
        follower(Root, C, A),
        Self = self(),
        Ws = [spawn_link(fun() -> committer(Self, element(2, A), 1000 * K, 25) end)
              || K <- [1, 2, 3, 4]],
        Acked = lists:append([receive {acked, W, L} -> L end || W <- Ws]),
        ?assertEqual(100, length(Acked)),
        %% C stops taking frames for a while: the leader stops sending when
        %% too many are in flight and feeds it from its journal afterwards.
        {_, NC} = C,
        Repl = erpc:call(NC, erlang, whereis, [list_to_atom("arbo_repl " ++ atom_to_list(?NAME))]),
        ok = erpc:call(NC, sys, suspend, [Repl]),
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(2000, 2300)],
        {message_queue_len, Queued} = erpc:call(NC, erlang, process_info, [Repl, message_queue_len]),
        ?assert(Queued =< 256 + 8),
        ok = erpc:call(NC, sys, resume, [Repl]),
        Seq = seq(A),
        same(A, B, Seq),
        same(A, C, Seq),
        %% Followers are read-only, say whom they follow and what they applied.
        {_, NA} = A,
        ?assertEqual({error, {not_leader, NA}}, commit(B, base())),
        Members = lists:sort([N || {_, N} <- [A, B, C]]),
        ?assertMatch(#{seq := Seq, replication := #{role := follower, leader := NA, synced := true,
                                                    members := Members}}, info(C)),
        ?assertEqual({error, timeout}, erpc:call(NC, arbo_db, wait_for, [?NAME, Seq + 1, 50])),
        ?assertEqual(leader, role(A)),
        %% A store opened without replication says so, and wait_for serves it too.
        {ok, _} = erpc:call(NA, arbo_db, open, [plain, #{dir => filename:join(Root, "plain")}]),
        {ok, PS} = erpc:call(NA, arbo_db, commit, [plain, base()]),
        ?assertMatch(#{replication := #{role := none}}, erpc:call(NA, arbo_db, info, [plain])),
        ?assertEqual(ok, erpc:call(NA, arbo_db, wait_for, [plain, PS, 1000])),
        ?assertEqual({error, timeout}, erpc:call(NA, arbo_db, wait_for, [plain, PS + 1, 50])),
        %% A commit that is refused reaches no follower.
        ?assertMatch({error, {2, _, _}}, commit(A, [{container, [7]}, {delete, [8]}])),
        {ok, Seq2} = commit(A, [{container, [9]}]),
        ?assertEqual(Seq + 1, Seq2),
        same(A, B, Seq2),
        %% Frames a follower has are dropped; frames past a gap are not
        %% applied (it asks its leader again).
        {_, NB} = B,
        ReplName = list_to_atom("arbo_repl " ++ atom_to_list(?NAME)),
        [LRepl, BRepl] = [erpc:call(N, erlang, whereis, [ReplName]) || N <- [NA, NB]],
        {ok, [{_, P1}, {_, P2}]} = erpc:call(NA, arbo_db, frames_since, [?NAME, Seq2 - 2]),
        Before = dump_of(B),
        erpc:call(NB, erlang, send, [BRepl, {frames, LRepl, Seq2, [{Seq2 - 1, P1}, {Seq2, P2}]}]),
        erpc:call(NB, erlang, send, [BRepl, {frames, LRepl, Seq2 + 2, [{Seq2 + 2, P2}]}]),
        timer:sleep(300),
        ?assertEqual(Seq2, seq(B)),
        ?assertEqual(Before, dump_of(B)),
        {ok, Seq3} = commit(A, [{container, [10]}]),
        same(A, B, Seq3)
    end).

follower_catches_up() ->
    with_nodes(fun(Root, [A, B, C]) ->
        %% The default ack_timeout: 5 s.
        open(Root, A, #{replicas => [element(2, B), element(2, C)], ack => one}),
        follower(Root, B, A),
        follower(Root, C, A),
        {ok, _} = commit(A, base()),
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(1, 20)],
        kill(B),
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(21, 60)],
        B1 = restart(B),
        follower(Root, B1, A),
        same(A, B1, seq(A)),
        %% Killed again; the leader compacts past it, with a snapshot that
        %% takes several chunks.
        kill(B1),
        Big = binary:copy(<<"x">>, 200),
        [{ok, _} = commit(A, lists:append([[{instance, [1, 2], 200000 + J}, {leaf, [1, 2, 200000 + J, 1]},
                                            {set, [1, 2, 200000 + J, 1], Big}]
                                           || J <- lists:seq(K, K + 999)]))
         || K <- lists:seq(1, 8000, 1000)],
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(61, 70)],
        ok = erpc:call(element(2, A), arbo_db, snapshot, [?NAME]),
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(71, 80)],
        #{snapshot_seq := SnapSeq} = info(A),
        ?assert(SnapSeq > 60),
        %% With no follower at all, ack => one cannot be met.
        {_, NC} = C,
        ok = erpc:call(NC, arbo_db, close, [?NAME]),
        T0 = erlang:monotonic_time(millisecond),
        ?assertEqual({error, no_quorum}, commit(A, batch(81))),
        Waited = erlang:monotonic_time(millisecond) - T0,
        ?assert(Waited >= 5000 andalso Waited < 7000),
        follower(Root, C, A),
        B2 = restart(B1),
        follower(Root, B2, A),
        same(A, B2, seq(A)),
        same(A, C, seq(A))
    end).

promote_after_leader_killed() ->
    with_nodes(fun(Root, [A, B, C]) ->
        majority_group(Root, A, B, C),
        Acked = kill_during_commits(A, 5 + rand:uniform(60)),
        %% Either follower may be behind the other; the one promoted takes
        %% what it lacks from the other first.
        {P, F} = case rand:uniform(2) of 1 -> {B, C}; 2 -> {C, B} end,
        {_, PN} = P,
        {ok, Epoch} = erpc:call(PN, arbo_db, promote, [?NAME]),
        ?assertEqual([], [I || I <- Acked, not has(P, I)]),
        ?assertMatch(#{replication := #{epoch := Epoch}}, info(P)),
        ?assertMatch(#{epochs := [_, {Epoch, _}]},
                     erpc:call(PN, arbo_repl_io, read_state, [dir(Root, P)])),
        {ok, S1} = commit(P, batch(500)),
        same(P, F, S1),
        ?assertEqual(leader, role(P)),
        %% The old leader comes back as it was configured: it learns of the
        %% new epoch, steps down and converges.
        A1 = restart(A),
        leader(Root, A1, [B, C], majority),
        {ok, S2} = commit(P, batch(501)),
        stepped_down(A1, 100),
        same(P, A1, S2),
        ?assertMatch(#{replication := #{epoch := Epoch}}, info(A1)),
        ?assertEqual(follower, role(A1)),
        ?assertMatch({error, {not_leader, PN}}, commit(A1, batch(502)))
    end).

%% Commits from 4 committers on A, A killed after Ms: the batches acknowledged.
kill_during_commits(A, Ms) ->
    Self = self(),
    Ws = [spawn(fun() -> committer(Self, element(2, A), 1000 * K, 100000) end) || K <- [1, 2, 3, 4]],
    timer:sleep(Ms),
    kill(A),
    lists:append([receive {acked, W, L} -> L end || W <- Ws]).

split_and_heal() ->
    with_nodes(fun(Root, [A, B, C]) ->
        S0 = majority_group(Root, A, B, C),
        same(A, B, S0),
        {_, NA} = A,
        Cut = fun(Cookie) ->
                  [begin
                       true = erpc:call(NA, erlang, set_cookie, [N, Cookie]),
                       erpc:call(NA, erlang, disconnect_node, [N])
                   end || {_, N} <- [B, C]]
              end,
        Cut(blocked),
        T0 = erlang:monotonic_time(millisecond),
        ?assertEqual({error, no_quorum}, commit(A, batch(1))),
        Waited = erlang:monotonic_time(millisecond) - T0,
        ?assert(Waited >= 1000 andalso Waited < 5000),
        %% The far side keeps serving reads, stale by its sequence number.
        ?assertEqual(S0, seq(B)),
        ?assertNot(has(B, 1)),
        Cut(erlang:get_cookie()),
        {ok, S1} = retry_commit(A, batch(2), 20),
        same(A, B, S1),
        same(A, C, S1),
        ?assert(has(C, 1)),
        %% Split again; this time B is promoted on the far side. A's
        %% unacknowledged batch is dropped when it learns of B's epoch.
        Cut(blocked),
        ?assertEqual({error, no_quorum}, commit(A, batch(3))),
        {_, NB} = B,
        {ok, _} = erpc:call(NB, arbo_db, promote, [?NAME]),
        {ok, S2} = retry_commit(B, batch(4), 20),
        Cut(erlang:get_cookie()),
        {ok, S3} = retry_commit(B, batch(5), 20),
        ?assert(S3 > S2),
        stepped_down(A, 100),
        same(B, A, S3),
        same(B, C, S3),
        ?assertNot(has(A, 3)),
        ?assertEqual({error, {not_leader, NB}}, commit(A, batch(6)))
    end).

%% Frames go to the followers while the leader syncs them: the leader can
%% lose what they hold, by a sync that fails (its frames are cut back out
%% of its journal) or by its machine going down before the sync (the last
%% frames written are missing when it comes back). Either way its next
%% frames reuse those sequence numbers, and the followers must be rebuilt.
leader_lost_frames() ->
    with_nodes(fun(Root, [A, B, C]) ->
        S0 = majority_group(Root, A, B, C),
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(1, 20)],
        S1 = S0 + 20,
        same(A, B, S1),
        same(A, C, S1),
        {_, NA} = A,
        {_, NB} = B,
        {_, NC} = C,
        [ok = erpc:call(N, arbo_db, close, [?NAME]) || N <- [NB, NC]],
        kill(A),
        drop_last_frames(dir(Root, A), 3),
        %% A comes back 3 frames short and, while its followers are away,
        %% commits past where they stand.
        A1 = restart(A),
        open(Root, A1, #{replicas => [NB, NC], ack => none}),
        ?assertEqual(S1 - 3, seq(A1)),
        [{ok, _} = commit(A1, batch(I)) || I <- lists:seq(100, 104)],
        follower(Root, B, A1),
        follower(Root, C, A1),
        {ok, S2} = commit(A1, batch(105)),
        same(A1, B, S2),
        same(A1, C, S2),
        ?assertNot(has(B, 20)),
        ?assert(has(B, 104)),
        %% A sync that fails on the leader after its followers had the
        %% frames: a majority holds them, yet the commit is not acknowledged.
        ok = erpc:call(NA, arbo_db, close, [?NAME]),
        open(Root, A1, #{replicas => [NB, NC], ack => majority, fail_at => journal_sync}),
        following(A1, 2, 100),
        ?assertEqual({error, injected}, commit(A1, batch(200))),
        ?assertEqual({error, injected}, commit(A1, batch(201))),
        ?assertEqual(S2, seq(A1)),
        converged(A1, [B, C], 100),
        ?assertNot(has(B, 200)),
        ?assertNot(has(C, 201))
    end).

%% Cut the last N frames off a store's journal.
drop_last_frames(Dir, N) ->
    [Path] = filelib:wildcard(filename:join(Dir, "journal-*.log")),
    {ok, Bin} = file:read_file(Path),
    {ok, SnapSeq, _} = arbo_db_journal:parse_header(Bin),
    {ok, #{frames := Frames}} = arbo_db_journal:scan(Bin, SnapSeq),
    Drop = lists:sum([16 + byte_size(P) || {_, P} <- lists:nthtail(length(Frames) - N, Frames)]),
    {ok, Fd} = file:open(Path, [read, write, raw, binary]),
    {ok, _} = file:position(Fd, byte_size(Bin) - Drop),
    ok = file:truncate(Fd),
    ok = file:close(Fd).

%% The leader feeds Count followers.
following({_, N}, Count, Tries) ->
    Repl = erpc:call(N, erlang, whereis, [list_to_atom("arbo_repl " ++ atom_to_list(?NAME))]),
    [Fs] = [X || X <- tuple_to_list(erpc:call(N, sys, get_state, [Repl])), is_map(X)],
    case map_size(Fs) >= Count orelse Tries =:= 0 of
        true -> ?assertEqual(Count, map_size(Fs));
        false -> timer:sleep(100), following({x, N}, Count, Tries - 1)
    end.

%% Followers that end with the leader's sequence number and tree.
converged(L, Fs, 0) -> [?assertEqual({seq(L), dump_of(L)}, {seq(F), dump_of(F)}) || F <- Fs];
converged(L, Fs, N) ->
    case lists:all(fun(F) -> seq(F) =:= seq(L) andalso dump_of(F) =:= dump_of(L) end, Fs) of
        true -> ok;
        false -> timer:sleep(100), converged(L, Fs, N - 1)
    end.

%% B, away, falls behind; C has compacted past it; the leader is lost.
%% Promoting B would drop what C holds: B refuses and names C; C can be
%% promoted, and B then takes its snapshot.
promote_behind() ->
    with_nodes(fun(Root, [A, B, C]) ->
        S0 = majority_group(Root, A, B, C),
        same(A, B, S0),
        {_, NB} = B,
        {_, NC} = C,
        ok = erpc:call(NB, arbo_db, close, [?NAME]),
        [{ok, _} = commit(A, batch(I)) || I <- lists:seq(1, 10)],
        {ok, S1} = commit(A, []),
        ok = erpc:call(NC, arbo_db, wait_for, [?NAME, S1, 20000]),
        ok = erpc:call(NC, arbo_db, snapshot, [?NAME]),
        ?assertMatch(#{snapshot_seq := S1}, info(C)),
        kill(A),
        follower(Root, B, A),
        ?assertEqual({error, {behind, NC}}, erpc:call(NB, arbo_db, promote, [?NAME])),
        ?assertEqual(follower, role(B)),
        {ok, _} = erpc:call(NC, arbo_db, promote, [?NAME]),
        {ok, S2} = commit(C, batch(11)),
        same(C, B, S2),
        ?assert(has(B, 10)),
        ?assertMatch(#{replication := #{leader := NC}}, info(B))
    end).

%% C follows A without being one of A's replicas: it is fed, and it
%% counts for ack => one; a majority is of A and its replicas only.
unlisted_follower() ->
    with_nodes(fun(Root, [A, B, C]) ->
        leader(Root, A, [B], majority),
        follower(Root, B, A),
        follower(Root, C, A),
        {ok, S0} = commit(A, base()),
        same(A, C, S0),
        {_, NA} = A,
        {_, NB} = B,
        ok = erpc:call(NB, arbo_db, close, [?NAME]),
        ?assertEqual({error, no_quorum}, commit(A, batch(1))),
        ?assert(has(C, 1) orelse begin timer:sleep(500), has(C, 1) end),
        ok = erpc:call(NA, arbo_db, close, [?NAME]),
        leader(Root, A, [B], one),
        {ok, S1} = retry_commit(A, batch(2), 5),
        same(A, C, S1),
        %% Without C, nothing meets ack => one.
        ok = erpc:call(element(2, C), arbo_db, close, [?NAME]),
        ?assertEqual({error, no_quorum}, commit(A, batch(3)))
    end).

%% A former leader learns of the newer epoch when it reaches a member.
stepped_down(X, 0) -> ?assertEqual(follower, role(X));
stepped_down(X, N) ->
    case role(X) of
        follower -> ok;
        _ -> timer:sleep(100), stepped_down(X, N - 1)
    end.

retry_commit(_, _, 0) -> {error, no_quorum};
retry_commit(X, Ops, N) ->
    case commit(X, Ops) of
        {error, no_quorum} -> retry_commit(X, Ops, N - 1);
        R -> R
    end.

%% ---- figures for make reliability -----------------------------------------------------

%% Rounds of: committers on the leader A (ack => majority); a follower killed
%% at a random moment, then A; the other follower promoted, and every batch
%% acknowledged looked for on it; the killed follower and then A brought
%% back (A as it was configured, a leader), and both compared with the new
%% leader once they have its last commit.
figures(Scale) ->
    Rounds = case Scale of full -> 20; _ -> 2 end,
    Results = [one_round() || _ <- lists:seq(1, Rounds)],
    Sum = fun(K) -> integer_to_list(lists:sum([maps:get(K, R) || R <- Results])) end,
    [{"rounds (follower, then leader killed at random moments)", integer_to_list(Rounds)},
     {"batches acknowledged under majority before the kills", Sum(acked)},
     {"of them missing on the promoted follower", Sum(lost)},
     {"rounds where the old leader and follower converged", Sum(converged)}].

one_round() ->
    with_nodes(fun(Root, [A, B, C]) ->
        majority_group(Root, A, B, C),
        {X, Y} = case rand:uniform(2) of 1 -> {B, C}; 2 -> {C, B} end,
        Self = self(),
        Ws = [spawn(fun() -> committer(Self, element(2, A), 1000000 * K, 1000000) end)
              || K <- [1, 2, 3, 4]],
        timer:sleep(rand:uniform(300)),
        kill(X),
        timer:sleep(rand:uniform(300)),
        kill(A),
        Acked = lists:append([receive {acked, W, L} -> L end || W <- Ws]),
        {ok, _} = erpc:call(element(2, Y), arbo_db, promote, [?NAME]),
        Lost = length([I || I <- Acked, not has(Y, I)]),
        X1 = restart(X),
        follower(Root, X1, Y),
        {ok, S} = retry_commit(Y, batch(1), 20),
        A1 = restart(A),
        leader(Root, A1, [B, C], majority),
        Converged = try same(Y, X1, S), stepped_down(A1, 100), same(Y, A1, S), 1
                    catch _:_ -> 0
                    end,
        #{acked => length(Acked), lost => Lost, converged => Converged}
    end).
