%% Save files through the API: round trips, verification of every record
%% shape and of broken files (cut files, where verification agrees with the
%% loader, are arbo_hostile_tests'), crash-safe saving and missing files.
-module(arbo_file_tests).
-include_lib("eunit/include/eunit.hrl").

-export([dump/1, config/0]).

-import(arbo_test_util, [tmp/1]).

config() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    C = arbo_tree:add_container(T, R, 1),
    Ifs = arbo_tree:add_list(T, C, 2, sorted_length_first),
    [begin
         I = arbo_tree:add(T, Ifs, [{string, <<"eth", (integer_to_binary(K))/binary>>}]),
         ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, 5), {uint32, 1500 + K}),
         ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, I, {3, 6}), binary:copy(<<K>>, K * 40)),
         ok = arbo_tree:set_flags(T, I, K * 16#1000),
         ok = arbo_tree:set_attr(T, I, 4, {string, <<"note">>})
     end || K <- lists:seq(1, 9)],
    Rules = arbo_tree:add_list(T, R, {2, 7}, user_order),
    [ok = arbo_tree:set_value(T, arbo_tree:add(T, Rules, K), {ipv4, {10, 0, 0, 1}})
     || K <- [{int, 30}, {int, -10}, {int, 20}]],
    O = arbo_tree:add_list(T, R, 9, sorted),
    [arbo_tree:add(T, O, {opaque, B}) || B <- [<<>>, <<1, 2, 3>>, binary:copy(<<9>>, 40)]],
    T.

%% The whole tree as a term: kind, key, value, flags, the active mark,
%% attributes 1..8, children in order.
dump(T) -> dump(T, arbo_tree:root(T)).
dump(T, N) ->
    Type = arbo_tree:type(T, N),
    {Type, arbo_tree:key(T, N), lists:member(Type, [leaf, instance]) andalso arbo_tree:value(T, N),
     arbo_tree:flags(T, N), arbo_tree:is_active(T, N), [arbo_tree:attr(T, N, A) || A <- lists:seq(1, 8)],
     [dump(T, C) || C <- arbo_tree:children(T, N)]}.

%% What the API builds, a file carries back, and the loaded tree saves as
%% the same bytes: every key form, values, flags, attributes, an inactive
%% mark, a move, pairs of every namespace add/3 takes and a user-ordered
%% list past its index threshold, keys in descending order. Skipping
%% flagged nodes leaves out two interfaces, with their two leaves and
%% attribute each.
round_trip_test() ->
    T = config(),
    [U1, _, U3] = arbo_tree:children(T, arbo_tree:find(T, arbo_tree:root(T), {2, 7})),
    ok = arbo_tree:set_active(T, U1, false),
    true = arbo_tree:move_to(T, U3, 0),
    P = arbo_tree:add_list(T, arbo_tree:root(T), 3, sorted),
    [ok = arbo_tree:set_flags(T, arbo_tree:add(T, P, {pair, Ns, N}), Ns)
     || Ns <- lists:seq(1, 255) -- [12], N <- [-16#80000000, 16#7fffffff]],
    U = arbo_tree:add_list(T, arbo_tree:root(T), 4, user_order),
    [arbo_tree:add(T, U, {opaque, <<N:16>>}) || N <- lists:seq(150, 1, -1)],
    ok = arbo_tree:save(T, F = tmp("rt")),
    ok = arbo_tree:save(T, F2 = tmp("skip"), [{skip_flags, 16#8000}]),
    {ok, _} = arbo_tree:load(T2 = arbo_tree:new(), F),
    ok = arbo_tree:save(T2, F3 = tmp("rt2")),
    #{size := Size} = arbo_tree:info(T),
    ?assertEqual({dump(T), file:read_file(F)}, {dump(T2), file:read_file(F3)}),
    ?assertMatch({ok, #{nodes := Kept}} when Kept =:= Size - 8, arbo_tree:load(arbo_tree:new(), F2)),
    [ok = file:delete(X) || X <- [F, F2, F3]],
    [ok, ok] = [arbo_tree:close(T), arbo_tree:close(T2)].

%% Every record shape in one well-formed file; one broken record per error.
records_test_() ->
    M = <<16#EE, 16#DA, 0, 1>>,
    Key = <<200, 2, "ab">>,
    Good = <<M/binary, 2, 3, 4, 5, 1, 7, 8, 3,
             16#06, 1:32, 16#26, 1:32, 2:32, 16#46, 5:32, 16#66, 12, 5:32,
             16#86, 3:32, 0, 1, 204, 16#A6, 4:32, Key/binary,
             9, 8, 1:32, 9, 0, 9, 205, 2:32, "xy", 13, 2, "ab", 14, 1:32, 0,
             11, 1, 17, 1:16, 22, 1:32, 23, 1:64, 18, 7:32, 10, 1,
             16#0A, 1:32, 16#AA, 4:32, Key/binary, 12, 3:32, 15, 1:32,
             16, 1:32, 255, 20, 1:32, 3, 16#34, 1:32, 2:32, 0,
             16#B3, 4:32, Key/binary, 9:32, 24, 1:32, 2:32,
             16#BA, 4:32, Key/binary, 1, 5, 4:32, Key/binary,
             16#5B, 7:32, 2, 1:32, 16#BB, 4:32, Key/binary, 5, 4:32, Key/binary>>,
    Bad = [{<<0>>, not_implemented}, {<<21>>, deprecated_op}, {<<28>>, invalid_op}, {<<16#E6, 0:32>>, invalid_key_type},
           {<<16#BA, 4:32, Key/binary, 1, 6>>, invalid_key_type}, {<<16#BA, 4:32, Key/binary, 1, 5, 1:32, 3>>, {bad_key, {unknown_type, 3, 0}}},
           {<<16#AA, 2:32, 200, 5>>, {bad_key, {truncated, 200, 0}}}, {<<18, 1:32, 250>>, {bad_value, {unknown_type, 250}}},
           {<<9, 8, 1>>, truncated}, {<<16#A6, 9:32>>, truncated}],
    [?_assertEqual(ok, arbo_file:verify_binary(Good)),
     ?_assertEqual({error, {invalid_magic, 0}}, arbo_file:verify_binary(<<1, 2, 3, 4, 5>>))] ++
        [?_assertEqual({error, {Reason, 5}}, arbo_file:verify_binary(<<M/binary, 5, R/binary>>)) || {R, Reason} <- Bad].

%% A target that cannot be replaced, or a path that is none: the temporary
%% file goes, the old contents stay.
safe_save_test() ->
    T = config(),
    ok = file:write_file(F = tmp("safe"), <<"old contents">>),
    ok = filelib:ensure_path(Dir = tmp("dir")),
    Temps = fun() -> filelib:wildcard("/tmp/.arbo_*.tmp." ++ os:getpid() ++ ".*") ++ filelib:wildcard(Dir ++ "/.*") end,
    ?assertEqual([{error, not_regular}, {error, not_regular}, {error, badarg}],
                 [arbo_tree:save(T, P) || P <- [Dir, "/dev/null", <<"/tmp/a", 0, "b">>]]),
    ?assertEqual({[], {ok, <<"old contents">>}}, {Temps(), file:read_file(F)}),
    ok = arbo_tree:save(T, F),
    ?assertEqual({[], ok}, {Temps(), arbo_file:verify(F)}),
    arbo_tree:close(T),
    file:del_dir(Dir), file:delete(F).

%% A missing file and a path that is none: errors, nothing loaded. (Corrupt
%% files, refused by verification with nothing loaded: arbo_hostile_tests.)
missing_load_test() ->
    T = config(),
    Before = dump(T),
    ?assertEqual({Before, {error, {enoent, 0}}, {error, badarg}},
                 {dump(T), arbo_tree:load(T, tmp("missing")), arbo_tree:load(T, <<"a", 0>>)}),
    arbo_tree:close(T).
