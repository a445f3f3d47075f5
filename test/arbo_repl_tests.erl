%% Replicated stores on several nodes of this machine (started with `peer'):
%% followers equal to their leader after random batches, followers killed
%% and brought back (from the journal, then from a snapshot), a leader
%% killed and a follower promoted, the old leader's return, and a split.
%% The same scenarios, many times over with random kill points, give the
%% figures of `make reliability' (figures/1).
-module(arbo_repl_tests).
-include_lib("eunit/include/eunit.hrl").

-export([figures/1, distributed/0]).

-define(NAME, arbo_repl_t).

%% ---- nodes --------------------------------------------------------------------------

%% This VM joins the distribution (it may have started without it); every
%% peer loads our code and library and keeps its connections to itself:
%% no mesh made behind the tests' back, no partition "prevented" for them.
distributed() ->
    node() =:= nonode@nohost andalso begin
        _ = os:cmd("epmd -daemon"),
        {ok, _} = net_kernel:start([list_to_atom("arbo_repl_tests_" ++ os:getpid()), shortnames])
    end,
    erlang:set_cookie(arbo_repl_cookie).

start_node(Name) ->
    Args = ["-setcookie", atom_to_list(erlang:get_cookie()), "-connect_all", "false",
            "+sbwt", "none", "+sbwtdcpu", "none", "+sbwtdio", "none",
            "-kernel", "prevent_overlapping_partitions", "false"],
    arbo_test_util:start_peer(#{name => Name, wait_boot => 60000, args => Args}).

%% A killed node stops at once, as a crash would: nothing is flushed.
kill({P, N}) ->
    catch erpc:call(N, erlang, halt, [137, [{flush, false}]], 5000),
    catch peer:stop(P),
    ok.

%% Nodes A, B, C with store directories under Root, stopped and removed
%% after Fun.
with_nodes(Fun) ->
    distributed(),
    Root = arbo_test_util:tmp("repl_" ++ integer_to_list(erlang:unique_integer([positive]))),
    put(nodes, [start_node(list_to_atom(peer:random_name(X))) || X <- ["a", "b", "c"]]),
    try Fun(Root, get(nodes))
    after
        [catch peer:stop(P) || {P, _} <- get(nodes)],
        os:cmd("rm -rf '" ++ Root ++ "'")
    end.

%% Replace a node (killed) by a new one of the same name.
restart({_, N} = Old) ->
    [Name, _] = string:split(atom_to_list(N), "@"),
    New = start_node(list_to_atom(Name)),
    put(nodes, [case X of Old -> New; _ -> X end || X <- get(nodes)]),
    New.

n({_, N}) -> N.
dir(Root, X) -> filename:join(Root, atom_to_list(n(X))).

open(Root, X, Opts) -> {ok, _} = call(X, open, [Opts#{dir => dir(Root, X)}]), ok.

leader(Root, X, Followers, Ack) ->
    open(Root, X, #{replicas => [n(F) || F <- Followers], ack => Ack, ack_timeout => 1000}).

follower(Root, X, L) -> open(Root, X, #{follow => n(L)}).

%% X (killed) back as a new node following L.
rejoin(Root, X, L) -> X1 = restart(X), follower(Root, X1, L), X1.

%% A leads B and C under ack => majority, with the list the batches write.
majority_group(Root, A, B, C) ->
    leader(Root, A, [B, C], majority),
    [follower(Root, X, A) || X <- [B, C]],
    {ok, S} = commit(A, base()),
    S.

call(X, F, Args) -> erpc:call(n(X), arbo_db, F, [?NAME | Args], 30000).
commit(X, Ops) -> call(X, commit, [Ops]).
commits(X, Is) -> [{ok, _} = commit(X, batch(I)) || I <- Is], ok.
close(X) -> ok = call(X, close, []).
promote(X) -> call(X, promote, []).
info(X) -> call(X, info, []).
seq(X) -> maps:get(seq, info(X)).
role(X) -> maps:get(role, maps:get(replication, info(X))).
repl_proc(X) -> erpc:call(n(X), erlang, whereis, [list_to_atom("arbo_repl " ++ atom_to_list(?NAME))]).

%% X's tree as its saved bytes: equal bytes, equal trees.
dump_of(X) -> erpc:call(n(X), fun() -> arbo_db_tests:dump(arbo_db:tree(?NAME)) end).

%% Wait until X has applied Seq, then compare its tree with Ref's.
same(Ref, X, Seq) ->
    ok = call(X, wait_for, [Seq, 20000]),
    ?assertEqual(dump_of(Ref), dump_of(X)).

%% Check (assertions) retried every 100 ms, for 10 s, until it passes.
eventually(Check) -> eventually(Check, 100).
eventually(Check, 0) -> Check();
eventually(Check, N) ->
    try Check() catch error:_ -> timer:sleep(100), eventually(Check, N - 1) end.

%% A former leader learns of the newer epoch when it reaches a member.
stepped_down(X) -> eventually(fun() -> ?assertEqual(follower, role(X)) end).

%% A commit tried again while it fails (no quorum yet after a split).
retry_commit(X, Ops) -> eventually(fun() -> {ok, _} = commit(X, Ops) end).

%% Time a call: {Answer, whole seconds it took}.
timed(F) -> {Us, Answer} = timer:tc(F), {Answer, Us div 1000000}.

%% ---- batches ------------------------------------------------------------------------

base() -> [{container, [1]}, {list, [1, 2], sorted}].

%% Batch I: writes instance I (and changes a few others), so that the
%% presence of I's value shows whether batch I is in a tree.
batch(I) ->
    [K, D] = [100000 + rand:uniform(50) || _ <- "kd"],
    [{instance, [1, 2], I}, {leaf, [1, 2, I, 3]}, {set, [1, 2, I, 3], <<"v", (integer_to_binary(I))/binary>>},
     {instance, [1, 2], K}, {leaf, [1, 2, K, 4]}, {set, [1, 2, K, 4], {int32, I}}]
        ++ [Op || rand:uniform(4) =:= 1, Op <- [{instance, [1, 2], D}, {delete, [1, 2, D]}]].

%% 4 committers on X, of Count batches each, numbered from Step, 2 * Step..,
%% each until its batches are done or the node goes; Meanwhile runs while
%% they commit. The batches acknowledged.
committing(X, Step, Count, Meanwhile) ->
    Self = self(),
    Ws = [spawn(fun() -> Self ! {acked, self(), committed(X, Step * K, Step * K + Count - 1, [])} end)
          || K <- [1, 2, 3, 4]],
    Meanwhile(),
    lists:append([receive {acked, W, L} -> L end || W <- Ws]).

committed(_, I, Last, Acc) when I > Last -> Acc;
committed(X, I, Last, Acc) ->
    case catch commit(X, batch(I)) of
        {ok, _} -> committed(X, I + 1, Last, [I | Acc]);
        {error, no_quorum} -> committed(X, I + 1, Last, Acc);
        _ -> Acc
    end.

has(X, I) ->
    erpc:call(n(X), fun() -> T = arbo_db:tree(?NAME), arbo_tree:lookup(T, [1, 2, I, 3]) =/= none end).

%% ---- tests --------------------------------------------------------------------------

repl_test_() ->
    [{timeout, 120, F} || F <- [fun equal_after_batches/0, fun catch_up/0, fun split_and_heal/0,
                                fun promote_after_leader_killed/0, fun leader_lost_frames/0]].

%% B is A's replica; C follows A without being one: it is fed like B, but
%% a majority is of A and B only.
equal_after_batches() ->
    with_nodes(fun(Root, [A, B, C]) ->
        leader(Root, A, [B], majority),
        follower(Root, B, A),
        {ok, _} = commit(A, base()),
        commits(A, lists:seq(1, 40)),
        %% C starts late: its first frames come from the leader's journal.
        follower(Root, C, A),
        ?assertEqual(100, length(committing(A, 1000, 25, fun() -> ok end))),
        %% C stops taking frames for a while: the leader stops sending when
        %% too many are in flight and feeds it from its journal afterwards.
        Repl = repl_proc(C),
        ok = erpc:call(n(C), sys, suspend, [Repl]),
        commits(A, lists:seq(2000, 2300)),
        {message_queue_len, Queued} = erpc:call(n(C), erlang, process_info, [Repl, message_queue_len]),
        ?assert(Queued =< 256 + 8),
        ok = erpc:call(n(C), sys, resume, [Repl]),
        Seq = seq(A),
        [same(A, X, Seq) || X <- [B, C]],
        %% Followers are read-only, say whom they follow and what they applied.
        NA = n(A),
        ?assertEqual({error, {not_leader, NA}}, commit(B, base())),
        ?assertMatch(#{seq := Seq, replication := #{role := follower, leader := NA, synced := true}},
                     info(C)),
        ?assertEqual({error, timeout}, call(C, wait_for, [Seq + 1, 50])),
        %% Frames a follower has are dropped; frames past a gap are not
        %% applied (it asks its leader again).
        [LRepl, BRepl] = [repl_proc(X) || X <- [A, B]],
        {ok, [{_, P1}, {_, P2}]} = call(A, frames_since, [Seq - 2]),
        [erpc:call(n(B), erlang, send, [BRepl, {frames, LRepl, Last, Fs}])
         || {Last, Fs} <- [{Seq, [{Seq - 1, P1}, {Seq, P2}]}, {Seq + 2, [{Seq + 2, P2}]}]],
        {ok, Seq2} = commit(A, [{container, [10]}]),
        same(A, B, Seq2),
        %% C has the frames, yet without B there is no majority.
        close(B),
        ?assertEqual({error, no_quorum}, commit(A, batch(1))),
        eventually(fun() -> ?assert(has(C, 1)) end)
    end).

%% C follows A without being one of its replicas and counts for ack => one
%% once it has written the frames. B, killed, catches up from A's snapshot,
%% which takes several chunks (a follower that starts late catches up from
%% the journal: equal_after_batches).
catch_up() ->
    with_nodes(fun(Root, [A, B, C]) ->
        %% The default ack_timeout: 5 s.
        open(Root, A, #{replicas => [n(B)], ack => one}),
        [follower(Root, X, A) || X <- [B, C]],
        {ok, _} = commit(A, base()),
        commits(A, lists:seq(1, 60)),
        kill(B),
        Big = binary:copy(<<"x">>, 200),
        [{ok, _} = commit(A, lists:append([[{instance, [1, 2], J}, {leaf, [1, 2, J, 1]},
                                            {set, [1, 2, J, 1], Big}] || J <- lists:seq(K, K + 999)]))
         || K <- lists:seq(200001, 208000, 1000)],
        ok = call(A, snapshot, []),
        commits(A, lists:seq(61, 70)),
        %% A follower acknowledges what it wrote, not what it received: one
        %% whose journal fails counts for nothing.
        close(C),
        open(Root, C, #{follow => n(A), fail_at => journal_sync}),
        eventually(fun() -> ?assertMatch(#{replication := #{synced := true}}, info(C)) end),
        ?assertMatch({{error, no_quorum}, Secs} when Secs >= 5 andalso Secs < 7,
                     timed(fun() -> commit(A, batch(71)) end)),
        close(C),
        follower(Root, C, A),
        B2 = rejoin(Root, B, A),
        [same(A, X, seq(A)) || X <- [B2, C]]
    end).

%% Committers on A, a majority group; A killed at a random moment, a
%% follower promoted: it holds every acknowledged batch. A, back as it was
%% configured, steps down and converges.
promote_after_leader_killed() ->
    ?assertMatch(#{lost := 0, converged := 1}, one_round(false)).

%% A split from B and C: its majority commits fail, B and C serve stale
%% reads; healed, all converge. Split again with B behind: B, promoted on
%% the far side, first takes from C the batch A and C acknowledged; A's
%% unacknowledged batch is dropped when it learns of B's epoch. Then A,
%% away, falls behind; C has compacted past it; the leader B is lost.
%% Promoting A would drop what C holds: A refuses and names C; C can be
%% promoted, and A then takes its snapshot.
split_and_heal() ->
    with_nodes(fun(Root, [A, B, C]) ->
        S0 = majority_group(Root, A, B, C),
        same(A, B, S0),
        Cut = fun(Cookie) ->
                  [begin
                       true = erpc:call(n(A), erlang, set_cookie, [n(X), Cookie]),
                       erpc:call(n(A), erlang, disconnect_node, [n(X)])
                   end || X <- [B, C]]
              end,
        Cut(blocked),
        {Answer, Secs} = timed(fun() -> commit(A, batch(1)) end),
        ?assertEqual({{error, no_quorum}, true}, {Answer, Secs >= 1 andalso Secs < 5}),
        %% The far side keeps serving reads, stale by its sequence number.
        ?assertEqual({S0, false}, {seq(B), has(B, 1)}),
        Cut(erlang:get_cookie()),
        {ok, S1} = retry_commit(A, batch(2)),
        [same(A, X, S1) || X <- [B, C]],
        ?assert(has(C, 1)),
        close(B),
        {ok, _} = commit(A, batch(3)),
        Cut(blocked),
        ?assertEqual({error, no_quorum}, commit(A, batch(4))),
        follower(Root, B, A),
        {ok, Epoch} = promote(B),
        ?assert(has(B, 3)),
        ?assertMatch(#{epochs := [_, {Epoch, _}]}, erpc:call(n(B), arbo_repl_io, read_state, [dir(Root, B)])),
        {ok, _} = retry_commit(B, batch(5)),
        Cut(erlang:get_cookie()),
        {ok, S3} = retry_commit(B, batch(6)),
        stepped_down(A),
        [same(B, X, S3) || X <- [A, C]],
        ?assertEqual({false, {error, {not_leader, n(B)}}}, {has(A, 4), commit(A, batch(7))}),
        close(A),
        commits(B, lists:seq(10, 19)),
        {ok, S4} = commit(B, []),
        ok = call(C, wait_for, [S4, 20000]),
        ok = call(C, snapshot, []),
        kill(B),
        follower(Root, A, B),
        ?assertEqual({error, {behind, n(C)}}, promote(A)),
        ?assertEqual(follower, role(A)),
        {ok, _} = promote(C),
        {ok, S5} = commit(C, batch(20)),
        same(C, A, S5)
    end).

%% Frames go to the followers while the leader syncs them: the leader can
%% lose what they hold, by a sync that fails (its frames are cut back out
%% of its journal) or by its machine going down before the sync (the last
%% frames written are missing when it comes back). Either way its next
%% frames reuse those sequence numbers, and the followers must be rebuilt.
leader_lost_frames() ->
    with_nodes(fun(Root, [A, B, C]) ->
        majority_group(Root, A, B, C),
        commits(A, lists:seq(1, 17)),
        Copy = "'" ++ dir(Root, A) ++ "'",
        os:cmd("cp -a " ++ Copy ++ " " ++ Copy ++ ".old"),
        commits(A, lists:seq(18, 20)),
        S1 = seq(A),
        [same(A, X, S1) || X <- [B, C]],
        [close(X) || X <- [B, C]],
        kill(A),
        os:cmd("rm -rf " ++ Copy ++ " && mv " ++ Copy ++ ".old " ++ Copy),
        %% A comes back 3 frames short and, while its followers are away,
        %% commits past where they stand.
        A1 = restart(A),
        open(Root, A1, #{replicas => [n(B), n(C)], ack => none}),
        ?assertEqual(S1 - 3, seq(A1)),
        commits(A1, lists:seq(100, 104)),
        [follower(Root, X, A1) || X <- [B, C]],
        {ok, S2} = commit(A1, batch(105)),
        [same(A1, X, S2) || X <- [B, C]],
        ?assertEqual({false, true}, {has(B, 20), has(B, 104)}),
        %% A sync that fails on the leader after its followers had the
        %% frames: a majority holds them, yet the commit is not acknowledged.
        close(A1),
        open(Root, A1, #{replicas => [n(B), n(C)], ack => majority, fail_at => journal_sync}),
        eventually(fun() ->
                       State = erpc:call(n(A1), sys, get_state, [repl_proc(A1)]),
                       ?assertMatch([#{} = Fs] when map_size(Fs) =:= 2,
                                    [X || X <- tuple_to_list(State), is_map(X)])
                   end),
        ?assertEqual({error, injected}, commit(A1, batch(200))),
        ?assertEqual({error, injected}, commit(A1, batch(201))),
        ?assertEqual(S2, seq(A1)),
        eventually(fun() -> [?assertEqual({S2, dump_of(A1)}, {seq(F), dump_of(F)}) || F <- [B, C]] end),
        ?assertEqual({false, false}, {has(B, 200), has(C, 201)})
    end).

%% ---- figures for make reliability -----------------------------------------------------

%% Rounds of: committers on the leader A (ack => majority); a follower killed
%% at a random moment, then A; the other follower promoted, and every batch
%% acknowledged looked for on it; the killed follower and then A brought
%% back (A as it was configured, a leader), and both compared with the new
%% leader once they have its last commit.
figures(Scale) ->
    Rounds = case Scale of full -> 20; _ -> 2 end,
    Results = [one_round(true) || _ <- lists:seq(1, Rounds)],
    Sum = fun(K) -> integer_to_list(lists:sum([maps:get(K, R) || R <- Results])) end,
    [{"rounds (follower, then leader killed at random moments)", integer_to_list(Rounds)},
     {"batches acknowledged under majority before the kills", Sum(acked)},
     {"of them missing on the promoted follower", Sum(lost)},
     {"rounds where the old leader and follower converged", Sum(converged)}].

%% One round; the follower X that is not promoted is killed with the leader
%% or, without KillX, stays up. The old leader, back as it was configured,
%% learns of the new epoch, steps down and converges.
one_round(KillX) ->
    with_nodes(fun(Root, [A, B, C]) ->
        majority_group(Root, A, B, C),
        {X, Y} = case rand:uniform(2) of 1 -> {B, C}; 2 -> {C, B} end,
        Acked = committing(A, 1000000, 1000000,
                           fun() ->
                                   timer:sleep(rand:uniform(300)),
                                   KillX andalso kill(X),
                                   timer:sleep(rand:uniform(300)),
                                   kill(A)
                           end),
        {ok, _} = promote(Y),
        Lost = length([I || I <- Acked, not has(Y, I)]),
        X1 = case KillX of true -> rejoin(Root, X, Y); false -> X end,
        {ok, S} = retry_commit(Y, batch(1)),
        A1 = restart(A),
        leader(Root, A1, [B, C], majority),
        Converged = try same(Y, X1, S), stepped_down(A1), same(Y, A1, S), 1
                    catch _:_ -> 0
                    end,
        #{acked => length(Acked), lost => Lost, converged => Converged}
    end).
