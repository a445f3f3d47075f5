%% Replication rows of the benchmark harness: three nodes on this machine
%% (peers of the benchmark VM), a store led on the first and followed on the
%% other two, against a mnesia table with disc_copies on the same three
%% nodes written with mnesia:sync_transaction, arbo and mnesia runs in
%% alternating turns (3 each; the medians). Every commit runs on the
%% first node (the committers live there), one record each: on arbo a
%% batch that makes a list instance with a leaf and sets its value, on
%% mnesia a write of {Key, Value}.
%%
%%   commits with ack => one and ack => majority, one committer (commits/s,
%%   median and p99 latency) and 16 committers (commits/s), with the store's
%%   default sync => always (an fdatasync per write, shared by the commits
%%   that arrive together) and with {interval, 1000} (mnesia's disc_copies
%%   log is not synced per transaction either);
%%   a follower 1M operations behind (1,000 batches of 1,000) catching up
%%   from the leader's journal (operations/s, from its open to the last
%%   frame applied);
%%   a follower with an empty directory taking the leader's snapshot of
%%   those 1M instances (MB/s, the same span);
%%   first, the disk: 100-byte appends each followed by an fdatasync, by
%%   one writer, then by one writer on each node at once (syncs/s each):
%%   a commit under `sync => always' and `ack => one' or `majority' waits
%%   for such a sync on the leader and on a follower, so a lone committer
%%   cannot go faster than the second figure.
-module(arbo_bench_repl).
-export([rows/0, commits/4, catch_up/3, count/0, syncs/2]).

-define(DB, arbo_bench_repl_db).

rows() ->
    Quick = arbo_bench:quick(),
    {Seq, Par} = case Quick of true -> {200, 50}; false -> {2000, 400} end,
    Behind = case Quick of true -> 100000; false -> 1000000 end,
    arbo_repl_tests:distributed(),
    Root = filename:join("/tmp", "arbo_bench_repl_" ++ os:getpid()),
    os:cmd("rm -rf '" ++ Root ++ "'"),
    put(arbo_bench_repl_nodes, []),
    try
        Nodes = [start(Root, X) || X <- ["a", "b", "c"]],
        Ns = [N || {_, N} <- Nodes],
        Disk = disk_rows(Root, Ns),
        mnesia_start(Ns),
        %% arbo and mnesia in alternating turns (3 each, medians): both
        %% sides see the machine as it is at that moment.
        put(arbo_bench_repl_base, 0),
        Arbo = [arbo_runs(Root, Ns, Ack, Sync, Seq, Par)
                || Sync <- [always, {interval, 1000}], Ack <- [one, majority]],
        [erpc:call(N, mnesia, stop, []) || N <- Ns],
        CatchUp = catch_up(Root, Ns, Behind),
        Disk ++ commit_rows(Arbo) ++ CatchUp
    after
        [catch peer:stop(P) || P <- get(arbo_bench_repl_nodes)],
        os:cmd("rm -rf '" ++ Root ++ "'")
    end.

start(Root, X) ->
    Ebin = filename:dirname(code:which(arbo_db)),
    TestEbin = filename:dirname(code:which(?MODULE)),
    Name = list_to_atom(peer:random_name("bench_" ++ X)),
    Dir = filename:join(Root, atom_to_list(Name)),
    ok = filelib:ensure_path(Dir),
    {ok, P, N} = peer:start(#{name => Name, wait_boot => 60000,
                              args => ["-pa", Ebin, "-pa", TestEbin,
                                       "-setcookie", atom_to_list(erlang:get_cookie()),
                                       "+sbwt", "none", "+sbwtdcpu", "none", "+sbwtdio", "none",
                                       "-mnesia", "dir", lists:flatten(io_lib:format("~p", [Dir ++ "/mnesia"]))]}),
    put(arbo_bench_repl_nodes, [P | get(arbo_bench_repl_nodes)]),
    {P, N}.

%% ---- commits ------------------------------------------------------------------------

%% On the committers' node: Seq commits one after the other (latencies in
%% microseconds), then 16 committers of Par commits each (commits/s).
-spec commits(arbo | mnesia, pos_integer(), pos_integer(), pos_integer()) -> map().
commits(Side, Seq, Par, Base) ->
    Lat = [begin
               T0 = erlang:monotonic_time(microsecond),
               ok = one(Side, Base + I),
               erlang:monotonic_time(microsecond) - T0
           end || I <- lists:seq(1, Seq)],
    Self = self(),
    T0 = erlang:monotonic_time(microsecond),
    Ws = [spawn_link(fun() ->
                             [ok = one(Side, Base + 1000000 * W + I) || I <- lists:seq(1, Par)],
                             Self ! {done, self()}
                     end) || W <- lists:seq(1, 16)],
    [receive {done, W} -> ok end || W <- Ws],
    Par16 = 16 * Par / ((erlang:monotonic_time(microsecond) - T0) / 1.0e6),
    Sorted = lists:sort(Lat),
    #{seq_rate => Seq / (lists:sum(Lat) / 1.0e6), median => arbo_bench:median(Lat),
      p99 => lists:nth(max(1, round(0.99 * length(Sorted))), Sorted), par_rate => Par16}.

one(arbo, K) ->
    V = <<K:80>>,
    {ok, _} = arbo_db:commit(?DB, [{instance, [1, 2], K}, {leaf, [1, 2, K, 3]},
                                   {set, [1, 2, K, 3], V}]),
    ok;
one(mnesia, K) ->
    V = <<K:80>>,
    {atomic, ok} = mnesia:sync_transaction(fun() -> mnesia:write({bench, K, V}) end),
    ok.

mnesia_start([N1 | _] = Ns) ->
    ok = erpc:call(N1, mnesia, create_schema, [Ns]),
    [ok = erpc:call(N, mnesia, start, []) || N <- Ns],
    {atomic, ok} = erpc:call(N1, mnesia, create_table,
                             [bench, [{disc_copies, Ns}, {attributes, [k, v]}]]),
    ok = erpc:call(N1, mnesia, wait_for_tables, [[bench], 30000]).

arbo_runs(Root, [N1 | Fs] = Ns, Ack, Sync, Seq, Par) ->
    Name = fun(N) -> filename:join([Root, atom_to_list(N), "db-" ++ atom_to_list(Ack) ++
                                    case Sync of always -> ""; _ -> "-interval" end]) end,
    {ok, _} = erpc:call(N1, arbo_db, open, [?DB, #{dir => Name(N1), replicas => Fs, ack => Ack,
                                                   sync => Sync}]),
    [{ok, _} = erpc:call(N, arbo_db, open, [?DB, #{dir => Name(N), follow => N1, sync => Sync}])
     || N <- Fs],
    {ok, _} = erpc:call(N1, arbo_db, commit, [?DB, [{container, [1]}, {list, [1, 2], sorted}]]),
    %% Both followers have joined before the clock starts.
    wait_joined(N1, Fs),
    Run = fun(Side) ->
              fun() ->
                  %% keys of their own for every run, within an instance key's 31 bits
                  Base = (put(arbo_bench_repl_base, get(arbo_bench_repl_base) + 1) + 1) * 50000000,
                  erpc:call(N1, ?MODULE, commits, [Side, Seq, Par, Base], infinity)
              end
          end,
    [A, M] = arbo_bench:turns(3, [Run(arbo), Run(mnesia)]),
    [ok = erpc:call(N, arbo_db, close, [?DB]) || N <- Ns],
    {{Ack, Sync}, medians(A), medians(M)}.

medians([R | _] = Rs) -> maps:map(fun(K, _) -> arbo_bench:median([maps:get(K, X) || X <- Rs]) end, R).

wait_joined(N1, Fs) ->
    {ok, S} = erpc:call(N1, arbo_db, commit, [?DB, []]),
    [ok = erpc:call(N, arbo_db, wait_for, [?DB, S, 30000]) || N <- Fs],
    ok.

commit_rows(Arbo) ->
    lists:append(
      [begin
           Label = "ack " ++ atom_to_list(Ack) ++ case Sync of always -> ""; _ -> ", sync 1 s" end,
           Goal = case Ack of majority -> "arbo/peer >= 2"; one -> "-" end,
           Row = fun(Text, Key, Unit, Target) ->
                     #{row => "3 nodes, " ++ Label ++ ": " ++ Text, arbo => maps:get(Key, A),
                       peer => maps:get(Key, M), unit => Unit,
                       peer_name => "mnesia sync_transaction", target => Target}
                 end,
           [Row("commits/s, 1 committer", seq_rate, "commits/s", Goal),
            Row("commit latency median", median, "us", "-"),
            Row("commit latency p99", p99, "us", "-"),
            Row("commits/s, 16 committers", par_rate, "commits/s", Goal)]
       end || {{Ack, Sync}, A, M} <- Arbo]).

%% ---- the disk ------------------------------------------------------------------------

disk_rows(Root, [N1 | _] = Ns) ->
    File = fun(N) -> filename:join([Root, atom_to_list(N), "syncs"]) end,
    One = erpc:call(N1, ?MODULE, syncs, [File(N1), 2000], infinity),
    All = [erpc:receive_response(Q, infinity)
           || Q <- [erpc:send_request(N, ?MODULE, syncs, [File(N), 2000]) || N <- Ns]],
    [#{row => "disk: 100-byte append + fdatasync, one writer", arbo => One, peer => "-",
       unit => "syncs/s", target => "-"},
     #{row => "disk: 100-byte append + fdatasync, a writer on each of the 3 nodes at once (each)",
       arbo => lists:sum(All) / length(All), peer => "-", unit => "syncs/s", target => "-"}].

%% Count appends of 100 bytes, each synced, to a new file: syncs/s.
-spec syncs(file:filename(), pos_integer()) -> float().
syncs(Path, Count) ->
    ok = filelib:ensure_dir(Path),
    {ok, Fd} = file:open(Path, [write, raw, binary]),
    T0 = erlang:monotonic_time(microsecond),
    [begin ok = file:write(Fd, <<0:800>>), ok = file:datasync(Fd) end || _ <- lists:seq(1, Count)],
    T = (erlang:monotonic_time(microsecond) - T0) / 1.0e6,
    ok = file:close(Fd),
    ok = file:delete(Path),
    Count / T.

%% ---- catching up --------------------------------------------------------------------

catch_up(Root, [N1, N2, N3], Ops) ->
    D = fun(N) -> filename:join([Root, atom_to_list(N), "catchup"]) end,
    {ok, _} = erpc:call(N1, arbo_db, open, [?DB, #{dir => D(N1), replicas => [N2, N3], ack => one,
                                                   compact_bytes => 1 bsl 40}]),
    {ok, _} = erpc:call(N2, arbo_db, open, [?DB, #{dir => D(N2), follow => N1}]),
    {ok, _} = erpc:call(N3, arbo_db, open, [?DB, #{dir => D(N3), follow => N1}]),
    {ok, _} = erpc:call(N1, arbo_db, commit, [?DB, [{container, [1]}, {list, [1, 2], sorted}]]),
    wait_joined(N1, [N2, N3]),
    ok = erpc:call(N3, arbo_db, close, [?DB]),
    Batches = Ops div 1000,
    ok = erpc:call(N1, erlang, apply,
                   [fun() ->
                        [{ok, _} = arbo_db:commit(?DB, [{instance, [1, 2], B * 1000 + I}
                                                        || I <- lists:seq(1, 1000)])
                         || B <- lists:seq(1, Batches)],
                        ok
                    end, []], infinity),
    {ok, Last} = erpc:call(N1, arbo_db, commit, [?DB, []]),
    Journal = timed(fun() -> follow(N3, D(N3), N1, Last) end),
    Count = erpc:call(N1, ?MODULE, count, []),
    Count = erpc:call(N3, ?MODULE, count, []),
    %% The leader compacts; a follower with nothing takes the snapshot.
    ok = erpc:call(N3, arbo_db, close, [?DB]),
    ok = erpc:call(N1, arbo_db, snapshot, [?DB]),
    #{snapshot_seq := Last} = erpc:call(N1, arbo_db, info, [?DB]),
    [Snap] = erpc:call(N1, filelib, wildcard, [filename:join(D(N1), "snap-*")]),
    MB = erpc:call(N1, filelib, file_size, [Snap]) / 1.0e6,
    _ = erpc:call(N3, os, cmd, ["rm -rf '" ++ D(N3) ++ "'"]),
    Snapshot = timed(fun() -> follow(N3, D(N3), N1, Last) end),
    Count = erpc:call(N3, ?MODULE, count, []),
    [ok = erpc:call(N, arbo_db, close, [?DB]) || N <- [N1, N2, N3]],
    Label = integer_to_list(Ops div 1000) ++ "k",
    [#{row => "follower " ++ Label ++ " operations behind catches up from the journal",
       arbo => Ops / Journal, peer => "-", unit => "ops/s", target => "arbo >= 1000000"},
     #{row => "follower takes a " ++ Label ++ "-instance snapshot (" ++
              float_to_list(MB, [{decimals, 1}]) ++ " MB)",
       arbo => MB / Snapshot, peer => "-", unit => "MB/s", target => "-"}].

follow(N, Dir, Leader, Last) ->
    {ok, _} = erpc:call(N, arbo_db, open, [?DB, #{dir => Dir, follow => Leader}]),
    ok = erpc:call(N, arbo_db, wait_for, [?DB, Last, 600000]).

%% The instances of the list the batches fill (a check that the follower
%% holds them all, not a measurement).
-spec count() -> non_neg_integer().
count() ->
    T = arbo_db:tree(?DB),
    arbo_tree:num_children(T, arbo_tree:lookup(T, [1, 2])).

timed(Fun) ->
    T0 = erlang:monotonic_time(microsecond),
    Fun(),
    (erlang:monotonic_time(microsecond) - T0) / 1.0e6.
