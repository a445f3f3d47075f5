%% Hostile save files and persistence faults.
%%
%% Thousands of files derived from valid saves (cut at every byte, bits
%% flipped, length fields that lie, bad record codes) and random bytes and
%% random record streams go through verification and the verified load,
%% and, where the damage is one the loader itself must stand (cuts, lying
%% lengths, bad codes, streams of well-formed keys), through the raw loader
%% as well: nothing crashes, every answer is one of the loader's results and
%% verification agrees with what the loader takes. Saves that fail (a full
%% device, a file size limit, a directory the user may not write) answer io
%% and keep the previous file; a VM killed with SIGKILL in the middle of a
%% save leaves the previous file whole. Everything that could take a VM down
%% runs in a child VM, so a crash is reported with the file that caused it.
-module(arbo_hostile_tests).
-include_lib("eunit/include/eunit.hrl").
-include_lib("kernel/include/file.hrl").

-export([figures/1]).
%% Run inside child VMs.
-export([hostile/2, refused_saves/1, kill_setup/3]).

-define(MAGIC, <<16#EE, 16#DA, 0, 1>>).
-define(LOADER_ERRORS, [not_found, io, invalid_magic, invalid_op, invalid_node_type,
                        invalid_key_type, invalid_data, not_implemented,
                        memory_allocation_error, deprecated_op]).

%% ---- scale ------------------------------------------------------------------------

%% Work per scale; the sanitizer build is several times slower.
params(Scale) ->
    {Seeds, Flips, Randoms, Kills, BigNodes} =
        case Scale of
            quick -> {3, 700, 400, 3, 600000};
            full -> {8, 10000, 5000, 8, 600000}
        end,
    D = case os:getenv("ARBO_ASAN") of "1" -> 4; _ -> 1 end,
    #{seeds => Seeds, flips => Flips div D, randoms => Randoms div D, kills => Kills,
      big_nodes => BigNodes div D}.

%% ---- EUnit entry points -------------------------------------------------------------

hostile_files_test_() -> {timeout, 900, fun() -> run_hostile(quick) end}.
refused_saves_test_() -> {timeout, 300, fun() -> run_refused(quick) end}.
killed_saves_test_() -> {timeout, 600, fun() -> run_kills(quick) end}.

%% Figures for the reliability report; raises when anything is wrong.
figures(Scale) ->
    H = run_hostile(Scale),
    F = run_refused(Scale),
    K = run_kills(Scale),
    [{"hostile files tried", integer_to_list(maps:get(files, H))},
     {"files by kind", counts(maps:get(kinds, H))},
     {"verification", counts(maps:get(verify, H))},
     {"verified load answers", counts(maps:get(load, H))},
     {"raw loader answers", counts(maps:get(raw, H))},
     {"verified files the loader took without a format error",
      ratio(maps:get(took, H), maps:get(ok, maps:get(verify, H)))},
     {"raw loader answered as verification predicts", agreement(H)},
     {"accepted files saved again and reloaded equal",
      ratio(maps:get(resaved, H), maps:get(accepted, H))},
     {"crashes", "0"},
     {"hostile files duration", ms(maps:get(ms, H))},
     {"refused saves (fault: answer, previous file)", F},
     {"saves killed with SIGKILL", integer_to_list(maps:get(kills, K))},
     {"kill delays (ms after the save began)",
      string:join([integer_to_list(D) || D <- maps:get(delays, K)], ", ")},
     {"kills that landed mid-save", integer_to_list(maps:get(mid_save, K))},
     {"previous file intact", ratio(maps:get(intact, K), maps:get(mid_save, K))},
     {"kills after the save completed (new file complete)",
      integer_to_list(maps:get(completed, K))},
     {"save of the killed tree", io_lib:format("~b nodes, ~s MB, ~s",
                                               [maps:get(nodes, K), mb(maps:get(bytes, K)),
                                                ms(maps:get(save_ms, K))])},
     {"lost", "0"}].

counts(M) ->
    string:join([io_lib:format("~p ~b", [K, V]) || {K, V} <- lists:sort(maps:to_list(M))], ", ").
ratio(A, B) -> io_lib:format("~b/~b", [A, B]).
ms(Ms) -> io_lib:format("~.1f s", [Ms / 1000]).
mb(B) -> io_lib:format("~.1f", [B / 1048576]).
agreement(#{agree := A, checked := C}) -> ratio(A, C).

%% ---- child VMs ---------------------------------------------------------------------

code_args() ->
    Dirs = lists:usort([filename:absname(filename:dirname(code:which(M)))
                        || M <- [?MODULE, arbo_tree, arbo_file_tests]]),
    lists:append([["-pa", D] || D <- Dirs]).

start_child(Extra) ->
    case peer:start(maps:merge(#{connection => standard_io, args => code_args()}, Extra)) of
        {ok, P} -> P;
        {ok, P, _} -> P
    end.

in_child(Extra, M, F, A, Timeout) ->
    Peer = start_child(Extra),
    try peer:call(Peer, M, F, A, Timeout)
    catch Class:Reason -> {child_vm_failed, Class, Reason}
    after catch peer:stop(Peer)
    end.

%% Hostile files are many small writes: they go to memory when it can.
scratch(Name) -> scratch("/tmp", Name).
scratch(Root, Name) ->
    D = filename:join(Root, "arbo_hostile_" ++ os:getpid() ++ "_" ++ Name),
    _ = os:cmd("rm -rf '" ++ D ++ "'"),
    ok = filelib:ensure_dir(filename:join(D, "x")),
    D.

nul(Path) -> <<(iolist_to_binary(Path))/binary, 0>>.

%% ---- 1. hostile files ---------------------------------------------------------------

run_hostile(Scale) ->
    Root = case filelib:is_dir("/dev/shm") of true -> "/dev/shm"; false -> "/tmp" end,
    Dir = scratch(Root, "files"),
    T0 = erlang:monotonic_time(millisecond),
    R = in_child(#{env => [{"TMPDIR", Root}]}, ?MODULE, hostile, [Dir, params(Scale)], 840000),
    Ms = erlang:monotonic_time(millisecond) - T0,
    case R of
        #{problems := []} ->
            _ = os:cmd("rm -rf '" ++ Dir ++ "'"),
            R#{ms => Ms};
        #{problems := Ps} -> error({hostile_files, Ps, maps:without([problems], R)});
        _ ->
            %% kinds are tried in turn: the last one with a file was at work
            Kinds = [cut, huge_length, bad_code, bit_flip, bit_flips, random_bytes, record_stream],
            Tried = [F || K <- Kinds,
                          filelib:is_file(F = filename:join(Dir, "kind_" ++ atom_to_list(K)))],
            error({hostile_files, R, {last_file, lists:last([none | Tried])}})
    end.

%% In the child: every file of every kind, tallied.
hostile(Dir, #{seeds := Seeds} = P) ->
    ok = file:set_cwd(Dir),
    rand:seed(exsss, {7, 11, 13}),
    Saved = [saved_seed(N) || N <- lists:seq(1, Seeds)],
    Acc0 = #{files => 0, kinds => #{}, verify => #{}, load => #{}, raw => #{}, agree => 0,
             checked => 0, took => 0, accepted => 0, resaved => 0, problems => []},
    lists:foldl(fun(File, Acc) -> try_file(Dir, File, Acc) end, Acc0, files(Saved, P)).

%% The files of every kind, in turn: {Kind, Bytes, Raw} where Raw says
%% the raw loader must stand them too.
files(Saved, #{flips := Flips, randoms := Randoms}) ->
    Each = fun(F) -> lists:append([F(S) || S <- Saved]) end,
    Each(fun cuts/1) ++ Each(fun huge_lengths/1) ++ Each(fun bad_codes/1) ++
        [{bit_flip, flip(pick(Saved), 1), false} || _ <- lists:seq(1, Flips)] ++
        [{bit_flips, flip(pick(Saved), 2 + rand:uniform(7)), false} || _ <- lists:seq(1, Flips)] ++
        [{random_bytes, random_bytes(), false} || _ <- lists:seq(1, Randoms)] ++
        [{record_stream, record_stream(), true} || _ <- lists:seq(1, 2 * Randoms)].

cuts(Good) -> [{cut, binary:part(Good, 0, N), true} || N <- lists:seq(0, byte_size(Good) - 1)].

%% Every length field set past the end of the file: 4-byte fields to
%% 0x7fffffff, 0xffffffff and one byte too many; narrower fields to their
%% largest value, the file cut where that is too many.
huge_lengths(Good) ->
    Size = byte_size(Good),
    [{huge_length, put_int(binary:part(Good, 0, Cut), Pos, W, V), true}
     || {Pos, {len, W}} <- fields(Good),
        {V, Cut} <- case W of
                        4 -> [{X, Size} || X <- [16#7fffffff, 16#ffffffff, Size - Pos - 3]];
                        _ -> Max = 1 bsl (8 * W) - 1,
                             [{Max, min(Size, Pos + W + Max - 1 - rand:uniform(3))}]
                    end].

%% Opcodes replaced by codes that stop the load: operations 0, 1, 21, 25 and
%% 28..31 anywhere, key forms 6 and 7 on the path records.
bad_codes(Good) ->
    Ops = [{Pos, Op} || {Pos, {op, Op}} <- fields(Good)],
    [{bad_code, put_int(Good, Pos, 1, C), true}
     || {Pos, Op} <- Ops,
        C <- [pick([0, 1, 21, 25, 28, 29, 30, 31])] ++
                 [Op band 31 + 32 * F || F <- [6, 7], lists:member(Op band 31, [6, 15, 20])],
        rand:uniform(3) =:= 1].

flip(B, N) ->
    lists:foldl(fun(_, Acc) ->
                        I = rand:uniform(bit_size(Acc)) - 1,
                        <<H:I/bits, X:1, R/bits>> = Acc,
                        <<H:I/bits, (1 - X):1, R/bits>>
                end, B, lists:seq(1, N)).

random_bytes() ->
    B = rand:bytes(rand:uniform(300) - 1),
    case rand:uniform(2) of 1 -> B; 2 -> <<(?MAGIC)/binary, B/binary>> end.

put_int(B, Pos, W, V) ->
    <<H:Pos/binary, _:W/binary, R/binary>> = B,
    <<H/binary, V:(8 * W), R/binary>>.

pick(L) -> lists:nth(rand:uniform(length(L)), L).

%% Where the records of a saved file start ({op, Opcode}) and where its
%% length fields lie ({len, Width}): key and binary lengths, the length
%% prefixes of encoded strings.
fields(<<_:4/binary, Rest/binary>>) -> fields(Rest, 4, []).
fields(<<>>, _, Acc) -> lists:reverse(Acc);
fields(<<Op, R/binary>>, P, Acc0) ->
    Acc = [{P, {op, Op}} | Acc0],
    {Skip, Lens} =
        case Op of
            _ when Op =:= 2; Op =:= 3; Op =:= 7 -> {0, []};
            _ when Op =:= 16#06; Op =:= 16#0F; Op =:= 16#46 -> {4, []};
            _ when Op =:= 16#14; Op =:= 16#66 -> {5, []};
            16#26 -> {8, []};
            16#34 -> {9, []};
            _ when Op =:= 16#86; Op =:= 16#A6; Op =:= 16#0E ->
                <<N:32, _/binary>> = R,
                {4 + N, [{P + 1, 4}]};
            16#0D -> <<N, _/binary>> = R, {1 + N, [{P + 1, 1}]};
            16#09 -> csval_fields(R, 0, P + 1);
            16#12 -> csval_fields(R, 4, P + 1);
            16#0B -> {1, []};
            16#11 -> {2, []};
            16#16 -> {4, []};
            16#17 -> {8, []}
        end,
    <<_:Skip/binary, Next/binary>> = R,
    fields(Next, P + 1 + Skip, lists:reverse([{Pos, {len, W}} || {Pos, W} <- Lens], Acc)).

%% A csval Off bytes into R (R starts at file position P).
csval_fields(R, Off, P) ->
    <<_:Off/binary, V/binary>> = R,
    {ok, N} = arbo_val:frame(V),
    <<Type, _/binary>> = V,
    {Off + N, case Type of 200 -> [{P + Off + 1, 1}]; 205 -> [{P + Off + 1, 4}]; _ -> [] end}.

%% ---- seed trees ------------------------------------------------------------------------

%% A small tree of every shape, varied by N, saved: containers under plain
%% and namespaced names, a list in every order with int, pair, opaque or
%% tuple keys, leaves with typed and raw values (some long), attributes and
%% flags of every width.
saved_seed(N) ->
    rand:seed(exsss, {N, 17, 29}),
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    C = arbo_tree:add_container(T, R, 100 + N),
    decorate(T, arbo_tree:add_leaf(T, C, {N, 3}), leaf),
    Orders = [sorted, sorted_length_first, sorted_length_first_but_last, user_order],
    Families = [int, pair, opaque, tuple],
    [begin
         L = arbo_tree:add_list(T, pick([R, C]), pick([I, {I, 9}]), Order),
         Family = lists:nth((I + N) rem 4 + 1, Families),
         [decorate(T, arbo_tree:add(T, L, key(Family)), Family)
          || _ <- lists:seq(1, rand:uniform(3))]
     end || {I, Order} <- lists:zip(lists:seq(1, 4), Orders)],
    ok = arbo_tree:save(T, "seed"),
    arbo_tree:close(T),
    {ok, B} = file:read_file("seed"),
    B.

key(int) -> {int, rand:uniform(2000) - 1000};
key(pair) -> {pair, rand:uniform(20), rand:uniform(99)};
key(opaque) -> {opaque, rand:bytes(rand:uniform(14) - 1)};
key(tuple) -> [{string, rand:bytes(rand:uniform(12))}, {uint32, rand:uniform(99)}].

%% Value (leaves and int-keyed instances), flags, an attribute, a leaf below.
decorate(T, Node, Kind) ->
    [ok = arbo_tree:set_value(T, Node, value())
     || lists:member(Kind, [leaf, int, pair]), rand:uniform(3) > 1],
    ok = arbo_tree:set_flags(T, Node, pick([0, 0, 16#80, 16#1200, 16#120000, 16#1200000000])),
    [ok = arbo_tree:set_attr(T, Node, rand:uniform(4), value_csval()) || rand:uniform(2) =:= 1],
    [decorate(T, arbo_tree:add_leaf(T, Node, rand:uniform(5)), leaf)
     || Kind =/= leaf, rand:uniform(2) =:= 1],
    ok.

%% Long values (raw binaries of 256 bytes and more, 4-byte string lengths)
%% now and then: they make the files long.
value() ->
    case rand:uniform(12) of
        1 -> rand:bytes(250 + rand:uniform(20));
        N when N < 7 -> rand:bytes(rand:uniform(20));
        _ -> value_csval()
    end.
value_csval() ->
    case rand:uniform(12) of
        1 -> {string32, rand:bytes(rand:uniform(40))};
        _ -> pick([{uint32, rand:uniform(1 bsl 20)}, {string, rand:bytes(rand:uniform(9))},
                   {ipv4, {10, 0, 0, 7}}, {int64, -5}])
    end.

%% ---- random record streams ---------------------------------------------------------------

%% The magic and random records of every operation, mostly well formed, with
%% tags and keys from small ranges so that paths meet again; encoded keys
%% are always well formed (a corrupt one is for verification to refuse).
record_stream() ->
    iolist_to_binary([?MAGIC | [record() || _ <- lists:seq(1, rand:uniform(40))]]).

record() ->
    F = pick([0, 0, 1, 2, 2, 3, 4, 5, 5]),
    case rand:uniform(24) of
        1 -> <<(pick([0, 1, 21, 25, 28, 31, 16#E6, 16#C6]))>>;
        2 -> <<(pick([2, 3, 4, 5]))>>;
        N when N =< 7 -> [6 + 32 * F, path(F)];
        8 -> [15, path(0)];
        9 -> [20 + 32 * pick([0, 1]), path(pick([0, 1])), rand:uniform(6) - 1];
        10 -> [16, path(0), pick([0, 1, 200, 255])];
        N when N =< 13 -> <<7>>;
        14 -> <<8, (rand:uniform(4) - 1)>>;
        15 -> [9, csval()];
        16 -> B = rand:bytes(rand:uniform(30)), [13, byte_size(B), B];
        17 -> B = rand:bytes(250 + rand:uniform(20)), <<14, (byte_size(B)):32, B/binary>>;
        18 -> pick([<<11, 5>>, <<17, 1:16>>, <<22, 1:32>>, <<23, 1:64>>]);
        19 -> [<<18, (rand:uniform(5)):32>>, csval()];
        20 -> [10 + 32 * F, path(F)];
        21 -> [<<12, (rand:uniform(3) - 1):32>>];
        22 -> [19 + 32 * F, path(F), <<(rand:uniform(5) - 1):32>>];
        23 -> F2 = pick([2, 3, 4, 5]), [26 + 32 * F, path(F), pick([0, 1, 2]), F2, path(F2)];
        24 -> F2 = pick([2, 3, 4, 5, 0]),
              pick([[24 + 32 * F, path(F), <<(rand:uniform(3)):32>>],
                    [27 + 32 * F, path(F), F2, path(F2)]])
    end.

path(0) -> <<(rand:uniform(4)):32>>;
path(1) -> <<(rand:uniform(2) - 1):32, (rand:uniform(4)):32>>;
path(2) -> <<(rand:uniform(5)):32>>;
path(3) -> <<(pick([4, 12, 27])), (rand:uniform(5)):32>>;
path(4) -> B = rand:bytes(rand:uniform(6) - 1), <<(byte_size(B)):32, B/binary>>;
path(5) -> B = arbo_key:encode([{string, pick([<<"a">>, <<"bb">>])}, {uint32, rand:uniform(3)}]),
           <<(byte_size(B)):32, B/binary>>.

csval() ->
    case rand:uniform(8) of
        1 -> <<0>>;
        2 -> <<(pick([250, 3, 1]))>>;
        _ -> arbo_val:encode(value_csval())
    end.

%% ---- one file ---------------------------------------------------------------------------

%% Verification, the verified load (and a save and reload of what it
%% loaded), the raw loader: tallied, every wrong answer kept as a problem.
try_file(Dir, {Kind, Bin, Raw}, Acc) ->
    Path = filename:join(Dir, "kind_" ++ atom_to_list(Kind)),
    ok = file:write_file(Path, Bin, [raw]),
    V = guarded(fun() -> arbo_file:verify(Path) end),
    T = arbo_tree:new(),
    L = guarded(fun() -> arbo_tree:load(T, Path) end),
    Resaved = case L of
                  {ok, _} -> guarded(fun() -> resave(T) end);
                  _ -> skip
              end,
    arbo_tree:close(T),
    RawAnswer = Raw andalso guarded(fun() -> raw_load(Path, Kind) end),
    Problems = [problem(Dir, Kind, What, Bin, {verdict(V), outcome(L), Resaved, outcome(RawAnswer)})
                || {What, false} <- checks(Kind, V, L, Resaved, RawAnswer)],
    Agreed = RawAnswer =/= false andalso Kind =/= record_stream,
    bump([{kinds, Kind}, {verify, verdict(V)}, {load, outcome(L)}] ++
             [{raw, outcome(RawAnswer)} || RawAnswer =/= false],
         Acc#{files := maps:get(files, Acc) + 1,
              checked := maps:get(checked, Acc) + bool(Agreed),
              took := maps:get(took, Acc) +
                  bool(V =:= ok andalso
                       lists:member(outcome(L), [ok, truncate, invalid_node_type])),
              agree := maps:get(agree, Acc) + bool(Agreed andalso agrees(V, L, RawAnswer)),
              accepted := maps:get(accepted, Acc) + bool(element(1, L) =:= ok),
              resaved := maps:get(resaved, Acc) + bool(Resaved =:= same),
              problems := lists:sublist(Problems ++ maps:get(problems, Acc), 5)}).

%% A file that failed a check is kept for a look.
problem(Dir, Kind, What, Bin, Answers) ->
    Name = filename:join(Dir, "problem_" ++ integer_to_list(erlang:unique_integer([positive]))),
    ok = file:write_file(Name, Bin),
    {Kind, What, Answers, Name}.

guarded(F) ->
    try F() catch C:R:S -> {crashed, C, R, S} end.

bool(true) -> 1;
bool(false) -> 0.

bump(Keys, Acc) ->
    Inc = fun(X) -> fun(M) -> maps:update_with(X, fun(N) -> N + 1 end, 1, M) end end,
    lists:foldl(fun({K, X}, A) -> maps:update_with(K, Inc(X), A) end, Acc, Keys).

%% What a loaded tree holds saves to a file that verifies and loads:
%% `same' when it loads into the same tree below the root (the root's own
%% flags and attributes are not saved), else `differs'.
resave(T) ->
    true = arbo:save_nif(T, <<"again", 0>>, 0),
    ok = arbo_file:verify("again"),
    T2 = arbo_tree:new(),
    {ok, _} = arbo_tree:load(T2, "again"),
    Same = element(6, arbo_file_tests:dump(T)) =:= element(6, arbo_file_tests:dump(T2)),
    arbo_tree:close(T2),
    case Same of true -> same; false -> differs end.

%% Record streams hold checkpoints: any checkpoint argument will do.
raw_load(Path, Kind) ->
    T = arbo:new(),
    Checkpoint = case Kind of record_stream -> pick([-1, -2, 0, 9]); _ -> -1 end,
    try arbo:load_nif(T, nul(Path), Checkpoint, 1, undefined)
    after arbo:close(T)
    end.

%% {Check, Passed}.
checks(Kind, V, L, Resaved, Raw) ->
    [{verify_answer, case V of ok -> true; {error, {_, Off}} -> is_integer(Off); _ -> false end},
     {load_answer, case {V, L} of
                       %% a verified file fails only where the tree refuses a record
                       {ok, {ok, #{nodes := _}}} -> true;
                       {ok, {error, invalid_node_type}} -> true;
                       {{error, E}, {error, {invalid_file, E2}}} -> E =:= E2;
                       _ -> false
                   end},
     %% the prefix of a saved tree saves as itself; flipped bits and random
     %% records can make shapes the saver writes otherwise (an integer
     %% instance under a type byte 0 comes back as a plain tag)
     {resave, lists:member(Resaved, [same, skip]) orelse
                  (Resaved =:= differs andalso
                   lists:member(Kind, [bit_flip, bit_flips, random_bytes, record_stream]))},
     {raw_answer, case Raw of
                      false -> true;
                      {true, Reply} -> tuple_size(Reply) =:= 8;
                      {error, A} -> lists:member(A, ?LOADER_ERRORS);
                      _ -> false
                  end},
     {agreement, Raw =:= false orelse Kind =:= record_stream orelse agrees(V, L, Raw)}].

%% The raw loader's answer is the one verification predicts: the verified
%% load's answer for an accepted file, the loader's code for the fault
%% verification found.
agrees(ok, L, Raw) -> outcome(L) =:= outcome(Raw);
agrees({error, {_, Off}}, _, {true, {_, _, _, _, _, _, _, {checkpoint, Stop}}}) ->
    %% the loader stopped at a truncation mark before the fault (verification
    %% reads on to the end)
    Off >= Stop;
agrees({error, {Reason, _}}, _, Raw) ->
    Want = case Reason of
               truncated -> io;
               {bad_value, _} -> invalid_data;
               R when is_atom(R) -> R;
               _ -> none
           end,
    outcome(Raw) =:= Want.

verdict(ok) -> ok;
verdict({error, {{R, _}, _}}) -> R;
verdict({error, {R, _}}) -> R;
verdict(X) -> X.

outcome({ok, #{truncated_at := undefined}}) -> ok;
outcome({ok, _}) -> truncate;
outcome({error, {invalid_file, _}}) -> refused_by_verification;
outcome({true, {_, _, _, _, _, _, _, undefined}}) -> ok;
outcome({true, _}) -> truncate;
outcome({error, A}) when is_atom(A) -> A;
outcome(X) -> X.

%% ---- 2. saves the system refuses --------------------------------------------------

%% Each refused save answers {error, io} and leaves the file it would have
%% replaced as it was. Root writes where it likes, so the refusals by
%% permission (and the file size limit) run in a child VM under another
%% user; a full device is tried here.
run_refused(_Scale) ->
    Rows = dev_full() ++ as_other_user(),
    Bad = [R || {_, Answer, Intact} = R <- Rows, Answer =/= {error, io} orelse Intact =:= false],
    ?assertEqual([], Bad),
    Shown = fun(true) -> "intact"; (na) -> "none"; (Skipped) -> Skipped end,
    lists:flatten(string:join([io_lib:format("~s: ~p, ~s", [Label, A, Shown(I)])
                               || {Label, A, I} <- Rows], "; ")).

dev_full() ->
    case file:read_file_info("/dev/full") of
        {ok, #file_info{type = device}} ->
            T = arbo_file_tests:config(),
            A = arbo:save_nif(T, <<"/dev/full", 0>>, 0),
            arbo_tree:close(T),
            [{"full device (native)", A, na}];
        _ ->
            io:format(user, "~nno /dev/full: the full device case is skipped~n", []),
            [{"full device (native)", {error, io}, "skipped: no /dev/full"}]
    end.

-define(NOBODY, "65534").

%% A directory the user may not write, holding the previous file, and one
%% it may write, under a file size limit smaller than the big tree's file.
as_other_user() ->
    case [os:find_executable(X) || X <- ["setpriv", "prlimit", "erl"]] of
        [Setpriv, Prlimit, Erl] when Setpriv =/= false, Prlimit =/= false, Erl =/= false ->
            Root = string:trim(os:cmd("id -u")) =:= "0",
            Base = scratch("refused"),
            [Locked, Open] = Dirs = [filename:join(Base, D) || D <- ["locked", "open"]],
            Prev = arbo_file_tests:config(),
            Want = arbo_file_tests:dump(Prev),
            [begin ok = file:make_dir(D), ok = arbo_tree:save(Prev, filename:join(D, "target")) end
             || D <- Dirs],
            arbo_tree:close(Prev),
            [] = os:cmd("chmod 755 " ++ Base ++ " && chmod 555 " ++ Locked),
            [[] = os:cmd("chown -R " ++ ?NOBODY ++ ":" ++ ?NOBODY ++ " " ++ Open) || Root],
            {ok, Before} = file:read_file(filename:join(Locked, "target")),
            User = [X || Root, X <- [Setpriv, "--reuid=" ++ ?NOBODY, "--regid=" ++ ?NOBODY,
                                     "--clear-groups"]],
            %% writes past the limit fail with EFBIG instead of a signal
            Exec = {"/bin/sh", ["-c", "trap '' XFSZ; exec \"$@\"", "sh"] ++ User ++
                        [Prlimit, "--fsize=65536", Erl]},
            Answers = in_child(#{exec => Exec, env => [{"HOME", Base}]}, ?MODULE, refused_saves,
                               [Base], 120000),
            ?assertMatch([_ | _], Answers),
            Intact = fun(none) -> na;
                        (F) ->
                             {ok, B} = file:read_file(F),
                             T = arbo_tree:new(),
                             {ok, _} = arbo_tree:load(T, F),
                             Same = B =:= Before andalso arbo_file_tests:dump(T) =:= Want,
                             arbo_tree:close(T),
                             Same
                     end,
            ?assertEqual([], [F || D <- Dirs, F <- filelib:wildcard(filename:join(D, ".target*"))]),
            Rows = [{Label, A, Intact(F)} || {Label, A, F} <- Answers],
            _ = os:cmd("chmod 755 " ++ Locked ++ " && rm -rf '" ++ Base ++ "'"),
            Rows;
        _ ->
            Why = "setpriv, prlimit or erl not found",
            io:format(user, "~n~s: the refused saves as another user are skipped~n", [Why]),
            [{"as another user", {error, io}, "skipped: " ++ Why}]
    end.

%% In the child, as another user under a file size limit: {Label, Answer,
%% the file that must be intact or none}.
refused_saves(Base) ->
    [Locked, Open] = [filename:join(Base, D) || D <- ["locked", "open"]],
    [LockedT, OpenT] = [filename:join(D, "target") || D <- [Locked, Open]],
    %% the refusal is real: this user cannot write there at all
    {error, eacces} = file:write_file(filename:join(Locked, "probe"), <<"x">>),
    T = arbo_file_tests:config(),
    %% and the size limit is what stops the big save
    ok = arbo_tree:save(T, filename:join(Open, "small")),
    Big = arbo_tree:new(),
    R = arbo_tree:root(Big),
    [ok = arbo_tree:set_value(Big, arbo_tree:add_leaf(Big, R, I), binary:copy(<<I:32>>, 25))
     || I <- lists:seq(1, 2000)],
    Rows = [{"write-protected directory, over the file (native)",
             arbo:save_nif(T, nul(LockedT), 0), LockedT},
            {"write-protected directory, new file (native)",
             arbo:save_nif(T, nul(filename:join(Locked, "new")), 0), none},
            {"write-protected directory (API)", arbo_tree:save(T, LockedT), LockedT},
            {"file size limit (native)",
             arbo:save_nif(Big, nul(filename:join(Open, "new")), 0), none},
            {"file size limit (API)", arbo_tree:save(Big, OpenT), OpenT}],
    [arbo_tree:close(X) || X <- [T, Big]],
    Rows.

%% ---- 3. a VM killed in the middle of a save -----------------------------------------

%% One child VM per kill: it saves a small tree to the target, then starts
%% the save of a big one over it; SIGKILL lands at a fraction of the time
%% that save takes. The target is the previous file, whole, or (when the
%% kill came after the rename) the new one, whole.
run_kills(Scale) ->
    #{kills := Kills, big_nodes := Nodes} = params(Scale),
    Dir = scratch("kills"),
    Big = filename:join(Dir, "big"),
    ok = file:write_file(Big, big_file(Nodes)),
    Results = [kill_once(Dir, Big, I, (I - 0.5) / Kills * 0.9) || I <- lists:seq(1, Kills)],
    ?assertEqual([], [R || {_, false, _} = R <- Results]),
    Mid = length([R || {mid_save, _, _} = R <- Results]),
    ?assert(Mid > 0),
    [{_, _, Info} | _] = Results,
    _ = os:cmd("rm -rf '" ++ Dir ++ "'"),
    (maps:with([nodes, bytes, save_ms], Info))#{
        kills => Kills, mid_save => Mid, intact => Mid, completed => Kills - Mid,
        delays => [D || {_, _, #{delay := D}} <- Results]}.

%% {mid_save | completed, Whole, Info}
kill_once(Dir, Big, I, Fraction) ->
    Target = filename:join(Dir, "target"),
    Peer = start_child(#{}),
    try
        MRef = erlang:monitor(process, Peer),
        #{os_pid := OsPid, prev := PrevHash, new := NewHash, save_ms := SaveMs} = Info =
            peer:call(Peer, ?MODULE, kill_setup, [Big, Target, I], 300000),
        {ok, PrevBytes} = file:read_file(Target),
        Temps = fun() -> filelib:wildcard(filename:join(Dir, ".target.tmp.*")) end,
        peer:send(Peer, arbo_hostile_saver, save),
        wait_until(fun() -> Temps() =/= [] end, 20000),
        Delay = round(SaveMs * Fraction),
        timer:sleep(Delay),
        _ = os:cmd("kill -9 " ++ OsPid),
        receive {'DOWN', MRef, process, Peer, _} -> ok
        after 20000 -> error(child_vm_not_killed)
        end,
        Left = Temps(),
        [ok = file:delete(F) || F <- Left],
        {ok, Now} = file:read_file(Target),
        Whole = ok =:= arbo_file:verify(Target) andalso
            case Left of
                [_ | _] -> Now =:= PrevBytes andalso PrevHash =:= loaded_hash(Target);
                [] -> NewHash =:= erlang:md5(Now)
            end,
        {case Left of [_ | _] -> mid_save; [] -> completed end, Whole, Info#{delay => Delay}}
    after
        catch peer:stop(Peer)
    end.

wait_until(F, Ms) when Ms > 0 ->
    case F() of
        true -> ok;
        false -> timer:sleep(1), wait_until(F, Ms - 1)
    end;
wait_until(_, _) -> error(timeout).

tree_hash(T) -> erlang:md5(term_to_binary(arbo_file_tests:dump(T))).

loaded_hash(F) ->
    T = arbo_tree:new(),
    {ok, _} = arbo_tree:load(T, F),
    H = tree_hash(T),
    arbo_tree:close(T),
    H.

%% Containers of 100 leaves with 100-byte values, as the saver writes them.
big_file(Nodes) ->
    Leaves = << <<6, L:32, 13, 100, (binary:copy(<<L:32>>, 25))/binary, 7>>
                || L <- lists:seq(1, 100) >>,
    iolist_to_binary([?MAGIC, 2, [[<<6, C:32>>, Leaves, 7] || C <- lists:seq(1, Nodes div 101)],
                      3]).

%% In the child: the previous file saved, the big tree loaded and its save
%% timed once; a registered process then waits to save it over the target.
kill_setup(Big, Target, I) ->
    Self = self(),
    {Pid, MRef} = spawn_monitor(fun() -> saver(Self, Big, Target, I) end),
    receive
        {ready, Info} -> erlang:demonitor(MRef, [flush]), Info;
        {'DOWN', MRef, process, Pid, Why} -> error({setup_failed, Why})
    end.

saver(Parent, Big, Target, I) ->
    Prev = arbo_file_tests:config(),
    ok = arbo_tree:set_value(Prev, arbo_tree:add_leaf(Prev, arbo_tree:root(Prev), 99), {uint32, I}),
    ok = arbo_tree:save(Prev, Target),
    %% a file of our own making: straight to the loader
    T = arbo_tree:new(),
    {true, _} = arbo_tree:exclusive(
                  T, fun(H, _) -> {arbo:load_nif(H, nul(Big), -1, 0, undefined), true} end),
    Trial = Target ++ ".trial",
    {Us, ok} = timer:tc(fun() -> arbo_tree:save(T, Trial) end),
    {ok, Saved} = file:read_file(Trial),
    ok = file:delete(Trial),
    register(arbo_hostile_saver, self()),
    %% the saver writes the same tree as the same bytes
    Parent ! {ready, #{os_pid => os:getpid(), prev => tree_hash(Prev), new => erlang:md5(Saved),
                       save_ms => Us div 1000, nodes => maps:get(size, arbo_tree:info(T)),
                       bytes => byte_size(Saved)}},
    receive save -> arbo_tree:save(T, Target) end,
    receive never -> ok end.
