%% @doc Encoded tuple keys: the byte form of a list instance key made of
%% typed elements, as the library orders and stores it.
%%
%% An encoded key is a concatenation of elements, each starting with a type
%% byte that fixes its header length (type byte included) and its payload
%% length. The element table is the library's: fixed-size types have a
%% 1-byte header; variable types carry a big-endian length field. Four types
%% count part of their own header in that field: 201, 202 and 203 (6 header
%% bytes after the field) and 18 (2 header bytes after the field), so their
%% field is never below 6 (respectively 2). Type 204 is an opaque rest: it
%% takes every remaining byte, its own type byte included, and so can only
%% come last.
%%
%% The library reads keys without validating them and aborts the whole VM at
%% the first element it cannot parse. {@link validate/1} accepts exactly the
%% binaries the library's element parser walks to the end without aborting:
%% every type byte in the table, every length field inside the binary, no
%% element running past the end.
%%
%% Erlang form of a key: a list of elements. Named elements are those of
%% {@link arbo_val} (`{int32, 5}', `{uint8, 7}', `{string, <<"eth0">>}',
%% `{ipv4, {10,0,0,1}}', `{bool, true}', `{date, {2026,11,22}}', `{int64,
%% N}', `{uint64, N}', `{bitmask32, N}', `{bitmask64, N}', `empty', ...);
%% every other type is `{binary, Type, Content}', where Content is what the
%% type's length field counts: the payload for plain types, the extra header
%% bytes and the payload for 201, 202, 203 and 18, the fixed payload for
%% fixed types, and everything after the type byte for 204. Round trips are
%% exact both ways.
-module(arbo_key).

-export([encode/1, decode/1, validate/1, compare/2, compare/3]).
-export_type([element/0, key/0, reason/0, mode/0]).

-type element() :: arbo_val:value().
-type key() :: [element()].
-type mode() :: plain | length_first | length_first_but_last.
-type reason() :: not_binary | too_long
                | {unknown_type, arbo_val:type_code(), Offset :: non_neg_integer()}
                | {truncated, arbo_val:type_code(), Offset :: non_neg_integer()}
                | {bad_length, arbo_val:type_code(), Offset :: non_neg_integer()}.

%% Largest key the library can hold (its key lengths are signed 32-bit).
-define(MAX_KEY, 16#7fffffff).

-include("arbo_error.hrl").

%% ---------------------------------------------------------------------------
%% Element table: {fixed, N} payload; {len, W} W-byte length field counting
%% the payload; {field, W, H} W-byte field counting H further header bytes
%% and the payload; rest.

rule(0) -> {fixed, 0};
rule(T) when T =:= 6; T =:= 10; T =:= 17 -> {fixed, 1};
rule(T) when T =:= 7; T =:= 11 -> {fixed, 2};
rule(T) when T =:= 8; T =:= 12; T =:= 15; T =:= 28; T =:= 29; T =:= 31; T =:= 46 -> {fixed, 4};
rule(T) when T =:= 40; T =:= 48 -> {fixed, 5};
rule(20) -> {fixed, 6};
rule(T) when T =:= 2; T =:= 9; T =:= 13; T =:= 30; T =:= 44; T =:= 209 -> {fixed, 8};
rule(T) when T =:= 23; T =:= 43 -> {fixed, 9};
rule(19) -> {fixed, 13};
rule(16) -> {fixed, 16};
rule(T) when T =:= 41; T =:= 49 -> {fixed, 17};
rule(27) -> {fixed, 28};
rule(T) when T =:= 14; T =:= 200 -> {len, 1};
rule(T) when T =:= 34; T =:= 38; T =:= 208 -> {len, 2};
rule(T) when T =:= 39; T =:= 47; T =:= 205; T =:= 206; T =:= 50 -> {len, 4};
rule(201) -> {field, 1, 6};
rule(202) -> {field, 2, 6};
rule(203) -> {field, 4, 6};
rule(18) -> {field, 4, 2};
rule(204) -> rest;
rule(_) -> unknown.

%% ---------------------------------------------------------------------------
%% Public API

%% @doc Encode a key given as a list of elements. Raises
%% `error({bad_key_element, E})' for an element that is not an
%% {@link element()}, `error({bad_key, rest_not_last})' when a type-204
%% element is not the last, and `error({bad_key, K})' for a K that is not a
%% list.
-spec encode(key()) -> binary().
encode(Elems) when is_list(Elems) -> encode(Elems, []);
encode(K) -> error({bad_key, K}).

encode([], Acc) ->
    Bin = iolist_to_binary(lists:reverse(Acc)),
    byte_size(Bin) =< ?MAX_KEY orelse error({bad_key, too_long}),
    Bin;
encode([{binary, 204, Rest} | More], Acc) when is_binary(Rest) ->
    More =:= [] orelse error({bad_key, rest_not_last}),
    encode([], [<<204, Rest/binary>> | Acc]);
encode([E | More], Acc) ->
    case encode_element(E) of
        {ok, Bin} -> encode(More, [Bin | Acc]);
        error -> error({bad_key_element, E})
    end;
encode(_Improper, _Acc) ->
    error({bad_key, improper_list}).

%% @doc Decode an encoded key into its elements.
-spec decode(term()) -> {ok, key()} | {error, reason()}.
decode(Bin) when is_binary(Bin), byte_size(Bin) =< ?MAX_KEY -> decode(Bin, 0, []);
decode(Bin) when is_binary(Bin) -> {error, too_long};
decode(_) -> {error, not_binary}.

%% @doc `ok' when the library can parse every element of the binary; never
%% raises, whatever the term.
-spec validate(term()) -> ok | {error, reason()}.
validate(Bin) when is_binary(Bin), byte_size(Bin) =< ?MAX_KEY -> walk(Bin, 0);
validate(Bin) when is_binary(Bin) -> {error, too_long};
validate(_) -> {error, not_binary}.

%% @equiv compare(K1, K2, plain)
-spec compare(key() | {opaque, binary()}, key() | {opaque, binary()}) -> -1 | 0 | 1.
compare(K1, K2) -> compare(K1, K2, plain).

%% @doc The library's order of two instance keys in one of the three ordering
%% modes of sorted lists: -1, 0 or 1. A key is an element list or
%% `{opaque, Bin}' (a binary taken whole as one element). Raises
%% `error({bad_key, K})' for anything else (the library is never handed a key
%% that failed to encode).
-spec compare(key() | {opaque, binary()}, key() | {opaque, binary()}, mode()) -> -1 | 0 | 1.
compare(K1, K2, Mode) ->
    M = case Mode of
            plain -> 0;
            length_first -> 1;
            length_first_but_last -> 2;
            _ -> error({bad_mode, Mode})
        end,
    {B1, C1} = key_arg(K1),
    {B2, C2} = key_arg(K2),
    R = arbo:cmp_keys_nif(B1, C1, B2, C2, M),
    if R < 0 -> -1; R > 0 -> 1; true -> 0 end.

%% ---------------------------------------------------------------------------
%% Internals

key_arg({opaque, B}) when is_binary(B), byte_size(B) =< ?MAX_KEY -> {B, 6};
key_arg(K) when is_list(K) -> {encode(K), 5};
key_arg(K) -> error({bad_key, K}).

encode_element({binary, T, C}) when is_integer(T), T >= 0, T =< 255, is_binary(C) ->
    Size = byte_size(C),
    Bin = case rule(T) of
              {fixed, N} when Size =:= N -> <<T, C/binary>>;
              {len, W} when Size < 1 bsl (8 * W) -> <<T, Size:W/unit:8, C/binary>>;
              {field, W, H} when Size >= H, Size < 1 bsl (8 * W) ->
                  <<T, Size:W/unit:8, C/binary>>;
              _ -> error
          end,
    %% A named type takes its named form, so that decoding gives it back.
    case Bin =/= error andalso arbo_val:decode_named(T, C) =:= none of
        true -> {ok, Bin};
        false -> error
    end;
encode_element(E) -> arbo_val:encode_named(E).

%% One element: its header length and payload length, or an error.
element(T, Bin, Off) ->
    Size = byte_size(Bin),
    case rule(T) of
        {fixed, N} -> fits(T, Off, 1, N, Size);
        {len, W} ->
            case Bin of
                <<_:Off/binary, _, L:W/unit:8, _/binary>> -> fits(T, Off, 1 + W, L, Size);
                _ -> {error, {truncated, T, Off}}
            end;
        {field, W, H} ->
            case Bin of
                <<_:Off/binary, _, L:W/unit:8, _/binary>> when L >= H ->
                    fits(T, Off, 1 + W + H, L - H, Size);
                <<_:Off/binary, _, _:W/unit:8, _/binary>> -> {error, {bad_length, T, Off}};
                _ -> {error, {truncated, T, Off}}
            end;
        rest -> {ok, 0, Size - Off};
        unknown -> {error, {unknown_type, T, Off}}
    end.

fits(_T, Off, Hdr, Len, Size) when Off + Hdr + Len =< Size -> {ok, Hdr, Len};
fits(T, Off, _, _, _) -> {error, {truncated, T, Off}}.

walk(Bin, Off) ->
    case Bin of
        <<_:Off/binary, T, _/binary>> ->
            case element(T, Bin, Off) of
                {ok, Hdr, Len} -> walk(Bin, Off + Hdr + Len);
                {error, _} = E -> E
            end;
        _ -> ok
    end.

decode(Bin, Off, Acc) ->
    case Bin of
        <<_:Off/binary, 204, Rest/binary>> ->
            {ok, lists:reverse(Acc, [{binary, 204, Rest}])};
        <<_:Off/binary, T, _/binary>> ->
            case element(T, Bin, Off) of
                {ok, Hdr, Len} ->
                    %% Content: what follows the type byte and the length field.
                    Skip = case rule(T) of
                               {len, W} -> 1 + W;
                               {field, W, _} -> 1 + W;
                               _ -> 1
                           end,
                    CLen = Hdr + Len - Skip,
                    <<_:Off/binary, _:Skip/binary, C:CLen/binary, _/binary>> = Bin,
                    E = case arbo_val:decode_named(T, C) of
                            none -> {binary, T, C};
                            Named -> Named
                        end,
                    decode(Bin, Off + Hdr + Len, [E | Acc]);
                {error, _} = Err -> Err
            end;
        _ -> {ok, lists:reverse(Acc)}
    end.
