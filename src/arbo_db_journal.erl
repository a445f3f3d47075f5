%% @private
%% @doc The journal of a durable store: its header, its frames, the scan
%% that decides which frames are committed, and replay into a tree.
%%
%% A journal file is a 36-byte header and then frames, one per committed
%% batch:
%% ```
%% header: "ARBJ" 1 0 0 0 | snapshot seq u64 | snapshot id (16 bytes) | crc32 u32
%% frame:  payload length u32 | seq u64 | crc32 u32 | payload
%% '''
%% (integers big-endian). The header's checksum covers its first 32 bytes,
%% a frame's covers its length, its sequence number and its payload. The
%% first frame after a snapshot taken at sequence number N carries N + 1,
%% each later one the next number. A payload is a series of parts: `R',
%% length u32, and save-file records from `02' to `03' (they replay through
%% the library's loader), or `O', length u32, and an operation of the
%% store's own in the external term format (for changes the records cannot
%% express: clearing a value or the whole tree, activating an instance).
-module(arbo_db_journal).

-export([header/2, parse_header/1, frame/2, scan/2, payload/1, parts/1, replay/3, apply_parts/3,
         load_records/3]).
-export_type([scan/0]).

-define(HEADER_SIZE, 36).
-define(MAGIC, "ARBJ", 1, 0, 0, 0).
-define(FILE_MAGIC, 16#EEDA0001).

-type scan() :: #{frames := [{non_neg_integer(), binary()}], last_seq := non_neg_integer(),
                  good_size := non_neg_integer(), dropped := non_neg_integer(),
                  bad_at := undefined | non_neg_integer()}.

%% ---------------------------------------------------------------------------
%% Header and frames

-spec header(non_neg_integer(), <<_:128>>) -> binary().
header(SnapSeq, Id) when byte_size(Id) =:= 16 ->
    H = <<?MAGIC, SnapSeq:64, Id/binary>>,
    <<H/binary, (erlang:crc32(H)):32>>.

-spec parse_header(binary()) -> {ok, non_neg_integer(), binary()} | {error, bad_header}.
parse_header(<<H:32/binary, Crc:32, _/binary>>) ->
    case {H, erlang:crc32(H)} of
        {<<?MAGIC, Seq:64, Id:16/binary>>, Crc} -> {ok, Seq, Id};
        _ -> {error, bad_header}
    end;
parse_header(_) -> {error, bad_header}.

%% One frame around a payload.
-spec frame(pos_integer(), iodata()) -> iodata().
frame(Seq, Payload) ->
    Len = iolist_size(Payload),
    Crc = erlang:crc32(erlang:crc32(<<Len:32, Seq:64>>), Payload),
    [<<Len:32, Seq:64, Crc:32>>, Payload].

%% A payload from the parts of a batch.
-spec payload([{records, binary()} | {own, term()}]) -> iodata().
payload(Parts) ->
    [case P of
         {records, B} -> [<<$R, (byte_size(B)):32>>, B];
         {own, Op} -> B = term_to_binary(Op), [<<$O, (byte_size(B)):32>>, B]
     end || P <- Parts].

%% The parts of a payload (a frame that passed its checksum).
-spec parts(binary()) -> {ok, [{records, binary()} | {own, term()}]} | error.
parts(Bin) -> parts(Bin, []).

parts(<<>>, Acc) -> {ok, lists:reverse(Acc)};
parts(<<$R, N:32, B:N/binary, Rest/binary>>, Acc) -> parts(Rest, [{records, B} | Acc]);
parts(<<$O, N:32, B:N/binary, Rest/binary>>, Acc) ->
    try binary_to_term(B, [safe]) of
        Op -> parts(Rest, [{own, Op} | Acc])
    catch error:badarg -> error
    end;
parts(_, _) -> error.

%% ---------------------------------------------------------------------------
%% Scan: which frames are committed

%% The frames of a journal's contents (after its header), checked in order.
%% A frame is committed when it is whole, its checksum holds and it carries
%% the next sequence number. The first frame that is not ends the scan;
%% `bad_at' is its offset and `dropped' the bytes from there to the end.
%% `{corrupt, Offset, _}' when a whole frame with a good checksum and a
%% later sequence number follows it (corruption in the middle), else `ok'
%% (a torn tail, safe to cut).
-spec scan(binary(), non_neg_integer()) ->
          {ok, scan()} | {corrupt, non_neg_integer(), scan()}.
scan(Bin, SnapSeq) ->
    frames(Bin, ?HEADER_SIZE, SnapSeq, []).

frames(Bin, Pos, Seq, Acc) ->
    case Bin of
        <<_:Pos/binary, Len:32, FSeq:64, Crc:32, Payload:Len/binary, _/binary>>
          when FSeq =:= Seq + 1, Len > 0 ->
            case erlang:crc32(erlang:crc32(<<Len:32, FSeq:64>>), Payload) of
                Crc -> frames(Bin, Pos + 16 + Len, FSeq, [{FSeq, Payload} | Acc]);
                _ -> stop(Bin, Pos, Seq, Acc)
            end;
        _ when byte_size(Bin) =:= Pos ->
            {ok, result(Pos, Seq, Acc, 0, undefined)};
        _ -> stop(Bin, Pos, Seq, Acc)
    end.

stop(Bin, Pos, Seq, Acc) ->
    R = result(Pos, Seq, Acc, byte_size(Bin) - Pos, Pos),
    case later_frame(Bin, Pos + 1, Seq) of
        false -> {ok, R};
        true -> {corrupt, Pos, R}
    end.

result(Pos, Seq, Acc, Dropped, BadAt) ->
    #{frames => lists:reverse(Acc), last_seq => Seq, good_size => Pos, dropped => Dropped,
      bad_at => BadAt}.

%% Whether a whole frame with a good checksum and a sequence number after
%% the last committed one starts anywhere after From: then the bad frame is
%% not a torn tail. Candidates are found by their sequence field.
later_frame(Bin, From, Seq) when From + 16 =< byte_size(Bin) ->
    Patterns = [<<S:64>> || S <- lists:seq(Seq + 1, Seq + 64)],
    Scope = {From + 4, byte_size(Bin) - From - 4},
    lists:any(fun({At, _}) -> whole_frame(Bin, At - 4) end,
              binary:matches(Bin, Patterns, [{scope, Scope}]));
later_frame(_, _, _) -> false.

whole_frame(Bin, At) ->
    case Bin of
        <<_:At/binary, Len:32, FSeq:64, Crc:32, Payload:Len/binary, _/binary>> when Len > 0 ->
            erlang:crc32(erlang:crc32(<<Len:32, FSeq:64>>), Payload) =:= Crc;
        _ -> false
    end.

%% ---------------------------------------------------------------------------
%% Replay

%% Apply the payloads of committed frames to a tree, in order: runs of
%% records go to the library's loader in one call (after verification),
%% the store's own operations are applied in Erlang between them.
-spec replay(arbo_tree:tree(), file:filename_all(), [binary()]) -> ok | {error, term()}.
replay(T, Scratch, Payloads) ->
    try
        Parts = lists:append([case parts(P) of
                                  {ok, Ps} -> Ps;
                                  error -> throw({error, bad_payload})
                              end || P <- Payloads]),
        apply_parts(T, Scratch, Parts)
    catch throw:{error, _} = E -> E
    end.

%% Apply the parts of one batch or more, in order.
-spec apply_parts(arbo_tree:tree(), file:filename_all(), [arbo_db_batch:part()]) ->
          ok | {error, term()}.
apply_parts(T, Scratch, Parts) ->
    try apply_parts(T, Scratch, Parts, [])
    catch throw:{error, _} = E -> E
    end.

apply_parts(T, Scratch, [{records, B} | More], Run) -> apply_parts(T, Scratch, More, [B | Run]);
apply_parts(T, Scratch, Parts, Run) ->
    case Run of
        [] -> ok;
        _ -> ok = check(load_records(T, Scratch, lists:reverse(Run)))
    end,
    case Parts of
        [] -> ok;
        [{own, Op} | More] ->
            ok = check(arbo_db_batch:apply_own(T, Op)),
            apply_parts(T, Scratch, More, [])
    end.

check(ok) -> ok;
check({error, _} = E) -> throw(E).

%% Load runs of records into a tree in one pass of the library's loader,
%% through a scratch file. The bytes are verified first.
-spec load_records(arbo_tree:tree(), file:filename_all(), iodata()) -> ok | {error, term()}.
load_records(T, Scratch, Runs) ->
    Bin = iolist_to_binary([<<?FILE_MAGIC:32>> | Runs]),
    case arbo_file:verify_binary(Bin) of
        ok ->
            case file:write_file(Scratch, Bin, [raw]) of
                ok ->
                    Native = unicode:characters_to_binary(Scratch, file:native_name_encoding()),
                    Load = fun(H, _) ->
                                   {arbo:load_nif(H, <<Native/binary, 0>>, -1, 0, undefined), true}
                           end,
                    R = try arbo_tree:exclusive(T, Load) after file:delete(Scratch) end,
                    case R of
                        {true, _} -> ok;
                        {error, _} = E -> E
                    end;
                {error, _} = E -> E
            end;
        {error, E} -> {error, {invalid_records, E}}
    end.
