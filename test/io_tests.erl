%% Save files: one byte-exact saved tree cut at every offset, every loader
%% result from hand-made files, checkpoints, capture and round trips of
%% random trees.
-module(io_tests).
-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [reason/1]).

-define(MAGIC, <<16#EE, 16#DA, 0, 1>>).

%% ---- record builders ------------------------------------------------------

cd(Tag) -> <<6, Tag:32>>.
cd_ns(Ns, Tag) -> <<16#26, Ns:32, Tag:32>>.
cd_int(Tag) -> <<16#0F, Tag:32>>.
cd_dyn(Tag, Cmp) -> <<16#14, Tag:32, Cmp>>.
cd_dyn_ns(Ns, Tag, Cmp) -> <<16#34, Ns:32, Tag:32, Cmp>>.
inst(K) -> <<16#46, K:32>>.
inst_bt(Type, K) -> <<16#66, Type, K:32>>.
inst_bin(B) -> <<16#86, (byte_size(B)):32, B/binary>>.
inst_gen(B) -> <<16#A6, (byte_size(B)):32, B/binary>>.
bin(V) when byte_size(V) < 256 -> <<13, (byte_size(V)), V/binary>>;
bin(V) -> <<14, (byte_size(V)):32, V/binary>>.
attr(Id, V) -> <<18, Id:32, V/binary>>.
up() -> <<7>>.
noops(N) -> binary:copy(<<5>>, N).

%% A whole file as the saver writes it: magic, 02, blocks, 03.
saved(Blocks) -> iolist_to_binary([?MAGIC, 2, Blocks, 3]).

%% ---- plumbing ----------------------------------------------------------------

nul(Path) -> <<(list_to_binary(Path))/binary, 0>>.

with_tmp(Fun) ->
    P = "/tmp/arbo_io_" ++ os:getpid() ++ "_" ++ integer_to_list(erlang:unique_integer([positive])),
    try Fun(P) after file:delete(P) end.

save_bytes(T, Mask) ->
    with_tmp(fun(P) -> true = arbo:save_nif(T, nul(P), Mask), {ok, B} = file:read_file(P), B end).

%% Loads Bytes into table T (a fresh one, closed afterwards, for new): the
%% load_nif reply.
load_into(new, Bytes, Checkpoint, Capture) ->
    T = arbo:new(),
    try load_into(T, Bytes, Checkpoint, Capture) after arbo:close(T) end;
load_into(T, Bytes, Checkpoint, Capture) ->
    with_tmp(fun(P) -> ok = file:write_file(P, Bytes),
                       arbo:load_nif(T, nul(P), Checkpoint, Capture, undefined) end).

%% Just the outcome: ok, {truncate, N} or the error atom.
outcome(Bytes) -> outcome_of(load_into(new, Bytes, -1, 0)).
outcome_of({true, {_, _, _, _, _, _, _, undefined}}) -> ok;
outcome_of({true, {_, _, _, _, _, _, _, {checkpoint, N}}}) -> {truncate, N};
outcome_of({error, E}) -> E.

%% ---- the saver, byte for byte -------------------------------------------------

%% One tree holding every record shape the saver writes: every node kind and
%% instance key form, each value and flag width, attributes set out of order.
build_sample(T) ->
    R = arbo:get_root(T),
    N = arbo:add_hkey(T, arbo:add_hkey_internal(T, R, 1), [3 | 9], 2),
    D = arbo:add_hkey_dyn(T, R, 2, 0),
    [I6, I5] = [arbo:add_hkey(T, D, K, 4) || K <- [6, 5]],
    U = arbo:add_hkey_dyn(T, R, [1 | 3], 3),
    [_, _, G, _] = [arbo:add_hkey(T, U, K, C) || {K, C} <- [{{4, 1}, 27}, {<<"opaque key bytes">>, 6},
                                                            {<<12, 0, 0, 0, 9>>, 5}, {3, 4}]],
    L = arbo:add_hkey(T, R, 5, 2),
    [ok = arbo:set_val(T, X, K, V) || {X, K, V} <- [{N, 17, <<14, 3, "abc">>}, {I5, 18, <<"v">>},
                                                   {I6, 18, binary:copy(<<"w">>, 300)}, {L, 37, <<14, 1, "z">>}]],
    [arbo:set_flags(T, X, F) || {X, F} <- [{N, 16#100}, {I5, 16#10000}, {G, 1 bsl 32}, {L, 16#FF}]],
    [arbo:do_set_attr(T, N, K, V) || {K, V} <- [{3, <<14, 2, "hi">>}, {2, <<8, 0, 0, 0, 7>>}]],
    saved([cd_int(1), cd_ns(3, 9), <<9, 14, 3, "abc">>, <<17, 1, 0>>,
           attr(2, <<8, 0, 0, 0, 7>>), attr(3, <<14, 2, "hi">>), up(), up(),
           cd_dyn(2, 0), inst(5), bin(<<"v">>), <<22, 0, 1, 0, 0>>, up(),
           inst(6), bin(binary:copy(<<"w">>, 300)), up(), up(),
           cd(5), <<9, 14, 1, "z">>, <<11, 255>>, up(),
           cd_dyn_ns(1, 3, 3), inst_bt(4, 1), up(), inst_bin(<<"opaque key bytes">>), up(),
           inst_gen(<<12, 0, 0, 0, 9>>), <<23, (1 bsl 32):64>>, up(), inst(3), up(), up()]).

%% The sample saves byte for byte, reloads to the same tree and bytes, and
%% every proper prefix of it loads as a whole file or fails as io.
sample_file_test() ->
    T = arbo:new(),
    File = build_sample(T),
    ?assertEqual(File, save_bytes(T, 0)),
    reload(T, File),
    Outcomes = [outcome(binary:part(File, 0, N)) || N <- lists:seq(0, byte_size(File) - 1)],
    ?assertEqual([], [O || O <- Outcomes, O =/= ok, O =/= io]),
    ?assertEqual(io, hd(Outcomes)).

%% Loads Saved into a fresh table: the same tree, saved as the same bytes.
%% Closes both tables.
reload(T, Saved) ->
    T2 = arbo:new(),
    ?assertMatch({true, _}, load_into(T2, Saved, -1, 0)),
    ?assertEqual({arbo:get_size(T), arbo_tree_util:snapshot(T)},
                 {arbo:get_size(T2), arbo_tree_util:snapshot(T2)}),
    ?assertEqual(Saved, save_bytes(T2, 0)),
    arbo:close(T), arbo:close(T2).

%% An empty tree saves as the magic alone; nodes whose flags meet the mask
%% are left out with their subtrees.
empty_and_mask_test() ->
    T = arbo:new(),
    ?assertEqual(?MAGIC, save_bytes(T, 0)),
    ?assertMatch({true, {0, 4, 0, 0, 0, -1, undefined, undefined}}, load_into(T, ?MAGIC, -1, 0)),
    R = arbo:get_root(T),
    Skipped = arbo:add_hkey(T, R, 1, 2),
    arbo:add_hkey(T, Skipped, 10, 2),
    arbo:set_flags(T, Skipped, 7),
    arbo:set_flags(T, arbo:add_hkey(T, R, 2, 2), 2),
    ?assertEqual(saved([cd(2), <<11, 2>>, up()]), save_bytes(T, 6)),
    arbo:close(T).

%% One row per error path: io from the file system, badarg before the
%% handle, arbo_closed after it.
io_errors_test() ->
    T = arbo:new(),
    Save = fun(Path, Mask) -> fun() -> arbo:save_nif(T, Path, Mask) end end,
    Load = fun(Path, Cp) -> fun() -> arbo:load_nif(T, Path, Cp, 0, self()) end end,
    Rows = [{{returned, {error, io}}, Save(nul("/nonexistent_dir/x"), 0)}, {badarg, Load(nul("x"), a)},
            {badarg, Save(<<"/tmp/no_nul">>, 0)}, {badarg, Save(nul("/tmp/x"), -1)}],
    ?assertEqual([W || {W, _} <- Rows], [reason(F) || {_, F} <- Rows]),
    %% a missing file loads nothing, yet moves the generation
    ?assertMatch({{true, {0, 0, 0, 0, 0, -1, undefined, undefined}}, 1},
                 {arbo:load_nif(T, nul("/nonexistent_dir/x"), -1, 0, undefined), arbo:get_generation(T)}),
    arbo:close(T),
    ?assertEqual([arbo_closed, arbo_closed], [reason(Save(nul("/tmp/x"), 0)),
                                              reason(Load(nul("/tmp/x"), -1))]).

%% ---- the loader's answers ---------------------------------------------------

load_results_test_() ->
    {M, Huge} = {?MAGIC, <<16#FF, 16#FF, 16#FF, 16#F0>>},
    Cases = [{<<16#EE, 16#DA, 0>>, io}, {<<1, 0, 16#DA, 16#EE>>, invalid_magic},
             {<<M/binary, 16#1C>>, invalid_op}, {<<M/binary, 16#E6, 0, 0, 0, 1>>, invalid_key_type},
             {<<M/binary, 0>>, not_implemented}, {<<M/binary, 21>>, deprecated_op},
             %% a csval tag without a length rule
             {<<M/binary, (cd(1))/binary, 9, 250>>, invalid_data},
             %% a container under a list, a binary delete under a leaf, a move in a sorted list
             {<<M/binary, (cd_dyn(1, 0))/binary, (cd_int(2))/binary>>, invalid_node_type},
             {<<M/binary, (cd(1))/binary, 16#8A, 0, 0, 0, 1, $a>>, invalid_node_type},
             {<<M/binary, (cd_dyn(1, 0))/binary, 16#53, 0, 0, 0, 1, 0, 0, 0, 0>>, invalid_node_type},
             %% up past the root, a value at the root: the load ends there
             {<<M/binary, 7, 0>>, ok}, {<<M/binary, 13, 1, $a, 0>>, ok},
             %% huge instance key and attribute
             {<<M/binary, (cd_dyn(1, 0))/binary, 16#86, Huge/binary>>, io},
             {<<M/binary, 18, 0, 0, 0, 1, 39, Huge/binary>>, io},
             %% an invalid transaction at 9
             {<<M/binary, (noops(5))/binary, 1, 0>>, {truncate, 10}}],
    [?_assertEqual({Bytes, Want}, {Bytes, outcome(Bytes)}) || {Bytes, Want} <- Cases].

%% Checkpoints at opcode positions 100 and 200; a transaction count, the
%% file size and the node count come back in the reply.
checkpoint_test_() ->
    Pre = <<(?MAGIC)/binary, 2, (cd(1))/binary, 7, (noops(89))/binary, 4, (noops(99))/binary>>,
    [File, One] = [<<Pre/binary, Op, (cd(2))/binary, 7, 3>> || Op <- [4, 5]],
    Size = byte_size(File),
    %% {checkpoint argument, file, transactions, checkpoint recorded, stop}
    Rows = [{-2, File, 1, -1, {checkpoint, 200}}, {-2, One, 2, 99, undefined}, {99, One, 2, -1, undefined},
            {99, File, 1, -1, {checkpoint, 200}}, {199, File, 1, -1, {checkpoint, 100}}],
    [?_assertEqual({Cp, F, {true, {1, Size, Tx, 0, 0, Rec, undefined, Stop}}},
                   {Cp, F, load_into(new, F, Cp, 0)}) || {Cp, F, Tx, Rec, Stop} <- Rows].

%% Capture 1 answers the binary value of the first top-level leaf with tag 0
%% in namespace 0, when short enough; anything else captures nothing.
capture_test() ->
    Top = [cd(0), bin(<<"abc">>), up()],
    Rows = [{Top, 1, <<"abc">>}, {Top, 0, undefined}, {Top ++ [cd(0), bin(<<"2nd">>), up()], 1, <<"2nd">>},
            {[cd_ns(1, 0), bin(<<"abc">>), up()], 1, undefined}, {[cd(0), Top, up()], 1, undefined},
            {[cd(0), bin(binary:copy(<<1>>, 300)), up()], 1, undefined}],
    [?assertEqual({B, C, Want}, {B, C, element(7, element(2, load_into(new, saved(B), -1, C)))})
     || {B, C, Want} <- Rows].

%% ---- round trips of random trees ------------------------------------------------

%% Random trees of every node kind, key form, value, flag width and
%% attribute, some lists long enough for a user-ordered list's index: load +
%% save reproduces the tree and the file byte for byte.
round_trip_test_() ->
    {timeout, 120, fun() -> [round_trip(Seed) || Seed <- lists:seq(1, 40)] end}.
round_trip(Seed) ->
    rand:seed(exsss, {Seed, Seed * 7, 13}),
    T = arbo:new(),
    grow(T, arbo:get_root(T), plain, 4),
    reload(T, save_bytes(T, 0)).

%% Random children of Node, whose Kind is plain (any node but a list) or list.
grow(_T, _Node, _Kind, 0) -> ok;
grow(T, Node, Kind, Depth) ->
    N = case Kind =:= list andalso Depth =< 2 andalso rand:uniform(3) =:= 1 of
            true -> 100 + rand:uniform(100); false -> rand:uniform(5) - 1 end,
    [decorate(T, child(T, Node, Kind), Depth) || _ <- lists:seq(1, N)].

%% A new or found child: {Node, the kind of its children}. Below a plain
%% node the tag decides the kind, so a repeated tag finds its own kind.
child(T, Node, plain) ->
    Tag = rand:uniform(20),
    case Tag rem 3 of
        0 -> {arbo:add_hkey(T, Node, [rand:uniform(3) - 1 | Tag], 2), plain};
        1 -> {arbo:add_hkey_internal(T, Node, Tag), plain};
        2 -> {arbo:add_hkey_dyn(T, Node, [rand:uniform(2) - 1 | Tag], rand:uniform(4) - 1), list}
    end;
child(T, Node, list) ->
    K = rand:uniform(1000),
    Keys = [{K, 4}, {{rand:uniform(11), K}, 27}, {binary:copy(<<K:16>>, 1 + K rem 8), 6}, {<<12, K:32>>, 5}],
    {Key, Code} = lists:nth(rand:uniform(4), Keys),
    {arbo:add_hkey(T, Node, Key, Code), plain}.

%% Value (nodes that hold none ignore it), flags, attributes and children.
decorate(T, {C, KidKind}, Depth) ->
    Vals = [{17, <<8, (rand:uniform(1000)):32>>}, {17, <<14, 70, (binary:copy(<<"c">>, 70))/binary>>},
            {18, binary:copy(<<"b">>, rand:uniform(300) - 1)}, {0, <<>>}],
    {Kind, V} = lists:nth(rand:uniform(4), Vals),
    ok = arbo:set_val(T, C, Kind, V),
    arbo:set_flags(T, C, lists:nth(rand:uniform(5), [0, 16#7F, 16#1234, 16#12345678, 16#123456789A])),
    [arbo:do_set_attr(T, C, rand:uniform(6), <<8, (rand:uniform(99)):32>>) || _ <- lists:seq(1, rand:uniform(3) - 1)],
    grow(T, C, KidKind, Depth - 1).
