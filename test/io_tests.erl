%% Save files: one byte-exact saved tree, every loader result from
%% hand-made files, checkpoints and capture. (Round trips of trees of every
%% key form: arbo_file_tests.)
-module(io_tests).
-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").


-define(MAGIC, <<16#EE, 16#DA, 0, 1>>).

%% ---- record builders ------------------------------------------------------

cd(Tag) -> <<?OP_CD, Tag:32>>.
cd_dyn(Tag, Cmp) -> <<?OPCODE(?OP_CD_DYN, ?KF_HTAG), Tag:32, Cmp>>.
cd_key(K) -> <<?OPCODE(?OP_CD, ?KF_HKEY_INT), K:32>>.
bin(V) when byte_size(V) < 256 -> <<?OP_INSERT_BIN0, (byte_size(V)), V/binary>>;
bin(V) -> <<?OP_INSERT_BIN, (byte_size(V)):32, V/binary>>.
up() -> <<?OP_CD_UP_1>>.
noops(N) -> binary:copy(<<?OP_NOOP>>, N).

%% A whole file as the saver writes it: magic, begin, blocks, end.
saved(Blocks) -> iolist_to_binary([?MAGIC, ?OP_BEGIN_TRANS, Blocks, ?OP_TRANS_END]).

%% ---- plumbing ----------------------------------------------------------------

nul(Path) -> <<(list_to_binary(Path))/binary, 0>>.

with_tmp(Fun) ->
    P = "/tmp/arbo_io_" ++ integer_to_list(erlang:unique_integer([positive])), try Fun(P) after file:delete(P) end.

save_bytes(T, Mask) ->
    with_tmp(fun(P) -> true = arbo:save_nif(T, nul(P), Mask), {ok, B} = file:read_file(P), B end).

%% Loads Bytes into table T (a fresh one, closed afterwards, for new): the
%% load_nif reply.
load_into(new, Bytes, Cp, Capture) -> T = arbo:new(), try load_into(T, Bytes, Cp, Capture) after arbo:close(T) end;
load_into(T, Bytes, Cp, Capture) ->
    with_tmp(fun(P) -> ok = file:write_file(P, Bytes), arbo:load_nif(T, nul(P), Cp, Capture, undefined) end).


%% ---- the saver, byte for byte -------------------------------------------------

%% One tree holding every record shape the saver writes: every node kind and
%% instance key form, each value and flag width, attributes set out of order.
build_sample(T) ->
    N = arbo:add_hkey(T, arbo:add_hkey_internal(T, R = arbo:get_root(T), 1), [3 | 9], ?KEY_TAG),
    [I6, I5] = [arbo:add_hkey(T, D, K, ?KEY_INT) || D <- [arbo:add_hkey_dyn(T, R, 2, ?ORDER_PLAIN)], K <- [6, 5]],
    [_, _, G, _] = [arbo:add_hkey(T, U, K, C) || U <- [arbo:add_hkey_dyn(T, R, [1 | 3], ?ORDER_USER)], {K, C} <- [{{4, 1}, 27}, {<<"opaque key bytes">>, 6},
                                                            {<<12, 0, 0, 0, 9>>, 5}, {3, 4}]],
    L = arbo:add_hkey(T, R, 5, ?KEY_TAG),
    [ok = arbo:set_val(T, X, K, V) || {X, K, V} <- [{N, 17, <<14, 3, "abc">>}, {I5, 18, <<"v">>},
                                                   {I6, 18, binary:copy(<<"w">>, 300)}, {L, 37, <<14, 1, "z">>}]],
    [arbo:set_flags(T, X, F) || {X, F} <- [{N, 16#100}, {I5, 16#10000}, {G, 1 bsl 32}, {L, 16#FF}]],
    [arbo:do_set_attr(T, N, K, V) || {K, V} <- [{3, <<14, 2, "hi">>}, {2, <<8, 0, 0, 0, 7>>}]],
    Attr = ?OP_SET_ATTRIBUTE,
    saved([<<?OP_CD_INT, 1:32>>, <<?OPCODE(?OP_CD, ?KF_NS_HTAG), 3:32, 9:32>>, <<?OP_INSERT, 14, 3, "abc">>,
           <<?OP_SET_FLAGS16, 1, 0>>, <<Attr, 2:32, 8, 0, 0, 0, 7>>, <<Attr, 3:32, 14, 2, "hi">>, up(), up(),
           cd_dyn(2, ?ORDER_PLAIN), cd_key(5), bin(<<"v">>), <<?OP_SET_FLAGS32, 0, 1, 0, 0>>, up(),
           cd_key(6), bin(binary:copy(<<"w">>, 300)), up(), up(), cd(5), <<?OP_INSERT, 14, 1, "z">>,
           <<?OP_SET_FLAGS8, 255>>, up(), <<?OPCODE(?OP_CD_DYN, ?KF_NS_HTAG), 1:32, 3:32, ?ORDER_USER>>,
           <<?OPCODE(?OP_CD, ?KF_HKEY_INT_BTUPLE), 4, 1:32>>, up(),
           <<?OPCODE(?OP_CD, ?KF_HKEY_BIN), 16:32, "opaque key bytes">>, up(),
           <<?OPCODE(?OP_CD, ?KF_HKEY_GEN), 5:32, 12, 0, 0, 0, 9>>, <<?OP_SET_FLAGS64, (1 bsl 32):64>>, up(),
           cd_key(3), up(), up()]).

%% The sample loads to the same tree, which saves as the same bytes. (Cut
%% and damaged files are arbo_hostile_tests' business.)
sample_file_test() -> reload(fun build_sample/1).

%% Build(T) makes a tree in T and answers its file. The file loads into a
%% fresh table as the same tree, saved as the same bytes.
reload(Build) ->
    Saved = Build(T = arbo:new()),
    {true, _} = load_into(T2 = arbo:new(), Saved, -1, 0),
    ?assertEqual({arbo:get_size(T), arbo_test_util:snapshot(T), Saved},
                 {arbo:get_size(T2), arbo_test_util:snapshot(T2), save_bytes(T2, 0)}),
    arbo:close(T), arbo:close(T2).

%% Values larger than the loader's 1 MiB read buffer, one after another
%% (a refill, then a read past the buffer), come back whole, as do the
%% csvals of 64 and 65 bytes before them.
big_values_test() ->
    reload(fun(T) ->
        Vals = [{?VAL_CSVAL, <<14, 62, (binary:copy(<<"v">>, 62))/binary>>},
                {?VAL_CSVAL, <<14, 63, (binary:copy(<<"w">>, 63))/binary>>}
                | [{?VAL_BINARY, binary:copy(<<"0123456789", C>>, 100000 + C)} || C <- [1, 2, 3]]],
        [ok = arbo:set_val(T, arbo:add_hkey(T, arbo:get_root(T), K, ?KEY_TAG), Kind, V)
         || {K, {Kind, V}} <- lists:enumerate(Vals)],
        save_bytes(T, 0)
    end).

%% Instance blocks one after another are replayed without the dispatch loop
%% while they take its shape (46 key, a 09 or 0D value or none, 07); with a
%% no-op record before each they go through the loop one record at a time.
%% Both give the same tree, in a sorted and a user-ordered list: keys out of
%% order, a repeated key, no value, type 0, inline, long and raw values
%% (empty too), a block of another shape and a deletion between them. The
%% list is longer than the loader's 1 MiB read buffer, which cuts the
%% blocks at a different byte for each count of leading no-op records, also
%% when the file ends right after the last value, before its 07s.
block_runs_test_() ->
    Str = fun(B) -> [9, 200, byte_size(B), B] end,
    Group = fun(G) ->
        K = fun(N) -> cd_key(G * 100 + N) end,
        [[[K(N), V, up()] || {N, V} <- [{10, Str(<<"ab">>)}, {20, []}, {30, [9, 0]}, {15, Str(<<"back">>)},
                                         {20, Str(<<"again">>)}, {40, Str(binary:copy(<<"l">>, 40))},
                                         {50, Str(binary:copy(<<"v">>, 100))}, {60, bin(<<"raw">>)}, {65, bin(<<>>)},
                                         {70, [Str(<<"f">>), 11, 3]}]],
         <<?OPCODE(?OP_DELETE, ?KF_HKEY_INT), (G * 100 + 15):32>>, K(80), Str(<<"end">>), up()]
    end,
    Blocks = [iolist_to_binary(Group(G)) || G <- lists:seq(1, 4500)],
    Load = fun(Bytes) ->
        T = arbo:new(), {true, _} = load_into(T, Bytes, -1, 0), R = {arbo:get_size(T), save_bytes(T, 0)}, arbo:close(T), R
    end,
    {timeout, 120, fun() ->
        [begin
             {40501, _} = Want = Load(saved([cd_dyn(1, Cmp), [[noops(1), B] || B <- Blocks], up()])),
             <<Head:5/binary, Rest/binary>> = saved([cd_dyn(1, Cmp), Blocks, up()]),
             Cut = binary:part(Rest, 0, byte_size(Rest) - 3),
             [?assertEqual({Cmp, Pad, Want}, {Cmp, Pad, Load([Head, noops(Pad), Tail])})
              || Pad <- lists:seq(0, 16), Tail <- [Rest, Cut]]
         end || Cmp <- [0, 3]]
    end}.

%% An empty tree saves as the magic alone; nodes whose flags meet the mask
%% are left out with their subtrees. A file system error answers io
%% (argument decoding and handles are swept by arbo_fuzz_tests); a missing
%% file loads nothing, yet moves the generation.
empty_mask_and_errors_test() ->
    T = arbo:new(),
    ?assertMatch({{error, io}, {true, {0, 0, 0, 0, 0, -1, undefined, undefined}}, 1},
                 {arbo:save_nif(T, nul("/nonexistent_dir/x"), 0), arbo:load_nif(T, nul("/nonexistent_dir/x"), -1, 0, undefined),
                  arbo:get_generation(T)}),
    ?assertEqual({?MAGIC, {true, {0, 4, 0, 0, 0, -1, undefined, undefined}}}, {save_bytes(T, 0), load_into(T, ?MAGIC, -1, 0)}),
    Skipped = arbo:add_hkey(T, R = arbo:get_root(T), 1, ?KEY_TAG),
    [arbo:set_flags(T, N, F) || {N, F} <- [{Skipped, 7}, {arbo:add_hkey(T, Skipped, 10, ?KEY_TAG), 0}, {arbo:add_hkey(T, R, 2, ?KEY_TAG), 2}]],
    ?assertEqual(saved([cd(2), <<?OP_SET_FLAGS8, 2>>, up()]), save_bytes(T, 6)),
    arbo:close(T).

%% ---- the loader's answers ---------------------------------------------------

load_results_test_() ->
    {M, Huge} = {?MAGIC, <<16#FF, 16#FF, 16#FF, 16#F0>>},
    %% After the plain error codes: a csval tag without a length rule; a
    %% container under a list, a binary delete under a leaf, a move in a
    %% sorted list; up past the root and a value at the root (the load ends
    %% there); a huge instance key and attribute; an invalid transaction at 9.
    Cases = [{<<16#EE, 16#DA, 0>>, io}, {<<1, 0, 16#DA, 16#EE>>, invalid_magic}, {<<M/binary, 16#1C>>, invalid_op},
             {<<M/binary, 16#E6, 0, 0, 0, 1>>, invalid_key_type}, {<<M/binary, 0>>, not_implemented},
             {<<M/binary, 21>>, deprecated_op}, {<<M/binary, (cd(1))/binary, 9, 250>>, invalid_data},
             {<<M/binary, (cd_dyn(1, 0))/binary, 16#0F, 2:32>>, invalid_node_type},
             {<<M/binary, (cd(1))/binary, 16#8A, 0, 0, 0, 1, $a>>, invalid_node_type},
             {<<M/binary, (cd_dyn(1, 0))/binary, 16#53, 0, 0, 0, 1, 0, 0, 0, 0>>, invalid_node_type},
             {<<M/binary, 7, 0>>, undefined}, {<<M/binary, 13, 1, $a, 0>>, undefined},
             {<<M/binary, 18, 0, 0, 0, 1, 39, Huge/binary>>, io}, {<<M/binary, (cd_dyn(1, 0))/binary, 16#86, Huge/binary>>, io},
             {<<M/binary, (noops(5))/binary, 1, 0>>, {checkpoint, 10}}],
    %% the outcome: undefined (a whole load), {checkpoint, N} (stopped at N) or the error
    [?_assertEqual({Bytes, Want}, {Bytes, case load_into(new, Bytes, -1, 0) of {true, R} -> element(8, R); {error, E} -> E end})
     || {Bytes, Want} <- Cases].

%% Checkpoints at opcode positions 100 and 200; a transaction count, the
%% file size and the node count come back in the reply. Capture 1 answers
%% the binary value of a top-level leaf with tag 0 in namespace 0; anything
%% else captures nothing.
checkpoint_and_capture_test() ->
    Pre = <<(?MAGIC)/binary, 2, (cd(1))/binary, 7, (noops(89))/binary, 4, (noops(99))/binary>>,
    [File, One] = [<<Pre/binary, Op, (cd(2))/binary, 7, 3>> || Op <- [4, 5]],
    Top = [cd(0), bin(<<"abc">>), up()],
    %% {checkpoint argument, file, transactions, checkpoint recorded, stop}
    Rows = [{-2, File, 1, -1, {checkpoint, 200}}, {-2, One, 2, 99, undefined}, {199, File, 1, -1, {checkpoint, 100}}],
    [?assertEqual({Cp, F, {true, {1, byte_size(File), Tx, 0, 0, Rec, undefined, Stop}}}, {Cp, F, load_into(new, F, Cp, 0)})
     || {Cp, F, Tx, Rec, Stop} <- Rows],
    Caps = [{Top, 1, <<"abc">>}, {Top, 0, undefined}, {[<<?OPCODE(?OP_CD, ?KF_NS_HTAG), 1:32, 0:32>>, bin(<<"abc">>), up()], 1, undefined},
            {[cd(0), Top, up()], 1, undefined}],
    [?assertEqual({B, C, Want}, {B, C, element(7, element(2, load_into(new, saved(B), -1, C)))}) || {B, C, Want} <- Caps].
