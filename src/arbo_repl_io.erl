%% @private
%% @doc The small file in a replicated store's directory that keeps what
%% the node knows of its group: the epochs with the first sequence number
%% of each, the members, the ack policy and its timeout.
-module(arbo_repl_io).

-export([read_state/1, write_state/2, state_path/1]).

-define(STATE, "replication.state").

%% ---------------------------------------------------------------------------
%% The state file: a node's epochs (and what a follower learnt of its group)

-spec state_path(file:filename()) -> file:filename().
state_path(Dir) -> filename:join(Dir, ?STATE).

-spec read_state(file:filename()) -> map().
read_state(Dir) ->
    case file:read_file(state_path(Dir)) of
        {ok, <<Crc:32, B/binary>>} ->
            case erlang:crc32(B) of
                Crc -> binary_to_term(B);
                _ -> error({bad_replication_state, state_path(Dir)})
            end;
        {error, enoent} -> #{};
        {error, R} -> error({R, state_path(Dir)})
    end.

%% Written whole or not at all: a temporary file, synced, renamed, and the
%% directory synced.
-spec write_state(file:filename(), map()) -> ok.
write_state(Dir, State) ->
    B = term_to_binary(State),
    Tmp = filename:join(Dir, "." ++ ?STATE),
    {ok, Fd} = file:open(Tmp, [write, raw, binary]),
    ok = file:write(Fd, [<<(erlang:crc32(B)):32>>, B]),
    ok = file:sync(Fd),
    ok = file:close(Fd),
    ok = file:rename(Tmp, state_path(Dir)),
    {ok, D} = file:open(Dir, [read, raw, directory]),
    _ = file:sync(D),
    file:close(D).
