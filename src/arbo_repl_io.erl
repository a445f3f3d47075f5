%% @private
%% @doc Replication's side of a store's files: runs of journal frames cut
%% out of a journal and checked on arrival, the snapshot read in chunks, and
%% the small state file that keeps a node's epochs.
%%
%% Frames travel as they lie in the journal: a run of consecutive whole
%% frames (length u32, seq u64, crc32 u32, payload) is one binary, written
%% verbatim into the follower's journal once every checksum and sequence
%% number in it has been checked.
-module(arbo_repl_io).

-export([run_after/3, payloads/2, first_seq/1, read_state/1, write_state/2, state_path/1]).

-define(HEADER_SIZE, 36).
-define(STATE, "replication.state").

%% The frames of a journal's contents (header included) with sequence
%% numbers in (After, UpTo], as one binary, cut into runs of at most about
%% MaxBytes: `[{FirstSeq, LastSeq, Run}]'. Frames past UpTo (being
%% written) are left out; a journal that does not reach After + 1 answers
%% `gap'.
-spec run_after(binary(), non_neg_integer(), non_neg_integer()) ->
          fun((pos_integer()) -> [{pos_integer(), pos_integer(), binary()}] | gap).
run_after(Journal, After, UpTo) ->
    fun(MaxBytes) ->
        case skip(Journal, ?HEADER_SIZE, After) of
            gap -> gap;
            Pos -> cut(Journal, Pos, After, UpTo, MaxBytes, [])
        end
    end.

skip(Bin, Pos, After) ->
    case Bin of
        <<_:Pos/binary, Len:32, Seq:64, _:32, _:Len/binary, _/binary>> when Seq =< After ->
            skip(Bin, Pos + 16 + Len, After);
        <<_:Pos/binary, _:32, Seq:64, _/binary>> when Seq =:= After + 1 -> Pos;
        _ when byte_size(Bin) =:= Pos -> Pos;
        _ -> gap
    end.

%% Runs from Pos on, each up to MaxBytes (at least one frame).
cut(_, _, Seq, UpTo, _, Acc) when Seq >= UpTo -> lists:reverse(Acc);
cut(Bin, Pos, Seq, UpTo, Max, Acc) ->
    case take(Bin, Pos, Pos, Seq, UpTo, Max) of
        {Pos, _} -> lists:reverse(Acc);
        {End, Last} ->
            Run = binary:part(Bin, Pos, End - Pos),
            cut(Bin, End, Last, UpTo, Max, [{Seq + 1, Last, Run} | Acc])
    end.

take(Bin, Start, Pos, Seq, UpTo, Max) when Seq < UpTo, Pos - Start < Max ->
    case Bin of
        <<_:Pos/binary, Len:32, FSeq:64, _:32, _:Len/binary, _/binary>> when FSeq =:= Seq + 1 ->
            take(Bin, Start, Pos + 16 + Len, FSeq, UpTo, Max);
        _ -> {Pos, Seq}
    end;
take(_, _, Pos, Seq, _, _) -> {Pos, Seq}.

%% The payloads of a run that arrived, checked: every frame whole, its
%% checksum right and its sequence number the next after Seq.
-spec payloads(binary(), non_neg_integer()) ->
          {ok, [binary()], non_neg_integer()} | {error, {bad_frame, non_neg_integer()}}.
payloads(Run, Seq) -> payloads(Run, 0, Seq, []).

payloads(Run, Pos, Seq, Acc) when byte_size(Run) =:= Pos -> {ok, lists:reverse(Acc), Seq};
payloads(Run, Pos, Seq, Acc) ->
    case Run of
        <<_:Pos/binary, Len:32, FSeq:64, Crc:32, P:Len/binary, _/binary>> when FSeq =:= Seq + 1 ->
            case erlang:crc32(erlang:crc32(<<Len:32, FSeq:64>>), P) of
                Crc -> payloads(Run, Pos + 16 + Len, FSeq, [P | Acc]);
                _ -> {error, {bad_frame, Seq + 1}}
            end;
        _ -> {error, {bad_frame, Seq + 1}}
    end.

-spec first_seq(binary()) -> non_neg_integer().
first_seq(<<_:32, Seq:64, _/binary>>) -> Seq.

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
