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
%% Layout (one `atomics' array per tree, held in the handle's 4th element,
%% which the library never reads): word 1 is `Epoch * 4 + Closed * 2 +
%% Writer'. A node reference carries `Epoch * 4' of the moment it was made,
%% so one comparison of word 1 with it says: no writer, not closed, not
%% stale.
%%
%% Readers: each process that reads a tree gets its own one-word `atomics'
%% cell from the gate keeper once (kept in its process dictionary). It
%% writes 1 to its cell, then reads word 1; on the way out it writes 0.
%% The writer sets its bit in word 1, then waits until every cell is 0.
%% Both steps are sequentially consistent, so either the reader sees the
%% writer's bit (and backs off) or the writer sees the reader's cell (and
%% waits): never neither.
%%
%% A process killed inside the gate: its cell stays 1. The keeper monitors
%% every registered reader and drops the cell of a dead one, so a writer
%% never waits for a dead reader. (A process cannot die inside a native
%% call; a cell left at 1 belongs to a process that is not in the library.)
%% Writers never run in the caller: the keeper runs the writer's function
%% itself, so killing the caller cannot leave the writer bit set.
%%
%% Lifetime: the keeper monitors the process that created the tree; when
%% that process exits, or on {@link close/1}, it closes the tree, marks the
%% gate closed and stops (a tree belongs to its creator, as an ETS table
%% does).
-module(arbo_gate).
-behaviour(gen_server).

-export([start/2, register_reader/2, exclusive/2, close/1]).
-export([init/1, handle_call/3, handle_cast/2, handle_info/2]).

-define(WRITER, 1).
-define(CLOSED, 2).

-record(st, {handle, atomics, owner, readers = #{}, closing = false}).

%% @doc Start the keeper of a tree handle whose 4th element is `{arbo_gate,
%% Atomics, _}' (filled in by the keeper with its own pid).
-spec start(term(), pid()) -> {ok, pid()}.
start(Handle, Owner) ->
    gen_server:start(?MODULE, {Handle, Owner}, []).

%% @doc Give the calling process its reader cell (the same one on every
%% call).
-spec register_reader(pid(), pid()) -> atomics:atomics_ref().
register_reader(Keeper, Pid) ->
    gen_server:call(Keeper, {register, Pid}, infinity).

%% @doc Run `Fun(Handle)' on the writer side, in the keeper. Fun returns
%% `{Reply, Changed}'; when Changed is true (or Fun raises) the epoch moves
%% and every node reference made before is stale.
-spec exclusive(pid(), fun((term()) -> {term(), boolean()})) ->
          {ok, term()} | {raise, atom(), term(), list()}.
exclusive(Keeper, Fun) ->
    gen_server:call(Keeper, {exclusive, Fun}, infinity).

%% @doc Close the tree on the writer side and stop the keeper.
-spec close(pid()) -> ok.
close(Keeper) ->
    gen_server:call(Keeper, close, infinity).

%% ---------------------------------------------------------------------------

init({{arbo, _, _, {arbo_gate, A, _}} = Handle, Owner}) ->
    _ = erlang:monitor(process, Owner),
    {ok, #st{handle = Handle, atomics = A, owner = Owner}}.

handle_call({register, Pid}, _From, #st{readers = Rs} = St) ->
    case Rs of
        #{Pid := {_, Cell}} -> {reply, Cell, St};
        _ ->
            Cell = atomics:new(1, [{signed, false}]),
            MRef = erlang:monitor(process, Pid),
            {reply, Cell, St#st{readers = Rs#{Pid => {MRef, Cell}}}}
    end;
handle_call({exclusive, Fun}, _From, #st{handle = H} = St0) ->
    St = lock(St0),
    {Reply, Changed} =
        try Fun(H) of
            {R, C} when is_boolean(C) -> {{ok, R}, C};
            Other -> {{raise, error, {bad_exclusive_result, Other}, []}, true}
        catch Class:Reason:Stack -> {{raise, Class, Reason, Stack}, true}
        end,
    unlock(St, Changed),
    after_write(Reply, St);
handle_call(close, _From, St0) ->
    {stop, normal, ok, shut(St0)};
handle_call(_, _From, St) ->
    {reply, {error, unknown_call}, St}.

handle_cast(_, St) -> {noreply, St}.

handle_info({'DOWN', _, process, Pid, _}, St) ->
    case down(Pid, St) of
        #st{closing = true} = St1 -> {stop, normal, shut(St1)};
        St1 -> {noreply, St1}
    end;
handle_info(_, St) -> {noreply, St}.

%% The owner died while a writer was running: close once the reply is out.
after_write(Reply, #st{closing = true} = St) -> {stop, normal, Reply, shut(St)};
after_write(Reply, St) -> {reply, Reply, St}.

down(Pid, #st{owner = Pid} = St) -> St#st{closing = true};
down(Pid, #st{readers = Rs} = St) -> St#st{readers = maps:remove(Pid, Rs)}.

%% ---- writer side ---------------------------------------------------------

lock(#st{atomics = A} = St) ->
    W = atomics:get(A, 1),
    atomics:put(A, 1, W bor ?WRITER),
    drain(St, 0).

%% Wait until no live reader is inside. Dead readers are dropped as their
%% monitors fire; a reader still inside is at most one native call away
%% from leaving.
drain(#st{readers = Rs} = St, Spins) ->
    Busy = maps:fold(fun(_, {_, C}, N) -> N + atomics:get(C, 1) end, 0, Rs),
    if
        Busy =:= 0 -> St;
        Spins < 100 -> erlang:yield(), drain(St, Spins + 1);
        true ->
            receive
                {'DOWN', _, process, Pid, _} -> drain(down(Pid, St), Spins)
            after 1 -> drain(St, Spins)
            end
    end.

unlock(#st{atomics = A}, Changed) ->
    W = atomics:get(A, 1),
    Epoch = W bsr 2,
    New = case Changed of
              true -> Epoch + 1;
              false -> Epoch
          end,
    atomics:put(A, 1, New bsl 2).

shut(#st{handle = H, atomics = A} = St0) ->
    St = lock(St0),
    _ = (catch arbo:close(H)),
    Epoch = atomics:get(A, 1) bsr 2,
    atomics:put(A, 1, ((Epoch + 1) bsl 2) bor ?CLOSED),
    St.
