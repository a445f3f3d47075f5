%% Durable stores under faults, in child VMs: a compaction stopped at each
%% of its steps or failing, committers killed with SIGKILL at random moments,
%% and a disk that fills up. `make test' runs a few rounds; `make reliability'
%% runs figures(full).
-module(arbo_db_faults_tests).
-include_lib("eunit/include/eunit.hrl").

-export([figures/1, commit_and_compact/3, committers/4, full_disk/1]).

-define(BATCH(Key, I), [{instance, [1], Key}, {set, [1, Key], <<I:32>>}, {instance, [2], Key}]).

kills_test_() -> {timeout, 120, fun() -> kills(4, 3) end}.
full_disk_test_() -> {timeout, 60, fun() -> full_disk_run() end}.

%% The figures of `make reliability'.
figures(full) ->
    Kills = [integer_to_list(N) || N <- tuple_to_list(kills(60, 6))],
    {Answer, Seq} = full_disk_run(),
    lists:zip(["kill rounds (SIGKILL while 6 processes commit; sync => always, {interval, 1000} in turn)",
               "acknowledged commits checked after the reopens", "of them present", "lost",
               "batches found half applied", "snapshot moved on between reopens (compactions)",
               "full disk: commit answered", "full disk: reopened at the last acknowledged seq"],
              Kills ++ [io_lib:format("~p", [Answer]), integer_to_list(Seq)]).

scratch(Name) -> arbo_db_tests:scratch("faults_" ++ Name).

child(Extra) -> element(1, arbo_test_util:start_peer(Extra#{connection => standard_io})).

%% ---- compaction killed at every step ---------------------------------------------------

%% In the child: commit batches, then compact and stop the VM at Step
%% ({crash_at, _}) or fail it ({fail_at, _}) and commit one more.
commit_and_compact(Dir, {How, Step}, Batches) ->
    {ok, Db} = arbo_db:open(db_child, #{dir => Dir, How => Step}),
    [{ok, _} = arbo_db:commit(Db, B) || B <- Batches],
    {error, injected} = arbo_db:snapshot(Db),
    arbo_db:commit(Db, batch(21)).

batch(I) -> [{instance, [1], I}, {set, [1, I], <<I:32>>}].

%% Whatever step it stops or fails at, the store opens to every commit (a
%% failed one leaves no new snapshot behind); it goes on from there, and the
%% files the compaction left are gone, as are temporary files. An empty
%% batch answers the last seq and writes nothing.
compaction_killed_test_() ->
    {timeout, 120, fun() ->
        Batches = [[{list, [1], sorted}] | [batch(I) || I <- lists:seq(1, 20)]],
        [begin
             Dir = scratch("compact_" ++ atom_to_list(Step)),
             Peer = child(#{}),
             Answer = (catch peer:call(Peer, ?MODULE, commit_and_compact, [Dir, {How, Step}, Batches])),
             {Last, How} = case Answer of {ok, 22} -> {21, fail_at}; {'EXIT', _} -> {20, crash_at} end,
             catch peer:stop(Peer),
             ok = file:write_file(filename:join(Dir, ".left.tmp"), <<"x">>),
             {ok, Db} = arbo_db:open(db_compact, #{dir => Dir}),
             ?assertEqual({Step, Last + 1, [{{int, I}, <<I:32>>} || I <- lists:seq(1, Last)]},
                          {Step, maps:get(seq, arbo_db:info(Db)), keys(arbo_db:tree(Db))}),
             {ok, Seq} = arbo_db:commit(Db, [{instance, [1], 99}]),
             #{journal_bytes := JB} = arbo_db:info(Db),
             ?assertMatch({{ok, Seq}, #{journal_bytes := JB}}, {arbo_db:commit(Db, []), arbo_db:info(Db)}),
             ok = arbo_db:close(arbo_db_tests:reopen(Db, db_compact, Dir)),
             ?assertMatch({Step, {ok, [_, _]}}, {Step, file:list_dir(Dir)})
         end || {How, Step} <- [{crash_at, snapshot_write}, {crash_at, snapshot_renamed},
                                {crash_at, journal_started}, {crash_at, old_removed},
                                {fail_at, journal_write}]]
    end}.

%% ---- SIGKILL while committing --------------------------------------------------------

%% Rounds of: a child VM whose Workers processes commit batches of three
%% operations and log each acknowledged key (its LOCK keeps this VM out);
%% SIGKILL after a random time; the store reopened here (the LOCK the child
%% left taken over). Every logged key must be there, with every
%% operation of its batch. The store lives on over the rounds, with a small
%% compaction threshold so that kills land in compactions too.
kills(Rounds, Workers) ->
    Dir = scratch("kills"),
    Logs = scratch("kills_logs"),
    ok = filelib:ensure_dir(filename:join(Logs, "x")),
    {ok, Db0} = arbo_db:open(db_faults, #{dir => Dir}),
    {ok, _} = arbo_db:commit(Db0, [{list, [1], sorted}, {list, [2], sorted}]),
    ok = arbo_db:close(Db0),
    %% each round checks every key logged so far, its own and the earlier
    %% ones', and acknowledged commits before its kill
    Results = [round(Dir, Logs, R, Workers) || R <- lists:seq(1, Rounds)],
    AckedSoFar = [A || {A, _, _, _} <- Results],
    ?assertEqual(lists:usort([0 | AckedSoFar]), [0 | AckedSoFar]),
    os:cmd("rm -rf '" ++ Dir ++ "' '" ++ Logs ++ "'"),
    {Acked, Present, Half, _} = lists:last(Results),
    {Rounds, Acked, Present, Acked - Present, Half, length(lists:usort([S || {_, _, _, S} <- Results])) - 1}.

round(Dir, Logs, R, Workers) ->
    Peer = child(#{}),
    OsPid = peer:call(Peer, os, getpid, []),
    ok = peer:call(Peer, ?MODULE, committers, [Dir, Workers, filename:join(Logs, integer_to_list(R)), R]),
    %% one VM per directory: the store is the child's while it runs
    R > 1 orelse ?assertEqual({error, {locked, filename:join(Dir, "LOCK"), OsPid}},
                              arbo_db:open(db_faults, #{dir => Dir})),
    timer:sleep(100 + rand:uniform(400)),
    os:cmd("kill -9 " ++ OsPid),
    catch peer:stop(Peer),
    %% what this round acknowledged is there, and nothing half
    {ok, Db} = arbo_db:open(db_faults, #{dir => Dir}),
    {Acked, Present, Half} = check(Db, Logs),
    #{snapshot_seq := Snap} = arbo_db:info(Db),
    ok = arbo_db:close(Db),
    ?assertEqual({R, Acked, 0}, {R, Present, Half}),
    {Acked, Present, Half, Snap}.

%% In the child: the store and its committers, started and left running.
committers(Dir, Workers, Log, R) ->
    %% {interval, _} acknowledges once the frame is written: a VM killed
    %% before the sync loses nothing either
    Sync = case R rem 2 of 1 -> always; 0 -> {interval, 1000} end,
    {ok, Db} = arbo_db:open(db_faults, #{dir => Dir, compact_bytes => 64 * 1024, sync => Sync}),
    [spawn(fun() -> worker(Db, Log, R, W) end) || W <- lists:seq(1, Workers)],
    ok.

%% Keys (R * 16 + W) * 2^20 + I: distinct over rounds and workers.
worker(Db, Log, R, W) ->
    {ok, Fd} = file:open(Log ++ "." ++ integer_to_list(W), [append, raw, binary]),
    commit_loop(Db, Fd, (R * 16 + W) bsl 20, 1).

commit_loop(Db, Fd, Base, I) ->
    Key = Base + I,
    {ok, _} = arbo_db:commit(Db, ?BATCH(Key, I)),
    ok = file:write(Fd, <<Key:64>>),
    commit_loop(Db, Fd, Base, I + 1).

%% {acknowledged keys in the logs, of them present, keys whose batch is
%% there in part}.
check(Db, Logs) ->
    T = arbo_db:tree(Db),
    Keys = lists:append([[K || <<K:64>> <= element(2, file:read_file(F))]
                         || F <- filelib:wildcard(filename:join(Logs, "*"))]),
    Present = length([K || K <- Keys, arbo_tree:lookup(T, [1, K]) =/= none]),
    [In1, In2] = [[K || N <- arbo_tree:children(T, arbo_tree:lookup(T, [L])),
                        {int, K} <- [arbo_tree:key(T, N)]] || L <- [1, 2]],
    Half = length(In1 -- In2) + length(In2 -- In1)
        + length([K || K <- In1, arbo_tree:value(T, arbo_tree:lookup(T, [1, K])) =:= undefined]),
    {length(Keys), Present, Half}.

%% ---- a full disk -----------------------------------------------------------------------

%% A child VM under a file size limit commits until a commit is refused;
%% the store then answers the same tree, and reopened here it holds exactly
%% the acknowledged commits.
full_disk_run() ->
    Dir = scratch("full"),
    %% writes past the limit fail with EFBIG instead of a signal
    Exec = {"/bin/sh", ["-c", "trap '' XFSZ; exec \"$@\"", "sh", os:find_executable("prlimit"),
                        "--fsize=262144", os:find_executable("erl")]},
    Peer = child(#{exec => Exec}),
    {{Answer, Fails}, Keys, Seq, Again} = peer:call(Peer, ?MODULE, full_disk, [Dir], 60000),
    catch peer:stop(Peer),
    ?assertEqual({{error, efbig}, {error, efbig}}, {Answer, Again}),
    {ok, Db} = arbo_db:open(db_full, #{dir => Dir}),
    ?assertEqual({Seq, Keys, Fails - 1},
                 {maps:get(seq, arbo_db:info(Db)), keys(arbo_db:tree(Db)), length(Keys)}),
    {ok, _} = arbo_db:commit(Db, [{instance, [1], Fails}]),
    ok = arbo_db:close(Db),
    os:cmd("rm -rf '" ++ Dir ++ "'"),
    {Answer, Seq}.

%% In the child: commit until refused; the tree then, its seq, and a
%% second try.
full_disk(Dir) ->
    {ok, Db} = arbo_db:open(db_full, #{dir => Dir, compact_bytes => 1 bsl 40}),
    {ok, _} = arbo_db:commit(Db, [{list, [1], sorted}]),
    Big = binary:copy(<<"x">>, 4000),
    R = fill(Db, 1, Big),
    Keys = keys(arbo_db:tree(Db)),
    Again = arbo_db:commit(Db, [{instance, [1], 0}, {set, [1, 0], Big}]),
    {R, Keys, maps:get(seq, arbo_db:info(Db)), Again}.

fill(Db, I, Big) ->
    case arbo_db:commit(Db, [{instance, [1], I}, {set, [1, I], Big}]) of
        {ok, _} -> fill(Db, I + 1, Big);
        {error, _} = E -> {E, I}
    end.

%% The instances of list 1 with their values.
keys(T) ->
    [{arbo_tree:key(T, N), arbo_tree:value(T, N)}
     || N <- arbo_tree:children(T, arbo_tree:lookup(T, [1]))].
