%% Durable stores (arbo_db) against mnesia (a disc_copies table, writes in
%% mnesia:transaction and mnesia:sync_transaction) and DETS, all on the
%% same disk in the same run, and against the disk's own rate of small
%% appends each followed by fdatasync (median of 7 turns, taken alternately
%% with the store's).
%%
%% A single-operation commit sets the value of an existing instance of a
%% sorted list (arbo) or writes {kv, Key, Value} (mnesia, DETS), with a
%% 16-byte value, from one committer and from 16. mnesia does not sync its
%% log per transaction and DETS only on dets:sync/1: the DETS row with a
%% sync per insert is the durable peer. Batch commits carry 1,000 such
%% value changes (arbo) or 1,000 writes in one transaction (mnesia).
%%
%% Opening: stores with an N-instance snapshot and a journal of N value
%% changes after it (N = 1,000,000, or 100,000 with ARBO_BENCH_QUICK=1), in
%% ascending key order (a sweep over a list) and in random order (changes
%% scattered over the list), each opened in alternating turns with a copy
%% of itself compacted (the snapshot alone): journal operations replayed a
%% second = N / (open time - open time of the compacted copy). And a store
%% whose journal makes N instances, each with a value (2 N operations),
%% beside one holding the empty list.
%%
%% Beside the 1-op commits, the floor of a commit that answers after its
%% write, in the same run: a bare gen_server:call round trip and a bare
%% write of one 52-byte frame to a raw file.
-module(arbo_bench_db).
-behaviour(gen_server).
-export([rows/0]).
%% the server of the bare round trip: it answers every call with its request
-export([init/1, handle_call/3, handle_cast/2]).

-define(VALUE(K), <<"value:", K:80>>).

rows() ->
    Quick = arbo_bench:quick(),
    Scale = case Quick of true -> 10; false -> 1 end,
    Dir = filename:join("/tmp", "arbo_bench_db_" ++ os:getpid()),
    os:cmd("rm -rf '" ++ Dir ++ "'"),
    ok = filelib:ensure_dir(filename:join(Dir, "x")),
    try measure(Dir, Scale, Quick)
    after
        _ = mnesia:stop(),
        os:cmd("rm -rf '" ++ Dir ++ "'")
    end.

measure(Dir, Scale, Quick) ->
    Keys = 10000,
    %% arbo, sync => always, in turns with the disk's own rate: the disk of
    %% a shared machine changes speed, the two sides see the same changes
    Always = store(Dir, db_bench_always, #{sync => always}, Keys),
    {ok, Fd} = file:open(filename:join(Dir, "fsync"), [raw, binary, append]),
    [Ones, Fsyncs] =
        arbo_bench:turns(7, [fun() -> rate(300 div Scale, fun(I) ->
                                                                  {ok, _} = arbo_db:commit(Always, [set(I, Keys)])
                                                          end) end,
                             fun() -> rate(300 div Scale, fun(_) ->
                                                                  ok = file:write(Fd, <<0:320>>),
                                                                  ok = file:datasync(Fd)
                                                          end) end]),
    ok = file:close(Fd),
    {One, Fsync} = {arbo_bench:median(Ones), arbo_bench:median(Fsyncs)},
    Sixteen = parallel(16, 400 div Scale, fun(W, I) ->
                                               {ok, _} = arbo_db:commit(Always, [set(W * 997 + I, Keys)])
                                           end),
    ok = arbo_db:close(Always),
    %% arbo, {interval, 1000}
    Interval = store(Dir, db_bench_interval, #{sync => {interval, 1000}}, Keys),
    Single = best(3, fun() -> rate(50000 div Scale, fun(I) ->
                                                             {ok, _} = arbo_db:commit(Interval, [set(I, Keys)])
                                                     end) end),
    Single16 = parallel(16, 5000 div Scale, fun(W, I) ->
                                                   {ok, _} = arbo_db:commit(Interval, [set(W * 997 + I, Keys)])
                                           end),
    #{journal_bytes := J0} = arbo_db:info(Interval),
    ok = sets(Interval, 10000, Keys),
    #{journal_bytes := J1} = arbo_db:info(Interval),
    BytesPerOp = (J1 - J0) / 10000,
    Batch = best(3, fun() -> batch_rate(Interval, 1000, 100 div Scale, Keys) end),
    ok = arbo_db:close(Interval),
    {Call, Write} = floor_rates(Dir, 50000 div Scale),
    %% mnesia and DETS
    {MnTrans, MnSync, Mn16, MnBatch, MnBytes} = mnesia_rates(Dir, Scale, Keys),
    {Dets, DetsSync} = dets_rates(Dir, Scale, Keys),
    %% opening a snapshot and a journal
    N = 1000000 div Scale,
    {OpenMs, SnapMs, RandomMs, SnapRandomMs, NewMs, EmptyMs} = open_times(Dir, N),
    Replay = replayed(N, OpenMs - SnapMs),
    ReplayRandom = replayed(N, RandomMs - SnapRandomMs),
    ReplayNew = replayed(2 * N, NewMs - EmptyMs),
    Label = integer_to_list(N div 1000) ++ "k",
    [#{row => "commits/s, 1 committer, sync => always", arbo => One, peer => Fsync,
       unit => "/s", peer_name => "write + fdatasync", target => "arbo/peer >= 0.8"},
     #{row => "commits/s, 1 committer, sync => always", arbo => One, peer => DetsSync,
       unit => "/s", peer_name => "dets:insert + dets:sync", target => "-"},
     #{row => "commits/s, 16 committers, sync => always", arbo => Sixteen, peer => One,
       unit => "/s", peer_name => "arbo_db, 1 committer", target => "arbo/peer >= 5"},
     #{row => "commits/s, 16 committers, sync => always", arbo => Sixteen, peer => Mn16,
       unit => "/s", peer_name => "mnesia:transaction x16", target => "-"},
     #{row => "1-op commits/s, 1 committer, {interval, 1000}", arbo => Single, peer => MnTrans,
       unit => "/s", peer_name => "mnesia:transaction", target => "arbo/peer >= 10"},
     #{row => "1-op commits/s, 16 committers, {interval, 1000}", arbo => Single16, peer => Mn16,
       unit => "/s", peer_name => "mnesia:transaction x16", target => "arbo/peer >= 10"},
     #{row => "1-op commits/s, 1 committer, {interval, 1000}", arbo => Single, peer => MnSync,
       unit => "/s", peer_name => "mnesia:sync_transaction", target => "-"},
     #{row => "1-op commits/s, 1 committer, {interval, 1000}", arbo => Single, peer => Dets,
       unit => "/s", peer_name => "dets:insert", target => "-"},
     #{row => "1-op commits/s, 1 committer, {interval, 1000}", arbo => Single, peer => Call,
       unit => "/s", peer_name => "bare gen_server:call", target => "-"},
     #{row => "1-op commits/s, 1 committer, {interval, 1000}", arbo => Single, peer => Write,
       unit => "/s", peer_name => "bare file:write of a frame", target => "-"},
     #{row => "ops/s in 1,000-op commits, {interval, 1000}", arbo => Batch, peer => MnBatch,
       unit => "ops/s", peer_name => "mnesia:transaction, 1,000 writes", target => "arbo >= 1000000"},
     #{row => "journal bytes per 1-op commit (16-byte value)", arbo => BytesPerOp, peer => MnBytes,
       unit => "bytes", peer_name => "mnesia LATEST.LOG", target => "-"},
     #{row => "open: " ++ Label ++ "-instance snapshot + " ++ Label ++ "-op journal", arbo => OpenMs,
       peer => SnapMs, unit => "ms", peer_name => "arbo_db, snapshot alone", target => "-"},
     #{row => "journal ops replayed/s at open (value changes, ascending keys)", arbo => Replay,
       peer => none, unit => "ops/s", peer_name => "-", target => "arbo >= 1000000"},
     #{row => "journal ops replayed/s at open (value changes, random keys)", arbo => ReplayRandom,
       peer => none, unit => "ops/s", peer_name => "-", target => "-"},
     #{row => "journal ops replayed/s at open (" ++ Label ++ " new instances, each with a value)",
       arbo => ReplayNew, peer => none, unit => "ops/s", peer_name => "-", target => "arbo >= 1000000"}]
        ++ [#{row => "(quick run: figures at a tenth of the scale)", arbo => none, peer => none}
            || Quick].

set(I, Keys) -> K = I rem Keys + 1, {set, [1, K], ?VALUE(K)}.

%% Operations replayed a second, from the time an open took beyond its
%% twin's; a difference lost in the noise is no figure.
replayed(Ops, Ms) when Ms > 0 -> Ops / Ms * 1000;
replayed(_, _) -> none.

%% A store with a sorted list of Keys instances.
store(Dir, Name, Opts, Keys) ->
    {ok, Db} = arbo_db:open(Name, Opts#{dir => filename:join(Dir, atom_to_list(Name))}),
    {ok, _} = arbo_db:commit(Db, [{list, [1], sorted} | [{instance, [1], K} || K <- lists:seq(1, Keys)]]),
    Db.

sets(Db, N, Keys) ->
    lists:foreach(fun(I) -> {ok, _} = arbo_db:commit(Db, [set(I, Keys)]) end, lists:seq(1, N)).

%% Operations per second of Fun(I) for I in 1..N, one after another.
rate(N, Fun) ->
    T0 = erlang:monotonic_time(microsecond),
    lists:foreach(Fun, lists:seq(1, N)),
    N / max(1, erlang:monotonic_time(microsecond) - T0) * 1000000.

best(Runs, Fun) -> lists:max([Fun() || _ <- lists:seq(1, Runs)]).

%% Operations per second of Workers processes each calling Fun(W, I) N times.
parallel(Workers, N, Fun) ->
    Self = self(),
    T0 = erlang:monotonic_time(microsecond),
    Pids = [spawn_link(fun() -> [Fun(W, I) || I <- lists:seq(1, N)], Self ! {done, self()} end)
            || W <- lists:seq(1, Workers)],
    [receive {done, P} -> ok end || P <- Pids],
    Workers * N / max(1, erlang:monotonic_time(microsecond) - T0) * 1000000.

batch_rate(Db, Size, Batches, Keys) ->
    Bs = [[set(B * Size + I, Keys) || I <- lists:seq(1, Size)] || B <- lists:seq(1, Batches)],
    T0 = erlang:monotonic_time(microsecond),
    [{ok, _} = arbo_db:commit(Db, B) || B <- Bs],
    Size * Batches / max(1, erlang:monotonic_time(microsecond) - T0) * 1000000.

mnesia_rates(Dir, Scale, Keys) ->
    MDir = filename:join(Dir, "mnesia"),
    ok = application:set_env(mnesia, dir, MDir),
    %% the log grows between dumps: bytes per transaction can be read off it
    ok = application:set_env(mnesia, dump_log_write_threshold, 1000000),
    ok = mnesia:create_schema([node()]),
    ok = mnesia:start(),
    {atomic, ok} = mnesia:create_table(kv, [{disc_copies, [node()]}]),
    W = fun(I) -> K = I rem Keys + 1, mnesia:write({kv, K, ?VALUE(K)}) end,
    lists:foreach(fun(K) -> {atomic, ok} = mnesia:transaction(fun() -> W(K) end) end,
                  lists:seq(1, Keys)),
    Log = filename:join(MDir, "LATEST.LOG"),
    L0 = filelib:file_size(Log),
    Trans = best(3, fun() -> rate(50000 div Scale, fun(I) -> {atomic, ok} = mnesia:transaction(fun() -> W(I) end) end) end),
    L1 = filelib:file_size(Log),
    Count = 3 * (50000 div Scale),
    Sync = best(3, fun() -> rate(50000 div Scale, fun(I) -> {atomic, ok} = mnesia:sync_transaction(fun() -> W(I) end) end) end),
    P16 = parallel(16, 2000 div Scale, fun(Wk, I) -> {atomic, ok} = mnesia:transaction(fun() -> W(Wk * 997 + I) end) end),
    Batch = best(3, fun() ->
                            T0 = erlang:monotonic_time(microsecond),
                            [{atomic, _} = mnesia:transaction(fun() -> [W(B * 1000 + I) || I <- lists:seq(1, 1000)] end)
                             || B <- lists:seq(1, 100 div Scale)],
                            1000 * (100 div Scale) / max(1, erlang:monotonic_time(microsecond) - T0) * 1000000
                    end),
    stopped = mnesia:stop(),
    {Trans, Sync, P16, Batch, (L1 - L0) / Count}.

%% Calls per second to a server that only answers, and writes per second
%% of one frame's bytes to a raw file.
floor_rates(Dir, N) ->
    {ok, Pid} = gen_server:start(?MODULE, [], []),
    Call = best(3, fun() -> rate(N, fun(I) -> I = gen_server:call(Pid, I) end) end),
    gen_server:stop(Pid),
    {ok, Fd} = file:open(filename:join(Dir, "writes"), [raw, binary, append]),
    Frame = binary:copy(<<1>>, 52),
    Write = best(3, fun() -> rate(N, fun(_) -> ok = file:write(Fd, Frame) end) end),
    ok = file:close(Fd),
    {Call, Write}.

dets_rates(Dir, Scale, Keys) ->
    {ok, T} = dets:open_file(arbo_bench_dets, [{file, filename:join(Dir, "kv.dets")}]),
    Ins = fun(I) -> K = I rem Keys + 1, ok = dets:insert(T, {K, ?VALUE(K)}) end,
    Plain = best(3, fun() -> rate(20000 div Scale, Ins) end),
    Synced = rate(500 div Scale, fun(I) -> Ins(I), ok = dets:sync(T) end),
    ok = dets:close(T),
    {Plain, Synced}.

%% Open times, in alternating turns (median of 5 each), of: a store holding
%% an N-instance snapshot and an N-op journal of value changes after it in
%% ascending key order (full), of the same in random order (random), and
%% of copies of those two compacted (the snapshot alone); of a store whose
%% journal makes N instances with values (2 N operations, new), and of a
%% store with the list and nothing else (empty).
open_times(Dir, N) ->
    Chunks = N div 1000,
    New = store_dir(Dir, "new", fun(Db) ->
        [{ok, _} = arbo_db:commit(Db, lists:append([[{instance, [1], C * 1000 + I},
                                                     {set, [1, C * 1000 + I], ?VALUE(I)}]
                                                    || I <- lists:seq(1, 1000)]))
         || C <- lists:seq(0, Chunks - 1)]
    end),
    Empty = store_dir(Dir, "empty", fun(_) -> ok end),
    Full = copy_dir(New, "full", fun(Db) ->
        ok = arbo_db:snapshot(Db),
        [{ok, _} = arbo_db:commit(Db, [{set, [1, C * 1000 + I], ?VALUE(I)} || I <- lists:seq(1, 1000)])
         || C <- lists:seq(0, Chunks - 1)]
    end),
    Random = copy_dir(New, "random", fun(Db) ->
        ok = arbo_db:snapshot(Db),
        random_sets(Db, [K || {_, K} <- lists:sort([{rand:uniform(), K} || K <- lists:seq(1, N)])])
    end),
    Snap = copy_dir(Full, "snap", fun(Db) -> ok = arbo_db:snapshot(Db) end),
    SnapRandom = copy_dir(Random, "snap_random", fun(Db) -> ok = arbo_db:snapshot(Db) end),
    Dirs = [{Full, N}, {Snap, N}, {Random, N}, {SnapRandom, N}, {New, N}, {Empty, 0}],
    Times = arbo_bench:turns(5, [fun() -> open_ms(D, Count) end || {D, Count} <- Dirs]),
    list_to_tuple([arbo_bench:median(T) || T <- Times]).

%% A store in Dir/Name made with a sorted list [1] and then Fun(Db).
store_dir(Dir, Name, Fun) ->
    Path = filename:join(Dir, Name),
    {ok, Db} = arbo_db:open(db_bench_open, open_opts(Path)),
    {ok, _} = arbo_db:commit(Db, [{list, [1], sorted}]),
    ok = arbo_db:snapshot(Db),
    _ = Fun(Db),
    ok = arbo_db:close(Db),
    Path.

%% A copy of the store in From, changed by Fun(Db).
copy_dir(From, Name, Fun) ->
    Path = filename:join(filename:dirname(From), Name),
    "" = os:cmd("cp -r '" ++ From ++ "' '" ++ Path ++ "'"),
    {ok, Db} = arbo_db:open(db_bench_open, open_opts(Path)),
    _ = Fun(Db),
    ok = arbo_db:close(Db),
    Path.

open_opts(Path) -> #{dir => Path, sync => none, compact_bytes => 1 bsl 40}.

init([]) -> {ok, []}.
handle_call(Req, _, S) -> {reply, Req, S}.
handle_cast(_, S) -> {noreply, S}.

random_sets(_, []) -> ok;
random_sets(Db, Keys) ->
    {Chunk, Rest} = lists:split(min(1000, length(Keys)), Keys),
    {ok, _} = arbo_db:commit(Db, [{set, [1, K], ?VALUE(K)} || K <- Chunk]),
    random_sets(Db, Rest).

open_ms(Path, N) ->
    erlang:garbage_collect(),
    T0 = erlang:monotonic_time(microsecond),
    {ok, Db} = arbo_db:open(db_bench_open, open_opts(Path)),
    Ms = (erlang:monotonic_time(microsecond) - T0) / 1000,
    T = arbo_db:tree(Db),
    N = arbo_tree:num_children(T, arbo_tree:lookup(T, [1])),
    ok = arbo_db:close(Db),
    Ms.
