%% Key and value codecs: exact round trips both ways (PropEr), the framing
%% rules of each element and value type, and rejection of malformed input.
-module(arbo_codec_tests).
-include_lib("proper/include/proper.hrl").
-include_lib("eunit/include/eunit.hrl").

%% shared with the fuzz suite
-export([key_bytes/0]).

%% A property run quietly; a failure shows the shrunk counterexample.
-define(PROP(P, N), ?assertEqual(true, case proper:quickcheck(P, [{numtests, N}, quiet]) of
                                          true -> true; _ -> {counterexample, proper:counterexample()} end)).

%% ---- generators ------------------------------------------------------------

%% Types without a named form, with the content size rule of the key table.
key_fixed() -> [{28, 4}, {31, 4}, {46, 4}, {40, 5}, {48, 5}, {2, 8}, {44, 8}, {209, 8},
                {23, 9}, {43, 9}, {19, 13}, {16, 16}, {41, 17}, {49, 17}, {27, 28}].
key_var() -> [{14, 0}, {34, 0}, {38, 0}, {208, 0}, {39, 0}, {47, 0}, {206, 0}, {50, 0},
              {201, 6}, {202, 6}, {203, 6}, {18, 2}].

named() ->
    oneof([empty, {int8, integer(-128, 127)}, {uint8, integer(0, 255)}, {bool, boolean()},
           {int16, integer(-32768, 32767)}, {uint16, integer(0, 65535)}, {int32, integer(-(1 bsl 31), (1 bsl 31) - 1)},
           {uint32, integer(0, (1 bsl 32) - 1)}, {int64, integer(-(1 bsl 63), (1 bsl 63) - 1)},
           {uint64, integer(0, (1 bsl 64) - 1)}, {ipv4, {byte(), byte(), byte(), byte()}},
           {bitmask32, integer(0, (1 bsl 32) - 1)}, {bitmask64, integer(0, (1 bsl 64) - 1)},
           {date, {integer(-32768, 32767), byte(), byte()}}, {string, binary()}, {string32, binary()},
           {binary, 17, ?SUCHTHAT(B, binary(1), B > <<1>>)},
           {binary, 20, ?SUCHTHAT(B, binary(6), binary:part(B, 4, 2) =/= <<0, 0>>)}]).

element() ->
    oneof([named(), ?LET({T, N}, oneof(key_fixed()), {binary, T, binary(N)}),
           ?LET({T, Min}, oneof(key_var()), ?LET(B, binary(), {binary, T, <<(binary:copy(<<7>>, Min))/binary, B/binary>>}))]).

key() ->
    ?LET({Es, Rest}, {list(element()), oneof([[], [{binary, 204, binary()}]])}, Es ++ Rest).

%% Mostly well-formed keys, some cut short, some with a byte changed.
key_bytes() ->
    ?LET({K, Mut}, {key(), oneof([none, {cut, nat()}, {flip, nat(), byte()}])}, mutate(arbo_key:encode(K), Mut)).

mutate(B, none) -> B;
mutate(B, {cut, N}) -> binary:part(B, 0, N rem (byte_size(B) + 1));
mutate(<<>>, {flip, _, X}) -> <<X>>;
mutate(B, {flip, N, X}) -> P = N rem byte_size(B), <<H:P/binary, _, T/binary>> = B, <<H/binary, X, T/binary>>.

%% Values: fixed-size types by content size, the rest length-prefixed.
value() ->
    Fixed = [{3, [24, 26]}, {4, [22, 25, 28, 46]}, {5, [21, 40, 48]}, {8, [2, 44, 209]}, {9, [23, 43]}, {13, [19]},
             {16, [16]}, {17, [41, 49]}, {28, [27]}],
    oneof([named(), ?LET({N, Ts}, oneof(Fixed), ?LET(T, oneof(Ts), {binary, T, binary(N)})),
           ?LET(T, oneof([14, 201, 34, 38, 208, 202, 18, 31, 39, 47, 50, 203, 206]), {binary, T, binary()})]).

%% ---- properties --------------------------------------------------------------

%% Terms encode and decode back to themselves (a value's frame is its whole
%% length also with bytes after it); validate agrees with decode, and what
%% decodes encodes back to the same bytes: well-formed, damaged and random
%% input for both codecs.
round_trips_test() ->
    ?PROP(?FORALL(K, key(), arbo_key:decode(arbo_key:encode(K)) =:= {ok, K}), 2000),
    ?PROP(?FORALL({V, Tail}, {value(), binary()}, begin B = arbo_val:encode(V),
        {arbo_val:decode(B), arbo_val:frame(<<B/binary, Tail/binary>>)} =:= {{ok, V}, {ok, byte_size(B)}} end), 2000),
    [?PROP(?FORALL(B, oneof([Gen, binary()]), case {M:validate(B), M:decode(B)} of
               {ok, {ok, X}} -> M:encode(X) =:= B; {{error, R}, {error, R}} -> true; _ -> false end), 3000)
     || {M, Gen} <- [{arbo_key, key_bytes()}, {arbo_val, ?LET(V, value(), arbo_val:encode(V))}]].

%% ---- tables ------------------------------------------------------------------

%% Byte layouts a symmetric mistake would keep through a round trip, then
%% one rejection per framing rule.
key_table_test_() ->
    Cases = [{[{int32, -2}], <<8, 255, 255, 255, 254>>}, {[{date, {2026, 11, 22}}], <<20, 16#07, 16#ea, 11, 22, 0, 0>>},
             {[{binary, 201, <<1, 2, 3, 4, 5, 6, 9>>}], <<201, 7, 1, 2, 3, 4, 5, 6, 9>>},
             {[{uint16, 1}, {binary, 204, <<1, 2>>}], <<11, 0, 1, 204, 1, 2>>}],
    Rejects = [{<<10, 1, 33>>, {unknown_type, 33, 2}}, {<<8, 0, 0>>, {truncated, 8, 0}}, {<<200, 3, 1, 2>>, {truncated, 200, 0}},
               {<<201, 5, 0, 0, 0, 0, 0>>, {bad_length, 201, 0}}, {<<202, 0, 6, 0, 0, 0, 0, 0>>, {truncated, 202, 0}},
               {<<18, 0, 0, 0, 1, 0, 0>>, {bad_length, 18, 0}}, {"ab", not_binary}],
    [?_assertEqual({B, {ok, K}}, {arbo_key:encode(K), arbo_key:decode(B)}) || {K, B} <- Cases] ++
    [?_assertEqual({error, R}, arbo_key:validate(B)) || {B, R} <- Rejects] ++
    [?_assertError({bad_key_element, _}, arbo_key:encode(K)) || K <- [[{int8, 128}], [{binary, 8, <<1, 2, 3, 4>>}]]] ++
    [?_assertError({bad_key, rest_not_last}, arbo_key:encode([{binary, 204, <<>>}, {uint8, 1}])),
     ?_assertError({bad_mode, _}, arbo_key:compare([], [], 7))].

%% Values: length prefixes where keys have fixed sizes (their widths are
%% held against the library by type_codes_test), and refused terms.
value_table_test_() ->
    [?_assertEqual(<<31, 0, 0, 0, 1, 5>>, arbo_val:encode({binary, 31, <<5>>})),
     ?_assertEqual({error, trailing_bytes}, arbo_val:validate(<<8, 1, 2, 3, 4, 5>>))] ++
    [?_assertError({bad_value, _}, arbo_val:encode(V)) || V <- [{int32, 1 bsl 31}, {binary, 24, <<1>>}, {string, 7}]].
