%% @doc Encoded values ("csval"): the self-describing byte form in which
%% leaves hold typed values and attributes hold theirs.
%%
%% A csval is one type byte, then either a payload of a length fixed by the
%% type, or a big-endian length prefix of 1, 2 or 4 bytes and that many
%% payload bytes. Type 0 is "no value" and has nothing after it. The lengths
%% are the library's value-length table; a type the table does not know has
%% no length rule and is refused, as the loader refuses it.
%%
%% Erlang forms (the same names as the elements of encoded tuple keys,
%% {@link arbo_key}):
%% <ul>
%%  <li>`empty' (type 0)</li>
%%  <li>`{int8, I}' (6), `{uint8, I}' (10), `{bool, B}' (17),
%%      `{int16, I}' (7), `{uint16, I}' (11), `{int32, I}' (8),
%%      `{uint32, I}' (12), `{int64, I}' (9), `{uint64, I}' (13)</li>
%%  <li>`{ipv4, {A, B, C, D}}' (15), `{bitmask32, M}' (29),
%%      `{bitmask64, M}' (30)</li>
%%  <li>`{date, {Year, Month, Day}}' (20: signed 16-bit year, month and day
%%      bytes, two further bytes that are 0)</li>
%%  <li>`{string, Bin}': type 200 (1-byte length) up to 255 bytes, type 205
%%      (4-byte length) beyond; `{string32, Bin}' is always type 205</li>
%%  <li>`{binary, Type, Payload}' for every other type the table knows, and
%%      for payloads of types 17 and 20 that the named forms cannot say
%%      (a boolean byte other than 0 and 1, a date whose two further bytes
%%      are not 0)</li>
%% </ul>
%% Decoding always yields the named form where there is one, so
%% `decode(encode(V)) =:= {ok, V}' and `encode(V) =:= B' for `{ok, V} =
%% decode(B)': round trips are exact both ways. {@link encode/1} refuses a
%% `{binary, ...}' form that has a named one.
-module(arbo_val).

-export([encode/1, decode/1, validate/1, frame/1]).
%% Shared with arbo_key: the named element forms and their type codes.
-export([encode_named/1, decode_named/2]).

-export_type([value/0, type_code/0, reason/0]).

-define(IS_BYTE(X), (is_integer(X) andalso X >= 0 andalso X =< 255)).

-type type_code() :: 0..255.
-type value() ::
        empty
      | {int8, -16#80..16#7f} | {uint8, 0..16#ff} | {bool, boolean()}
      | {int16, -16#8000..16#7fff} | {uint16, 0..16#ffff}
      | {int32, -16#80000000..16#7fffffff} | {uint32, 0..16#ffffffff}
      | {int64, integer()} | {uint64, non_neg_integer()}
      | {ipv4, {byte(), byte(), byte(), byte()}}
      | {bitmask32, 0..16#ffffffff} | {bitmask64, non_neg_integer()}
      | {date, {-16#8000..16#7fff, byte(), byte()}}
      | {string, binary()} | {string32, binary()}
      | {binary, type_code(), binary()}.
-type reason() :: not_binary | empty_input | trailing_bytes
                | {unknown_type, type_code()} | {truncated, type_code()}.

-include("arbo_error.hrl").

%% ---------------------------------------------------------------------------
%% Value-length table: {fixed, PayloadLength} or {prefix, Width}.

-spec rule(type_code()) -> {fixed, non_neg_integer()} | {prefix, 1 | 2 | 4} | unknown.
rule(0) -> {fixed, 0};
rule(T) when T =:= 6; T =:= 10; T =:= 17 -> {fixed, 1};
rule(T) when T =:= 7; T =:= 11 -> {fixed, 2};
rule(T) when T =:= 24; T =:= 26 -> {fixed, 3};
rule(T) when T =:= 8; T =:= 12; T =:= 15; T =:= 22; T =:= 25; T =:= 28; T =:= 29;
             T =:= 46 -> {fixed, 4};
rule(T) when T =:= 21; T =:= 40; T =:= 48 -> {fixed, 5};
rule(20) -> {fixed, 6};
rule(T) when T =:= 2; T =:= 9; T =:= 13; T =:= 30; T =:= 44; T =:= 209 -> {fixed, 8};
rule(T) when T =:= 23; T =:= 43 -> {fixed, 9};
rule(19) -> {fixed, 13};
rule(16) -> {fixed, 16};
rule(T) when T =:= 41; T =:= 49 -> {fixed, 17};
rule(27) -> {fixed, 28};
rule(T) when T =:= 14; T =:= 200; T =:= 201 -> {prefix, 1};
rule(T) when T =:= 34; T =:= 38; T =:= 208; T =:= 202 -> {prefix, 2};
rule(T) when T =:= 18; T =:= 31; T =:= 39; T =:= 47; T =:= 50; T =:= 203; T =:= 205;
             T =:= 206 -> {prefix, 4};
rule(_) -> unknown.

%% ---------------------------------------------------------------------------
%% Public API

%% @doc Encode a value. Raises `error({bad_value, V})' for a term that is not
%% a {@link value()} (out of range, wrong shape, a payload of the wrong length
%% for its type, a `{binary, ...}' form of a named type).
-spec encode(value()) -> binary().
encode(V) ->
    case encode_value(V) of
        {ok, Bin} -> Bin;
        error -> error({bad_value, V})
    end.

%% @doc Decode exactly one csval that fills the whole binary.
-spec decode(term()) -> {ok, value()} | {error, reason()}.
decode(Bin) when is_binary(Bin) ->
    case split(Bin) of
        {ok, V, <<>>} -> {ok, V};
        {ok, _, _} -> {error, trailing_bytes};
        {error, _} = E -> E
    end;
decode(_) -> {error, not_binary}.

%% @doc Check that a binary is exactly one well-formed csval.
-spec validate(term()) -> ok | {error, reason()}.
validate(Bin) when is_binary(Bin) ->
    case frame(Bin) of
        {ok, N} when N =:= byte_size(Bin) -> ok;
        {ok, _} -> {error, trailing_bytes};
        {error, _} = E -> E
    end;
validate(_) -> {error, not_binary}.

%% @doc The size in bytes of the csval at the start of a binary (type byte
%% and length prefix included), read without trusting any length beyond the
%% binary's end.
-spec frame(binary()) -> {ok, pos_integer()} | {error, reason()}.
frame(<<>>) -> {error, empty_input};
frame(<<T, Rest/binary>>) ->
    case rule(T) of
        {fixed, N} when byte_size(Rest) >= N -> {ok, 1 + N};
        {fixed, _} -> {error, {truncated, T}};
        {prefix, W} ->
            case Rest of
                <<N:W/unit:8, _:N/binary, _/binary>> -> {ok, 1 + W + N};
                _ -> {error, {truncated, T}}
            end;
        unknown -> {error, {unknown_type, T}}
    end.

%% ---------------------------------------------------------------------------
%% Named element forms, shared with the key codec (the two encodings agree on
%% every named type).

%% @private
%% @doc The bytes of a named element form (type byte included), or `error'
%% for a term that is no named form or is out of range.
-spec encode_named(term()) -> {ok, binary()} | error.
encode_named(empty) -> {ok, <<0>>};
encode_named({int8, I}) when is_integer(I), I >= -16#80, I =< 16#7f -> {ok, <<6, I:8/signed>>};
encode_named({uint8, I}) when is_integer(I), I >= 0, I =< 16#ff -> {ok, <<10, I>>};
encode_named({bool, true}) -> {ok, <<17, 1>>};
encode_named({bool, false}) -> {ok, <<17, 0>>};
encode_named({int16, I}) when is_integer(I), I >= -16#8000, I =< 16#7fff ->
    {ok, <<7, I:16/signed>>};
encode_named({uint16, I}) when is_integer(I), I >= 0, I =< 16#ffff -> {ok, <<11, I:16>>};
encode_named({int32, I}) when is_integer(I), I >= -16#80000000, I =< 16#7fffffff ->
    {ok, <<8, I:32/signed>>};
encode_named({uint32, I}) when is_integer(I), I >= 0, I =< 16#ffffffff -> {ok, <<12, I:32>>};
encode_named({int64, I}) when is_integer(I), I >= -(1 bsl 63), I < 1 bsl 63 ->
    {ok, <<9, I:64/signed>>};
encode_named({uint64, I}) when is_integer(I), I >= 0, I < 1 bsl 64 -> {ok, <<13, I:64>>};
encode_named({ipv4, {A, B, C, D}}) when ?IS_BYTE(A), ?IS_BYTE(B), ?IS_BYTE(C), ?IS_BYTE(D) ->
    {ok, <<15, A, B, C, D>>};
encode_named({bitmask32, M}) when is_integer(M), M >= 0, M =< 16#ffffffff -> {ok, <<29, M:32>>};
encode_named({bitmask64, M}) when is_integer(M), M >= 0, M < 1 bsl 64 -> {ok, <<30, M:64>>};
encode_named({date, {Y, M, D}}) when is_integer(Y), Y >= -16#8000, Y =< 16#7fff,
                                     ?IS_BYTE(M), ?IS_BYTE(D) ->
    {ok, <<20, Y:16/signed, M, D, 0, 0>>};
encode_named({string, S}) when is_binary(S), byte_size(S) =< 16#ff ->
    {ok, <<200, (byte_size(S)), S/binary>>};
encode_named({string, S}) when is_binary(S), byte_size(S) =< 16#ffffffff ->
    {ok, <<205, (byte_size(S)):32, S/binary>>};
encode_named({string32, S}) when is_binary(S), byte_size(S) =< 16#ffffffff ->
    {ok, <<205, (byte_size(S)):32, S/binary>>};
encode_named(_) -> error.

%% @private
%% @doc The named form of an element of type `T' whose payload (the bytes
%% after its header) is `P', or `none' when the type has no named form or the
%% payload is one the named form cannot say.
-spec decode_named(type_code(), binary()) -> value() | none.
decode_named(0, <<>>) -> empty;
decode_named(6, <<I:8/signed>>) -> {int8, I};
decode_named(10, <<I>>) -> {uint8, I};
decode_named(17, <<0>>) -> {bool, false};
decode_named(17, <<1>>) -> {bool, true};
decode_named(7, <<I:16/signed>>) -> {int16, I};
decode_named(11, <<I:16>>) -> {uint16, I};
decode_named(8, <<I:32/signed>>) -> {int32, I};
decode_named(12, <<I:32>>) -> {uint32, I};
decode_named(9, <<I:64/signed>>) -> {int64, I};
decode_named(13, <<I:64>>) -> {uint64, I};
decode_named(15, <<A, B, C, D>>) -> {ipv4, {A, B, C, D}};
decode_named(29, <<M:32>>) -> {bitmask32, M};
decode_named(30, <<M:64>>) -> {bitmask64, M};
decode_named(20, <<Y:16/signed, M, D, 0, 0>>) -> {date, {Y, M, D}};
decode_named(200, S) -> {string, S};
decode_named(205, S) when byte_size(S) > 16#ff -> {string, S};
decode_named(205, S) -> {string32, S};
decode_named(_, _) -> none.

%% ---------------------------------------------------------------------------
%% Internals

encode_value({binary, T, P}) when is_integer(T), T >= 0, T =< 255, is_binary(P) ->
    Bin = case rule(T) of
              {fixed, N} when byte_size(P) =:= N -> <<T, P/binary>>;
              {prefix, W} when byte_size(P) < 1 bsl (8 * W) ->
                  <<T, (byte_size(P)):W/unit:8, P/binary>>;
              _ -> error
          end,
    %% Only the form decoding gives back: a named type takes its named form.
    case Bin =/= error andalso decode_named(T, P) =:= none of
        true -> {ok, Bin};
        false -> error
    end;
encode_value(V) -> encode_named(V).

%% The csval at the start of Bin, decoded, and what follows it.
split(Bin) ->
    case frame(Bin) of
        {ok, N} ->
            <<T, Rest/binary>> = Bin,
            HdrLen = case rule(T) of {prefix, W} -> W; {fixed, _} -> 0 end,
            PLen = N - 1 - HdrLen,
            <<_:HdrLen/binary, P:PLen/binary, Tail/binary>> = Rest,
            V = case decode_named(T, P) of
                    none -> {binary, T, P};
                    Named -> Named
                end,
            {ok, V, Tail};
        {error, _} = E -> E
    end.
