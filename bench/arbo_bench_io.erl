%% Save and load of one large sorted list against ets:tab2file/2 and
%% ets:file2tab/1 of an ordered_set holding the same keys and values.
%%
%% The list has N integer-keyed instances (N = 1,000,000, or 100,000 with
%% ARBO_BENCH_QUICK=1), each with a 10-byte value. The arbo tree is built by
%% loading a file written here record by record; saving it back must give the
%% same bytes. The values come in two encodings: raw binaries (0D records,
%% each value an out-of-line shared binary) and encoded values (09 records
%% holding an 8-byte string element, 10 bytes kept inside the node).
-module(arbo_bench_io).
-export([rows/0]).

rows() ->
    Quick = os:getenv("ARBO_BENCH_QUICK") =:= "1",
    N = case Quick of true -> 100000; false -> 1000000 end,
    Runs = case Quick of true -> 1; false -> 3 end,
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
    ToFile = best(Runs, fun() ->
                                {Us, ok} = timer:tc(fun() -> ets:tab2file(E, EtsFile) end),
                                Us
                        end),
    ets:delete(E),
    FromFile = best(Runs, fun() ->
                                  {Us, {ok, E2}} = timer:tc(fun() -> ets:file2tab(EtsFile) end),
                                  N = ets:info(E2, size),
                                  ets:delete(E2),
                                  Us
                          end),
    Label = integer_to_list(N div 1000) ++ "k-instance sorted list",
    {Load, Save, Size} = measure_arbo(N, Runs, Dir, fun raw_record/1),
    {CsLoad, CsSave, _} = measure_arbo(N, Runs, Dir, fun csval_record/1),
    [#{row => "load " ++ Label, arbo => ms(Load), peer => ms(FromFile), unit => "ms",
       peer_name => "ets:file2tab/1", target => "peer/arbo >= 5"},
     #{row => "load " ++ Label ++ ", csval values", arbo => ms(CsLoad), peer => ms(FromFile),
       unit => "ms", peer_name => "ets:file2tab/1", target => "peer/arbo >= 5"},
     #{row => "save " ++ Label, arbo => ms(Save), peer => ms(ToFile), unit => "ms",
       peer_name => "ets:tab2file/2", target => "peer/arbo >= 3"},
     #{row => "save " ++ Label ++ ", csval values", arbo => ms(CsSave), peer => ms(ToFile),
       unit => "ms", peer_name => "ets:tab2file/2", target => "peer/arbo >= 3"},
     #{row => "file size, " ++ Label, arbo => Size,
       peer => filelib:file_size(EtsFile), unit => "bytes", peer_name => "ets:tab2file/2",
       target => "arbo/peer <= 0.6"}].

%% Best load and save times of a list whose values are written by ValRecord,
%% and the size of the saved file.
measure_arbo(N, Runs, Dir, ValRecord) ->
    Src = filename:join(Dir, "src.arbo"),
    Out = filename:join(Dir, "out.arbo"),
    Records = [[<<16#46, K:32>>, ValRecord(K), 7] || K <- lists:seq(1, N)],
    ok = file:write_file(Src, [<<16#EE, 16#DA, 0, 1, 2, 16#14, 1:32, 0>>, Records, <<7, 3>>]),
    Load = best(Runs, fun() ->
                              T = arbo:new(),
                              {Us, {true, _}} =
                                  timer:tc(fun() -> arbo:load_nif(T, nul(Src), -1, 0, undefined) end),
                              true = arbo:get_size(T) =:= N + 1,
                              arbo:close(T),
                              Us
                      end),
    T = arbo:new(),
    {true, _} = arbo:load_nif(T, nul(Src), -1, 0, undefined),
    Save = best(Runs, fun() ->
                              {Us, true} = timer:tc(fun() -> arbo:save_nif(T, nul(Out), 0) end),
                              Us
                      end),
    arbo:close(T),
    {ok, Same} = file:read_file(Src),
    {ok, Same} = file:read_file(Out),
    {Load, Save, filelib:file_size(Out)}.

best(Runs, Fun) -> lists:min([Fun() || _ <- lists:seq(1, Runs)]).

ms(Us) -> Us / 1000.

nul(Path) -> <<(list_to_binary(Path))/binary, 0>>.
