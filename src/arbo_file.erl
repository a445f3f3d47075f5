%% @doc Save files: verification in Erlang, crash-safe saving, verified
%% loading with progress reports.
%%
%% A save file is the magic `EE DA 00 01' and a stream of operation records
%% (one opcode byte: the operation in its low 5 bits, the key form of a path
%% in its high 3 bits). The library's loader trusts the encoded tuple keys it
%% reads, and a corrupt one aborts the VM at its first comparison. {@link
%% verify/1} therefore reads a file record by record in Erlang first, never
%% trusting a length beyond the file's end, and checks every encoded key
%% (key form 5, the only binary form the library parses element by element;
%% form 4 keys are opaque and form 3 keys with type byte 12 are always well
%% formed) with {@link arbo_key:validate/1} and every encoded value with
%% {@link arbo_val:frame/1}.
%%
%% {@link save/3} writes through a temporary file in the target's directory
%% that is flushed to disk and then renamed over the target, so a crash or a
%% full disk never leaves a half-written file where a good one was. {@link
%% load/3} verifies before it loads.
-module(arbo_file).

-include_lib("kernel/include/file.hrl").

-export([verify/1, verify_binary/1, save/2, save/3, load/2, load/3]).
-export_type([verify_error/0, load_info/0, load_option/0]).

-include("arbo_error.hrl").

-type offset() :: non_neg_integer().
-type verify_error() ::
        {invalid_magic | truncated | invalid_op | invalid_key_type | not_implemented
         | deprecated_op, offset()}
      | {{bad_key, arbo_key:reason()}, offset()}
      | {{bad_value, arbo_val:reason()}, offset()}
      | {file:posix() | badarg | terminated | system_limit, offset()}.
-type load_info() :: #{nodes := non_neg_integer(), file_size := non_neg_integer(),
                       transactions := non_neg_integer(),
                       checkpoint := integer(),
                       truncated_at := undefined | non_neg_integer(),
                       captured := undefined | binary()}.
-type progress() :: #{count := pos_integer(), consumed := non_neg_integer(),
                      path := string(), file_size := non_neg_integer(),
                      transactions := non_neg_integer(), elapsed_ms := non_neg_integer()}.
-type load_option() :: {progress, pid() | fun((progress()) -> any())}
                     | {checkpoint, integer()} | {capture, boolean()}.

-define(MAGIC, 16#EEDA0001).

%% ---------------------------------------------------------------------------
%% Verification

%% @doc Check that a file is a well-formed save file: the magic, every
%% record complete, every opcode and key form defined, every encoded key
%% well formed, every encoded value framed by its type. Returns the first
%% problem with the offset of the record it was found in. This is stricter
%% than the loader, which stops at some records (a `cd_up' above the root,
%% an unknown ordering mode) without reading further: verification reads
%% every record to the end of the file.
-spec verify(file:filename_all()) -> ok | {error, verify_error()}.
verify(Path) ->
    case read(Path) of
        {ok, Bin} -> verify_binary(Bin);
        {error, R} -> {error, {R, 0}}
    end.

%% @doc {@link verify/1} on the contents of a file.
-spec verify_binary(binary()) -> ok | {error, verify_error()}.
verify_binary(<<?MAGIC:32, Rest/binary>> = Bin) -> records(Rest, byte_size(Bin));
verify_binary(Bin) when is_binary(Bin), byte_size(Bin) < 4 -> {error, {truncated, 0}};
verify_binary(Bin) when is_binary(Bin) -> {error, {invalid_magic, 0}}.

read(Path) ->
    try file:read_file(Path)
    catch error:_ -> {error, badarg}
    end.

%% The records a saved tree is mostly made of are matched in place, whole,
%% and the walk goes straight on with what follows them; anything else
%% (other records, and any record that is cut or wrong) takes record/3,
%% which accepts the same bytes and names the problem.
records(<<>>, _Size) -> ok;
records(<<7, R/binary>>, Size) -> records(R, Size);
records(<<16#46, _:32, R/binary>>, Size) -> records(R, Size);
records(<<6, _:32, R/binary>>, Size) -> records(R, Size);
records(<<16#0F, _:32, R/binary>>, Size) -> records(R, Size);
records(<<16#14, _:32, _, R/binary>>, Size) -> records(R, Size);
records(<<13, N, _:N/binary, R/binary>>, Size) -> records(R, Size);
records(<<11, _, R/binary>>, Size) -> records(R, Size);
records(<<9, R/binary>> = Rec, Size) ->
    case arbo_val:frame(R) of
        {ok, N} ->
            <<_:N/binary, Next/binary>> = R,
            records(Next, Size);
        {error, _} -> record_at(Rec, Size)
    end;
records(Rec, Size) -> record_at(Rec, Size).

record_at(<<Form:3, Op:5, Rest/binary>> = Rec, Size) ->
    case record(Op, Form, Rest) of
        {ok, Next} -> records(Next, Size);
        {error, R} -> {error, {R, Size - byte_size(Rec)}}
    end.

%% One record after its opcode byte: {ok, what follows} or {error, Reason}.
record(Op, _, _) when Op > 27 -> {error, invalid_op};
record(0, _, _) -> {error, not_implemented};
record(Op, _, _) when Op =:= 21; Op =:= 25 -> {error, deprecated_op};
record(Op, _, R) when Op =:= 1; Op =:= 2; Op =:= 3; Op =:= 4; Op =:= 5; Op =:= 7 -> {ok, R};
record(8, _, R) -> skip(1, R);
record(9, _, R) -> csval(R);
record(11, _, R) -> skip(1, R);
record(17, _, R) -> skip(2, R);
record(22, _, R) -> skip(4, R);
record(23, _, R) -> skip(8, R);
record(13, _, <<N, R/binary>>) -> skip(N, R);
record(14, _, <<N:32, R/binary>>) -> skip(N, R);
record(18, _, <<_:32, R/binary>>) -> csval(R);
record(Op, F, R) when Op =:= 6; Op =:= 10; Op =:= 12; Op =:= 15 -> path(F, R);
record(Op, F, R) when Op =:= 16; Op =:= 20 -> then(path(F, R), fun(R1) -> skip(1, R1) end);
record(Op, F, R) when Op =:= 19; Op =:= 24 -> then(path(F, R), fun(R1) -> skip(4, R1) end);
record(26, F, R) ->
    then(path(F, R), fun(<<_Rel, F2, R1/binary>>) -> path(F2, R1);
                        (_) -> {error, truncated}
                     end);
record(27, F, R) ->
    then(path(F, R), fun(<<F2, R1/binary>>) -> path(F2, R1);
                        (_) -> {error, truncated}
                     end);
record(_, _, _) -> {error, truncated}.

then({ok, R}, Next) -> Next(R);
then(Error, _) -> Error.

skip(N, R) when byte_size(R) >= N -> {ok, binary:part(R, N, byte_size(R) - N)};
skip(_, _) -> {error, truncated}.

%% A path in key form F: 0 tag, 1 namespace and tag, 2 integer key, 3 type
%% byte and integer key, 4 opaque binary key, 5 encoded tuple key.
path(0, R) -> skip(4, R);
path(1, R) -> skip(8, R);
path(2, R) -> skip(4, R);
path(3, R) -> skip(5, R);
path(4, <<N:32, _:N/binary, R/binary>>) -> {ok, R};
path(5, <<N:32, Key:N/binary, R/binary>>) ->
    case arbo_key:validate(Key) of
        ok -> {ok, R};
        {error, E} -> {error, {bad_key, E}}
    end;
path(F, _) when F >= 6 -> {error, invalid_key_type};
path(_, _) -> {error, truncated}.

csval(R) ->
    case arbo_val:frame(R) of
        {ok, N} -> skip(N, R);
        {error, empty_input} -> {error, truncated};
        {error, {truncated, _}} -> {error, truncated};
        {error, E} -> {error, {bad_value, E}}
    end.

%% ---------------------------------------------------------------------------
%% Saving

%% @equiv save(Tree, Path, [])
-spec save(arbo:handle(), file:filename_all()) -> ok | {error, term()}.
save(Tree, Path) -> save(Tree, Path, []).

%% @doc Write a tree to `Path' so that `Path' always holds either its old
%% contents or the complete new file. The tree is written by the library to
%% a temporary file beside the target, which is then flushed to disk
%% (`fsync') and renamed over the target. On any error the temporary file is
%% removed and the target is left as it was. Options: `{skip_flags, Mask}'
%% leaves out every node whose user flags contain all bits of Mask, with its
%% subtree. Errors: `{error, badarg}' for a path that is not a file name (or
%% holds a NUL byte), `{error, not_regular}' when the target exists and is
%% neither a regular file nor a symbolic link (a device or a directory would
%% be replaced by the rename), `{error, Reason}' from the library (`io', `no_key') or
%% from the file system (a posix atom). A closed tree raises
%% `error({arbo_closed, Tree})'.
-spec save(arbo:handle(), file:filename_all(), [{skip_flags, non_neg_integer()}]) ->
          ok | {error, term()}.
save(Tree, Path, Opts) ->
    Mask = proplists:get_value(skip_flags, Opts, 0),
    (is_integer(Mask) andalso Mask >= 0 andalso Mask < 1 bsl 64)
        orelse error({badarg, {skip_flags, Mask}}),
    case native_path(Path) of
        {ok, Target} ->
            case file:read_link_info(Target) of
                {ok, #file_info{type = Type}} when Type =/= regular, Type =/= symlink ->
                    {error, not_regular};
                _ ->
                    Tmp = temp_name(Target),
                    finish(write_synced(Tree, Tmp, Mask), Tmp, Target)
            end;
        error -> {error, badarg}
    end.

write_synced(Tree, Tmp, Mask) ->
    try arbo:save_nif(Tree, <<Tmp/binary, 0>>, Mask) of
        true -> sync(Tmp);
        {error, _} = E -> E
    catch
        error:{arbo_closed, _, _} -> {raise, {arbo_closed, Tree}};
        error:{badarg, _, _} -> {raise, {badarg, Tree}}
    end.

sync(Tmp) ->
    case file:open(Tmp, [read, write, raw, binary]) of
        {ok, Fd} ->
            R = file:sync(Fd),
            ok = file:close(Fd),
            R;
        {error, _} = E -> E
    end.

finish(ok, Tmp, Target) ->
    case file:rename(Tmp, Target) of
        ok -> ok;
        {error, _} = E -> _ = file:delete(Tmp), E
    end;
finish(Failure, Tmp, _Target) ->
    _ = file:delete(Tmp),
    case Failure of
        {raise, Reason} -> error(Reason);
        {error, _} = E -> E
    end.

%% The file name as the bytes the library opens, refused when it holds a NUL
%% (the library would cut the name there) or is no file name at all.
native_path(Path) ->
    Bin = if is_binary(Path) -> Path;
             true ->
                 try unicode:characters_to_binary(Path, unicode, file:native_name_encoding())
                 catch _:_ -> error
                 end
          end,
    case is_binary(Bin) andalso Bin =/= <<>> andalso binary:match(Bin, <<0>>) =:= nomatch of
        true -> {ok, Bin};
        false -> error
    end.

temp_name(Target) ->
    Dir = filename:dirname(Target),
    Base = filename:basename(Target),
    Unique = integer_to_binary(erlang:unique_integer([positive])),
    OsPid = list_to_binary(os:getpid()),
    filename:join(Dir, <<".", Base/binary, ".tmp.", OsPid/binary, ".", Unique/binary>>).

%% ---------------------------------------------------------------------------
%% Loading

%% @equiv load(Tree, Path, [])
-spec load(arbo_tree:tree(), file:filename_all()) -> {ok, load_info()} | {error, term()}.
load(Tree, Path) -> load(Tree, Path, []).

%% @doc Verify a file ({@link verify/1}) and then replay it into the tree
%% (which keeps what it held: a load into a non-empty tree merges). Node
%% references of the tree are stale afterwards. Options:
%% <ul>
%%  <li>`{progress, Pid}': the library's progress messages `{msg, {Count,
%%      Consumed, Path, FileSize, Transactions, ElapsedMs, Now}}' are
%%      forwarded to Pid as they come; `{progress, Fun}': Fun is called with
%%      a map of the same figures, in a helper process. The library reports
%%      after 30 seconds, then every minute, later every five minutes.</li>
%%  <li>`{checkpoint, N}': -2 records the first checkpoint record and stops
%%      at the next, N >= 0 accepts only the checkpoint at N, other
%%      negative values (the default, -1) stop at the first one.</li>
%%  <li>`{capture, true}': keep a copy of a short binary value on a top
%%      level node with tag 0 (`captured' in the result).</li>
%% </ul>
%% The bytes verified are the bytes loaded: they go to the library through a
%% private copy in the temporary directory (`TMPDIR', else `/tmp'), so the
%% file cannot be swapped between the check and the load. Returns `{ok,
%% Info}' (also when the file ends in a truncation mark or
%% stops at a checkpoint: `truncated_at' says where), `{error, {invalid_file,
%% {Reason, Offset}}}' when verification fails (nothing is loaded), `{error,
%% {Reason, 0}}' when the file cannot be read, or `{error, Atom}' for a
%% loader error met after some records were applied (the tree keeps them).
-spec load(arbo_tree:tree(), file:filename_all(), [load_option()]) ->
          {ok, load_info()} | {error, term()}.
load(Tree, Path, Opts) ->
    Progress = proplists:get_value(progress, Opts, undefined),
    Checkpoint = proplists:get_value(checkpoint, Opts, -1),
    Capture = case proplists:get_value(capture, Opts, false) of
                  true -> 1;
                  false -> 0;
                  C -> error({badarg, {capture, C}})
              end,
    (is_integer(Checkpoint) andalso Checkpoint >= -(1 bsl 63) andalso Checkpoint < 1 bsl 63)
        orelse error({badarg, {checkpoint, Checkpoint}}),
    (Progress =:= undefined orelse is_pid(Progress) orelse is_function(Progress, 1))
        orelse error({badarg, {progress, Progress}}),
    case native_path(Path) of
        error -> {error, badarg};
        {ok, Native} ->
            case read(Native) of
                {error, R} -> {error, {R, 0}};
                {ok, Bin} ->
                    case verify_binary(Bin) of
                        ok -> load_copy(Tree, Bin, Checkpoint, Capture,
                                        {Progress, unicode:characters_to_list(Native, file:native_name_encoding())});
                        {error, E} -> {error, {invalid_file, E}}
                    end
            end
    end.

%% The library loads the very bytes that were verified, from a private copy:
%% the file at Path could be replaced between the check and the load.
load_copy(Tree, Bin, Checkpoint, Capture, Progress) ->
    Dir = case os:getenv("TMPDIR") of
              false -> "/tmp";
              "" -> "/tmp";
              D -> D
          end,
    case native_path(filename:join(Dir, "arbo_load")) of
        {ok, Base} -> load_copy(Tree, Bin, temp_name(Base), Checkpoint, Capture, Progress);
        error -> {error, badarg}
    end.

load_copy(Tree, Bin, Copy, Checkpoint, Capture, Progress) ->
    case file:open(Copy, [write, exclusive, raw, binary]) of
        {ok, Fd} ->
            Written = file:write(Fd, Bin),
            ok = file:close(Fd),
            try
                case Written of
                    ok -> load_verified(Tree, Copy, Checkpoint, Capture, Progress);
                    {error, _} = E -> E
                end
            after
                _ = file:delete(Copy)
            end;
        {error, _} = E -> E
    end.

load_verified(Tree, Native, Checkpoint, Capture, {Progress, Shown}) ->
    Forwarder = forwarder(Progress, Shown),
    try
        Reply = arbo_tree:exclusive(
                  Tree,
                  fun(Handle, _Stamp) ->
                          R = arbo:load_nif(Handle, <<Native/binary, 0>>, Checkpoint, Capture,
                                            forwarder_pid(Forwarder)),
                          {R, true}
                  end),
        case Reply of
            {true, {Trans, FileSize, Size, _, _, Ckpt, Captured, Where}} ->
                {ok, #{nodes => Size, file_size => FileSize, transactions => Trans,
                       checkpoint => Ckpt, captured => Captured,
                       truncated_at => case Where of
                                           {checkpoint, N} -> N - 1;
                                           undefined -> undefined
                                       end}};
            {error, _} = E -> E
        end
    after
        stop_forwarder(Forwarder)
    end.

%% Progress goes through a helper process: the library sends its messages
%% from inside the load, while the caller is blocked in it.
forwarder(undefined, _) -> undefined;
forwarder(To, Shown) ->
    {Pid, MRef} = spawn_monitor(fun() -> forward(To, Shown) end),
    {Pid, MRef}.

forwarder_pid(undefined) -> undefined;
forwarder_pid({Pid, _}) -> Pid.

%% The library names the private copy it reads; the messages name the file
%% the caller gave.
forward(To, Shown) ->
    receive
        {msg, Tuple} when tuple_size(Tuple) =:= 7 ->
            Msg = setelement(3, Tuple, Shown),
            _ = if is_pid(To) -> To ! {msg, Msg};
                   true -> catch To(progress_map(Msg))
                end,
            forward(To, Shown);
        stop -> ok
    end.

progress_map({Count, Consumed, Path, FileSize, Trans, ElapsedMs, _Now}) ->
    #{count => Count, consumed => Consumed, path => Path, file_size => FileSize,
      transactions => Trans, elapsed_ms => ElapsedMs}.

%% Everything the load sent is in the helper's mailbox before `stop'.
stop_forwarder(undefined) -> ok;
stop_forwarder({Pid, MRef}) ->
    Pid ! stop,
    receive {'DOWN', MRef, process, Pid, _} -> ok end.
