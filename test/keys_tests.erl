%% cmp_keys_nif/5: byte keys (kinds 5 and 6) in the three ordering modes,
%% integer keys (kinds 4 and 27), the mixed rule, and every way a call is
%% refused.
-module(keys_tests).
-include_lib("eunit/include/eunit.hrl").

-define(I32(V), 8, V:32/signed).
-define(STR(S), 200, (byte_size(S)), S/binary).

sign(R) when R > 0 -> 1;
sign(R) when R < 0 -> -1;
sign(0) -> 0.

cmp(K1, T1, K2, T2, Mode) -> sign(arbo:cmp_keys_nif(K1, T1, K2, T2, Mode)).

%% {Name, Key1, Kind1, Key2, Kind2, [sign in modes 0, 1, 2]}
byte_cases() ->
    [{"empty keys", <<>>, 5, <<>>, 5, [0, 0, 0]},
     {"empty first", <<>>, 5, <<?I32(0)>>, 5, [-1, -1, -1]},
     {"signed ints", <<?I32(-1)>>, 5, <<?I32(0)>>, 5, [-1, -1, -1]},
     {"prefix first", <<?I32(1)>>, 5, <<?I32(1), ?I32(2)>>, 5, [-1, -1, -1]},
     {"string vs opaque", <<?STR(<<"abc">>)>>, 5, <<"abc">>, 6, [0, 0, 0]},
     {"b vs aa", <<?STR(<<"b">>)>>, 5, <<?STR(<<"aa">>)>>, 5, [1, -1, 1]},
     {"true before false", <<17, 1>>, 5, <<17, 0>>, 5, [-1, -1, -1]},
     {"209 before 27", <<209, 0:64>>, 5, <<27, 0:224>>, 5, [-1, -1, -1]},
     {"opaque b vs aa", <<"b">>, 6, <<"aa">>, 6, [1, -1, 1]},
     {"opaque prefix", <<"ab">>, 6, <<"abc">>, 6, [-1, -1, -1]},
     {"opaque empty", <<>>, 6, <<"a">>, 6, [-1, -1, -1]},
     {"mask bit 0 decides", <<30, 2:64>>, 5, <<30, 1:64>>, 5, [1, -1, -1]},
     {"mask bit 63", <<30, 1:1, 0:63>>, 5, <<30, 0:1, 1:1, 0:62>>, 5, [1, -1, -1]}].

byte_keys_test_() ->
    [{Name ++ " mode " ++ integer_to_list(M),
      fun() ->
              ?assertEqual(Want, cmp(K1, T1, K2, T2, M)),
              ?assertEqual(-Want, cmp(K2, T2, K1, T1, M))
      end}
     || {Name, K1, T1, K2, T2, Wants} <- byte_cases(),
        {M, Want} <- lists:zip([0, 1], lists:sublist(Wants, 2))]
    ++ [{Name ++ " mode 2", ?_assertEqual(lists:nth(3, W), cmp(K1, T1, K2, T2, 2))}
        || {Name, K1, T1, K2, T2, W} <- byte_cases()].

mode_two_asymmetry_test() ->
    AaX = <<?STR(<<"aa">>), ?STR(<<"x">>)>>,
    B = <<?STR(<<"b">>)>>,
    ?assertEqual(1, cmp(AaX, 5, B, 5, 2)),
    ?assertEqual(1, cmp(B, 5, AaX, 5, 2)).

integer_keys_test_() ->
    [?_assertEqual(-1, arbo:cmp_keys_nif(-1, 4, 0, 4, 0)),
     ?_assertEqual(1, arbo:cmp_keys_nif(16#7fffffff, 4, -16#80000000, 4, 0)),
     ?_assertEqual(0, arbo:cmp_keys_nif(5, 4, 5, 2, 1)),
     %% Namespaces play no part; the first element is not even read.
     ?_assertEqual(0, arbo:cmp_keys_nif({1, 5}, 27, {2, 5}, 27, 0)),
     ?_assertEqual(0, arbo:cmp_keys_nif({not_a_number, 5}, 27, 5, 4, 0)),
     ?_assertEqual(-1, arbo:cmp_keys_nif({9, 4}, 27, 5, 3, 0))].

%% A byte key sorts before any integer key, and neither term is decoded.
mixed_kinds_test_() ->
    [?_assertEqual(-1, arbo:cmp_keys_nif(<<?I32(1)>>, 5, 0, 4, 0)),
     ?_assertEqual(1, arbo:cmp_keys_nif(0, 4, <<"x">>, 6, 0)),
     ?_assertEqual(-1, arbo:cmp_keys_nif(not_a_key, 6, also_not, 27, 1)),
     ?_assertEqual(1, arbo:cmp_keys_nif([], 2, #{}, 5, 2))].

reason(Fun) ->
    try Fun() of R -> {returned, R}
    catch error:{Reason, File, Line} when is_list(File), is_integer(Line) -> Reason
    end.

badarg_test_() ->
    Calls =
        [%% kind and mode arguments
         {"kind1 not an integer", [<<>>, five, <<>>, 5, 0]},
         {"kind2 not an integer", [<<>>, 5, <<>>, 5.0, 0]},
         {"mode not an integer", [<<>>, 5, <<>>, 5, "0"]},
         {"mode out of range", [<<>>, 5, <<>>, 5, 1 bsl 40]},
         %% byte keys
         {"kind 5 list", [[8, 0, 0, 0, 1], 5, <<>>, 5, 0]},
         {"kind 6 atom", [<<>>, 6, abc, 6, 0]},
         {"kind 6 bit string", [<<1:3>>, 6, <<>>, 6, 0]},
         %% integer keys
         {"kind 4 too large", [1 bsl 31, 4, 0, 4, 0]},
         {"kind 4 too small", [-(1 bsl 31) - 1, 4, 0, 4, 0]},
         {"kind 4 float", [0, 4, 1.0, 4, 0]},
         {"kind 4 tuple", [{0, 1}, 4, 0, 4, 0]},
         {"kind 27 bare integer", [1, 27, 0, 4, 0]},
         {"kind 27 three-tuple", [{0, 1, 2}, 27, 0, 4, 0]},
         {"kind 27 non-integer", [{0, a}, 27, 0, 4, 0]},
         {"kind 27 too large", [0, 4, {0, 1 bsl 32}, 27, 0]}],
    [{Name, ?_assertEqual(badarg, reason(fun() -> apply(arbo, cmp_keys_nif, Args) end))}
     || {Name, Args} <- Calls].
