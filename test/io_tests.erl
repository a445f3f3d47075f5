%% Save files: byte-exact saved trees, every loader result from hand-made
%% files, checkpoints, truncation, capture, hostile inputs and round trips of
%% random trees checked against a model.
-module(io_tests).
-include_lib("eunit/include/eunit.hrl").

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
csval(V) -> <<9, V/binary>>.
bin(V) when byte_size(V) < 256 -> <<13, (byte_size(V)), V/binary>>;
bin(V) -> <<14, (byte_size(V)):32, V/binary>>.
flags(0) -> <<>>;
flags(F) when F < 16#100 -> <<11, F>>;
flags(F) when F < 16#10000 -> <<17, F:16>>;
flags(F) when F < 16#100000000 -> <<22, F:32>>;
flags(F) -> <<23, F:64>>.
attr(Id, V) -> <<18, Id:32, V/binary>>.
up() -> <<7>>.
noops(N) -> binary:copy(<<5>>, N).

%% A whole file as the saver writes it: magic, 02, blocks, 03.
saved(Blocks) -> iolist_to_binary([?MAGIC, 2, Blocks, 3]).

%% ---- plumbing ----------------------------------------------------------------

tmp() ->
    "/tmp/arbo_io_" ++ os:getpid() ++ "_" ++ integer_to_list(erlang:unique_integer([positive])).

nul(Path) -> <<(list_to_binary(Path))/binary, 0>>.

with_tmp(Fun) ->
    P = tmp(),
    try Fun(P) after file:delete(P) end.

save_bytes(T) -> save_bytes(T, 0).
save_bytes(T, Mask) ->
    with_tmp(fun(P) ->
                     true = arbo:save_nif(T, nul(P), Mask),
                     {ok, B} = file:read_file(P),
                     B
             end).

%% Loads Bytes into table T: the load_nif reply.
load_into(T, Bytes) -> load_into(T, Bytes, -1, 0, undefined).
load_into(T, Bytes, Checkpoint, Capture, Pid) ->
    with_tmp(fun(P) ->
                     ok = file:write_file(P, Bytes),
                     arbo:load_nif(T, nul(P), Checkpoint, Capture, Pid)
             end).

%% Loads into a fresh table; returns the reply and closes the table.
load_fresh(Bytes) -> load_fresh(Bytes, -1, 0).
load_fresh(Bytes, Checkpoint, Capture) ->
    T = arbo:new(),
    try load_into(T, Bytes, Checkpoint, Capture, undefined) after arbo:close(T) end.

%% Just the outcome: ok, {truncate, N} or the error atom.
outcome(Bytes) -> outcome_of(load_fresh(Bytes)).
outcome_of({true, {_, _, _, _, _, _, _, undefined}}) -> ok;
outcome_of({true, {_, _, _, _, _, _, _, {checkpoint, N}}}) -> {truncate, N};
outcome_of({error, E}) -> E.

reason(Fun) ->
    try Fun() of R -> {returned, R}
    catch error:{Reason, _File, _Line} -> Reason
    end.

%% ---- the saver, byte for byte -------------------------------------------------

%% {Name, Build(T, Root), Blocks}: the saved file must be saved(Blocks), and
%% loading it into a fresh table must save the very same bytes again.
save_cases() ->
    V255 = binary:copy(<<"x">>, 255),
    V256 = binary:copy(<<"y">>, 256),
    [{"leaf", fun(T, R) -> arbo:add_hkey(T, R, 5, 2) end, [cd(5), up()]},
     {"container and namespaced leaf",
      fun(T, R) -> C = arbo:add_hkey_internal(T, R, 1), arbo:add_hkey(T, C, [3 | 9], 2) end,
      [cd_int(1), cd_ns(3, 9), up(), up()]},
     {"sorted list of integer instances",
      fun(T, R) ->
              D = arbo:add_hkey_dyn(T, R, 7, 0),
              [arbo:add_hkey(T, D, K, 4) || K <- [2, 1]]
      end,
      [cd_dyn(7, 0), inst(1), up(), inst(2), up(), up()]},
     {"user-ordered list in a namespace, every instance key form",
      fun(T, R) ->
              U = arbo:add_hkey_dyn(T, R, [2 | 7], 3),
              arbo:add_hkey(T, U, {4, 9}, 27),
              arbo:add_hkey(T, U, <<"abc">>, 6),
              arbo:add_hkey(T, U, <<12, 0, 0, 0, 1>>, 5),
              arbo:add_hkey(T, U, <<"a key longer than ten bytes">>, 6),
              arbo:add_hkey(T, U, 3, 4)
      end,
      [cd_dyn_ns(2, 7, 3), inst_bt(4, 9), up(), inst_bin(<<"abc">>), up(),
       inst_gen(<<12, 0, 0, 0, 1>>), up(), inst_bin(<<"a key longer than ten bytes">>), up(),
       inst(3), up(), up()]},
     {"value, flags and attributes in order",
      fun(T, R) ->
              L = arbo:add_hkey(T, R, 1, 2),
              arbo:set_val(T, L, 17, <<8, 0, 0, 0, 5>>),
              arbo:set_flags(T, L, 16#FF),
              arbo:do_set_attr(T, L, 3, <<14, 2, "hi">>),
              arbo:do_set_attr(T, L, 1, <<8, 0, 0, 0, 1>>)
      end,
      [cd(1), csval(<<8, 0, 0, 0, 5>>), <<11, 255>>, attr(1, <<8, 0, 0, 0, 1>>),
       attr(3, <<14, 2, "hi">>), up()]},
     {"flag widths",
      fun(T, R) ->
              [arbo:set_flags(T, arbo:add_hkey(T, R, K, 2), F)
               || {K, F} <- [{1, 0}, {2, 16#100}, {3, 16#10000}, {4, 16#100000000}]]
      end,
      [cd(1), up(), cd(2), <<17, 1, 0>>, up(), cd(3), <<22, 0, 1, 0, 0>>, up(),
       cd(4), <<23, 0, 0, 0, 1, 0, 0, 0, 0>>, up()]},
     {"binary values of 255 and 256 bytes, long csval",
      fun(T, R) ->
              arbo:set_val(T, arbo:add_hkey(T, R, 1, 2), 18, V255),
              arbo:set_val(T, arbo:add_hkey(T, R, 2, 2), 18, V256),
              arbo:set_val(T, arbo:add_hkey(T, R, 3, 2), 37, <<14, 1, "z">>)
      end,
      [cd(1), <<13, 255>>, V255, up(), cd(2), <<14, 0, 0, 1, 0>>, V256, up(),
       cd(3), csval(<<14, 1, "z">>), up()]}].

save_format_test_() ->
    [{Name, fun() ->
                    T = arbo:new(),
                    Build(T, arbo:get_root(T)),
                    Expected = saved(Blocks),
                    ?assertEqual(Expected, save_bytes(T)),
                    T2 = arbo:new(),
                    ?assertMatch({true, _}, load_into(T2, Expected)),
                    ?assertEqual(arbo:get_size(T), arbo:get_size(T2)),
                    ?assertEqual(Expected, save_bytes(T2)),
                    arbo:close(T), arbo:close(T2)
            end} || {Name, Build, Blocks} <- save_cases()].

empty_tree_saves_magic_only_test() ->
    T = arbo:new(),
    ?assertEqual(?MAGIC, save_bytes(T)),
    ?assertMatch({true, {0, 4, 0, 0, 0, -1, undefined, undefined}}, load_into(T, ?MAGIC)),
    arbo:close(T).

skip_mask_test() ->
    T = arbo:new(),
    R = arbo:get_root(T),
    Skipped = arbo:add_hkey(T, R, 1, 2),
    arbo:add_hkey(T, Skipped, 10, 2),
    arbo:set_flags(T, Skipped, 7),
    arbo:set_flags(T, arbo:add_hkey(T, R, 2, 2), 2),
    ?assertEqual(saved([cd(2), <<11, 2>>, up()]), save_bytes(T, 6)),
    ?assertEqual(saved([cd(1), <<11, 7>>, cd(10), up(), up(), cd(2), <<11, 2>>, up()]),
                 save_bytes(T, 0)),
    arbo:close(T).

save_errors_test() ->
    T = arbo:new(),
    arbo:add_hkey(T, arbo:get_root(T), 1, 2),
    ?assertEqual({error, io}, arbo:save_nif(T, nul("/nonexistent_dir/x"), 0)),
    ?assertEqual({error, io}, arbo:save_nif(T, nul("/dev/full"), 0)),
    ?assertEqual(badarg, reason(fun() -> arbo:save_nif(T, <<"/tmp/no_nul">>, 0) end)),
    ?assertEqual(badarg, reason(fun() -> arbo:save_nif(T, nul("/tmp/x"), -1) end)),
    ?assertEqual(badarg, reason(fun() -> arbo:load_nif(T, <<"x">>, -1, 0, undefined) end)),
    ?assertEqual(badarg, reason(fun() -> arbo:load_nif(T, nul("x"), a, 0, undefined) end)),
    ?assertEqual(badarg, reason(fun() -> arbo:load_nif(T, nul("x"), -1, 1 bsl 40, self()) end)),
    arbo:close(T),
    ?assertEqual(arbo_closed, reason(fun() -> arbo:save_nif(T, nul("/tmp/x"), 0) end)),
    ?assertEqual(arbo_closed, reason(fun() -> arbo:load_nif(T, nul("/tmp/x"), -1, 0, undefined) end)).

%% ---- the loader's answers ---------------------------------------------------

load_results_test_() ->
    M = ?MAGIC,
    Huge = <<16#FF, 16#FF, 16#FF, 16#F0>>,
    Cases =
        [{"empty file", <<>>, io},
         {"three bytes", <<16#EE, 16#DA, 0>>, io},
         {"magic only", M, ok},
         {"wrong magic", <<1, 0, 16#DA, 16#EE>>, invalid_magic},
         {"complete records", saved([cd(1), up()]), ok},
         {"operation 28", <<M/binary, 16#1C>>, invalid_op},
         {"key form 7", <<M/binary, 16#E6, 0, 0, 0, 1>>, invalid_key_type},
         {"key form 6 in a reference key",
          <<M/binary, (cd_dyn(1, 3))/binary, 16#5A, 0, 0, 0, 1, 1, 6>>, invalid_key_type},
         {"operation 0", <<M/binary, 0>>, not_implemented},
         {"operation 21", <<M/binary, 21>>, deprecated_op},
         {"operation 25", <<M/binary, 25>>, deprecated_op},
         {"one byte into a tag", <<M/binary, 6, 0>>, io},
         {"csval tag without a length rule", <<M/binary, (cd(1))/binary, 9, 250>>, invalid_data},
         {"cd_int under a list", <<M/binary, (cd_dyn(1, 0))/binary, (cd_int(2))/binary>>,
          invalid_node_type},
         {"binary delete under a leaf", <<M/binary, (cd(1))/binary, 16#8A, 0, 0, 0, 1, $a>>,
          invalid_node_type},
         {"move in a sorted list", <<M/binary, (cd_dyn(1, 0))/binary, 16#53, 0, 0, 0, 1, 0, 0, 0, 0>>,
          invalid_node_type},
         {"cd_up_1 at the root ends the load", <<M/binary, 7, 0>>, ok},
         {"cd_up past the root ends the load", <<M/binary, (cd(1))/binary, 8, 2, 0>>, ok},
         {"value at the root ends the load", <<M/binary, 13, 1, $a, 0>>, ok},
         {"huge binary value", <<M/binary, (cd(1))/binary, 14, Huge/binary>>, io},
         {"huge instance key", <<M/binary, (cd_dyn(1, 0))/binary, 16#86, Huge/binary>>, io},
         {"huge csval", <<M/binary, (cd(1))/binary, 9, 18, Huge/binary, "ab">>, io},
         {"huge attribute", <<M/binary, 18, 0, 0, 0, 1, 39, Huge/binary>>, io},
         {"invalid transaction at 9", <<M/binary, (noops(5))/binary, 1, 0>>, {truncate, 10}}],
    [{Name, ?_assertEqual(Expected, outcome(Bytes))} || {Name, Bytes, Expected} <- Cases].

missing_file_loads_nothing_test() ->
    T = arbo:new(),
    Gen = arbo:get_generation(T),
    ?assertMatch({true, {0, 0, 0, 0, 0, -1, undefined, undefined}},
                 arbo:load_nif(T, nul("/nonexistent_dir/x"), -1, 0, undefined)),
    ?assertEqual(Gen + 1, arbo:get_generation(T)),
    arbo:close(T).

%% Checkpoints at opcode positions 100 and 200; a transaction count, the
%% file size and the node count come back in the reply.
checkpoint_test_() ->
    Head = <<(?MAGIC)/binary, 2, (cd(1))/binary, (up())/binary>>,
    Pad = noops(100 - byte_size(Head)),
    File = <<Head/binary, Pad/binary, 4, (noops(99))/binary, 4, (cd(2))/binary, 7, 3>>,
    One = <<Head/binary, Pad/binary, 4, (noops(99))/binary, 5, (cd(2))/binary, 7, 3>>,
    Size = byte_size(File),
    [{"-2 records the first, the second stops the load and clears it",
      ?_assertMatch({true, {1, Size, 1, 0, 0, -1, undefined, {checkpoint, 200}}},
                    load_fresh(File, -2, 0))},
     {"-2 records the only checkpoint",
      ?_assertMatch({true, {1, Size, 2, 0, 0, 99, undefined, undefined}},
                    load_fresh(One, -2, 0))},
     {"a known checkpoint passes only itself",
      ?_assertMatch({true, {1, Size, 1, 0, 0, -1, undefined, {checkpoint, 200}}},
                    load_fresh(File, 99, 0))},
     {"a known checkpoint, then the end",
      ?_assertMatch({true, {1, Size, 2, 0, 0, -1, undefined, undefined}},
                    load_fresh(One, 99, 0))},
     {"-1 stops at the first",
      ?_assertMatch({true, {1, Size, 1, 0, 0, -1, undefined, {checkpoint, 100}}},
                    load_fresh(File, -1, 0))},
     {"another value stops at the first",
      ?_assertMatch({true, {1, Size, 1, 0, 0, -1, undefined, {checkpoint, 100}}},
                    load_fresh(File, 199, 0))}].

capture_test_() ->
    File = fun(Blocks) -> saved(Blocks) end,
    Top = [cd(0), bin(<<"abc">>), up()],
    [?_assertMatch({true, {_, _, _, _, _, _, <<"abc">>, _}}, load_fresh(File(Top), -1, 1)),
     ?_assertMatch({true, {_, _, _, _, _, _, undefined, _}}, load_fresh(File(Top), -1, 0)),
     ?_assertMatch({true, {_, _, _, _, _, _, <<"second">>, _}},
                   load_fresh(File(Top ++ [cd(0), bin(<<"second">>), up()]), -1, 1)),
     ?_assertMatch({true, {_, _, _, _, _, _, undefined, _}},
                   load_fresh(File([cd(1), bin(<<"abc">>), up()]), -1, 1)),
     ?_assertMatch({true, {_, _, _, _, _, _, undefined, _}},
                   load_fresh(File([cd_ns(1, 0), bin(<<"abc">>), up()]), -1, 1)),
     ?_assertMatch({true, {_, _, _, _, _, _, undefined, _}},
                   load_fresh(File([cd(0), cd(0), bin(<<"abc">>), up(), up()]), -1, 1)),
     ?_assertMatch({true, {_, _, _, _, _, _, undefined, _}},
                   load_fresh(File([cd(0), bin(binary:copy(<<1>>, 300)), up()]), -1, 1))].

%% A progress process gets nothing from a load shorter than the interval.
progress_pid_test() ->
    T = arbo:new(),
    ?assertMatch({true, _}, load_into(T, saved([cd(1), up()]), -1, 0, self())),
    receive {msg, _} = M -> ?assertEqual(no_message, M) after 0 -> ok end,
    arbo:close(T).

%% ---- hostile files -------------------------------------------------------------

%% One file holding every record the saver writes.
sample_file() ->
    saved([cd_int(1), cd_ns(3, 9), csval(<<14, 3, "abc">>), <<17, 1, 0>>,
           attr(2, <<8, 0, 0, 0, 7>>), up(), up(),
           cd_dyn(2, 0), inst(5), bin(<<"v">>), up(), inst(6), bin(binary:copy(<<"w">>, 300)),
           up(), up(),
           cd_dyn_ns(1, 3, 3), inst_bt(4, 1), up(), inst_bin(<<"opaque key bytes">>), up(),
           inst_gen(<<12, 0, 0, 0, 9>>), <<23, 1:64>>, up(), up()]).

truncation_at_every_offset_test() ->
    File = sample_file(),
    ?assertEqual(ok, outcome(File)),
    Outcomes = [outcome(binary:part(File, 0, N)) || N <- lists:seq(0, byte_size(File) - 1)],
    ?assertEqual([], [O || O <- Outcomes, O =/= ok, O =/= io]),
    ?assertEqual(io, hd(Outcomes)).

%% ---- round trips of random trees, checked against a model ------------------------

%% Model node: {PathRecord, ValueRecord, FlagsRecord, [AttrRecord], Kids,
%% Ordered}; Ordered is true for user-ordered lists, whose saved order is
%% the insertion order. Saving the built tree must give exactly the model's
%% records (children compared as multisets elsewhere), and load + save must
%% reproduce the file byte for byte.
round_trip_test_() ->
    {timeout, 120,
     fun() ->
             [round_trip(Seed) || Seed <- lists:seq(1, 40)]
     end}.

round_trip(Seed) ->
    rand:seed(exsss, {Seed, Seed * 7, 13}),
    T = arbo:new(),
    Kids = gen_kids(T, arbo:get_root(T), plain, 4, Seed rem 5, #{}),
    Saved = save_bytes(T),
    case Kids of
        [] -> ?assertEqual(?MAGIC, Saved);
        _ ->
            <<16#EE, 16#DA, 0, 1, 2, Body/binary>> = Saved,
            {Parsed, <<3>>} = parse_blocks(Body),
            ?assertEqual(normal(Kids, false), normal(Parsed, false))
    end,
    T2 = arbo:new(),
    ?assertMatch({true, _}, load_into(T2, Saved)),
    ?assertEqual(arbo:get_size(T), arbo:get_size(T2)),
    ?assertEqual(Saved, save_bytes(T2)),
    arbo:close(T), arbo:close(T2).

normal(Kids, Ordered) ->
    Ns = [{P, V, F, A, normal(K, O)} || {P, V, F, A, K, O} <- Kids],
    case Ordered of true -> Ns; false -> lists:sort(Ns) end.

%% Children of Node: Kind is plain (any node but a list) or {list, Cmp}.
gen_kids(_T, _Node, _Kind, Depth) when Depth =< 0 -> [];
gen_kids(T, Node, Kind, Depth) ->
    %% Now and then a list long enough for a user-ordered list's index.
    N = case Kind =/= plain andalso Depth =< 2 andalso rand:uniform(3) =:= 1 of
            true -> 100 + rand:uniform(100);
            false -> rand:uniform(5) - 1
        end,
    gen_kids(T, Node, Kind, Depth, N, #{}).

gen_kids(_T, _Node, _Kind, _Depth, 0, _Used) -> [];
gen_kids(T, Node, Kind, Depth, N, Used) ->
    {Key, Make} = gen_child(T, Node, Kind, Depth),
    case maps:is_key(Key, Used) of
        true -> gen_kids(T, Node, Kind, Depth, N - 1, Used);
        false -> [Make() | gen_kids(T, Node, Kind, Depth, N - 1, Used#{Key => 1})]
    end.

%% A new child's key and the function that adds it: {Key, Make}.
gen_child(T, Node, plain, Depth) ->
    Tag = rand:uniform(20),
    case rand:uniform(3) of
        1 ->
            Ns = rand:uniform(3) - 1,
            Path = case Ns of 0 -> cd(Tag); _ -> cd_ns(Ns, Tag) end,
            {{Ns, Tag}, fun() ->
                                C = arbo:add_hkey(T, Node, [Ns | Tag], 2),
                                decorate(T, C, Path, true, plain, Depth)
                        end};
        2 ->
            {{0, Tag}, fun() ->
                               C = arbo:add_hkey_internal(T, Node, Tag),
                               decorate(T, C, cd_int(Tag), false, plain, Depth)
                       end};
        3 ->
            Cmp = rand:uniform(4) - 1,
            Ns = rand:uniform(2) - 1,
            Path = case Ns of 0 -> cd_dyn(Tag, Cmp); _ -> cd_dyn_ns(Ns, Tag, Cmp) end,
            {{Ns, Tag}, fun() ->
                                C = arbo:add_hkey_dyn(T, Node, [Ns | Tag], Cmp),
                                decorate(T, C, Path, false, {list, Cmp}, Depth)
                        end}
    end;
gen_child(T, Node, {list, _}, Depth) ->
    K = rand:uniform(1000),
    {Key, Term, Code, Path, Valued} =
        case rand:uniform(4) of
            1 -> {{int, K}, K, 4, inst(K), true};
            2 -> Ns = rand:uniform(11), {{int, K}, {Ns, K}, 27, inst_bt(Ns, K), true};
            3 -> B = key_bytes(K), {{bin, B}, B, 6, inst_bin(B), false};
            4 -> B = <<12, K:32>>, {{bin, B}, B, 5, inst_gen(B), false}
        end,
    {Key, fun() ->
                  C = arbo:add_hkey(T, Node, Term, Code),
                  decorate(T, C, Path, Valued, plain, Depth)
          end}.

key_bytes(K) -> binary:copy(<<K:16>>, 1 + K rem 8).

%% Value, flags, attributes and children of a new node; the model record.
decorate(T, C, Path, Valued, KidKind, Depth) ->
    Val = case Valued andalso rand:uniform(2) of
              1 -> set_value(T, C, rand:uniform(3));
              _ -> <<>>
          end,
    F = lists:nth(rand:uniform(5), [0, 16#7F, 16#1234, 16#12345678, 16#123456789A]),
    F =/= 0 andalso arbo:set_flags(T, C, F),
    Attrs = lists:usort([rand:uniform(6) || _ <- lists:seq(1, rand:uniform(3) - 1)]),
    AttrRecs = [begin
                    V = <<8, (Id * 3):32>>,
                    arbo:do_set_attr(T, C, Id, V),
                    attr(Id, V)
                end || Id <- Attrs],
    Kids = gen_kids(T, C, KidKind, Depth - 1 - length(Attrs) rem 2),
    {Path, Val, flags(F), AttrRecs, Kids, KidKind =:= {list, 3}}.

set_value(T, C, 1) ->
    V = <<8, (rand:uniform(1000)):32>>, arbo:set_val(T, C, 17, V), csval(V);
set_value(T, C, 2) ->
    V = <<14, 70, (binary:copy(<<"c">>, 70))/binary>>, arbo:set_val(T, C, 17, V), csval(V);
set_value(T, C, 3) ->
    V = binary:copy(<<"b">>, rand:uniform(300) - 1), arbo:set_val(T, C, 18, V), bin(V).

%% The subset of the format the saver writes, parsed back into model nodes.
parse_blocks(<<7, Rest/binary>>) -> {[], <<7, Rest/binary>>};
parse_blocks(<<3>>) -> {[], <<3>>};
parse_blocks(Bin) ->
    {Path, R1} = parse_path(Bin),
    {Val, R2} = parse_value(R1),
    {Flags, R3} = parse_flags(R2),
    {Attrs, R4} = parse_attrs(R3),
    {Kids, <<7, R5/binary>>} = parse_blocks(R4),
    {More, R6} = parse_blocks(R5),
    Ordered = case Path of <<16#14, _:32, 3>> -> true; <<16#34, _:64, 3>> -> true; _ -> false end,
    {[{Path, Val, Flags, Attrs, Kids, Ordered} | More], R6}.

parse_path(<<Op, _/binary>> = B) when Op =:= 16#86; Op =:= 16#A6 ->
    <<Op, L:32, _/binary>> = B,
    split_binary(B, 5 + L);
parse_path(<<Op, _/binary>> = B) ->
    Len = maps:get(Op, #{6 => 5, 16#0F => 5, 16#14 => 6, 16#26 => 9, 16#34 => 10, 16#46 => 5,
                         16#66 => 6}),
    split_binary(B, Len).

parse_value(<<9, 8, _:32, _/binary>> = B) -> split_binary(B, 6);
parse_value(<<9, 14, L, _/binary>> = B) -> split_binary(B, 3 + L);
parse_value(<<13, L, _/binary>> = B) -> split_binary(B, 2 + L);
parse_value(<<14, L:32, _/binary>> = B) -> split_binary(B, 5 + L);
parse_value(B) -> {<<>>, B}.

parse_flags(<<Op, _/binary>> = B) when Op =:= 11; Op =:= 17; Op =:= 22; Op =:= 23 ->
    split_binary(B, maps:get(Op, #{11 => 2, 17 => 3, 22 => 5, 23 => 9}));
parse_flags(B) -> {<<>>, B}.

parse_attrs(<<18, _:32, 8, _:32, _/binary>> = B) ->
    {A, R} = split_binary(B, 10),
    {More, R2} = parse_attrs(R),
    {[A | More], R2};
parse_attrs(B) -> {[], B}.
