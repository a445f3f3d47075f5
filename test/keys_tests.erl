%% cmp_keys_nif/5 at the boundary: byte keys (kinds 5 and 6) in the three
%% ordering modes, integer keys (kinds 4 and 27) and the mixed rule (refused
%% calls are swept by arbo_fuzz_tests). The comparison itself is pinned in
%% keys_test.cpp.
-module(keys_tests).
-include_lib("eunit/include/eunit.hrl").


-define(I32(V), 8, V:32/signed).
-define(STR(S), 200, (byte_size(S)), S/binary).

%% {Key1, Kind1, Key2, Kind2, [sign in modes 0, 1, 2]}; modes 0 and 1 are
%% checked in both orders.
byte_cases() ->
    [{<<>>, 5, <<?I32(0)>>, 5, [-1, -1, -1]}, {<<?STR(<<"abc">>)>>, 5, <<"abc">>, 6, [0, 0, 0]},
     {<<?STR(<<"b">>)>>, 5, <<?STR(<<"aa">>)>>, 5, [1, -1, 1]}, {<<"b">>, 6, <<"aa">>, 6, [1, -1, 1]},
     {<<"ab">>, 6, <<"abc">>, 6, [-1, -1, -1]}, {<<30, 2:64>>, 5, <<30, 1:64>>, 5, [1, -1, -1]}].

byte_keys_test() ->
    Cmp = fun(K1, T1, K2, T2, Modes) -> [max(-1, min(1, arbo:cmp_keys_nif(K1, T1, K2, T2, M))) || M <- Modes] end,
    [?assertEqual({K1, K2, Want, [-W || W <- lists:sublist(Want, 2)]},
                  {K1, K2, Cmp(K1, T1, K2, T2, [0, 1, 2]), Cmp(K2, T2, K1, T1, [0, 1])})
     || {K1, T1, K2, T2, Want} <- byte_cases()],
    %% mode 2 is asymmetric on purpose: each of these is greater than the other
    {AaX, B} = {<<?STR(<<"aa">>), ?STR(<<"x">>)>>, <<?STR(<<"b">>)>>},
    ?assertEqual({[1], [1]}, {Cmp(AaX, 5, B, 5, [2]), Cmp(B, 5, AaX, 5, [2])}).

%% Integer keys compare by signed tag only (the namespace of a kind 27 key is
%% not even read); a byte key sorts before any integer key, neither decoded.
int_and_mixed_test() ->
    Rows = [{-1, [-1, 4, 0, 4, 0]}, {1, [16#7fffffff, 4, -16#80000000, 4, 0]},
            {0, [5, 4, 5, 2, 1]}, {0, [{1, 5}, 27, {2, 5}, 27, 0]},
            {0, [{not_a_number, 5}, 27, 5, 4, 0]}, {-1, [{9, 4}, 27, 5, 3, 0]},
            {-1, [<<?I32(1)>>, 5, 0, 4, 0]}, {1, [0, 4, <<"x">>, 6, 0]},
            {-1, [not_a_key, 6, also_not, 27, 1]}, {1, [[], 2, #{}, 5, 2]}],
    [?assertEqual({A, W}, {A, apply(arbo, cmp_keys_nif, A)}) || {W, A} <- Rows].
