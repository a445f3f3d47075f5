%% @private
%% @doc The reader/writer gate of one tree, and the process that keeps it.
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
%% Lifetime: the keeper monitors the process that created the tree; when
%% that process exits, or on {@link close/1}, it closes the tree, marks the
%% gate closed and stops (a tree belongs to its creator, as an ETS table
%% does). Keepers are temporary children of `arbo_keeper_sup' (see
%% `arbo_sup'); the application's shutdown closes the tree the same way.
-module(arbo_gate).
-behaviour(gen_server).

-export([start/2, start_link/2, register_reader/2, exclusive/2, close/1, info/1]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2, terminate/2]).

-include("arbo_gate.hrl").
-define(WRITER, ?ARBO_WRITER).
-define(CLOSED, ?ARBO_CLOSED).
-define(EPOCH, ?ARBO_EPOCH).
-define(COUNT, ?ARBO_COUNT).

-record(st, {handle, owner, epoch = 0, readers = #{}, closing = false}).

%% @doc Start the keeper of a tree handle `{arbo, Res, View, {arbo_gate, _,
%% Owner, Word}}', whose creator Owner reads through Word, under the arbo
%% application's keeper supervisor; the application is started first when
%% it is not running. Raises `{arbo_not_started, Reason}' when it cannot be.
-spec start(term(), pid()) -> {ok, pid()}.
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

%% @doc Give a process its reader word (the same one on every call).
-spec register_reader(pid(), pid()) -> atomics:atomics_ref().
register_reader(Keeper, Pid) ->
    gen_server:call(Keeper, {register, Pid}, infinity).

%% @doc Run `Fun(Handle, Stamp)' on the writer side, in the keeper; Stamp is
%% the current epoch as references carry it. Fun returns `{Reply,
%% Changed}'; when Changed is true (or Fun raises) the epoch moves and every
%% node reference made before is stale.
-spec exclusive(pid(), fun((term(), non_neg_integer()) -> {term(), boolean()})) ->
          {ok, term()} | {raise, atom(), term(), list()}.
exclusive(Keeper, Fun) ->
    gen_server:call(Keeper, {exclusive, Fun}, infinity).

%% @doc Close the tree on the writer side and stop the keeper.
-spec close(pid()) -> ok.
close(Keeper) ->
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
