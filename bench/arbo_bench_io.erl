%% Save and load of one large sorted list against ets:tab2file/2 and
%% ets:file2tab/1 of an ordered_set holding the same keys and values.
%%
%% The list has N integer-keyed instances (N = 1,000,000, or 100,000 with
%% ARBO_BENCH_QUICK=1), each with a 10-byte value. The arbo tree is built by
%% loading a file written here record by record; saving it back must give the
%% same bytes. The values come in two encodings: raw binaries (0D records,
%% each value an out-of-line shared binary) and encoded values (09 records
%% holding an 8-byte string element, 10 bytes kept inside the node). Each
%% figure is the best of 5, ETS and the two arbo trees measured in turns. A
%% row without a target shows the load of the encoded values through the
%% safe API (arbo_file:load/2 verifies the file and loads a private copy).
-module(arbo_bench_io).
-export([rows/0]).

rows() ->
    Quick = os:getenv("ARBO_BENCH_QUICK") =:= "1",
    N = case Quick of true -> 100000; false -> 1000000 end,
    Runs = case Quick of true -> 1; false -> 5 end,
    Dir = filename:join("/tmp", "arbo_bench_io_" ++ os:getpid()),
    ok = filelib:ensure_dir(filename:join(Dir, "x")),
    try measure(N, Runs, Dir)
    after
        [file:delete(F) || F <- filelib:wildcard(filename:join(Dir, "*"))],
        file:del_dir(Dir)
    end.

value(K) -> <<K:80>>.

%% The 10-byte value of instance K as a raw binary record (0D) and as an
%% encoded value record (09: a type-200 string element of 8 bytes).
raw_record(K) -> [13, 10, value(K)].
csval_record(K) -> [9, 200, 8, <<K:64>>].

measure(N, Runs, Dir) ->
    EtsFile = filename:join(Dir, "tab.ets"),
    E = ets:new(arbo_bench_io, [ordered_set, public]),
    true = ets:insert(E, [{K, value(K)} || K <- lists:seq(1, N)]),
    Raw = source(N, Dir, "raw", fun raw_record/1),
    Cs = source(N, Dir, "csval", fun csval_record/1),
    RawT = loaded(N, Raw),
    CsT = loaded(N, Cs),
    %% Each side's best of Runs, the sides measured in turns.
    [ToFile, Save, CsSave] =
        [lists:min(L) || L <- arbo_bench:turns(Runs, [fun() -> tc(fun() -> ok = ets:tab2file(E, EtsFile) end) end,
                                                      save_fun(RawT, Raw, Dir), save_fun(CsT, Cs, Dir)])],
    ets:delete(E),
    arbo:close(RawT),
    arbo:close(CsT),
    [FromFile, Load, CsLoad, SafeLoad] =
        [lists:min(L) || L <- arbo_bench:turns(Runs, [fun() -> file2tab(N, EtsFile) end,
                                                      fun() -> load(N, Raw) end,
                                                      fun() -> load(N, Cs) end,
                                                      fun() -> safe_load(N, Cs) end])],
    Label = integer_to_list(N div 1000) ++ "k-instance sorted list",
    [#{row => "load " ++ Label, arbo => ms(Load), peer => ms(FromFile), unit => "ms",
       peer_name => "ets:file2tab/1", target => "peer/arbo >= 5"},
     #{row => "load " ++ Label ++ ", csval values", arbo => ms(CsLoad), peer => ms(FromFile),
       unit => "ms", peer_name => "ets:file2tab/1", target => "peer/arbo >= 5"},
     #{row => "safe load " ++ Label ++ ", csval values (arbo_file:load/2)", arbo => ms(SafeLoad), peer => ms(FromFile),
       unit => "ms", peer_name => "ets:file2tab/1", target => "-"},
     #{row => "save " ++ Label, arbo => ms(Save), peer => ms(ToFile), unit => "ms",
       peer_name => "ets:tab2file/2", target => "peer/arbo >= 3"},
     #{row => "save " ++ Label ++ ", csval values", arbo => ms(CsSave), peer => ms(ToFile),
       unit => "ms", peer_name => "ets:tab2file/2", target => "peer/arbo >= 3"},
     #{row => "file size, " ++ Label, arbo => filelib:file_size(Raw),
       peer => filelib:file_size(EtsFile), unit => "bytes", peer_name => "ets:tab2file/2",
       target => "arbo/peer <= 0.6"}].

%% A save file of the list, values written by ValRecord, made record by record.
source(N, Dir, Name, ValRecord) ->
    Src = filename:join(Dir, Name ++ ".arbo"),
    Records = [[<<16#46, K:32>>, ValRecord(K), 7] || K <- lists:seq(1, N)],
    ok = file:write_file(Src, [<<16#EE, 16#DA, 0, 1, 2, 16#14, 1:32, 0>>, Records, <<7, 3>>]),
    Src.

loaded(N, Src) ->
    T = arbo:new(),
    {true, _} = arbo:load_nif(T, nul(Src), -1, 0, undefined),
    true = arbo:get_size(T) =:= N + 1,
    T.

%% Microseconds of one load into a fresh tree (the tree's close not counted).
load(N, Src) ->
    T = arbo:new(),
    Us = tc(fun() -> {true, _} = arbo:load_nif(T, nul(Src), -1, 0, undefined) end),
    true = arbo:get_size(T) =:= N + 1,
    arbo:close(T),
    Us.

%% The same through the safe API: the file is read and verified, and a
%% private copy of the bytes verified is loaded.
safe_load(N, Src) ->
    T = arbo_tree:new(),
    Us = tc(fun() -> {ok, _} = arbo_file:load(T, Src) end),
    Size = N + 1,
    #{size := Size} = arbo_tree:info(T),
    arbo_tree:close(T),
    Us.

file2tab(N, File) ->
    {Us, {ok, E}} = timer:tc(fun() -> ets:file2tab(File) end),
    N = ets:info(E, size),
    ets:delete(E),
    Us.

%% A save of the tree, which must give back the bytes it was loaded from.
save_fun(T, Src, Dir) ->
    Out = filename:join(Dir, "out.arbo"),
    fun() ->
            Us = tc(fun() -> true = arbo:save_nif(T, nul(Out), 0) end),
            {ok, Same} = file:read_file(Out),
            {ok, Same} = file:read_file(Src),
            Us
    end.

tc(Fun) ->
    {Us, _} = timer:tc(Fun),
    Us.

ms(Us) -> Us / 1000.

nul(Path) -> <<(list_to_binary(Path))/binary, 0>>.
