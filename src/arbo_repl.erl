%% @private
%% @doc Replication of a durable store: one process beside each replicated
%% `arbo_db' server, leader or follower, that ships or receives the
%% store's journal frames.
%%
%% A leader hands every run of frames it wrote to its followers in
%% sequence order and answers a commit once the store's `ack' policy is
%% met. A follower asks its leader for the frames after its sequence number
%% (the leader reads them from its journal, or sends its snapshot in chunks
%% when it compacted past them), then takes the live stream; it writes each
%% run to its own journal before it acknowledges it.
%%
%% Epochs are `{N, LeaderNode}'; each node keeps the epochs it knows with
%% the first sequence number of each, in its state file. A message from an
%% older epoch is refused with the newer one; a node that learns of a newer
%% epoch follows the node that made it. On joining, the leader compares
%% the follower's last epoch with its own history: a follower holding
%% frames past where that epoch ended on the leader (a former leader's
%% unacknowledged suffix) is rebuilt from the leader's snapshot.
%%
%% A leader ships frames once written, while it syncs them: a follower may
%% hold frames its leader then loses (a failed sync, or the leader's
%% machine down before its sync). A leader therefore keeps, for each time
%% it takes the lead, the sequence number it started from (`base') and the
%% nodes found to hold only its frames since (`joined'): a follower of the
%% same epoch that joins with more than `base' and is not among them is
%% rebuilt from the snapshot, and a failed sync starts again from the seq
%% kept, every follower asked to join anew.
-module(arbo_repl).
-behaviour(gen_server).

-export([start/3, committed/2, info/1, promote/1, wait_for/3, status/1]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2]).

-define(TICK, 100).            % ms between checks of deadlines and lost peers
-define(RETRY, 500).           % ms between attempts to reach a missing peer
-define(RUN, (4 bsl 20)).      % bytes of frames per message when catching up
-define(CHUNK, (1 bsl 20)).    % bytes of snapshot per message
-define(WINDOW, 4).            % catch-up or snapshot messages in flight
-define(LAG, 256).             % live messages in flight before a follower is fed from the journal

-record(f, {node, mref, acked = 0, sent = 0, mode = live, infl = [], runs = [],
            snap}).
-record(r, {name, db, dir, role, epochs = [], members = [], ack = none, timeout = 5000,
            leader, lpid, seq = 0, fs = #{}, pending = [], snap, tried = 0,
            subscribed = false, synced = false, base = 0, joined = []}).

%% ---------------------------------------------------------------------------
%% Called by the store

%% Start the replication process of store Name (server Db) when its options
%% ask for one: `none', or what the store keeps of it.
-spec start(atom(), map(), pid()) -> none | map().
start(Name, Opts, Db) ->
    case {maps:get(replicas, Opts, undefined), maps:get(follow, Opts, undefined)} of
        {undefined, undefined} -> none;
        {_, L} ->
            Role = case L of undefined -> leader; _ -> follower end,
            gone(whereis(repl_name(Name))),
            {ok, Pid} = gen_server:start_link({local, repl_name(Name)}, ?MODULE,
                                              {Name, Db, Opts, Role}, []),
            #{pid => Pid, role => Role, leader => L}
    end.

%% The process of a store that was just closed may still be on its way out.
gone(undefined) -> ok;
gone(Pid) ->
    Ref = erlang:monitor(process, Pid),
    receive {'DOWN', Ref, _, _, _} -> ok after 5000 -> ok end.

%% Commits that are durable on the leader; answered once `ack' is met.
%% `false' when the store answers them itself.
-spec committed(map() | none, [{gen_server:from(), non_neg_integer()}]) -> boolean().
committed(#{role := leader, pid := P}, Pending) -> P ! {committed, Pending}, true;
committed(_, _) -> false.

%% What `arbo_db:info/1' shows of replication.
-spec info(map() | none) -> map().
info(none) -> #{role => none};
info(M) -> M.

%% ---------------------------------------------------------------------------
%% API (through arbo_db)

-spec promote(arbo_db:db()) -> {ok, term()} | {error, term()}.
promote(Db) -> gen_server:call(repl_name(db_name(Db)), promote, 60000).

%% Wait until the store has applied sequence number Seq.
-spec wait_for(arbo_db:db(), non_neg_integer(), timeout()) -> ok | {error, timeout}.
wait_for(Db, Seq, Timeout) ->
    Deadline = case Timeout of
                   infinity -> infinity;
                   _ -> erlang:monotonic_time(millisecond) + Timeout
               end,
    wait(Db, Seq, Deadline, 1).

wait(Db, Seq, Deadline, Pause) ->
    Info = arbo_db:info(Db),
    case maps:get(seq, Info) >= Seq andalso maps:get(synced, maps:get(replication, Info), true) of
        true -> ok;
        false ->
            Now = erlang:monotonic_time(millisecond),
            case Deadline =/= infinity andalso Now >= Deadline of
                true -> {error, timeout};
                false ->
                    timer:sleep(case Deadline of infinity -> Pause; _ -> min(Pause, Deadline - Now) end),
                    wait(Db, Seq, Deadline, min(Pause * 2, 20))
            end
    end.

%% A node's epochs and applied sequence number (asked by a node being
%% promoted).
-spec status(atom()) -> {list(), non_neg_integer()}.
status(Name) -> gen_server:call(repl_name(Name), status, 5000).

repl_name(Name) -> list_to_atom("arbo_repl " ++ atom_to_list(Name)).

db_name(Db) when is_atom(Db) -> Db;
db_name(Db) when is_pid(Db) ->
    {registered_name, N} = process_info(Db, registered_name),
    N.

%% ---------------------------------------------------------------------------
%% Server

init({Name, Db, Opts, Role}) ->
    process_flag(trap_exit, true),
    Dir = maps:get(dir, Opts),
    St = arbo_repl_io:read_state(Dir),
    Ack = maps:get(ack, Opts, maps:get(ack, St, none)),
    lists:member(Ack, [none, one, majority]) orelse error({badarg, {ack, Ack}}),
    R0 = #r{name = Name, db = Db, dir = Dir, role = Role, ack = Ack,
            leader = case last_epoch(maps:get(epochs, St, [])) of
                         {_, L} when L =/= node(), L =/= undefined -> L;
                         _ -> maps:get(follow, Opts, undefined)
                     end,
            timeout = maps:get(ack_timeout, Opts, maps:get(timeout, St, 5000)),
            epochs = maps:get(epochs, St, []), members = maps:get(members, St, [])},
    R = case Role of
            leader ->
                Members = lists:usort([node() | maps:get(replicas, Opts)]),
                Epochs = case R0#r.epochs of
                             [] -> [{{1, node()}, 1}];
                             Es -> Es
                         end,
                save(R0#r{members = Members, epochs = Epochs});
            follower -> R0
        end,
    self() ! start,
    erlang:send_after(?TICK, self(), tick),
    {ok, R#r{tried = erlang:monotonic_time(millisecond) - ?RETRY}}.

handle_call(promote, _, #r{role = leader} = R) -> {reply, {ok, epoch(R)}, R};
handle_call(promote, _, R) ->
    case pull(R) of
        {ok, R1} ->
            N = lists:max([0 | [E || {{E, _}, _} <- R1#r.epochs]]) + 1,
            Epoch = {N, node()},
            R2 = save(R1#r{epochs = R1#r.epochs ++ [{Epoch, R1#r.seq + 1}]}),
            {reply, {ok, Epoch}, lead(R2)};
        {behind, Node} -> {reply, {error, {behind, Node}}, R}
    end;
handle_call(status, _, R) -> {reply, {R#r.epochs, R#r.seq}, R};
handle_call(_, _, R) -> {reply, {error, badarg}, R}.

handle_cast(_, R) -> {noreply, R}.

handle_info(start, R) ->
    R1 = R#r{seq = maps:get(seq, db(fun() -> arbo_db:info(R#r.db) end))},
    case R1#r.role of
        leader -> {noreply, lead(R1)};
        follower -> {noreply, become_follower(R1, R1#r.leader)}
    end;
handle_info(tick, R) ->
    erlang:send_after(?TICK, self(), tick),
    {noreply, retry(expire(R))};
handle_info({'EXIT', Db, Reason}, #r{db = Db} = R) -> {stop, Reason, R};
handle_info({'EXIT', _, _}, R) -> {noreply, R};
%% leader side
handle_info({arbo_db_frames, _, Frames, Ops}, #r{role = leader} = R) ->
    {Last, _} = lists:last(Frames),
    R1 = R#r{seq = Last},
    Fs = maps:map(fun(Pid, F) -> live(Pid, F, {Frames, Ops}, Last, R1) end, R1#r.fs),
    {noreply, settle(R1#r{fs = Fs})};
handle_info({arbo_db_cut, _}, #r{role = leader, fs = Fs} = R) ->
    #{seq := Seq} = db(fun() -> arbo_db:info(R#r.db) end),
    [begin
         erlang:demonitor(F#f.mref, [flush]),
         close_snap(F),
         Pid ! {rejoin, self()}
     end || {Pid, F} <- maps:to_list(Fs)],
    {noreply, R#r{seq = Seq, base = Seq, joined = [], fs = #{}}};
handle_info({committed, P}, #r{role = leader} = R) ->
    Deadline = erlang:monotonic_time(millisecond) + R#r.timeout,
    {noreply, settle(R#r{pending = R#r.pending ++ [{Seq, From, Deadline} || {From, Seq} <- P]})};
handle_info({committed, P}, R) ->
    [gen_server:reply(From, {error, {not_leader, R#r.leader}}) || {From, _} <- P],
    {noreply, R};
handle_info({join, Pid, Epochs, Seq}, R) -> {noreply, join(Pid, Epochs, Seq, R)};
handle_info({ack, Pid, Seq}, #r{role = leader, fs = Fs} = R) ->
    case Fs of
        #{Pid := F} ->
            F1 = F#f{acked = max(Seq, F#f.acked), infl = [S || S <- F#f.infl, S > Seq]},
            %% Out of snapshot mode, a follower holds only this leader's frames.
            R1 = case F#f.mode of
                     snapshot -> R;
                     _ -> R#r{joined = lists:usort([F#f.node | R#r.joined])}
                 end,
            {noreply, settle(R1#r{fs = Fs#{Pid := feed(Pid, F1, R1)}})};
        _ -> {noreply, R}
    end;
handle_info({snap_ack, Pid}, #r{role = leader, fs = Fs} = R) ->
    case Fs of
        #{Pid := #f{mode = snapshot} = F} ->
            {noreply, R#r{fs = Fs#{Pid := feed(Pid, F#f{infl = tl(F#f.infl)}, R)}}};
        _ -> {noreply, R}
    end;
handle_info({'DOWN', Ref, process, Pid, _}, #r{fs = Fs} = R) ->
    case Fs of
        #{Pid := #f{mref = Ref} = F} ->
            close_snap(F),
            {noreply, settle(R#r{fs = maps:remove(Pid, Fs)})};
        _ when Pid =:= R#r.lpid -> {noreply, R#r{lpid = undefined}};
        _ -> {noreply, R}
    end;
%% follower side
handle_info({welcome, Pid, Epochs, Members, Ack, Timeout, Same}, #r{role = follower} = R) ->
    case newer_or_same(last_epoch(Epochs), epoch(R)) of
        true ->
            erlang:monitor(process, Pid),
            {noreply, publish(save(R#r{lpid = Pid, epochs = Epochs, members = Members, ack = Ack,
                                       timeout = Timeout, synced = Same}))};
        false -> {noreply, R}
    end;
handle_info({frames, Pid, Last, Frames, Ops}, #r{role = follower, lpid = Pid} = R) ->
    {Frames1, Ops1} = more_frames(Pid, [Frames], Ops, Last),
    {noreply, append(Frames1, Ops1, R)};
handle_info({frames, Pid, _, _, _}, R) ->
    %% Not from this node's leader: an older epoch's, told of the newer.
    Pid ! {newer_epoch, epoch(R)},
    {noreply, R};
handle_info({rejoin, Pid}, #r{role = follower, lpid = Pid} = R) ->
    close_tmp(R),
    {noreply, rejoin(R#r{snap = undefined})};
handle_info({snap_begin, Pid, SnapSeq}, #r{role = follower, lpid = Pid, dir = Dir} = R) ->
    close_tmp(R),
    Tmp = filename:join(Dir, ".replication.snapshot"),
    {ok, Fd} = file:open(Tmp, [write, raw, binary]),
    {noreply, R#r{snap = {Fd, Tmp, SnapSeq}}};
handle_info({snap_chunk, Pid, Bin}, #r{role = follower, lpid = Pid, snap = {Fd, _, _}} = R) ->
    ok = file:write(Fd, Bin),
    Pid ! {snap_ack, self()},
    {noreply, R};
handle_info({snap_end, Pid}, #r{role = follower, lpid = Pid, snap = {Fd, Tmp, SnapSeq}} = R) ->
    ok = file:sync(Fd),
    ok = file:close(Fd),
    {ok, Seq} = gen_server:call(R#r.db, {repl, {install, Tmp, SnapSeq}}, infinity),
    Pid ! {ack, self(), Seq},
    {noreply, publish(R#r{snap = undefined, seq = Seq, synced = true})};
%% either side: a peer's epoch
handle_info({hello, Pid, Epoch}, R) ->
    case compare(Epoch, epoch(R)) of
        newer -> {noreply, become_follower(step_down(R), element(2, Epoch))};
        same when R#r.role =:= follower, R#r.lpid =/= Pid ->
            {noreply, become_follower(R, element(2, Epoch))};
        older -> Pid ! {newer_epoch, epoch(R)}, {noreply, R};
        _ -> {noreply, R}
    end;
handle_info({newer_epoch, Epoch}, R) ->
    case compare(Epoch, epoch(R)) of
        newer -> {noreply, become_follower(step_down(R), element(2, Epoch))};
        _ -> {noreply, R}
    end;
handle_info(_, R) -> {noreply, R}.

terminate(_, R) ->
    close_tmp(R),
    [close_snap(F) || F <- maps:values(R#r.fs)],
    [gen_server:reply(From, {error, closed}) || {_, From, _} <- R#r.pending],
    ok.

%% ---------------------------------------------------------------------------
%% Roles

lead(#r{subscribed = false} = R) ->
    ok = arbo_db:subscribe(R#r.db),
    lead(R#r{subscribed = true});
lead(R) ->
    #{seq := Seq} = db(fun() -> arbo_db:info(R#r.db) end),
    R1 = publish(R#r{role = leader, lpid = undefined, leader = node(), synced = true,
                     seq = Seq, base = Seq, joined = []}),
    hello(R1#r{tried = erlang:monotonic_time(millisecond)}).

become_follower(R, Leader) ->
    R1 = publish(R#r{role = follower, lpid = undefined, leader = Leader, synced = false}),
    send_join(R1, Leader).

%% What the store shows of replication in its info, and refuses commits by.
%% `synced' is false on a follower until its leader has found its frames
%% to be a prefix of its own (or it has taken the leader's snapshot): until
%% then its sequence number may count frames it will drop.
publish(R) ->
    Info = #{pid => self(), role => R#r.role, leader => R#r.leader, epoch => epoch(R),
             members => R#r.members, synced => R#r.synced},
    ok = db(fun() -> gen_server:call(R#r.db, {repl, {set, Info}}, infinity) end),
    R.

%% A leader that learns of a newer epoch: its waiting commits are refused,
%% its followers let go.
step_down(#r{role = leader} = R) ->
    [gen_server:reply(From, {error, {not_leader, undefined}}) || {_, From, _} <- R#r.pending],
    [begin erlang:demonitor(F#f.mref, [flush]), close_snap(F) end || F <- maps:values(R#r.fs)],
    R#r{pending = [], fs = #{}};
step_down(R) -> R.

send_join(#r{name = Name} = R, Leader) when is_atom(Leader), Leader =/= undefined ->
    send({repl_name(Name), Leader}, {join, self(), R#r.epochs, R#r.seq}),
    R#r{tried = erlang:monotonic_time(millisecond)};
send_join(R, _) -> R.

%% Every member not following yet is told of this leader's epoch.
hello(#r{members = Ms, name = Name, fs = Fs} = R) ->
    Following = [F#f.node || F <- maps:values(Fs)],
    [send({repl_name(Name), N}, {hello, self(), epoch(R)})
     || N <- Ms, N =/= node(), not lists:member(N, Following)],
    R#r{tried = erlang:monotonic_time(millisecond)}.

retry(#r{tried = T} = R) ->
    case erlang:monotonic_time(millisecond) - T >= ?RETRY of
        false -> R;
        true when R#r.role =:= leader -> hello(R);
        true when R#r.lpid =:= undefined -> send_join(R, R#r.leader);
        true -> R
    end.

%% A message to a node we may not be connected to: the connection is made
%% aside, so that a node that does not answer never holds this process.
send(Dest = {_, Node}, Msg) ->
    case erlang:send(Dest, Msg, [noconnect]) of
        noconnect ->
            spawn(fun() -> case net_kernel:connect_node(Node) of
                               true -> erlang:send(Dest, Msg);
                               _ -> ok
                           end
                  end),
            ok;
        _ -> ok
    end.

%% Pull from the most advanced member of the same history the frames this
%% node lacks, so that a promotion keeps every commit a majority holds.
%% The members it asks are those it knows and the nodes it is connected
%% to (a follower that had not joined yet knows none). A member that is
%% ahead but compacted past this node makes the promotion fail: promote
%% that one.
pull(#r{name = Name, members = Ms, epochs = Es, seq = Seq} = R) ->
    Status = [{S, N, Es1} || N <- lists:usort(Ms ++ nodes()), N =/= node(),
                             {Es1, S} <- [catch erpc:call(N, ?MODULE, status, [Name], 2000)],
                             is_integer(S), same_history(Es1, Es)],
    R1 = R#r{members = lists:usort([node() | Ms] ++ [N || {_, N, _} <- Status])},
    case lists:reverse(lists:sort([P || {S, _, _} = P <- Status, S > Seq])) of
        [{_, N, Es1} | _] ->
            case catch erpc:call(N, arbo_db, frames_since, [Name, Seq], 30000) of
                {ok, [_ | _] = Frames} ->
                    R2 = append(Frames, #{}, R1),
                    {ok, R2#r{epochs = longer(Es1, Es)}};
                _ -> {behind, N}
            end;
        [] -> {ok, R1}
    end.

longer(A, B) when length(A) > length(B) -> A;
longer(_, B) -> B.

same_history(Es1, Es) -> lists:prefix(Es, Es1) orelse lists:prefix(Es1, Es).

%% ---------------------------------------------------------------------------
%% Leader: followers

%% A follower asks for the frames after Seq; Epochs is its history.
join(Pid, Epochs, Seq, #r{role = leader, fs = Fs} = R) ->
    case compare(last_epoch(Epochs), epoch(R)) of
        newer ->
            become_follower(step_down(R), element(2, last_epoch(Epochs)));
        _ ->
            #{seq := Last, snapshot_seq := SnapSeq} = db(fun() -> arbo_db:info(R#r.db) end),
            Old = [P || {P, F} <- maps:to_list(Fs), F#f.node =:= node(Pid)],
            Fs1 = lists:foldl(fun(P, A) ->
                                      #f{mref = M} = F = maps:get(P, A),
                                      erlang:demonitor(M, [flush]),
                                      close_snap(F),
                                      maps:remove(P, A)
                              end, Fs, Old),
            Same = consistent(Epochs, Seq, R#r.epochs, Last)
                andalso (Seq =< R#r.base orelse last_epoch(Epochs) =/= epoch(R)
                         orelse lists:member(node(Pid), R#r.joined)),
            Pid ! {welcome, self(), R#r.epochs, R#r.members, R#r.ack, R#r.timeout, Same},
            Mode = case Same of
                       true when Seq >= SnapSeq -> catchup;
                       _ -> snapshot
                   end,
            %% A diverged follower holds nothing of this leader's yet.
            F = #f{node = node(Pid), mref = erlang:monitor(process, Pid),
                   acked = case Same of true -> Seq; false -> 0 end, sent = Seq, mode = Mode},
            Joined = case Mode of
                         snapshot -> R#r.joined;
                         _ -> lists:usort([node(Pid) | R#r.joined])
                     end,
            R1 = R#r{seq = max(Last, R#r.seq), joined = Joined},
            settle(R1#r{fs = Fs1#{Pid => feed(Pid, F, R1)}})
    end;
join(Pid, _, _, R) ->
    Pid ! {newer_epoch, epoch(R)},
    R.

%% A follower's frames are a prefix of the leader's when the epoch of its
%% last frame had not ended, on the leader, before that frame.
consistent(_, 0, _, _) -> true;
consistent(FEpochs, Seq, Epochs, Last) ->
    case [E || {E, Start} <- FEpochs, Start =< Seq] of
        [] -> false;
        Es ->
            E = lists:last(Es),
            case lists:dropwhile(fun({E1, _}) -> E1 =/= E end, Epochs) of
                [] -> false;
                [_] -> Seq =< Last;
                [_, {_, Next} | _] -> Seq < Next
            end
    end.

%% Live frames: sent as they come while the follower keeps up, else left to
%% the journal.
live(Pid, #f{mode = live, sent = Sent, infl = Infl} = F, {Frames, Ops}, Last, R) ->
    [{First, _} | _] = Frames,
    if
        Last =< Sent -> F;
        First =:= Sent + 1, length(Infl) < ?LAG ->
            Pid ! {frames, self(), Last, Frames, Ops},
            F#f{sent = Last, infl = Infl ++ [Last]};
        true -> feed(Pid, F#f{mode = catchup, runs = []}, R)
    end;
live(_, F, _, _, _) -> F.

%% Catching up: runs from the journal, then the live stream; a snapshot
%% first when the journal starts after the follower.
feed(Pid, #f{mode = catchup, infl = Infl, runs = [{_, Last, Run} | More]} = F, R)
  when length(Infl) < ?WINDOW ->
    Pid ! {frames, self(), Last, Run, #{}},
    feed(Pid, F#f{sent = Last, infl = Infl ++ [Last], runs = More}, R);
feed(Pid, #f{mode = catchup, infl = Infl, runs = [], sent = Sent} = F, R)
  when length(Infl) < ?WINDOW ->
    #{seq := Last} = db(fun() -> arbo_db:info(R#r.db) end),
    case Sent >= Last of
        true -> F#f{mode = live};
        false ->
            case db(fun() -> arbo_db:frames_since(R#r.db, Sent) end) of
                {ok, [_ | _] = Frames} -> feed(Pid, F#f{runs = runs(Frames, 0, [], [])}, R);
                {ok, []} -> F#f{mode = live};
                {error, {compacted, _}} -> feed(Pid, F#f{mode = snapshot, infl = []}, R)
            end
    end;
feed(Pid, #f{mode = snapshot, snap = undefined} = F, R) ->
    {SnapSeq, Path} = snapshot_file(R),
    case file:open(Path, [read, raw, binary]) of
        {ok, Fd} ->
            Pid ! {snap_begin, self(), SnapSeq},
            feed(Pid, F#f{snap = {Fd, SnapSeq}, infl = []}, R);
        {error, enoent} -> feed(Pid, F, R)  % replaced by a compaction meanwhile
    end;
feed(Pid, #f{mode = snapshot, snap = {Fd, SnapSeq}, infl = Infl} = F, R)
  when length(Infl) < ?WINDOW ->
    case file:read(Fd, ?CHUNK) of
        {ok, Bin} ->
            Pid ! {snap_chunk, self(), Bin},
            feed(Pid, F#f{infl = [chunk | Infl]}, R);
        eof ->
            _ = file:close(Fd),
            Pid ! {snap_end, self()},
            %% The follower's ack of SnapSeq takes it on to the journal.
            F#f{mode = catchup, snap = undefined, sent = SnapSeq, acked = min(F#f.acked, SnapSeq),
                infl = [SnapSeq]}
    end;
feed(_, F, _) -> F.

%% Frames cut into runs of about ?RUN bytes: [{First, Last, Frames}].
runs([], _, [], Acc) -> lists:reverse(Acc);
runs([], _, Run, Acc) -> lists:reverse([run(Run) | Acc]);
runs([{_, P} = Fr | More], Size, Run, Acc) when Size + byte_size(P) > ?RUN, Run =/= [] ->
    runs(More, byte_size(P), [Fr], [run(Run) | Acc]);
runs([{_, P} = Fr | More], Size, Run, Acc) -> runs(More, Size + byte_size(P), [Fr | Run], Acc).

run(Rev) ->
    [{Last, _} | _] = Rev,
    Frames = lists:reverse(Rev),
    [{First, _} | _] = Frames,
    {First, Last, Frames}.

%% The store's latest snapshot and the sequence number it holds.
snapshot_file(#r{dir = Dir}) ->
    [Path | _] = lists:reverse(lists:sort(filelib:wildcard(filename:join(Dir, "snap-*.arbo")))),
    ["snap", Hex | _] = string:split(filename:basename(Path), "-", all),
    {list_to_integer(Hex, 16), Path}.

close_snap(#f{snap = {Fd, _}}) -> _ = file:close(Fd), ok;
close_snap(_) -> ok.

%% Answer the commits whose sequence number the `ack' policy now covers.
settle(#r{pending = []} = R) -> R;
settle(#r{pending = P} = R) ->
    Covered = covered(R),
    {Done, Wait} = lists:splitwith(fun({Seq, _, _}) -> Seq =< Covered end, P),
    [gen_server:reply(From, {ok, Seq}) || {Seq, From, _} <- Done],
    R#r{pending = Wait}.

covered(#r{ack = none, seq = Seq}) -> Seq;
covered(#r{ack = one, fs = Fs}) -> lists:max([0 | [F#f.acked || F <- maps:values(Fs)]]);
covered(#r{ack = majority, fs = Fs, members = Ms, seq = Seq}) ->
    Acks = lists:reverse(lists:sort([Seq | [F#f.acked || F <- maps:values(Fs),
                                                         lists:member(F#f.node, Ms)]])),
    Q = length(Ms) div 2 + 1,
    case length(Acks) >= Q of
        true -> lists:nth(Q, Acks);
        false -> -1
    end.

%% Commits past their deadline are answered `{error, no_quorum}'.
expire(#r{pending = []} = R) -> R;
expire(#r{pending = P} = R) ->
    Now = erlang:monotonic_time(millisecond),
    {Late, Wait} = lists:partition(fun({_, _, D}) -> D =< Now end, P),
    [gen_server:reply(From, {error, no_quorum}) || {_, From, _} <- Late],
    R#r{pending = Wait}.

%% ---------------------------------------------------------------------------
%% Follower: applying

%% Runs that are already waiting join this one: one write, one sync.
more_frames(Pid, Acc, Ops, Last) ->
    receive
        {frames, Pid, Last2, Frames, Ops2} when Last2 > Last ->
            more_frames(Pid, [Frames | Acc], maps:merge(Ops, Ops2), Last2)
    after 0 -> {lists:append(lists:reverse(Acc)), Ops}
    end.

%% The next frames to the store, which acknowledges them to the leader once
%% they are durable; frames it holds already are acknowledged again.
append(Frames, Ops, #r{seq = Seq} = R) ->
    case lists:dropwhile(fun({S, _}) -> S =< Seq end, Frames) of
        [] -> to_store([], #{}, R);
        [{First, _} | _] = New when First =:= Seq + 1 -> to_store(New, Ops, R);
        _ -> rejoin(R)
    end.

to_store(Frames, Ops, R) ->
    Req = {append, Frames, Ops, {R#r.lpid, self()}},
    case db(fun() -> gen_server:call(R#r.db, {repl, Req}, infinity) end) of
        {ok, Seq1} -> R#r{seq = Seq1};
        {error, Reason} ->
            logger:warning("arbo_repl ~p: frames from the leader refused: ~p", [R#r.name, Reason]),
            rejoin(R)
    end.

%% Frames missing in between, or refused: ask again from where we are.
rejoin(R) ->
    #{seq := Seq} = db(fun() -> arbo_db:info(R#r.db) end),
    send_join(R#r{lpid = undefined, seq = Seq}, R#r.leader).

close_tmp(#r{snap = {Fd, Tmp, _}}) -> _ = file:close(Fd), _ = file:delete(Tmp), ok;
close_tmp(_) -> ok.

%% ---------------------------------------------------------------------------
%% Epochs

epoch(#r{epochs = Es}) -> last_epoch(Es).

last_epoch([]) -> {0, undefined};
last_epoch(Es) -> element(1, lists:last(Es)).

compare(A, B) when A > B -> newer;
compare(A, A) -> same;
compare(_, _) -> older.

newer_or_same(A, B) -> A >= B.

save(#r{dir = Dir} = R) ->
    ok = arbo_repl_io:write_state(Dir, #{epochs => R#r.epochs, members => R#r.members,
                                         ack => R#r.ack, timeout => R#r.timeout}),
    R.


%% A call to the store, which may be closing: this process then stops with it.
db(Fun) ->
    try Fun()
    catch exit:{Reason, {gen_server, call, _}} when Reason =:= normal; Reason =:= noproc;
                                                    Reason =:= shutdown ->
        exit(normal)
    end.
