%% @private
%% @doc The reader/writer gate of one tree, and the process that keeps it:
%% how the tree API keeps a node reference from reaching freed memory.
%% `arbo_tree' is only the API; every check of a handle or a reference and
%% every pass through the gate is here.
%%
%% Why: node references are raw addresses. A reference is checked against
%% the tree's epoch and then handed to the library; a deletion by another
%% process between the check and the native call would make the library
%% read freed memory. The gate closes that window: a reader announces itself
%% before it reads the epoch and withdraws after the native call returns;
%% every change that can free nodes runs on the writer side, which waits
%% until no reader is announced and moves the epoch before it lets readers
%% in again.
%%
%% Layout: every reader process has its own one-word `atomics' array,
%% `Epoch * 2^24 + Closed * 2^23 + Writer * 2^22 + Count'. A node reference
%% carries `Epoch * 4' of the moment it was made, so after the reader's
%% single `add_get' on its own word, `Word bsr 22' equal to the reference's
%% stamp says at once: announced, no writer, not closed, not stale.
%%
%% Readers: a reader adds 1 to its word (announce and read in one atomic
%% step) and subtracts 1 after the native call. The writer adds its bit to
%% every reader's word, then waits until every count is 0. Both are
%% read-modify-writes of the same word, so they are ordered: either the
%% reader's add comes first (the writer sees the count and waits) or the
%% writer's (the reader sees the bit, withdraws and waits). When the writer
%% is done it moves the epoch and removes its bit in one add per word. The
%% creator's word travels in the tree handle (`self() =:= Owner' picks it);
%% another process registers once with the keeper and keeps its word in its
%% process dictionary, or takes its own handle with `arbo_tree:attach/1'.
%% A word is only ever used by its own process.
%%
%% A process killed inside the gate: its count stays 1. The keeper monitors
%% every registered reader and drops the word of a dead one, so a writer
%% never waits for a dead reader. (A process cannot die inside a native
%% call; a count left at 1 belongs to a process that is not in the library
%% and never will be again.) Writers never run in the caller: the keeper
%% runs the writer's function itself, so killing the caller cannot leave
%% the writer bit set.
%%
%% References: a node reference is `#arbo_node{}' (arbo_gate.hrl): its tree,
%% its stamp, its address and its parent's. {@link own/2} refuses one of
%% another tree (`wrong_table'); a reader section refuses one whose stamp is
%% not the epoch it entered at (`stale_node'), and so does {@link fresh/2}
%% on the writer side. A reference is made by {@link mk/4} with the stamp
%% of the section that found the node (a walk's children take their
%% parent's, the stamp their chunk was read under: arbo_tree_walk).
%%
%% The interface the tree API uses:
%% <ul>
%%  <li>handles: {@link open/2}, {@link attach/1}, {@link read_only/1},
%%      {@link close/1}; a reading pass: {@link reading/2}</li>
%%  <li>reader sections, where deletions wait: {@link read/3} (any nodes),
%%      {@link read1/3} (one node: for the tree's own handle one atomic add
%%      both announces the caller and checks the reference), {@link
%%      write/3} (a change that frees nothing: refused for a read-only
%%      handle)</li>
%%  <li>the writer side, in the keeper: {@link exclusive/2}, with {@link
%%      gate/1} and {@link check_writer/1} to refuse early</li>
%%  <li>the handle checks {@link readable/1} and {@link writable/1}, and
%%      {@link own/2}, {@link fresh/2}, {@link mk/4} for references</li>
%% </ul>
%% A native exception `{Reason, SourceFile, Line}' leaves every section as
%% `{Reason, Tree}' (native_error/2).
%%
%% Lifetime: the keeper monitors the process that created the tree; when
%% that process exits, or on {@link close/1}, it closes the tree, marks the
%% gate closed and stops (a tree belongs to its creator, as an ETS table
%% does). Keepers are temporary children of `arbo_keeper_sup' (see
%% `arbo_sup'); the application's shutdown closes the tree the same way.
-module(arbo_gate).
-behaviour(gen_server).

%% The tree API's side.
-export([open/2, attach/1, read_only/1, reading/2, close/1]).
-export([read/3, read1/3, write/3, exclusive/2, check_writer/1, check_open/1, gate/1, readable/1,
         writable/1,
         own/2, fresh/2, mk/4]).
%% The keeper.
-export([start_link/2, info/1]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2]).

-include("arbo_gate.hrl").
-include("arbo_error.hrl").
-define(WRITER, ?ARBO_WRITER).
-define(CLOSED, ?ARBO_CLOSED).
-define(EPOCH, ?ARBO_EPOCH).
-define(COUNT, ?ARBO_COUNT).

-record(st, {handle, owner, epoch = 0, readers = #{}, closing = false}).

%% A tree handle, or the reader handle of a reading pass.
-type handle() :: arbo_tree:tree()
                | {arbo, reference(), non_neg_integer(),
                   {arbo_reading, atomics:atomics_ref(), non_neg_integer(), term()}}.

%% A native exception: {Reason, SourceFile, Line}.
-define(NATIVE_ERROR(R), error:{R, F__, L__} when is_atom(R), is_list(F__), is_integer(L__)).

%% ===========================================================================
%% Handles

%% @doc A handle of a new library table Res, seen with View, owned by the
%% calling process; its keeper is started.
-spec open(reference(), non_neg_integer()) -> arbo_tree:tree().
open(Res, View) ->
    Word = atomics:new(1, [{signed, true}]),
    {ok, Keeper} = start({arbo, Res, View, {arbo_gate, undefined, self(), Word}}, self()),
    {arbo, Res, View, {arbo_gate, Keeper, self(), Word}}.

%% @doc The calling process's own handle of a tree (see arbo_tree:attach/1).
-spec attach(handle()) -> handle().
attach({arbo, Res, View, {arbo_gate, Keeper, _, _}} = T) ->
    {arbo, Res, View, {arbo_gate, Keeper, self(), word(T)}};
attach(T) -> error({badarg, {tree, T}}).

%% @doc A read-only handle of a tree (see arbo_tree:read_only/1).
-spec read_only(handle()) -> handle().
read_only({arbo, Res, View, {arbo_gate, {read_only, _}, _, _}} = T) when is_reference(Res),
                                                                         is_integer(View) ->
    T;
read_only({arbo, Res, View, {arbo_gate, Keeper, Owner, Word}}) when is_pid(Keeper) ->
    {arbo, Res, View, {arbo_gate, {read_only, Keeper}, Owner, Word}};
read_only({arbo, _, _, {arbo_reading, _, _, {read_only, _}}} = T) -> T;
read_only({arbo, Res, View, {arbo_reading, Word, S, Tok}}) ->
    {arbo, Res, View, {arbo_reading, Word, S, {read_only, Tok}}};
read_only(T) -> error({badarg, {tree, T}}).

%% @doc One pass through the gate for many calls (see arbo_tree:reading/2):
%% the reader handle `{arbo, Res, View, {arbo_reading, Word, Stamp, Token}}'
%% is good while the calling process is inside.
-spec reading(handle(), fun((handle()) -> R)) -> R.
reading({arbo, Res, View, {arbo_gate, _, _, _}} = T, Fun) when is_function(Fun, 1) ->
    Word = word(T),
    S = enter(T, Word, 0),
    %% The pass's token in the process dictionary is what a reader handle
    %% is checked against on every call: a nested pass keeps the outer one.
    {Tok, Outer} = case get({'$arbo_pass', Res}) of
                       undefined -> {erlang:unique_integer(), true};
                       Tok0 -> {Tok0, false}
                   end,
    Outer andalso begin put({'$arbo_pass', Res}, Tok), put(Tok, '$arbo_pass') end,
    HTok = case T of
               {_, _, _, {_, {read_only, _}, _, _}} -> {read_only, Tok};
               _ -> Tok
           end,
    try Fun({arbo, Res, View, {arbo_reading, Word, S, HTok}})
    after
        Outer andalso begin erase({'$arbo_pass', Res}), erase(Tok) end,
        atomics:sub(Word, 1, 1)
    end;
reading(T, Fun) -> error({badarg, {T, Fun}}).

%% @doc Close a tree (see arbo_tree:close/1).
-spec close(handle()) -> ok.
close(T) ->
    {_, Keeper} = gate(T),
    try
        not_inside(T),
        keeper_close(Keeper)
    catch
        exit:_ -> try keeper_gone(T) catch error:{arbo_closed, _} -> ok end;
        error:{arbo_closed, _} -> ok
    end.

%% ===========================================================================
%% Handle checks

%% @doc `{Res, Keeper}' of a handle that may change the tree; raises for a
%% read-only handle, a reader handle and anything that is no handle.
-spec gate(handle()) -> {reference(), pid()}.
gate({arbo, Res, _, {arbo_gate, Keeper, Owner, _}}) when is_pid(Keeper), is_pid(Owner) ->
    {Res, Keeper};
gate({arbo, _, _, {arbo_reading, _, _, _}} = T) -> error({in_reading, T});
gate({arbo, _, _, {arbo_gate, {read_only, _}, _, _}} = T) -> error({read_only, T});
gate(T) -> error({badarg, {tree, T}}).

%% @doc The same for reading: a read-only handle is good.
-spec readable(handle()) -> {reference(), pid()}.
readable({arbo, Res, _, {arbo_gate, {read_only, Keeper}, Owner, _}}) when is_pid(Keeper),
                                                                          is_pid(Owner) ->
    {Res, Keeper};
readable(T) -> gate(T).

%% @doc `ok', or `{read_only, Handle}' raised for a read-only handle.
-spec writable(handle()) -> ok.
writable({arbo, _, _, {arbo_gate, {read_only, _}, _, _}} = T) -> error({read_only, T});
writable({arbo, _, _, {arbo_reading, _, _, {read_only, _}}} = T) -> error({read_only, T});
writable(_) -> ok.

%% @doc Raise what {@link exclusive/2} would raise before it runs: a
%% read-only handle, a closed tree, a process inside a reading pass.
-spec check_writer(handle()) -> ok.
check_writer(T) ->
    gate(T),
    check_open(T),
    not_inside(T),
    ok.

%% @doc `ok', or `{arbo_closed, Handle}' raised for a closed tree: for the
%% calls that can answer without the library.
-spec check_open(handle()) -> ok.
check_open({arbo, _, _, {arbo_reading, _, _, _}}) -> ok;
check_open(T) ->
    atomics:get(word(T), 1) band ?ARBO_CLOSED =:= 0 orelse error({arbo_closed, T}),
    ok.

%% ===========================================================================
%% Node references

%% @doc `ok' for a reference of this tree; `wrong_table' for one of
%% another, `badarg' for anything else.
-spec own(handle(), term()) -> ok.
own({arbo, Res, _, _}, #arbo_node{table = Res}) -> ok;
own(_, #arbo_node{} = N) -> error({wrong_table, N});
own(_, N) -> error({badarg, {node, N}}).

%% @doc On the writer side: the node is as new as the epoch Stamp.
-spec fresh(non_neg_integer(), term()) -> ok.
fresh(S, #arbo_node{stamp = S}) -> ok;
fresh(_, N) -> error({stale_node, N}).

%% @doc The reference of the node at Addr (`none' for 0), found in a
%% section of stamp S.
-spec mk(handle(), non_neg_integer(), non_neg_integer(), non_neg_integer()) ->
          #arbo_node{} | none.
mk(_, _, 0, _) -> none;
mk({arbo, Res, _, _}, S, Addr, Parent) ->
    #arbo_node{table = Res, stamp = S, addr = Addr, parent = Parent}.

%% ===========================================================================
%% Reader sections

%% @doc A reader section: every node argument belongs to the tree and is as
%% new as the epoch; `Fun(Stamp)' runs with deletions kept out.
-spec read(handle(), [term()], fun((non_neg_integer()) -> R)) -> R.
read({arbo, _, _, {arbo_reading, _, S, Tok}} = T, Nodes, Fun) ->
    inside(T, Tok),
    lists:foreach(fun(N) -> own(T, N) end, Nodes),
    case [N || #arbo_node{stamp = NS} = N <- Nodes, NS =/= S] of
        [] -> native(T, fun() -> Fun(S) end);
        [Stale | _] -> error({stale_node, Stale})
    end;
read({arbo, _, _, {arbo_gate, _, _, _}} = T, Nodes, Fun) -> gated_read(T, Nodes, Fun);
read(T, _, _) -> error({badarg, {tree, T}}).

%% @doc The reader section of one call on one node's behalf: with the
%% tree's own handle and a reference of its epoch, one atomic add on the
%% caller's word announces it and checks the reference at once (the hot
%% path of find, next_sibling and value_raw); anything else goes through
%% {@link read/3}, with the same answers.
-spec read1(handle(), term(), fun((non_neg_integer()) -> R)) -> R.
read1({arbo, Res, _, {arbo_gate, _, Owner, Word}} = T, #arbo_node{table = Res, stamp = S} = N,
      Fun) when Owner =:= self() ->
    case atomics:add_get(Word, 1, 1) bsr ?ARBO_SHIFT of
        S -> leave_after(T, Word, Fun, S);
        _ ->
            atomics:sub(Word, 1, 1),
            read(T, [N], Fun)
    end;
read1(T, N, Fun) -> read(T, [N], Fun).

%% @doc A reader section that changes the tree in place, without freeing
%% nodes: refused through a read-only handle. One match on the hot path.
-spec write(handle(), [term()], fun((non_neg_integer()) -> R)) -> R.
write({arbo, _, _, {arbo_gate, Keeper, _, _}} = T, Nodes, Fun) when is_pid(Keeper) ->
    gated_read(T, Nodes, Fun);
write(T, Nodes, Fun) ->
    writable(T),
    read(T, Nodes, Fun).

gated_read(T, Nodes, Fun) ->
    lists:foreach(fun(N) -> own(T, N) end, Nodes),
    Word = word(T),
    S = enter(T, Word, 0),
    case [N || #arbo_node{stamp = NS} = N <- Nodes, NS =/= S] of
        [] -> leave_after(T, Word, Fun, S);
        [Stale | _] ->
            atomics:sub(Word, 1, 1),
            error({stale_node, Stale})
    end.

%% Fun(Stamp) inside the gate; the caller leaves however it ends.
leave_after(T, Word, Fun, S) ->
    try Fun(S)
    catch ?NATIVE_ERROR(E) -> native_error(T, E)
    after atomics:sub(Word, 1, 1)
    end.

%% A native call whose exceptions name the tree instead of a source line.
native(T, Fun) ->
    try Fun()
    catch ?NATIVE_ERROR(E) -> native_error(T, E)
    end.

%% The one conversion of a native exception {Reason, SourceFile, Line}.
-spec native_error(handle(), atom()) -> no_return().
native_error(T, Reason) -> error({Reason, T}).

%% Announce; wait while a writer is in; the stamp of the current epoch.
enter(T, Word, Tries) ->
    V = atomics:add_get(Word, 1, 1),
    S = V bsr ?ARBO_SHIFT,
    case S band 3 of
        0 -> S;
        %% Inside already (a reading/2 pass): the writer waits for this
        %% process, which must not wait for it.
        1 when V band ?ARBO_COUNT > 1 -> S band (bnot 1);
        _ ->
            atomics:sub(Word, 1, 1),
            S band 2 =:= 0 orelse error({arbo_closed, T}),
            if
                Tries < 50 -> erlang:yield();
                true -> keeper_alive(T), receive after 1 -> ok end
            end,
            enter(T, Word, Tries + 1)
    end.

%% A keeper killed in the middle of a write leaves its bit in every word:
%% a reader that waits for it looks whether it is still there.
keeper_alive({arbo, _, _, {arbo_gate, K, _, _}} = T) ->
    Keeper = case K of
                 {read_only, K0} -> K0;
                 K0 -> K0
             end,
    is_process_alive(Keeper) orelse keeper_gone(T).

%% A reader handle is good while the pass that made it runs, in the process
%% that runs it: only that process's dictionary holds the pass's token (and
%% while the pass runs the process is announced, so the epoch cannot move).
inside(T, {read_only, Tok}) -> inside(T, Tok);
inside(T, Tok) ->
    get(Tok) =:= '$arbo_pass' orelse error({reading_over, T}).

%% The writer side waits for every reader to leave: a process inside a
%% pass of its own would wait for itself.
not_inside(T) ->
    atomics:get(word(T), 1) band ?ARBO_COUNT =:= 0 orelse error({in_reading, T}).

%% The calling process's gate word of this tree.
word({arbo, _, _, {arbo_gate, _, Owner, Word}}) when Owner =:= self() -> Word;
word({arbo, Res, _, {arbo_gate, Keeper, _, _}} = T) ->
    case get({'$arbo_reader', Res}) of
        undefined ->
            forget_closed(),
            K = case Keeper of
                    {read_only, K0} -> K0;
                    K0 -> K0
                end,
            W = try register_reader(K, self())
                catch exit:_ -> keeper_gone(T)
                end,
            put({'$arbo_reader', Res}, W),
            W;
        W -> W
    end.

%% A process that reads thousands of trees others close keeps no word of
%% a closed one: they go when it registers for another tree.
forget_closed() ->
    [erase(Key) || {{'$arbo_reader', _} = Key, W} <- get(),
                   atomics:get(W, 1) band ?ARBO_CLOSED =/= 0],
    ok.

%% ===========================================================================
%% The writer side

%% @doc Run `Fun(Handle, Stamp)' on the writer side of the tree's gate (in
%% its keeper); Fun returns `{Reply, Changed}' and Changed moves the epoch.
-spec exclusive(handle(), fun((handle(), non_neg_integer()) -> {Reply, boolean()})) ->
          Reply.
exclusive(T, Fun) ->
    {_, Keeper} = gate(T),
    not_inside(T),
    Reply = try keeper_exclusive(Keeper, Fun)
            catch exit:_ -> keeper_gone(T)
            end,
    case Reply of
        {ok, R} -> R;
        {raise, error, {R, File, Line}, _} when is_atom(R), is_list(File), is_integer(Line) ->
            native_error(T, R);
        {raise, C, R, Stack} -> erlang:raise(C, R, Stack)
    end.

%% The keeper stopped (the tree was closed) or was killed: then no one is
%% left to run writers, and the tree is closed where it stands. The
%% library's lock keeps every native call out while it closes, and every
%% later one answers arbo_closed, so a reader between its check and its
%% call meets a closed tree, never freed memory.
-spec keeper_gone(handle()) -> no_return().
keeper_gone({arbo, Res, _, G} = T) ->
    _ = (catch arbo:close({arbo, Res, 0, G})),
    error({arbo_closed, T}).


%% ===========================================================================
%% The keeper

%% Start the keeper of a tree handle `{arbo, Res, View, {arbo_gate, _,
%% Owner, Word}}', whose creator Owner reads through Word, under the arbo
%% application's keeper supervisor; the application is started first when
%% it is not running. Raises `{arbo_not_started, Reason}' when it cannot be.
start(Handle, Owner) ->
    start(Handle, Owner, 1).

start(Handle, Owner, Tries) ->
    try supervisor:start_child(arbo_keeper_sup, [Handle, Owner]) of
        {ok, Pid} -> {ok, Pid};
        {error, Reason} -> not_started({keeper_not_started, Reason})
    catch exit:{noproc, _} when Tries > 0 ->
            case application:ensure_all_started(arbo) of
                {ok, _} -> start(Handle, Owner, Tries - 1);
                {error, Reason} -> not_started({arbo_not_started, Reason})
            end;
          exit:{noproc, _} -> not_started({arbo_not_started, no_keeper_supervisor})
    end.

not_started(Reason) ->
    erlang:error(Reason, none, [{error_info, #{module => arbo_error}}]).

%% @private The keeper supervisor's start function.
-spec start_link(term(), pid()) -> {ok, pid()}.
start_link(Handle, Owner) ->
    gen_server:start_link(?MODULE, {Handle, Owner}, []).

%% @doc What the keeper holds: the tree handle, its owner, the number of
%% processes registered as readers.
-spec info(pid()) -> {term(), pid(), non_neg_integer()}.
info(Keeper) ->
    gen_server:call(Keeper, info, infinity).

%% Give a process its reader word (the same one on every call).
register_reader(Keeper, Pid) ->
    gen_server:call(Keeper, {register, Pid}, infinity).

%% Run `Fun(Handle, Stamp)' on the writer side, in the keeper; Stamp is the
%% current epoch as references carry it. Fun returns `{Reply, Changed}';
%% when Changed is true (or Fun raises) the epoch moves and every node
%% reference made before is stale.
keeper_exclusive(Keeper, Fun) ->
    gen_server:call(Keeper, {exclusive, Fun}, infinity).

%% Close the tree on the writer side and stop the keeper.
keeper_close(Keeper) ->
    gen_server:call(Keeper, close, infinity).

%% ---------------------------------------------------------------------------

init({{arbo, _, _, {arbo_gate, _, Owner, Word}} = Handle, Owner}) ->
    %% A supervisor's shutdown (the application stopping) closes the tree
    %% like its owner's exit does, in terminate/2.
    process_flag(trap_exit, true),
    MRef = erlang:monitor(process, Owner),
    {ok, #st{handle = Handle, owner = Owner, readers = #{Owner => {MRef, Word}}}}.

handle_call({register, Pid}, _From, #st{readers = Rs, epoch = E} = St) ->
    case Rs of
        #{Pid := {_, Word}} -> {reply, Word, St};
        _ ->
            Word = atomics:new(1, [{signed, true}]),
            atomics:put(Word, 1, E * ?EPOCH),
            MRef = erlang:monitor(process, Pid),
            {reply, Word, St#st{readers = Rs#{Pid => {MRef, Word}}}}
    end;
handle_call({exclusive, Fun}, _From, #st{handle = H, epoch = E} = St0) ->
    St = lock(St0),
    {Reply, Changed} =
        try Fun(H, E bsl 2) of
            {R, C} when is_boolean(C) -> {{ok, R}, C};
            Other -> {{raise, error, {bad_exclusive_result, Other}, []}, true}
        catch Class:Reason:Stack -> {{raise, Class, Reason, Stack}, true}
        end,
    after_write(Reply, unlock(St, Changed, 0));
handle_call(close, _From, St0) ->
    {stop, normal, ok, shut(St0)};
handle_call(info, _From, #st{handle = H, owner = Owner, readers = Rs} = St) ->
    {reply, {H, Owner, map_size(Rs)}, St};
handle_call(_, _From, St) ->
    {reply, {error, unknown_call}, St}.

handle_cast(_, St) -> {noreply, St}.

handle_info({'DOWN', _, process, Pid, _}, St) ->
    case down(Pid, St) of
        #st{closing = true} = St1 -> {stop, normal, shut(St1)};
        St1 -> {noreply, St1}
    end;
handle_info(_, St) -> {noreply, St}.

%% Every stop of its own (close, the owner's exit) has shut the tree and
%% is `normal'; any other end leaves no tree open behind a dead keeper.
terminate(normal, _) -> ok;
terminate(_, St) -> _ = (catch shut(St)), ok.

%% The owner died while a writer was running: close once the reply is out.
after_write(Reply, #st{closing = true} = St) -> {stop, normal, Reply, shut(St)};
after_write(Reply, St) -> {reply, Reply, St}.

down(Pid, #st{owner = Pid, readers = Rs} = St) ->
    St#st{closing = true, readers = maps:remove(Pid, Rs)};
down(Pid, #st{readers = Rs} = St) -> St#st{readers = maps:remove(Pid, Rs)}.

%% ---- writer side ---------------------------------------------------------

lock(#st{readers = Rs} = St) ->
    maps:foreach(fun(_, {_, W}) -> atomics:add(W, 1, ?WRITER) end, Rs),
    drain(St, 0).

%% Wait until no live reader is inside. Dead readers are dropped as their
%% monitors fire; a reader still inside is at most one native call away
%% from leaving.
drain(#st{readers = Rs} = St, Spins) ->
    Busy = maps:fold(fun(_, {_, W}, N) -> N + (atomics:get(W, 1) band ?COUNT) end, 0, Rs),
    if
        Busy =:= 0 -> St;
        Spins < 100 -> erlang:yield(), drain(St, Spins + 1);
        true ->
            receive
                {'DOWN', _, process, Pid, _} -> drain(down(Pid, St), Spins)
            after 1 -> drain(St, Spins)
            end
    end.

%% Remove the writer bit, move the epoch when something changed, and set
%% Extra (the closed bit) in every reader's word.
unlock(#st{readers = Rs, epoch = E} = St, Changed, Extra) ->
    Step = case Changed of true -> 1; false -> 0 end,
    Delta = Step * ?EPOCH + Extra - ?WRITER,
    maps:foreach(fun(_, {_, W}) -> atomics:add(W, 1, Delta) end, Rs),
    St#st{epoch = E + Step}.

shut(#st{handle = H} = St0) ->
    St = lock(St0),
    _ = (catch arbo:close(H)),
    unlock(St, true, ?CLOSED).
