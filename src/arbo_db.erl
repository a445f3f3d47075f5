%% @doc Durable trees: a tree in memory, a snapshot and a checked journal
%% on disk, so that a change that was acknowledged survives a crash.
%%
%% A store is a directory. {@link open/2} loads its latest snapshot and
%% replays the committed frames of its journal after it; {@link commit/2}
%% applies a batch of operations atomically, writes it to the journal as one
%% frame and returns once the frame is durable as the `sync' policy says.
%% All commits of a store go through its one server, so the order of the
%% journal is the order in memory. Reads go through the tree handle {@link
%% tree/1} gives, without the server.
%%
%% == Operations ==
%% Nodes are named by paths as {@link arbo_tree:lookup/2} takes them.
%% `{container, Path}', `{leaf, Path}', `{list, Path, Order}' and
%% `{instance, ListPath, Key}' make the node when it is missing (and accept
%% one of the same kind that is there); `{set, Path, Value}', `{clear_value,
%% Path}', `{set_flags, Path, Flags}', `{set_attr, Path, Id, Value}',
%% `{delete_attr, Path, Id}', `{set_active, Path, Bool}', `{delete, Path}',
%% `{delete_ns, Path, Ns}', `{rename, Path, NewKey}' (a list instance),
%% `{move, Path, first | last | {before, Key} | {after, Key} | {position,
%% N}}' (an instance of a user-ordered list) and `clear' do what the {@link
%% arbo_tree} functions of the same names do. A batch that names a missing
%% node, misuses a node's kind or holds a malformed operation is refused
%% whole with `{error, {Index, Op, Reason}}' (Index counts from 1), and
%% nothing changes. Keys `{pair, Ns, N}' are accepted with Ns in 1..255
%% except 12, the pairs the journal can carry.
%%
%% == Durability ==
%% `sync => always' (the default): `commit' returns after the frame is on
%% disk (the journal is opened `O_SYNC'); commits that arrive while one is
%% being written share the next write. `{interval, Ms}': `commit' returns after the
%% frame is written to the file; the server syncs at most Ms milliseconds
%% later, so a crash of the machine (not of the VM) can lose the last Ms
%% milliseconds. `none': syncing is left to the operating system and
%% {@link sync/1}. In every policy a reader of {@link tree/1} may see a
%% batch before its `commit' returns; a batch whose write fails is taken
%% back out of the tree (reloaded from disk) and its `commit' answers
%% `{error, Reason}'.
%%
%% When the journal grows past the snapshot's size and `compact_bytes'
%% (default 8 MiB), or on {@link snapshot/1}, the tree is saved as a new
%% snapshot and a new journal is started; a crash at any step of that opens
%% to the same committed state.
-module(arbo_db).
-behaviour(gen_server).

-export([open/2, commit/2, tree/1, sync/1, snapshot/1, info/1, close/1]).
-export([subscribe/1, frames_since/2, append/2]).
-export([start_link/2, init_it/3]).
-export([init/1, handle_call/3, handle_cast/2, handle_continue/2, handle_info/2, terminate/2]).
-export_type([db/0, op/0]).

-include_lib("kernel/include/file.hrl").
-export([promote/1, wait_for/3]).

-type db() :: pid() | atom().
-type op() :: arbo_db_batch:op().
-type options() :: #{dir := file:filename(), sync => always | {interval, pos_integer()} | none,
                     compact_bytes => non_neg_integer(), recover => boolean(),
                     atom() => term()}.

-record(s, {repl = none,
            name, dir, tree, fd, jpath, jsize, seq, snap_seq, snap_id, snap_size,
            sync, compact, last_sync, pending = [], buf = [], ops = #{}, timer, failed, subs = [],
            scratch, crash_at, direct, retry_at = 0}).

%% ---------------------------------------------------------------------------
%% API

%% @doc Open the store in `Dir' (made when missing) under a registered name
%% (an atom; `{error, {already_open, Pid}}' when taken, `{error, {dir_in_use,
%% Pid}}' when another store of this VM has the directory, `{error, {locked,
%% LockFile, OsPid}}' when another VM that is still running has it): its
%% latest snapshot, then every committed frame of its journal. A `LOCK' file
%% left by a VM that is gone is taken over. A torn last frame (short, zeroed or with a bad checksum, and no
%% committed frame after it) is cut off, and a warning logs the bytes
%% dropped. A bad frame followed by a good one is corruption: the open
%% fails with `{error, {corrupt_journal, File, Offset}}', unless `recover
%% => true' asks to keep the frames before it (and cut the rest). A journal
%% that names another snapshot than the latest fails the open with
%% `{error, {stale_journal, File}}'. Options: `sync' (see the module's
%% documentation), `compact_bytes', `recover', and for replication
%% `replicas', `ack', `ack_timeout' (a leader) or `follow' (a follower):
%% see `arbo_repl'.
-spec open(atom(), options()) -> {ok, pid()} | {error, term()}.
open(Name, #{dir := _} = Opts) when is_atom(Name) ->
    case start_child(Name, Opts, 1) of
        {ok, Pid} -> {ok, Pid};
        {error, {already_started, Pid}} -> {error, {already_open, Pid}};
        {error, {{already_started, Pid}, _}} -> {error, {already_open, Pid}};
        {error, _} = E -> E
    end;
open(Name, Opts) -> error({badarg, {Name, Opts}}).

%% Stores live under arbo_db_sup, a child of the arbo application's
%% supervisor: the application is started when it is not running.
start_child(Name, Opts, Tries) ->
    try supervisor:start_child(arbo_db_sup, [Name, Opts])
    catch exit:{noproc, _} when Tries > 0 ->
            case application:ensure_all_started(arbo) of
                {ok, _} -> start_child(Name, Opts, Tries - 1);
                {error, Reason} -> {error, {arbo_not_started, Reason}}
            end
    end.

%% @private
start_link(Name, Opts) -> proc_lib:start_link(?MODULE, init_it, [self(), Name, Opts]).

%% @private
%% A store that cannot be opened answers the error to open/2 and stops
%% quietly: the reason is the caller's to act on, not a crash.
init_it(Parent, Name, Opts) ->
    case catch register(Name, self()) of
        true ->
            Dir = maps:get(dir, Opts, undefined),
            case claim(Dir) of
                ok ->
                    case catch_init(Name, Opts) of
                        {ok, S} ->
                            proc_lib:init_ack(Parent, {ok, self()}),
                            gen_server:enter_loop(?MODULE, [], S, {local, Name});
                        {stop, R} ->
                            unlock(Dir),
                            proc_lib:init_ack(Parent, {error, R})
                    end;
                {error, _} = E -> proc_lib:init_ack(Parent, E)
            end;
        _ -> proc_lib:init_ack(Parent, {error, {already_started, whereis(Name)}})
    end.

%% A directory's absolute name without `.' and `..' parts.
dir_key(Dir) ->
    [Root | Parts] = filename:split(filename:absname(Dir)),
    Up = fun(P) -> P =:= ".." orelse P =:= <<"..">> end,
    Here = fun(P) -> P =:= "." orelse P =:= <<".">> end,
    Kept = lists:foldl(fun(P, Acc) ->
                               case {Here(P), Up(P), Acc} of
                                   {true, _, _} -> Acc;
                                   {_, true, []} -> [];
                                   {_, true, [_ | Above]} -> Above;
                                   _ -> [P | Acc]
                               end
                       end, [], Parts),
    filename:join([Root | lists:reverse(Kept)]).

%% One server per directory in this VM (the table belongs to arbo_db_sup;
%% a claim of a server that died without letting go is taken over), and one
%% VM per directory (the LOCK file).
claim(Dir) when is_list(Dir); is_binary(Dir) ->
    case claim_here(Dir) of
        ok ->
            case lock(Dir) of
                ok -> ok;
                {error, _} = E ->
                    ets:delete_object(arbo_db_dirs, {dir_key(Dir), self()}),
                    E
            end;
        {error, _} = E -> E
    end;
claim(Dir) -> {error, {badarg, {dir, Dir}}}.

%% The LOCK file of a store's directory holds the OS process id of the VM
%% that has the store open. A lock whose VM is gone (killed, or this VM's
%% own, left by a server that died) is taken over: it is removed and made
%% anew, and read back, so that of two VMs taking it over at once at most
%% the last one to write it goes on. A VM just killed takes a moment to be
%% gone: the lock is asked for again for up to a second.
lock(Dir) -> lock(Dir, 20).

lock(Dir, Tries) ->
    Lock = filename:join(Dir, "LOCK"),
    Me = os:getpid(),
    MeBin = list_to_binary(Me),
    case filelib:ensure_dir(Lock) of
        ok ->
            case file:write_file(Lock, Me, [exclusive, raw]) of
                ok ->
                    case file:read_file(Lock) of
                        {ok, MeBin} -> ok;
                        {ok, Held} -> {error, {locked, Lock, binary_to_list(Held)}};
                        {error, _} = E -> E
                    end;
                {error, eexist} ->
                    case file:read_file(Lock) of
                        {ok, Held} ->
                            Pid = binary_to_list(Held),
                            case Pid =:= Me orelse not os_alive(Pid) of
                                true ->
                                    logger:warning("arbo_db: taking over ~s of OS process ~s, gone",
                                                   [Lock, Pid]),
                                    _ = file:delete(Lock),
                                    lock(Dir, Tries);
                                false when Tries > 0 ->
                                    timer:sleep(50),
                                    lock(Dir, Tries - 1);
                                false -> {error, {locked, Lock, Pid}}
                            end;
                        {error, enoent} -> lock(Dir, Tries);
                        {error, _} = E -> E
                    end;
                {error, _} = E -> E
            end;
        {error, _} = E -> E
    end.

%% Whether the OS process Pid is a live VM: /proc says it where there is
%% one; elsewhere, whether it exists at all.
os_alive(Pid) ->
    case Pid =/= [] andalso lists:all(fun(C) -> C >= $0 andalso C =< $9 end, Pid) of
        false -> false;
        true ->
            case filelib:is_dir("/proc/self") of
                true ->
                    %% "pid (comm) state ...": a zombie (Z) or dead (X) is gone
                    case file:read_file("/proc/" ++ Pid ++ "/stat") of
                        {ok, Stat} ->
                            [_, After] = string:split(Stat, <<")">>, trailing),
                            binary:match(Stat, <<"(beam">>) =/= nomatch
                                andalso not lists:member(binary:at(After, 1), "ZXx");
                        {error, _} -> false
                    end;
                false -> os:cmd("kill -0 " ++ Pid ++ " 2>/dev/null && echo y") =:= "y\n"
            end
    end.

unlock(Dir) when is_list(Dir); is_binary(Dir) ->
    ets:delete_object(arbo_db_dirs, {dir_key(Dir), self()}),
    Lock = filename:join(Dir, "LOCK"),
    Me = list_to_binary(os:getpid()),
    case file:read_file(Lock) of
        {ok, Me} -> _ = file:delete(Lock), ok;
        _ -> ok
    end;
unlock(_) -> ok.

claim_here(Dir) ->
    Key = dir_key(Dir),
    Self = self(),
    case ets:insert_new(arbo_db_dirs, {Key, Self}) of
        true -> ok;
        false ->
            case ets:lookup(arbo_db_dirs, Key) of
                [{_, Pid}] when Pid =/= Self ->
                    case is_process_alive(Pid) of
                        true -> {error, {dir_in_use, Pid}};
                        false ->
                            Swap = [{{Key, Pid}, [], [{{Key, Self}}]}],
                            case ets:select_replace(arbo_db_dirs, Swap) of
                                1 -> ok;
                                _ -> claim_here(Dir)
                            end
                    end;
                _ -> claim_here(Dir)
            end
    end.

%% @doc Apply a batch atomically and make it durable as the store's `sync'
%% policy says: `{ok, Seq}' with the batch's sequence number (an empty
%% batch answers the last one), or `{error, {Index, Op, Reason}}' when the
%% batch is refused (nothing changed), or `{error, Reason}': the batch could
%% not be written (nothing changed either), `{not_leader, Leader}' on a
%% follower, `no_quorum' when the `ack' policy was not met in time (the batch
%% is in this store), `{store_failed, Reason}' after a journal that could not
%% be cut back, or `{apply_failed, Reason}' (the tree is then rebuilt from
%% disk).
-spec commit(db(), [op()]) -> {ok, non_neg_integer()} | {error, term()}.
commit(Db, Ops) when is_list(Ops) -> gen_server:call(Db, {commit, Ops}, infinity);
commit(_, Ops) -> error({badarg, {ops, Ops}}).

%% @doc The tree for reads. It refuses writes: every change goes through
%% {@link commit/2}.
-spec tree(db()) -> arbo_tree:tree().
tree(Db) -> gen_server:call(Db, tree, infinity).

%% @doc Make every acknowledged commit durable (a barrier for the
%% `interval' and `none' policies).
-spec sync(db()) -> ok | {error, term()}.
sync(Db) -> gen_server:call(Db, sync, infinity).

%% @doc Compact now: save the tree as a new snapshot and start a new
%% journal.
-spec snapshot(db()) -> ok | {error, term()}.
snapshot(Db) -> gen_server:call(Db, snapshot, infinity).

%% @doc `seq' (last committed), `snapshot_seq', `journal_bytes',
%% `last_sync' (monotonic milliseconds of the last sync, or `undefined'),
%% `dir', `sync', and `replication': `#{role => none}', or for a replicated
%% store its `role' (`leader' or `follower'), `leader', `epoch', `members'
%% and `synced' (see {@link wait_for/3}).
-spec info(db()) -> map().
info(Db) -> gen_server:call(Db, info, infinity).

%% @doc Sync and close the store; its tree is closed.
-spec close(db()) -> ok.
close(Db) -> gen_server:call(Db, close, infinity).

%% @doc Frames as they reach the journal, for followers: the calling
%% process receives `{arbo_db_frames, Name, [{Seq, Payload}], Ops}' before
%% each write of the journal (and so before its sync), the frames in
%% sequence order. Ops maps the sequence number of each batch this store
%% applied call by call to the batch's operations, so that a follower can
%% apply it the same way. A write or sync that fails takes the frames back
%% out of the journal: `{arbo_db_cut, Name}' follows, and {@link info/1}
%% gives the `seq' kept.
-spec subscribe(db()) -> ok.
subscribe(Db) -> gen_server:call(Db, {subscribe, self()}, infinity).

%% @doc The journal's frames after sequence number Seq, `{ok, [{Seq,
%% Payload}]}', or `{error, {compacted, SnapshotSeq}}' when the snapshot
%% already holds frames after Seq.
-spec frames_since(db(), non_neg_integer()) ->
          {ok, [{pos_integer(), binary()}]} | {error, term()}.
frames_since(Db, Seq) when is_integer(Seq), Seq >= 0 -> gen_server:call(Db, {since, Seq}, infinity).

%% @doc Apply frames of another store (as {@link subscribe/1} or {@link
%% frames_since/2} give them) and write them to this store's journal under
%% the same sequence numbers: `{ok, LastSeq}' once durable as the `sync'
%% policy says. The first frame must carry the next sequence number of
%% this store and the others follow on (`{error, {out_of_order, Expected,
%% Seq}}' otherwise, nothing applied); a payload that is not well formed is
%% refused (`{error, {bad_frame, Seq}}') with the frames before it applied.
-spec append(db(), [{pos_integer(), binary()}]) -> {ok, non_neg_integer()} | {error, term()}.
append(Db, Frames) when is_list(Frames) -> gen_server:call(Db, {append, Frames}, infinity).

%% ---------------------------------------------------------------------------
%% Server

catch_init(Name, Opts) ->
    try init({Name, Opts})
    catch
        error:{badarg, _} = E -> {stop, E};
        error:{badmatch, {error, R}} -> {stop, R};
        C:R -> {stop, {C, R}}
    end.

%% @private
init({Name, Opts}) ->
    process_flag(trap_exit, true),
    process_flag(min_heap_size, 1 bsl 18),
    Dir = maps:get(dir, Opts),
    Sync = maps:get(sync, Opts, always),
    case Sync of
        always -> ok;
        none -> ok;
        {interval, Ms} when is_integer(Ms), Ms > 0 -> ok;
        _ -> error({badarg, {sync, Sync}})
    end,
    T = arbo_tree:new(),
    S0 = #s{name = Name, dir = Dir, tree = T, sync = Sync,
            compact = maps:get(compact_bytes, Opts, 8 bsl 20),
            scratch = filename:join(Dir, ".apply"),
            crash_at = case Opts of
                           #{crash_at := Step} -> {halt, Step};
                           #{fail_at := Step} -> {fail, Step};
                           _ -> undefined
                       end,
            direct = maps:get(direct_max, Opts, 64)},
    case recover(S0, maps:get(recover, Opts, false)) of
        {ok, S} -> {ok, S#s{repl = arbo_repl:start(Name, Opts, self())}};
        {error, R} -> arbo_tree:close(T), {stop, R}
    end.

%% @private
handle_call({commit, _}, _, #s{failed = F} = S) when F =/= undefined ->
    {reply, {error, {store_failed, F}}, S};
handle_call({commit, _}, _, #s{repl = #{role := follower, leader := L}} = S) ->
    {reply, {error, {not_leader, L}}, S};
handle_call({repl, Req}, _, S) -> repl_call(Req, flush(S));
handle_call({commit, []}, From, #s{seq = Seq} = S) ->
    noreply(S#s{pending = [{From, Seq} | S#s.pending]});
handle_call({commit, Ops}, From, #s{tree = T, seq = Seq} = S) ->
    case catch_prepare(T, Ops, true) of
        {error, _} = E -> noreply_with(E, S);
        {ok, Parts, Acts} ->
            Direct = direct(Acts, S#s.direct),
            case catch_apply(T, S, Parts, Direct) of
                ok ->
                    Payload = iolist_to_binary(arbo_db_journal:payload(Parts)),
                    noreply(S#s{seq = Seq + 1, buf = [{Seq + 1, Payload} | S#s.buf],
                                ops = keep_ops(S, Direct, Seq + 1, Ops),
                                pending = [{From, Seq + 1} | S#s.pending]});
                {error, R} ->
                    %% The tree may hold part of the batch: back to the disk.
                    S1 = flush(S),
                    {reply, {error, {apply_failed, R}}, rebuild(S1)}
            end
    end;
handle_call({subscribe, Pid}, _, S) ->
    Ref = erlang:monitor(process, Pid),
    {reply, ok, S#s{subs = [{Pid, Ref} | S#s.subs]}};
handle_call({since, From}, _, #s{snap_seq = Snap} = S) when From < Snap ->
    noreply_with({error, {compacted, Snap}}, S);
handle_call({since, From}, _, S) ->
    S1 = flush(S),
    Reply = case file:read_file(S1#s.jpath) of
                {ok, Bin} ->
                    {ok, #{frames := Frames}} =
                        arbo_db_journal:scan(binary:part(Bin, 0, S1#s.jsize), S1#s.snap_seq),
                    {ok, [F || {Seq, _} = F <- Frames, Seq > From]};
                {error, _} = E -> E
            end,
    {reply, Reply, S1};
handle_call({append, _}, _, #s{failed = F} = S) when F =/= undefined ->
    {reply, {error, {store_failed, F}}, S};
handle_call({append, Frames}, From, #s{seq = Seq} = S) ->
    Expected = lists:seq(Seq + 1, Seq + length(Frames)),
    case [Sq || {Sq, P} <- Frames, is_integer(Sq), is_binary(P)] of
        Expected -> append(Frames, From, S);
        [First | _] -> noreply_with({error, {out_of_order, Seq + 1, First}}, S);
        _ -> noreply_with({error, {out_of_order, Seq + 1, none}}, S)
    end;
handle_call(tree, _, S) -> {reply, arbo_tree:read_only(S#s.tree), S};
handle_call(sync, _, S) ->
    S1 = flush(S),
    case S1#s.failed of
        undefined -> {R, S2} = datasync(S1), {reply, R, S2};
        F -> {reply, {error, {store_failed, F}}, S1}
    end;
handle_call(snapshot, _, S) ->
    {R, S1} = compact(flush(S)),
    {reply, R, S1};
handle_call(info, _, S) ->
    S1 = flush(S),
    {reply, #{seq => S1#s.seq, snapshot_seq => S1#s.snap_seq, journal_bytes => S1#s.jsize,
              last_sync => S1#s.last_sync, dir => S1#s.dir, sync => S1#s.sync,
              replication => maps:without([pid], arbo_repl:info(S1#s.repl))}, S1};
handle_call(close, _, S) ->
    S1 = flush(S),
    {_, S2} = datasync(S1),
    {stop, normal, ok, S2};
handle_call(Other, _, S) -> noreply_with({error, {badarg, Other}}, S).

%% @private
handle_cast(_, S) -> {noreply, S}.

%% @private
handle_continue({replay, Frames, Ops}, S) ->
    case apply_frames(S#s.tree, S, Frames, Ops) of
        ok -> {noreply, S, 0};
        {error, R} ->
            logger:error("arbo_db ~p: frames ~p..~p written but not applied: ~p",
                         [S#s.name, element(1, hd(Frames)), element(1, lists:last(Frames)), R]),
            {noreply, rebuild(S), 0}
    end.

%% @private
handle_info(timeout, S) ->
    S1 = flush(S),
    case S1#s.jsize > lists:max([S1#s.compact, S1#s.snap_size, S1#s.retry_at])
        andalso S1#s.failed =:= undefined of
        true -> {_, S2} = compact(S1), {noreply, S2};
        false -> {noreply, S1}
    end;
handle_info(sync_tick, S) ->
    {_, S1} = datasync(S#s{timer = undefined}),
    noreply(S1);
handle_info({'DOWN', Ref, process, _, _}, S) ->
    noreply(S#s{subs = lists:keydelete(Ref, 2, S#s.subs)});
handle_info({'EXIT', _, Reason}, S) when Reason =/= normal -> {stop, Reason, S};
handle_info(_, S) -> noreply(S).

%% @private
terminate(_, #s{fd = Fd, tree = T, dir = Dir} = S) ->
    _ = flush(S),
    Fd =/= undefined andalso file:close(Fd),
    catch arbo_tree:close(T),
    unlock(Dir).

noreply(#s{pending = []} = S) -> {noreply, S};
noreply(S) -> {noreply, S, 0}.

noreply_with(Reply, S) ->
    case S#s.pending of
        [] -> {reply, Reply, S};
        _ -> {reply, Reply, S, 0}
    end.

catch_prepare(T, Ops, Direct) ->
    try arbo_db_batch:prepare(T, Ops, Direct)
    catch C:R -> {error, {0, batch, {C, R}}}
    end.

%% Frames of another store, each applied and buffered as a commit is.
append([], From, #s{seq = Seq} = S) -> noreply(S#s{pending = [{From, Seq} | S#s.pending]});
append([{Seq, Payload} | More], From, #s{tree = T} = S) ->
    case arbo_db_journal:parts(Payload) of
        {ok, Parts} ->
            case catch_apply(T, S, Parts, []) of
                ok -> append(More, From, S#s{seq = Seq, buf = [{Seq, Payload} | S#s.buf]});
                {error, R} ->
                    S1 = flush(S),
                    {reply, {error, {apply_failed, Seq, R}}, rebuild(S1)}
            end;
        error ->
            S1 = flush(S),
            {reply, {error, {bad_frame, Seq}}, S1}
    end.

%% A batch is applied call by call, unless it does more than N things other
%% than set values on nodes the check found (those cost least call by call,
%% one pass of the gate a run), or N is 0: then in one pass of the library's
%% loader, from the very records of its frame.
direct(_, 0) -> [];
direct(Acts, N) -> direct(Acts, N, Acts).

direct([{set, {ref, _}, _} | More], N, Acts) -> direct(More, N, Acts);
direct([_ | More], N, Acts) when N > 0 -> direct(More, N - 1, Acts);
direct([], _, Acts) -> Acts;
direct(_, _, _) -> [].

%% The operations of a batch applied call by call, kept until its frame is
%% written, for followers to apply it the same way.
keep_ops(#s{subs = []}, _, _, _) -> #{};
keep_ops(#s{ops = M}, [], _, _) -> M;
keep_ops(#s{ops = M}, _, Seq, Ops) -> M#{Seq => Ops}.

%% Frames a follower wrote, applied in order. A batch its leader applied
%% call by call (its operations came with the frame) is checked here again
%% and applied the same way when it makes the very frame the leader wrote;
%% the rest goes through the loader, a run of frames at a time.
apply_frames(T, S, Frames, Ops) ->
    try apply_frames(T, S, Frames, Ops, [])
    catch throw:{error, _} = E -> E
    end.

apply_frames(T, S, [], _, Run) -> load_run(T, S, Run);
apply_frames(T, S, [{Seq, P} | More], Ops, Run) ->
    case Ops of
        #{Seq := Batch} ->
            load_run(T, S, Run),
            case same_frame(T, S, Batch, P) of
                {ok, Parts, Acts} ->
                    ok = check(catch_apply(T, S, Parts, Acts)),
                    apply_frames(T, S, More, Ops, []);
                false -> apply_frames(T, S, More, Ops, [P])
            end;
        _ -> apply_frames(T, S, More, Ops, [P | Run])
    end.

load_run(_, _, []) -> ok;
load_run(T, S, Run) -> ok = check(arbo_db_journal:replay(T, S#s.scratch, lists:reverse(Run))).

same_frame(T, S, Batch, Payload) ->
    case catch_prepare(T, Batch, true) of
        {ok, Parts, Acts} ->
            case direct(Acts, S#s.direct) of
                [] -> false;
                Direct ->
                    iolist_to_binary(arbo_db_journal:payload(Parts)) =:= Payload
                        andalso {ok, Parts, Direct}
            end;
        {error, _} -> false
    end.

check(ok) -> ok;
check({error, _} = E) -> throw(E).

catch_apply(T, #s{scratch = Scratch}, Parts, Acts) ->
    try
        case Acts of
            [] -> arbo_db_journal:apply_parts(T, Scratch, Parts);
            _ -> arbo_db_batch:apply_direct(T, Acts)
        end
    catch C:R -> {error, {C, R}}
    end.

%% ---------------------------------------------------------------------------
%% Writing

%% Write the frames of the batches applied since the last write, in one
%% write, sync as the policy says, and answer their commits. Followers have
%% the frames first and write them while this node writes and syncs them:
%% a failure cuts them back and tells them.
flush(#s{buf = []} = S) -> reply_all(S);
flush(#s{fd = Fd, buf = Buf, sync = Sync} = S) ->
    Frames = lists:reverse(Buf),
    Bytes = [arbo_db_journal:frame(Seq, P) || {Seq, P} <- Frames],
    Size = iolist_size(Bytes),
    [Pid ! {arbo_db_frames, S#s.name, Frames, S#s.ops} || {Pid, _} <- S#s.subs],
    R = case file:write(Fd, Bytes) of
            ok ->
                step(S, journal_sync);
            Other -> Other
        end,
    case R of
        ok ->
            S1 = S#s{buf = [], ops = #{}, jsize = S#s.jsize + Size},
            S2 = case Sync of
                     always -> S1#s{last_sync = now_ms()};
                     {interval, Ms} when S1#s.timer =:= undefined ->
                         S1#s{timer = erlang:send_after(Ms, self(), sync_tick)};
                     _ -> S1
                 end,
            reply_all(S2);
        {error, Reason} ->
            [gen_server:reply(From, {error, Reason}) || {From, _} <- S#s.pending],
            S1 = S#s{buf = [], ops = #{}, pending = []},
            [Pid ! {arbo_db_cut, S#s.name} || {Pid, _} <- S#s.subs],
            rebuild(cut(S1, Reason))
    end.

%% The one place where commits are answered, after their frames are
%% written (and synced as the policy says): a commit that must also wait
%% for other stores to hold its frame is held back by the replication
%% process; a follower's frames are acknowledged to its leader.
reply_all(#s{pending = []} = S) -> S;
reply_all(#s{pending = P} = S) ->
    case arbo_repl:committed(S#s.repl, lists:reverse(P)) of
        true -> ok;
        false -> [answer(A) || A <- lists:reverse(P)]
    end,
    S#s{pending = []}.

answer({ack, Leader, Follower, Seq}) -> Leader ! {ack, Follower, Seq};
answer({From, Seq}) -> gen_server:reply(From, {ok, Seq}).

%% Take a failed write back out of the journal.
cut(#s{fd = Fd, jsize = Good} = S, Reason) ->
    R = case file:position(Fd, Good) of
            {ok, _} -> case file:truncate(Fd) of ok -> file:datasync(Fd); E -> E end;
            E -> E
        end,
    case R of
        ok -> S;
        {error, _} ->
            logger:error("arbo_db ~p: journal ~s cannot be cut back after ~p: commits refused",
                         [S#s.name, S#s.jpath, Reason]),
            S#s{failed = Reason}
    end.

datasync(#s{fd = undefined} = S) -> {{error, closed}, S};
datasync(#s{fd = Fd} = S) ->
    case file:datasync(Fd) of
        ok -> {ok, S#s{last_sync = now_ms()}};
        {error, _} = E -> {E, S}
    end.

now_ms() -> erlang:monotonic_time(millisecond).

%% The tree again from the disk, after a batch that could not be written.
rebuild(#s{tree = T} = S) ->
    ok = arbo_tree:clear(T),
    _ = file:close(S#s.fd),
    case recover(S#s{fd = undefined}, false) of
        {ok, S1} -> S1;
        {error, R} -> S#s{failed = {rebuild, R}}
    end.

%% ---------------------------------------------------------------------------
%% Compaction

compact(#s{seq = Seq, snap_seq = Seq} = S) -> {ok, S};
compact(#s{failed = F} = S) when F =/= undefined -> {{error, {store_failed, F}}, S};
compact(S) ->
    try compact_steps(S) of
        {ok, _} = Done -> Done;
        {{error, R}, S1} -> compact_failed(R, S1)
    catch
        error:{badmatch, {error, R}} -> compact_failed(R, S);
        error:R -> compact_failed(R, S)
    end.

%% A compaction that failed (a full disk) is tried again once the journal
%% has grown by the threshold again; the store goes on with its journal.
compact_failed(R, S) ->
    logger:error("arbo_db ~p: compaction failed: ~p", [S#s.name, R]),
    {{error, R}, S#s{retry_at = S#s.jsize + S#s.compact}}.

compact_steps(#s{dir = Dir, tree = T, seq = Seq} = S) ->
    Id = rand:bytes(16),
    Snap = filename:join(Dir, snap_name(Seq, Id)),
    Journal = filename:join(Dir, journal_name(Seq, Id)),
    step(S, snapshot_write),
    case arbo_tree:save(T, Snap) of
        ok ->
            step(S, snapshot_renamed),
            try
                ok = sync_dir(Dir),
                ok = step(S, journal_write),
                {ok, _} = new_journal(S, Journal, Seq, Id)
            of
                {ok, Fd} ->
                    step(S, journal_started),
                    _ = file:close(S#s.fd),
                    Old = [filename:join(Dir, snap_name(S#s.snap_seq, S#s.snap_id)), S#s.jpath],
                    [file:delete(F) || F <- Old],
                    step(S, old_removed),
                    %% leftovers are removed at the next open if this is lost
                    _ = sync_dir(Dir),
                    {ok, S#s{fd = Fd, jpath = Journal, jsize = 36, snap_seq = Seq, snap_id = Id,
                             snap_size = filelib:file_size(Snap)}}
            catch
                error:{badmatch, {error, R}} -> {{error, R}, undo(S, [Journal, Snap])}
            end;
        {error, _} = E -> {E, S}
    end.

%% The new snapshot must not outlive a compaction that did not finish: the
%% old journal goes on taking frames that an open would not look at.
undo(S, Files) ->
    case [F || F <- Files, file:delete(F) =/= ok, filelib:is_file(F)] of
        [] -> _ = sync_dir(S#s.dir), S;
        Left -> S#s{failed = {compaction_left, Left}}
    end.

%% A test may stop the VM at a step, as a crash would, or fail the step.
step(#s{crash_at = {halt, Step}}, Step) -> erlang:halt(137, [{flush, false}]);
step(#s{crash_at = {fail, Step}}, Step) -> {error, injected};
step(_, _) -> ok.

new_journal(#s{dir = Dir} = S, Path, Seq, Id) ->
    Tmp = filename:join(Dir, ".journal.tmp"),
    case file:write_file(Tmp, arbo_db_journal:header(Seq, Id), [raw]) of
        ok ->
            case sync_file(Tmp) of
                ok ->
                    ok = file:rename(Tmp, Path),
                    ok = sync_dir(Dir),
                    open_journal(S, Path);
                E -> E
            end;
        E -> E
    end.

%% Under `sync => always' each write returns once it is on disk (one call
%% where a write and an fdatasync would be two).
open_journal(#s{sync = Sync}, Path) ->
    case file:open(Path, [read, write, raw, binary] ++ [sync || Sync =:= always]) of
        {ok, Fd} -> {ok, _} = file:position(Fd, eof), {ok, Fd};
        E -> E
    end.

sync_file(Path) ->
    case file:open(Path, [read, write, raw, binary]) of
        {ok, Fd} -> R = file:sync(Fd), _ = file:close(Fd), R;
        E -> E
    end.

%% A rename or a new file is durable once its directory is synced.
sync_dir(Dir) ->
    case file:open(Dir, [read, raw, directory]) of
        {ok, Fd} -> R = file:sync(Fd), _ = file:close(Fd), R;
        E -> E
    end.

snap_name(Seq, Id) -> lists:flatten(io_lib:format("snap-~16.16.0b-~s.arbo", [Seq, hex(Id)])).
journal_name(Seq, Id) -> lists:flatten(io_lib:format("journal-~16.16.0b-~s.log", [Seq, hex(Id)])).

hex(Id) -> [io_lib:format("~2.16.0b", [B]) || <<B>> <= Id].

%% ---------------------------------------------------------------------------
%% Recovery

%% Open the store's files: the latest snapshot, its journal's committed
%% frames; leftovers of an interrupted compaction are removed.
recover(#s{dir = Dir} = S, Recover) ->
    case filelib:ensure_dir(filename:join(Dir, "x")) of
        ok ->
            {ok, Names} = file:list_dir(Dir),
            [file:delete(filename:join(Dir, N)) || N <- Names, lists:prefix(".", N)],
            Snaps = lists:sort([{Seq, Id, N} || N <- Names, {snap, Seq, Id} <- [parse_name(N)]]),
            Journals = [{Seq, Id, N} || N <- Names, {journal, Seq, Id} <- [parse_name(N)]],
            case Snaps of
                [] -> create(S);
                _ ->
                    {Seq, Id, Name} = lists:last(Snaps),
                    case [J || {JSeq, JId, _} = J <- Journals, JSeq > Seq orelse
                                                   (JSeq =:= Seq andalso JId =/= Id)] of
                        [{JSeq, _, J} | _] when JSeq > Seq ->
                            {error, {missing_snapshot, filename:join(Dir, J)}};
                        [{_, _, J} | _] -> {error, {stale_journal, filename:join(Dir, J)}};
                        [] ->
                            [file:delete(filename:join(Dir, N)) || {Sq, _, N} <- Snaps ++ Journals,
                                                                   Sq < Seq],
                            load(S, filename:join(Dir, Name), Seq, Id, Recover)
                    end
            end;
        {error, _} = E -> E
    end.

parse_name(N) ->
    case io_lib:fread("snap-~16u-~32c.arbo", N) of
        {ok, [Seq, IdHex], []} -> id(snap, Seq, IdHex);
        _ ->
            case io_lib:fread("journal-~16u-~32c.log", N) of
                {ok, [Seq, IdHex], []} -> id(journal, Seq, IdHex);
                _ -> none
            end
    end.

id(Kind, Seq, IdHex) ->
    try {Kind, Seq, binary:decode_hex(list_to_binary(IdHex))}
    catch error:_ -> none
    end.

%% A new store: an empty snapshot, an empty journal.
create(#s{dir = Dir, tree = T} = S) ->
    Id = rand:bytes(16),
    Snap = filename:join(Dir, snap_name(0, Id)),
    case arbo_tree:save(T, Snap) of
        ok ->
            ok = sync_dir(Dir),
            load(S, Snap, 0, Id, false);
        E -> E
    end.

load(#s{dir = Dir, tree = T} = S, Snap, Seq, Id, Recover) ->
    JPath = filename:join(Dir, journal_name(Seq, Id)),
    case arbo_tree:load(T, Snap) of
        {ok, _} ->
            case file:read_file(JPath) of
                {error, enoent} ->
                    case new_journal(S, JPath, Seq, Id) of
                        {ok, Fd} -> {ok, opened(S, Fd, JPath, 36, Seq, Seq, Id, Snap)};
                        E -> E
                    end;
                {ok, Bin} -> journal(S, Bin, JPath, Snap, Seq, Id, Recover);
                {error, R} -> {error, {R, JPath}}
            end;
        {error, R} -> {error, {bad_snapshot, Snap, R}}
    end.

journal(#s{tree = T} = S, Bin, JPath, Snap, Seq, Id, Recover) ->
    case arbo_db_journal:parse_header(Bin) of
        {ok, Seq, Id} ->
            Scan = case arbo_db_journal:scan(Bin, Seq) of
                       {ok, Sc} -> {ok, Sc};
                       {corrupt, _, Sc} when Recover -> {ok, Sc};
                       {corrupt, Off, _} -> {error, {corrupt_journal, JPath, Off}}
                   end,
            case Scan of
                {ok, #{frames := Frames, last_seq := Last, good_size := Good,
                       dropped := Dropped}} ->
                    Dropped > 0 andalso
                        logger:warning("arbo_db ~p: journal ~s: ~b bytes after offset ~b "
                                       "dropped (not a committed frame)",
                                       [S#s.name, JPath, Dropped, Good]),
                    case arbo_db_journal:replay(T, S#s.scratch, [P || {_, P} <- Frames]) of
                        ok ->
                            case open_journal(S, JPath) of
                                {ok, Fd} ->
                                    ok = trim(Fd, Good, Dropped),
                                    {ok, opened(S, Fd, JPath, Good, Last, Seq, Id, Snap)};
                                E -> E
                            end;
                        {error, R} -> {error, {replay_failed, JPath, R}}
                    end;
                E -> E
            end;
        _ -> {error, {stale_journal, JPath}}
    end.

trim(_, _, 0) -> ok;
trim(Fd, Good, _) ->
    {ok, _} = file:position(Fd, Good),
    ok = file:truncate(Fd),
    file:datasync(Fd).

opened(S, Fd, JPath, Size, Last, Seq, Id, Snap) ->
    _ = file:delete(S#s.scratch),
    S#s{fd = Fd, jpath = JPath, jsize = Size, seq = Last, snap_seq = Seq, snap_id = Id,
        snap_size = filelib:file_size(Snap), failed = undefined}.

%% ---------------------------------------------------------------------------
%% Replication (arbo_repl): where a store's files meet its replicas

%% @doc Make this follower the leader of its replicas under a new, higher
%% epoch (see the README's Replication section).
-spec promote(db()) -> {ok, term()} | {error, term()}.
promote(Db) -> arbo_repl:promote(Db).

%% @doc Wait until the store has applied sequence number `Seq' (on a
%% follower: the leader's commit that answered `{ok, Seq}', and its leader
%% has accepted its journal as a prefix of its own): `ok', or `{error,
%% timeout}' after `Timeout' milliseconds.
-spec wait_for(db(), non_neg_integer(), timeout()) -> ok | {error, timeout}.
wait_for(Db, Seq, Timeout) -> arbo_repl:wait_for(Db, Seq, Timeout).

repl_call({set, Repl}, S) -> {reply, ok, S#s{repl = Repl}};
%% A follower's frames (the next ones, in order): written in one write,
%% then applied (see apply_frames/4).
repl_call({append, Frames, Ops, Ack}, #s{seq = Seq} = S) ->
    case [Sq || {Sq, _} <- Frames] =:= lists:seq(Seq + 1, Seq + length(Frames)) of
        false -> {reply, {error, {out_of_order, Seq + 1}}, S};
        true ->
            %% Durable first and acknowledged to the leader (Ack), then
            %% applied: a call to this store waits for the tree.
            case [ok || {_, P} <- Frames, arbo_db_journal:parts(P) =:= error] of
                [] ->
                    Last = Seq + length(Frames),
                    Answer = [{ack, L, F, Last} || {L, F} <- [Ack], is_pid(L)],
                    S1 = flush(S#s{seq = Last, buf = lists:reverse(Frames),
                                   pending = Answer ++ S#s.pending}),
                    case S1#s.seq > Seq of
                        true -> {reply, {ok, S1#s.seq}, S1, {continue, {replay, Frames, Ops}}};
                        false -> {reply, {ok, S1#s.seq}, S1, 0}
                    end;
                _ -> {reply, {error, bad_payload}, S}
            end
    end;
%% A follower takes its leader's snapshot in place of all it holds.
repl_call({install, Tmp, SnapSeq}, #s{dir = Dir, tree = T} = S) ->
    _ = file:close(S#s.fd),
    {ok, Names} = file:list_dir(Dir),
    [ok = file:delete(filename:join(Dir, N)) || N <- Names, parse_name(N) =/= none],
    ok = file:rename(Tmp, filename:join(Dir, snap_name(SnapSeq, rand:bytes(16)))),
    ok = sync_dir(Dir),
    ok = arbo_tree:clear(T),
    case recover(S#s{fd = undefined}, false) of
        {ok, S1} -> {reply, {ok, S1#s.seq}, S1};
        {error, R} -> {stop, {install_failed, R}, {error, R}, S}
    end.
