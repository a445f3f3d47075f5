%% Hostile save files and persistence faults.
%%
%% Thousands of files derived from valid saves (cut at every byte, bits
%% flipped, length fields that lie, bad record codes) and random bytes and
%% random record streams go through verification and the verified load,
%% and, where the damage is one the loader itself must stand (cuts, lying
%% lengths, bad codes, streams of well-formed keys), through the raw loader
%% as well: nothing crashes, every answer is one of the loader's results, a
%% file verification refuses loads nothing, and verification agrees with
%% what the loader takes (on cut files, exactly).
%% Saves that fail (a full device, a file size limit, a directory the user
%% may not write) answer io and keep the previous file; a VM killed with
%% SIGKILL in the middle of a save leaves the previous file whole. Everything
%% that could take a VM down runs in a child VM, so a crash is reported with
%% the file that caused it.
-module(arbo_hostile_tests).
-include_lib("eunit/include/eunit.hrl").

-import(arbo_test_util, [nul/1, pick/1, wait_until/2]).

-export([figures/1]).
%% The child VMs of the reliability suites.
-export([child/1, in_child/3]).
%% Run inside child VMs.
-export([hostile/2, refused_saves/1, big_save/2]).

-define(MAGIC, <<16#EE, 16#DA, 0, 1>>).
-define(LOADER_ERRORS, [not_found, io, invalid_magic, invalid_op, invalid_node_type, invalid_key_type,
                        invalid_data, not_implemented, memory_allocation_error, deprecated_op]).

%% Work per scale; the sanitizer build is several times slower.
params(Scale) ->
    D = case os:getenv("ARBO_ASAN") of "1" -> 4; _ -> 1 end,
    {Seeds, Files, Kills} = case Scale of quick -> {3, 400, 3}; full -> {8, 5000, 8} end,
    #{seeds => Seeds, files => Files div D, kills => Kills, big_nodes => 600000 div D}.

hostile_files_test_() -> {timeout, 900, fun() -> run_hostile(quick) end}.
refused_saves_test_() -> {timeout, 300, fun run_refused/0}.
killed_saves_test_() -> {timeout, 600, fun() -> run_kills(quick) end}.

%% Figures for the reliability report; raises when anything is wrong.
figures(Scale) ->
    H = run_hostile(Scale),
    {Kills, Save} = run_kills(Scale),
    Mid = [Whole || {true, Whole, _} <- Kills],
    Tried = lists:sum([V || {{kind, _}, V} <- maps:to_list(H)]),
    [{"hostile files tried", f("~b (~s)", [Tried, counts(kind, H)])},
     {"verification", counts(verify, H)},
     {"verified load answers", counts(load, H)},
     {"raw loader answers", counts(raw, H)},
     {"hostile files duration", f("~.1f s", [maps:get(ms, H) / 1000])},
     {"refused saves (fault: answer, previous file)", run_refused()},
     {"saves killed with SIGKILL", f("~b: ~b mid-save, the rest after the rename; delays ~w ms",
                                     [length(Kills), length(Mid), [D || {_, _, D} <- Kills]])},
     {"save of the killed tree", Save},
     {"previous file intact", f("~b/~b", [length([x || true <- Mid]), length(Mid)])},
     {"lost", f("~b of ~b killed saves left the target neither old nor new",
                [length([x || {_, false, _} <- Kills]), length(Kills)])}].

f(Fmt, Args) -> lists:flatten(io_lib:format(Fmt, Args)).
counts(Tag, H) -> string:join([f("~p ~b", [K, V]) || {{T, K}, V} <- lists:sort(maps:to_list(H)), T == Tag], ", ").

%% ---- child VMs and scratch directories ------------------------------------------------

%% A VM that loads this build, the test modules and PropEr.
child(Extra) ->
    Dirs = lists:usort([filename:absname(filename:dirname(code:which(M))) || M <- [?MODULE, arbo_tree, proper]]),
    element(2, peer:start(Extra#{connection => standard_io, args => lists:append([["-pa", D] || D <- Dirs])})).

%% M:F(A) in a child VM; a child that dies or stalls answers child_vm_failed.
in_child(Extra, {M, F, A}, Timeout) ->
    Peer = child(Extra),
    try peer:call(Peer, M, F, A, Timeout) catch C:R -> {child_vm_failed, C, R}
    after catch peer:stop(Peer) end.

scratch(Root, Name) ->
    D = filename:join(Root, "arbo_hostile_" ++ os:getpid() ++ "_" ++ Name),
    [] = rm(D) ++ os:cmd("mkdir -p " ++ D),
    D.
rm(D) -> os:cmd("chmod -R u+w '" ++ D ++ "' 2>/dev/null; rm -rf '" ++ D ++ "'").

%% ---- 1. hostile files ---------------------------------------------------------------

%% Many small writes: they go to memory when it can. The file at work is
%% left behind when the child VM dies.
run_hostile(Scale) ->
    Root = hd([D || D <- ["/dev/shm", "/tmp"], filelib:is_dir(D)]),
    Dir = scratch(Root, "files"),
    Run = fun() -> in_child(#{env => [{"TMPDIR", Root}]}, {?MODULE, hostile, [Dir, params(Scale)]}, infinity) end,
    {Us, R} = timer:tc(Run),
    is_map(R) andalso [] =:= maps:get(problems, R) orelse error({hostile_files, R, {file_at_work, Dir ++ "/current"}}),
    rm(Dir),
    R#{ms => Us div 1000}.

%% In the child: every file of every kind, tallied.
hostile(Dir, #{seeds := Seeds, files := Files}) ->
    ok = file:set_cwd(Dir),
    rand:seed(exsss, {7, 11, 13}),
    Saved = [seed(N) || N <- lists:seq(1, Seeds)],
    Each = fun(G) -> lists:flatmap(G, Saved) end,
    Rep = fun(N, G) -> [G() || _ <- lists:seq(1, N)] end,
    %% {Kind, whether the raw loader must stand it too, files}
    Kinds = [{cut, true, Each(fun cuts/1)}, {huge_length, true, Each(fun huge_lengths/1)},
             {bad_code, true, Each(fun bad_codes/1)}, {bit_flips, false, Rep(4 * Files, fun() -> flip(pick(Saved)) end)},
             {random_bytes, false, Rep(Files, fun random_bytes/0)}, {record_stream, true, Rep(2 * Files, fun stream/0)}],
    lists:foldl(fun try_file/2, #{problems => []}, [{K, R, B} || {K, R, Bins} <- Kinds, B <- Bins]).

cuts(Good) -> [binary:part(Good, 0, N) || N <- lists:seq(0, byte_size(Good) - 1)].
random_bytes() -> <<(pick([<<>>, ?MAGIC]))/binary, (rand:bytes(rand:uniform(300) - 1))/binary>>.

%% Every length field past the end of the file: 4-byte fields set to
%% 0x7fffffff, 0xffffffff and one byte too many, 1-byte fields to 255 with
%% the file cut where that is too many.
huge_lengths(Good) ->
    Size = byte_size(Good),
    [put_int(binary:part(Good, 0, Cut), Pos, W, V)
     || {Pos, W} <- lists:flatmap(fun({P, Op}) -> length_at(P, Op) end, records(Good)),
        {V, Cut} <- [{X, Size} || W =:= 4, X <- [16#7fffffff, 16#ffffffff, Size - Pos - 3]] ++
            [{255, min(Size, Pos + 255 - rand:uniform(3))} || W =:= 1]].

%% Opcodes replaced by codes that stop the load: operations 0, 1, 21, 25 and
%% 28..31 anywhere, key forms 6 and 7 on the path records.
bad_codes(Good) ->
    [put_int(Good, P, 1, C) || {P, Op} <- records(Good),
        C <- [pick([0, 1, 21, 25, 28, 29, 30, 31]) | [Op band 31 + 32 * F || F <- [6, 7], lists:member(Op band 31, [6, 15, 20])]],
        rand:uniform(3) =:= 1].

%% {Offset, Opcode} of every record: a record ends where a prefix verifies.
records(Good) ->
    [{P, binary:at(Good, P)} || P <- lists:seq(4, byte_size(Good) - 1), arbo_file:verify_binary(binary:part(Good, 0, P)) =:= ok].

%% {Offset, Width} of the length fields of a record: opaque and encoded
%% keys, long binaries, short binaries.
length_at(P, Op) when Op =:= 16#86; Op =:= 16#A6; Op =:= 16#0E -> [{P + 1, 4}];
length_at(P, 16#0D) -> [{P + 1, 1}];
length_at(_, _) -> [].

%% One bit flipped, or up to nine.
flip(B) ->
    Bits = [rand:uniform(bit_size(B)) - 1 || _ <- lists:seq(1, pick([1, rand:uniform(9)]))],
    lists:foldl(fun(I, Acc) -> <<H:I/bits, X:1, R/bits>> = Acc, <<H:I/bits, (1 - X):1, R/bits>> end, B, Bits).

put_int(B, Pos, W, V) -> <<H:Pos/binary, _:W/binary, R/binary>> = B, <<H/binary, V:(8 * W), R/binary>>.

%% The tree of the API's file tests (containers, lists, int, pair, opaque and
%% tuple keys, values, attributes, flags), varied by N: a list in the last
%% order with N decorated instances, a decorated leaf.
seed(N) ->
    T = arbo_file_tests:config(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), {N, 3}, sorted_length_first_but_last),
    [decorate(T, arbo_tree:add(T, L, element(N rem 2 + 1, {{int, I}, {pair, I, N}})), true) || I <- lists:seq(1, N)],
    decorate(T, arbo_tree:add_leaf(T, arbo_tree:root(T), 20 + N), leaf),
    ok = arbo_tree:save(T, "seed"),
    arbo_tree:close(T),
    element(2, file:read_file("seed")).

%% A value (leaves, and instances with int or pair keys: Kind true), flags,
%% an attribute, below an instance a leaf.
decorate(T, Node, Kind) ->
    [ok = arbo_tree:set_value(T, Node, value(5)) || Kind =/= false, rand:uniform(3) > 1],
    ok = arbo_tree:set_flags(T, Node, pick([0, 0, 16#80, 16#1200, 16#120000, 16#1200000000])),
    [ok = arbo_tree:set_attr(T, Node, rand:uniform(4), value(0)) || rand:uniform(2) =:= 1],
    [decorate(T, arbo_tree:add_leaf(T, Node, rand:uniform(5)), leaf) || Kind =/= leaf, rand:uniform(2) =:= 1].

%% A typed value, or with Raw > 0 now and then a raw binary (one long).
value(Raw) ->
    pick([{string32, rand:bytes(rand:uniform(40))}, {uint32, rand:uniform(1 bsl 20)}, {int64, -5},
          {string, rand:bytes(rand:uniform(9))}, {ipv4, {10, 0, 0, 7}} | lists:duplicate(Raw, rand:bytes(rand:uniform(20)))]
         ++ [rand:bytes(250 + rand:uniform(20)) || Raw > 0]).

stream() -> [?MAGIC | [record() || _ <- lists:seq(1, rand:uniform(40))]].

%% A random record of every operation, mostly well formed, with tags and
%% keys from small ranges so that paths meet again; encoded keys are always
%% well formed (a corrupt one is for verification to refuse).
record() ->
    {F, F2, X} = {pick([0, 0, 1, 2, 2, 3, 4, 5, 5]), pick([0, 2, 3, 4, 5]), rand:uniform(5) - 1},
    B = rand:bytes(rand:uniform(30)),
    pick(lists:duplicate(5, [6 + 32 * F, path(F)]) ++ lists:duplicate(3, <<7>>) ++
             [<<(pick([0, 1, 21, 25, 28, 31, 16#E6, 16#C6, 2, 3, 4, 5]))>>, <<8, (X rem 4)>>,
              [15, path(0)], [20 + 32 * (F rem 2), path(F rem 2), X],
              [16, path(0), pick([0, 1, 200, 255])], [9, csval()], [13, byte_size(B), B],
              <<14, 280:32, (binary:copy(<<X>>, 280))/binary>>, [<<18, X:32>>, csval()],
              pick([<<11, 5>>, <<17, 1:16>>, <<22, 1:32>>, <<23, 1:64>>]), [10 + 32 * F, path(F)],
              <<12, (X rem 3):32>>, [19 + 32 * F, path(F), <<X:32>>],
              [24 + 32 * F, path(F), <<X:32>>], [26 + 32 * F, path(F), X rem 3, F2, path(F2)],
              [27 + 32 * F, path(F), F2, path(F2)]]).

path(0) -> <<(rand:uniform(4)):32>>;
path(1) -> <<(rand:uniform(2) - 1):32, (rand:uniform(4)):32>>;
path(2) -> <<(rand:uniform(5)):32>>;
path(3) -> <<(pick([4, 12, 27])), (rand:uniform(5)):32>>;
path(4) -> B = rand:bytes(rand:uniform(6) - 1), <<(byte_size(B)):32, B/binary>>;
path(5) -> B = arbo_key:encode([{string, pick([<<"a">>, <<"bb">>])}, {uint32, rand:uniform(3)}]),
           <<(byte_size(B)):32, B/binary>>.

csval() -> pick([<<0>>, <<(pick([250, 3, 1]))>> | lists:duplicate(6, arbo_val:encode(value(0)))]).

%% One file through verification, the verified load and, for Raw kinds,
%% the raw loader (record streams hold checkpoints: any checkpoint argument
%% will do); every wrong answer kept as a problem, with the file.
try_file({Kind, Raw, Bin}, Acc) ->
    ok = file:write_file("current", Bin, [raw]),
    V = guarded(fun() -> arbo_file:verify("current") end),
    T = arbo_tree:new(),
    L = guarded(fun() -> arbo_tree:load(T, "current") end),
    Empty = maps:get(size, arbo_tree:info(T)) =:= 0,
    arbo_tree:close(T),
    RawA = Raw andalso guarded(fun() -> raw_load(pick([-1, -2, 0, 9])) end),
    %% a verified file fails only where the tree refuses a record, or
    %% where the loader stops (said with the record's offset); a refused
    %% one loads nothing
    Answers = case V of
                  ok -> lists:member(outcome(L), [ok, truncate, invalid_node_type, stopped_at]);
                  {error, {_, Off} = E} ->
                      Empty andalso is_integer(Off) andalso L =:= {error, {invalid_file, E}};
                  _ -> false
              end,
    %% a cut file verifies exactly when the raw loader takes it cleanly
    Checks = [{answers, Answers}, {raw, not Raw orelse lists:member(outcome(RawA), [ok, truncate | ?LOADER_ERRORS])},
              {cut_agrees, Kind =/= cut orelse (V =:= ok) =:= lists:member(outcome(RawA), [ok, truncate])}],
    Problems = [{Kind, What, [outcome(X) || X <- [V, L, RawA]], Bin} || {What, false} <- Checks],
    lists:foldl(fun(K, A) -> maps:update_with(K, fun(N) -> N + 1 end, 1, A) end,
                Acc#{problems := lists:sublist(Problems ++ maps:get(problems, Acc), 5)},
                [{kind, Kind}, {verify, outcome(V)}, {load, outcome(L)}] ++ [{raw, outcome(RawA)} || Raw]).

raw_load(Checkpoint) ->
    H = arbo:new(),
    try arbo:load_nif(H, <<"current", 0>>, Checkpoint, 1, undefined) after arbo:close(H) end.

guarded(F) -> try F() catch C:R:S -> {crashed, C, R, S} end.

%% Every answer (verification, verified load, raw loader) by its result.
outcome({ok, #{truncated_at := undefined}}) -> ok;
outcome({ok, #{}}) -> truncate;
outcome({true, {_, _, _, _, _, _, _, undefined}}) -> ok;
outcome({true, {_, _, _, _, _, _, _, {checkpoint, _}}}) -> truncate;
outcome({error, {invalid_file, _}}) -> refused_by_verification;
outcome({error, {stopped_at, Off, Why}}) when is_integer(Off), is_atom(Why) -> stopped_at;
outcome({error, {R, Off}}) when is_integer(Off) -> if is_tuple(R) -> element(1, R); true -> R end;
outcome({error, A}) when is_atom(A) -> A;
outcome(X) -> X.

%% ---- 2. saves the system refuses --------------------------------------------------

%% Each refused save answers {error, io} and leaves the file it would have
%% replaced as it was. Root writes where it likes, so the saves run in a
%% child VM as another user (when run as root), under a file size limit
%% smaller than the big tree's file.
run_refused() ->
    [Setpriv, Prlimit, Erl] = Exes = [os:find_executable(X) || X <- ["setpriv", "prlimit", "erl"]],
    Base = scratch("/tmp", "refused"),
    ok = file:change_mode(Base, 8#777),
    User = [X || "0\n" <- [os:cmd("id -u")], X <- [Setpriv, "--reuid=65534", "--regid=65534", "--clear-groups"]],
    %% writes past the limit fail with EFBIG instead of a signal
    Exec = {"/bin/sh", ["-c", "trap '' XFSZ; exec \"$@\"", "sh"] ++ User ++ [Prlimit, "--fsize=65536", Erl]},
    Rows = case lists:member(false, Exes) of
               false -> in_child(#{exec => Exec, env => [{"HOME", Base}]}, {?MODULE, refused_saves, [Base]}, infinity);
               true -> io:format(user, "~nrefused saves skipped: no setpriv, prlimit or erl~n", []),
                       [{"refused saves", skipped, none}]
           end,
    rm(Base),
    ?assertEqual([], [R || {_, A, I} = R <- Rows, A =/= skipped, A =/= {error, io} orelse I =:= changed]),
    string:join([f("~s: ~p, ~p", [L, A, I]) || {L, A, I} <- Rows], "; ").

%% In the child: {Label, Answer, intact | changed | none (no previous file)}.
refused_saves(Base) ->
    [Locked, Open] = [Base ++ "/locked/target", Base ++ "/open/target"],
    T = arbo_file_tests:config(),
    %% the previous files, saved under the size limit
    [ok = arbo_tree:save(T, F) || F <- [Locked, Open], file:make_dir(filename:dirname(F)) =:= ok],
    {ok, Before} = file:read_file(Open),
    [ok = file:change_mode(F, 8#555) || F <- [Locked, filename:dirname(Locked)]],
    %% the refusal is real: this user cannot write there at all
    {error, eacces} = file:write_file(Locked ++ "2", <<"x">>),
    Big = arbo_tree:new(),
    [ok = arbo_tree:set_value(Big, arbo_tree:add_leaf(Big, arbo_tree:root(Big), I), binary:copy(<<I:32>>, 25))
     || I <- lists:seq(1, 2000)],
    %% (the file is read once the save has answered)
    Row = fun(L, A, none) -> {L, A, none};
             (L, A, P) -> {L, A, case file:read_file(P) of {ok, Before} -> intact; _ -> changed end} end,
    Rows = [Row("full device (native)", arbo:save_nif(T, <<"/dev/full", 0>>, 0), none),
            Row("write-protected directory", arbo_tree:save(T, Locked), Locked),
            Row("file size limit", arbo_tree:save(Big, Open), Open)],
    [] = filelib:wildcard(Base ++ "/*/.target*"),
    [arbo_tree:close(X) || X <- [T, Big]],
    Rows.

%% ---- 3. a VM killed in the middle of a save -----------------------------------------

%% A child VM per kill saves a big tree over a small tree's file; SIGKILL
%% lands at a fraction of the time that save takes. The target is then the
%% previous file, whole (it verifies, loads and holds the tree saved
%% before), or, when the kill came after the rename, the new one, whole.
run_kills(Scale) ->
    #{kills := Kills, big_nodes := Nodes} = params(Scale),
    Dir = scratch("/tmp", "kills"),
    %% containers of 100 leaves with 100-byte values, as the saver writes them
    Leaves = << <<6, L:32, 13, 100, (binary:copy(<<L:32>>, 25))/binary, 7>> || L <- lists:seq(1, 100) >>,
    Bin = iolist_to_binary([?MAGIC, 2, [[<<6, C:32>>, Leaves, 7] || C <- lists:seq(1, Nodes div 101)], 3]),
    ok = file:write_file(Dir ++ "/big", Bin),
    T = big_tree(Dir ++ "/big"),
    {Us, ok} = timer:tc(arbo_tree, save, [T, Dir ++ "/new"]),
    ?assertEqual({ok, Bin}, file:read_file(Dir ++ "/new")),
    Size = maps:get(size, arbo_tree:info(T)),
    arbo_tree:close(T),
    %% delays spread over the first nine tenths of the save
    Rs = [kill_once(Dir, Bin, round(Us * (I - 0.5) / Kills / 1111)) || I <- lists:seq(1, Kills)],
    rm(Dir),
    ?assertEqual([], [R || {_, false, _} = R <- Rs]),
    ?assertNotEqual([], [x || {true, _, _} <- Rs]),
    {Rs, f("~b nodes, ~.1f MB, ~b ms", [Size, byte_size(Bin) / 1048576, Us div 1000])}.

%% {killed mid-save, target whole, delay}
kill_once(Dir, Bin, Delay) ->
    Target = Dir ++ "/target",
    Prev = arbo_file_tests:config(),
    ok = arbo_tree:save(Prev, Target),
    {Want, {ok, PrevBin}} = {arbo_file_tests:dump(Prev), file:read_file(Target)},
    arbo_tree:close(Prev),
    Temps = fun() -> filelib:wildcard(Dir ++ "/.target.tmp.*") end,
    Peer = child(#{}),
    try
        MRef = erlang:monitor(process, Peer),
        OsPid = peer:call(Peer, os, getpid, []),
        ok = peer:cast(Peer, ?MODULE, big_save, [Dir ++ "/big", Target]),
        true = wait_until(fun() -> Temps() =/= [] end, 60000),
        timer:sleep(Delay),
        _ = os:cmd("kill -9 " ++ OsPid),
        receive {'DOWN', MRef, process, Peer, _} -> ok after 20000 -> error(not_killed) end,
        Mid = [ok = file:delete(F) || F <- Temps()] =/= [],
        {ok, Now} = file:read_file(Target),
        Whole = Now =:= if Mid -> PrevBin; true -> Bin end,
        {Mid, Whole andalso (not Mid orelse loaded(Target) =:= Want), Delay}
    after catch peer:stop(Peer)
    end.

loaded(F) -> T = arbo_tree:new(), try {ok, _} = arbo_tree:load(T, F), arbo_file_tests:dump(T) after arbo_tree:close(T) end.

%% A file of our own making: straight to the loader.
big_tree(Big) ->
    T = arbo_tree:new(),
    {true, _} = arbo_gate:exclusive(T, fun(H, _) -> {arbo:load_nif(H, nul(Big), -1, 0, undefined), true} end),
    T.

%% In the child.
big_save(Big, Target) -> arbo_tree:save(big_tree(Big), Target).
