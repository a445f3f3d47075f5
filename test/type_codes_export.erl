%% Writes what the Erlang codecs say about every type code 0..255, for the
%% C++ test that holds the library's own tables against them
%% (test/type_codes_test.cpp). Everything is read through the public API,
%% never from the codecs' internal tables.
%%
%% Lines:
%%   val Code fixed N | val Code prefix W | val Code unknown
%%       how arbo_val frames a csval of that type
%%   key Code HexProbe Extent | key Code HexProbe error
%%       how far arbo_key's parser takes the first element of the probe
%%       (type byte included), or that it refuses the probe
-module(type_codes_export).
-export([main/1]).

main([Out]) ->
    Lines = [[val_line(T), key_lines(T)] || T <- lists:seq(0, 255)],
    ok = file:write_file(Out, Lines).

%% A fixed type frames the same whatever follows the type byte; a prefixed
%% one takes its length from the bytes after it.
val_line(T) ->
    Pad = binary:copy(<<0>>, 64),
    case {arbo_val:frame(<<T, Pad/binary>>), arbo_val:frame(<<T, 1, Pad/binary>>)} of
        {{error, {unknown_type, T}}, _} -> io_lib:format("val ~b unknown~n", [T]);
        {{ok, N}, {ok, N}} -> io_lib:format("val ~b fixed ~b~n", [T, N - 1]);
        {{ok, N}, _} -> io_lib:format("val ~b prefix ~b~n", [T, N - 1])
    end.

%% Probes: length fields of 0, of a few bytes, of more than the probe holds,
%% and (for types whose field counts header bytes) below that count.
key_lines(T) ->
    Fields = [<<0, 0, 0, 0>>, <<3, 0, 0, 0>>, <<0, 9, 0, 0>>, <<0, 0, 0, 7>>,
              <<8, 0, 0, 0>>, <<255, 255, 255, 255>>],
    [key_line(T, <<T, F/binary, (binary:copy(<<0>>, 40))/binary>>) || F <- Fields].

key_line(T, Probe) ->
    Hex = binary:encode_hex(Probe),
    case extent(Probe) of
        error -> io_lib:format("key ~b ~s error~n", [T, Hex]);
        N -> io_lib:format("key ~b ~s ~b~n", [T, Hex, N])
    end.

%% The first element ends where the shortest prefix that decodes ends, unless
%% the element takes whatever follows it (the whole probe decodes with a
%% longer first element).
extent(Probe) ->
    case first_ok(Probe, 1) of
        error -> error;
        {K, E} ->
            case arbo_key:decode(Probe) of
                {ok, [E2 | Rest]} when E2 =/= E ->
                    byte_size(Probe) - byte_size(arbo_key:encode(Rest));
                _ -> K
            end
    end.

first_ok(Probe, K) when K > byte_size(Probe) -> error;
first_ok(Probe, K) ->
    case arbo_key:decode(binary:part(Probe, 0, K)) of
        {ok, [E]} -> {K, E};
        _ -> first_ok(Probe, K + 1)
    end.
