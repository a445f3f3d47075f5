%% cmp_keys_nif/5 at the boundary: how each key kind is decoded (4 and 27
%% integers, 5 encoded, 6 opaque) and the mode handed on. The mixed rule and
%% refused calls are swept by arbo_fuzz_tests; the comparison itself is
%% pinned in keys_test.cpp.
-module(keys_tests).
-include_lib("eunit/include/eunit.hrl").

%% {sign in modes 0, 1, 2, [Key1, Kind1, Key2, Kind2]}; modes 0 and 1 are
%% checked in both orders. Integer keys compare by signed tag only (the
%% namespace of a kind 27 key is not even read).
cmp_keys_test() ->
    Rows = [{[1, -1, 1], [<<"b">>, 6, <<"aa">>, 6]}, {[-1, -1, -1], [<<"ab">>, 6, <<"abc">>, 6]},
            {[0, 0, 0], [<<200, 3, "abc">>, 5, <<"abc">>, 6]}, {[-1, -1, -1], [-1, 4, 0, 4]},
            {[1, 1, 1], [16#7fffffff, 4, -16#80000000, 4]}, {[0, 0, 0], [{1, 5}, 27, {2, 5}, 27]},
            {[0, 0, 0], [{not_a_number, 5}, 27, 5, 4]}, {[-1, -1, -1], [{9, 4}, 27, 5, 4]}],
    Cmp = fun(K1, T1, K2, T2, M) -> max(-1, min(1, arbo:cmp_keys_nif(K1, T1, K2, T2, M))) end,
    [?assertEqual({Args, Want, [-W || W <- lists:sublist(Want, 2)]},
                  {Args, [Cmp(K1, T1, K2, T2, M) || M <- [0, 1, 2]], [Cmp(K2, T2, K1, T1, M) || M <- [0, 1]]})
     || {Want, [K1, T1, K2, T2] = Args} <- Rows].
