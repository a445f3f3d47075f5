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

-include("arbo_codes.hrl").
-include("arbo_error.hrl").

-type offset() :: non_neg_integer().
-type verify_error() ::
        {invalid_magic | truncated | invalid_op | invalid_key_type | not_implemented
         | deprecated_op, offset()}
      | {{bad_key, arbo_key:reason()}, offset()}
      | {{bad_value, arbo_val:reason()}, offset()}
      | {file:posix() | badarg | terminated | system_limit | not_regular | changed, offset()}.
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

%% What the marked copy of a file holds: its markers, the file's own
%% transaction starts, the checkpoint argument for the copy, the distinct
%% wide flag values.
-record(marks, {count = 0, trans = 0, checkpoint = -1, wide = #{}}).

%% The records a saved list and a saved tree are mostly made of.
-define(CD_KEY, ?OPCODE(?OP_CD, ?KF_HKEY_INT)).
-define(CD_LIST, ?OPCODE(?OP_CD_DYN, ?KF_HTAG)).
%% The marker put before a record of the marked copy: a transaction start,
%% which the loader counts.
-define(MARK, ?OP_BEGIN_TRANS).

%% ---------------------------------------------------------------------------
%% Verification

%% @doc Check that a file is a well-formed save file: the magic, every
%% record complete, every opcode and key form defined, every encoded key
%% well formed, every encoded value framed by its type. Returns the first
%% problem with the offset of the record it was found in. Only regular
%% files are read (`{error, {not_regular, 0}}' for a FIFO, a device or a
%% directory, answered without opening it), and only as many bytes as the
%% file held when it was opened (`{error, {changed, 0}}' when it grew or
%% shrank while it was read). This is stricter
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
    try read_regular(Path)
    catch error:_ -> {error, badarg}
    end.

%% A FIFO would block the open, a device would never end: the type is
%% checked before the open and again on the open file, and no more than
%% the size it had then is read.
read_regular(Path) ->
    case file:read_file_info(Path) of
        {ok, #file_info{type = regular}} ->
            case file:open(Path, [read, raw, binary]) of
                {ok, Fd} ->
                    try read_opened(Fd) after file:close(Fd) end;
                {error, _} = E -> E
            end;
        {ok, _} -> {error, not_regular};
        {error, _} = E -> E
    end.

read_opened(Fd) ->
    case file:read_file_info(Fd) of
        {ok, #file_info{type = regular, size = Size}} ->
            case {read_n(Fd, Size), file:read(Fd, 1)} of
                {{ok, Bin}, eof} when byte_size(Bin) =:= Size -> {ok, Bin};
                {{error, _} = E, _} -> E;
                _ -> {error, changed}
            end;
        {ok, _} -> {error, not_regular};
        {error, _} = E -> E
    end.

read_n(_, 0) -> {ok, <<>>};
read_n(Fd, Size) ->
    case file:read(Fd, Size) of
        eof -> {ok, <<>>};
        Other -> Other
    end.

%% The records a saved tree is mostly made of are matched in place, whole,
%% and the walk goes straight on with what follows them (skip_record/1
%% matches the same ones: a shared matcher that hands back what follows
%% costs the match its in-place reading, three times the time); anything else
%% (other records, and any record that is cut or wrong) takes record/3,
%% which accepts the same bytes and names the problem.
records(<<>>, _Size) -> ok;
records(<<?OP_CD_UP_1, R/binary>>, Size) -> records(R, Size);
records(<<?CD_KEY, _:32, R/binary>>, Size) -> records(R, Size);
records(<<?OP_CD, _:32, R/binary>>, Size) -> records(R, Size);
records(<<?OP_CD_INT, _:32, R/binary>>, Size) -> records(R, Size);
records(<<?CD_LIST, _:32, _, R/binary>>, Size) -> records(R, Size);
records(<<?OP_INSERT_BIN0, N, _:N/binary, R/binary>>, Size) -> records(R, Size);
records(<<?OP_SET_FLAGS8, _, R/binary>>, Size) -> records(R, Size);
records(<<?OP_INSERT, R/binary>> = Rec, Size) ->
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
record(Op, _, _) when Op > ?OP_LAST -> {error, invalid_op};
record(?OP_ZERO, _, _) -> {error, not_implemented};
record(Op, _, _) when Op =:= ?OP_MOVE_REL; Op =:= ?OP_RENAME_INSTANCE -> {error, deprecated_op};
record(Op, _, R) when Op =:= ?OP_BEGIN_TRANS_INVALID; Op =:= ?OP_BEGIN_TRANS;
                      Op =:= ?OP_TRANS_END; Op =:= ?OP_CHECKPOINT_SET; Op =:= ?OP_NOOP;
                      Op =:= ?OP_CD_UP_1 -> {ok, R};
record(?OP_CD_UP, _, R) -> skip(1, R);
record(?OP_INSERT, _, R) -> csval(R);
record(?OP_SET_FLAGS8, _, R) -> skip(1, R);
record(?OP_SET_FLAGS16, _, R) -> skip(2, R);
record(?OP_SET_FLAGS32, _, R) -> skip(4, R);
record(?OP_SET_FLAGS64, _, R) -> skip(8, R);
record(?OP_INSERT_BIN0, _, <<N, R/binary>>) -> skip(N, R);
record(?OP_INSERT_BIN, _, <<N:32, R/binary>>) -> skip(N, R);
record(?OP_SET_ATTRIBUTE, _, <<_:32, R/binary>>) -> csval(R);
record(Op, F, R) when Op =:= ?OP_CD; Op =:= ?OP_DELETE; Op =:= ?OP_DELETE_NS; Op =:= ?OP_CD_INT ->
    path(F, R);
record(Op, F, R) when Op =:= ?OP_CD_DYN_OLD; Op =:= ?OP_CD_DYN ->
    then(path(F, R), fun(R1) -> skip(1, R1) end);
record(Op, F, R) when Op =:= ?OP_MOVE; Op =:= ?OP_RENAME_NS ->
    then(path(F, R), fun(R1) -> skip(4, R1) end);
record(?OP_MOVE_REL_2, F, R) ->
    then(path(F, R), fun(<<_Rel, F2, R1/binary>>) -> path(F2, R1);
                        (_) -> {error, truncated}
                     end);
record(?OP_RENAME_INSTANCE_2, F, R) ->
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
path(?KF_HTAG, R) -> skip(4, R);
path(?KF_NS_HTAG, R) -> skip(8, R);
path(?KF_HKEY_INT, R) -> skip(4, R);
path(?KF_HKEY_INT_BTUPLE, R) -> skip(5, R);
path(?KF_HKEY_BIN, <<N:32, _:N/binary, R/binary>>) -> {ok, R};
path(?KF_HKEY_GEN, <<N:32, Key:N/binary, R/binary>>) ->
    case arbo_key:validate(Key) of
        ok -> {ok, R};
        {error, E} -> {error, {bad_key, E}}
    end;
path(F, _) when F > ?KF_HKEY_GEN -> {error, invalid_key_type};
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
    options(Opts, [skip_flags]),
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
                    %% A helper runs the library's save: a caller killed
                    %% meanwhile leaves it to remove the temporary file.
                    aided(fun(Caller) ->
                              R = write_synced(Tree, Tmp, Mask),
                              case is_process_alive(Caller) of
                                  true -> finish(R, Tmp, Target);
                                  false -> file:delete(Tmp)
                              end
                          end)
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
%%      a map of the same figures, in a helper process (a Fun still running
%%      five seconds after the load has ended is killed). The library reports after 30
%%      seconds, then every minute, later every five minutes; Consumed and
%%      Transactions count the private copy the library reads, which holds
%%      a one-byte marker per record.</li>
%%  <li>`{checkpoint, N}': -2 records the first checkpoint record and stops
%%      at the next, N >= 0 accepts only the checkpoint at N, other
%%      negative values (the default, -1) stop at the first one.</li>
%%  <li>`{capture, true}': keep a copy of a short binary value on a top
%%      level node with tag 0 (`captured' in the result).</li>
%% </ul>
%% Options that are not a list, and options not named here, raise
%% `error({badarg, {options, Opts}})' and `error({badarg, {option, O}})'.
%% The bytes verified are the bytes loaded: they go to the library through a
%% private copy in the temporary directory (`TMPDIR', else `/tmp'), so the
%% file cannot be swapped between the check and the load. Returns `{ok,
%% Info}' (also when the file ends in a truncation mark or
%% stops at a checkpoint: `truncated_at' says where), `{error, {invalid_file,
%% {Reason, Offset}}}' when verification fails (nothing is loaded), `{error,
%% {Reason, 0}}' when the file cannot be read (`not_regular', `changed' or
%% a posix error, see {@link verify/1}), `{error, flags_table_full}' when
%% the file holds more distinct wide flag values than the VM's table has
%% room for (see {@link arbo_tree:set_flags/3}; nothing is loaded), `{error,
%% {stopped_at, Offset, Why}}' when the library ended the load early at the
%% record at Offset without an error of its own (Why: `above_root',
%% `value_at_root', `child_refused' (the tree holds a node of another kind
%% there, or the node takes no such child), `list_key_form', `list_mode',
%% `namespace_key_form', `move_target_missing'), or `{error, Atom}' for a
%% loader error; in the last two cases the records before are applied and
%% the tree keeps them. Info's `transactions', `truncated_at' and
%% `checkpoint' are the file's own.
-spec load(arbo_tree:tree(), file:filename_all(), [load_option()]) ->
          {ok, load_info()} | {error, term()}.
load(Tree, Path, Opts) ->
    options(Opts, [progress, checkpoint, capture]),
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

%% The copy holds a marker record (a transaction start, which changes
%% nothing but the count of transactions) before every record the loader
%% may stop at, and one at the end: the count the loader answers says how
%% many records it reached. A helper writes the copy, has the keeper load
%% it and removes it, so a caller killed at any moment leaves nothing.
load_copy(Tree, Bin, Copy, Checkpoint, Capture, {Progress, Shown}) ->
    arbo_gate:check_writer(Tree),
    aided(fun(_Caller) ->
        Forwarder = forwarder(Progress, Shown),
        try
            case write_marked(Copy, Bin, Checkpoint) of
                {ok, Marks} ->
                    case arbo_tree:wide_flags_room(map_size(Marks#marks.wide)) of
                        true -> load_verified(Tree, Bin, Copy, Marks, Capture, forwarder_pid(Forwarder));
                        false -> {error, flags_table_full}
                    end;
                {error, _} = E -> E
            end
        after
            _ = file:delete(Copy),
            stop_forwarder(Forwarder)
        end
    end).

load_verified(Tree, Bin, Native, Marks, Capture, Forward) ->
    #marks{count = Count, trans = Trans0, checkpoint = Ckpt0} = Marks,
    Reply = arbo_gate:exclusive(
              Tree,
              fun(Handle, _Stamp) ->
                      {arbo:load_nif(Handle, <<Native/binary, 0>>, Ckpt0, Capture, Forward), true}
              end),
    case Reply of
        {true, {Reached, _, Size, _, _, Ckpt, Captured, undefined}} when Reached =:= Count + Trans0 ->
            {ok, info(Bin, Size, Trans0, Ckpt, Captured, undefined)};
        {true, {Reached, _, Size, _, _, Ckpt, Captured, {checkpoint, N}}} ->
            %% Stopped by a truncation mark or a checkpoint, as asked.
            {I, At} = original(Bin, N - 1),
            {ok, info(Bin, Size, Reached - I - 1, Ckpt, Captured, At)};
        {true, {Reached, _, _, _, _, _, _, undefined}} ->
            stopped(Bin, Reached);
        {error, _} = E -> E
    end.

info(Bin, Size, Trans, Ckpt, Captured, TruncatedAt) ->
    #{nodes => Size, file_size => byte_size(Bin), transactions => Trans,
      checkpoint => case Ckpt of
                        -1 -> -1;
                        _ -> element(2, original(Bin, Ckpt))
                    end,
      captured => Captured, truncated_at => TruncatedAt}.

%% A load that did not apply the whole file: the offset of the record it
%% stopped at and why. Reached counts the markers passed and the file's own
%% transaction starts: the I-th marker is passed when I plus the starts
%% before its record are fewer than Reached.
stopped(Bin, Reached) ->
    {_, {At, Op}} =
        case fold_marked(Bin, fun(O, Op, I, {T, _}) when I + T < Reached ->
                                      Starts = case Op of ?OP_BEGIN_TRANS -> 1; _ -> 0 end,
                                      {cont, {T + Starts, {O, Op}}};
                                 (_, _, _, Acc) -> {stop, Acc}
                              end, {0, {4, none}}) of
            {stopped, Acc} -> Acc;
            {done, _, Acc} -> Acc
        end,
    {error, {stopped_at, At, outcome(Op, Bin, At)}}.

%% The loader's named outcomes for the records at which it ends a load
%% without an error code.
outcome(Op, _, _) when Op =:= ?OP_CD_UP_1; Op =:= ?OP_CD_UP -> above_root;
outcome(Op, _, _) when Op =:= ?OP_INSERT; Op =:= ?OP_INSERT_BIN0; Op =:= ?OP_INSERT_BIN ->
    value_at_root;
outcome(?OP_DELETE_NS, _, _) -> namespace_key_form;
outcome(?OP_MOVE, _, _) -> move_target_missing;
outcome(?OP_CD_DYN, Bin, At) ->
    case Bin of
        <<_:At/binary, Form:3, _:5, _/binary>> when Form > ?KF_NS_HTAG -> list_key_form;
        <<_:At/binary, ?KF_HTAG:3, _:5, _:32, M, _/binary>> when M > ?ORDER_MAX -> list_mode;
        <<_:At/binary, ?KF_NS_HTAG:3, _:5, _:64, M, _/binary>> when M > ?ORDER_MAX -> list_mode;
        _ -> child_refused
    end;
outcome(_, _, _) -> child_refused.

%% Write the marked copy in slices of about a megabyte (memory stays
%% bounded), count the marks, the file's own transaction starts and its
%% distinct wide flag values, and turn a checkpoint given as a position of
%% the file into one of the copy.
write_marked(Copy, Bin, Checkpoint) ->
    <<_:4/binary, Records/binary>> = Bin,
    M0 = #marks{checkpoint = case Checkpoint >= 0 of true -> -1; false -> Checkpoint end},
    {Out, M} = copy_marked(Records, 4, none, 0, <<?MAGIC:32>>, {Checkpoint, M0}),
    case file:open(Copy, [write, exclusive, raw, binary]) of
        {ok, Fd} ->
            try file:write(Fd, Out) of
                ok -> {ok, M};
                {error, _} = E -> E
            after
                ok = file:close(Fd)
            end;
        {error, _} = E -> E
    end.

%% The copy, built in one binary: O is the offset of the record at hand in
%% the file, I the markers so far. A marker (02) goes before a marked
%% record (see follows/2); the records a saved tree is mostly made of are
%% matched in place.
copy_marked(<<?CD_KEY, K:32, R/binary>>, O, _, I, Out, St) ->
    copy_marked(R, O + 5, cd, I + 1, <<Out/binary, ?MARK, ?CD_KEY, K:32>>, St);
copy_marked(<<?OP_CD, K:32, R/binary>>, O, _, I, Out, St) ->
    copy_marked(R, O + 5, cd, I + 1, <<Out/binary, ?MARK, ?OP_CD, K:32>>, St);
copy_marked(<<?OP_CD_UP_1, R/binary>>, O, none, I, Out, St) ->
    copy_marked(R, O + 1, none, I + 1, <<Out/binary, ?MARK, ?OP_CD_UP_1>>, St);
copy_marked(<<?OP_CD_UP_1, R/binary>>, O, _, I, Out, St) ->
    copy_marked(R, O + 1, none, I, <<Out/binary, ?OP_CD_UP_1>>, St);
copy_marked(<<?OP_INSERT, R/binary>>, O, Prev, I, Out, St) ->
    {ok, N} = arbo_val:frame(R),
    <<V:N/binary, Next/binary>> = R,
    case Prev of
        cd -> copy_marked(Next, O + 1 + N, cd_value, I, <<Out/binary, ?OP_INSERT, V/binary>>, St);
        _ -> copy_marked(Next, O + 1 + N, none, I + 1, <<Out/binary, ?MARK, ?OP_INSERT, V/binary>>, St)
    end;
copy_marked(<<Byte, R/binary>>, O, Prev, I, Out, {Ckpt, M} = St) ->
    {ok, Next} = record(Byte band 31, Byte bsr 5, R),
    Len = byte_size(R) - byte_size(Next),
    <<Body:Len/binary, _/binary>> = R,
    case follows(Byte, Prev) of
        cd_value -> copy_marked(Next, O + 1 + Len, cd_value, I, <<Out/binary, Byte, Body/binary>>, St);
        end_of_cd -> copy_marked(Next, O + 1 + Len, none, I, <<Out/binary, Byte, Body/binary>>, St);
        Prev1 ->
            M1 = case Byte band 31 of
                     ?OP_BEGIN_TRANS -> M#marks{trans = M#marks.trans + 1};
                     ?OP_CHECKPOINT_SET when O =:= Ckpt + 1 -> M#marks{checkpoint = Ckpt + I + 1};
                     ?OP_SET_FLAGS32 -> <<V:32, _/binary>> = Body, wide(M, V);
                     ?OP_SET_FLAGS64 -> <<V:64, _/binary>> = Body, wide(M, V);
                     _ -> M
                 end,
            copy_marked(Next, O + 1 + Len, Prev1, I + 1, <<Out/binary, ?MARK, Byte, Body/binary>>,
                        {Ckpt, M1})
    end;
copy_marked(<<>>, _, _, I, Out, {_, M}) ->
    {<<Out/binary, ?MARK>>, M#marks{count = I + 1}}.

wide(M, V) when V =< 16#3fffff -> M;
wide(#marks{wide = W} = M, _) when map_size(W) > 30000 -> M;   % enough to refuse
wide(#marks{wide = W} = M, V) -> M#marks{wide = W#{V => []}}.

%% What a record follows for the next one, and whether it has a marker
%% before it: all have but a value (09) and an end (07) that follow a cd,
%% which the loader replays with the cd and which cannot end a load
%% (cd_value and end_of_cd: no marker).
follows(?OP_INSERT, cd) -> cd_value;
follows(?OP_CD_UP_1, cd) -> end_of_cd;
follows(?OP_CD_UP_1, cd_value) -> end_of_cd;
follows(Byte, _) when Byte band 31 =:= ?OP_CD -> cd;
follows(_, _) -> none.

%% What follows the record a verified file has here: the records a saved
%% tree is mostly made of are matched in place.
skip_record(<<?OP_CD_UP_1, R/binary>>) -> R;
skip_record(<<?CD_KEY, _:32, R/binary>>) -> R;
skip_record(<<?OP_CD, _:32, R/binary>>) -> R;
skip_record(<<?OP_CD_INT, _:32, R/binary>>) -> R;
skip_record(<<?CD_LIST, _:32, _, R/binary>>) -> R;
skip_record(<<?OP_INSERT_BIN0, N, _:N/binary, R/binary>>) -> R;
skip_record(<<?OP_SET_FLAGS8, _, R/binary>>) -> R;
skip_record(<<?OP_INSERT, R/binary>>) ->
    {ok, N} = arbo_val:frame(R),
    <<_:N/binary, Next/binary>> = R,
    Next;
skip_record(<<Byte, R/binary>>) ->
    {ok, Next} = record(Byte band 31, Byte bsr 5, R),
    Next.

%% Fun(Offset, Op, Index, Acc) for every record of a verified file that has
%% a marker before it in the copy (Index counts them from 0). Returns
%% {done, Count, Acc} or {stopped, Acc}.
fold_marked(Bin, Fun, Acc) ->
    <<_:4/binary, Records/binary>> = Bin,
    fold_marked(Records, byte_size(Bin), none, 0, Fun, Acc).

fold_marked(<<>>, _, _, I, _, Acc) -> {done, I, Acc};
fold_marked(<<Byte, _/binary>> = Rest, Size, Prev, I, Fun, Acc) ->
    Next = skip_record(Rest),
    case follows(Byte, Prev) of
        cd_value -> fold_marked(Next, Size, cd_value, I, Fun, Acc);
        end_of_cd -> fold_marked(Next, Size, none, I, Fun, Acc);
        Prev1 ->
            case Fun(Size - byte_size(Rest), Byte band 31, I, Acc) of
                {cont, Acc1} -> fold_marked(Next, Size, Prev1, I + 1, Fun, Acc1);
                {stop, Acc1} -> {stopped, Acc1}
            end
    end.

%% A position the loader reports in the copy (a checkpoint's value, a
%% truncation mark's) as {Index, Position in the file}: the I-th marked
%% record lies I + 1 bytes further in the copy.
original(Bin, P) ->
    {stopped, Found} = fold_marked(Bin, fun(O, _, I, _) when O + I + 1 >= P -> {stop, {I, P - I - 1}};
                                           (_, _, I, _) -> {cont, I}
                                        end, none),
    Found.

%% ---------------------------------------------------------------------------
%% Helpers of a save or a load

%% Fun(Caller) in a helper process, which outlives a killed caller and
%% cleans up after it; its answer (or exception) is the caller's.
aided(Fun) ->
    Caller = self(),
    {Pid, MRef} = spawn_monitor(fun() ->
        exit({done, try {ok, Fun(Caller)} catch C:R:S -> {raise, C, R, S} end})
    end),
    receive
        {'DOWN', MRef, process, Pid, {done, {ok, Reply}}} -> Reply;
        {'DOWN', MRef, process, Pid, {done, {raise, C, R, S}}} -> erlang:raise(C, R, S);
        {'DOWN', MRef, process, Pid, Reason} -> error({helper_exit, Reason})
    end.

%% Progress goes through a forwarder: the library sends its messages from
%% inside the load, while the helper is blocked in it. It ends with the
%% helper that started it.
forwarder(undefined, _) -> undefined;
forwarder(To, Shown) ->
    Helper = self(),
    spawn_monitor(fun() ->
        MRef = erlang:monitor(process, Helper),
        forward(To, Shown, MRef)
    end).

forwarder_pid(undefined) -> undefined;
forwarder_pid({Pid, _}) -> Pid.

%% The library names the private copy it reads: the messages name the file
%% the caller gave.
forward(To, Shown, MRef) ->
    receive
        {msg, Tuple} when tuple_size(Tuple) =:= 7 ->
            Msg = setelement(3, Tuple, Shown),
            _ = if is_pid(To) -> To ! {msg, Msg};
                   true -> catch To(progress_map(Msg))
                end,
            forward(To, Shown, MRef);
        {'DOWN', MRef, _, _, _} -> ok;
        stop -> ok
    end.

progress_map({Count, Consumed, Path, FileSize, Trans, ElapsedMs, _Now}) ->
    #{count => Count, consumed => Consumed, path => Path, file_size => FileSize,
      transactions => Trans, elapsed_ms => ElapsedMs}.

%% Everything the load sent is in the forwarder's mailbox before `stop'. A
%% progress fun that blocks is given five seconds, then ended.
stop_forwarder(undefined) -> ok;
stop_forwarder({Pid, MRef}) ->
    Pid ! stop,
    receive {'DOWN', MRef, process, Pid, _} -> ok
    after 5000 ->
        exit(Pid, kill),
        receive {'DOWN', MRef, process, Pid, _} -> ok end
    end.

%% Options: a list of pairs with the names given.
options(Opts, Names) when is_list(Opts) ->
    lists:foreach(fun({Name, _}) when is_atom(Name) ->
                          lists:member(Name, Names) orelse error({badarg, {option, Name}});
                     (O) -> error({badarg, {option, O}})
                  end, Opts);
options(Opts, _) -> error({badarg, {options, Opts}}).
