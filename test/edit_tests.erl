%% Tree editing from Erlang: containers and namespaces, sorted lists in each
%% mode and key form, user-ordered lists across their index thresholds,
%% renames, deletion with exact accounting, generation moves, and one
%% table-driven generator per error family.
-module(edit_tests).
-include_lib("eunit/include/eunit.hrl").

-import(arbo_tree_util, [with_table/1, reason/1, children/2, child_keys/2, lib_mem/0,
                         type0_node/2]).

%% Record sizes as the allocator counts them.
-define(ROOT_MEM, 112).
-define(INT_MEM, 40).
-define(DYN_MEM, 120).
-define(ONE_MEM, 56).
-define(TWO_MEM, 64).
-define(HT_KEY, 16).

%% An encoded key of one string element.
str(S) -> <<200, (byte_size(S)), S/binary>>.
%% An encoded key of one signed 32-bit element.
i32(I) -> <<8, I:32/signed>>.

%% ---- containers and namespaces -------------------------------------------

containers_and_namespaces_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        C = arbo:add_hkey_internal(T, R, 5),
        ?assertEqual(C, arbo:add_hkey_internal(T, R, 5)),
        L9 = arbo:add_hkey(T, R, 9, 2),
        N12 = arbo:add_hkey(T, R, [1 | 2], 3),
        Nneg = arbo:add_hkey(T, R, {-5}, 3),
        ?assertEqual(L9, arbo:add_hkey(T, R, 9, 3)),
        %% a list node where a leaf holds the pair is refused ...
        ?assertEqual(badarg, reason(fun() -> arbo:add_hkey_dyn(T, R, 9, 0) end)),
        %% ... the same list asked for again is found, keeping its mode,
        %% and any other kind asking for its pair gets the list too
        L = arbo:add_hkey_dyn(T, R, [1 | 1], 1),
        ?assertEqual(L, arbo:add_hkey_dyn(T, R, [1 | 1], 3)),
        ?assertEqual({2, 1}, arbo:get_type(T, L)),
        ?assertEqual(L, arbo:add_hkey(T, R, [1 | 1], 2)),
        %% ordered by (namespace, unsigned tag); {-5} is stored as its pattern
        ?assertEqual([C, L9, Nneg, L, N12], children(T, R)),
        ?assertEqual([5, 9, 16#FFFFFFFB, [1 | 1], [1 | 2]], child_keys(T, R)),
        ?assertEqual(5, arbo:get_size(T)),
        ?assertEqual(?ROOT_MEM + ?INT_MEM + 3 * ?ONE_MEM + ?DYN_MEM, arbo:get_mem(T)),
        %% a key that is no tag form is taken as tag 0, deliberately
        _ = arbo:add_hkey(T, C, foo, 3),
        _ = arbo:add_hkey_internal(T, C, 3),
        ?assertEqual([0, 3], child_keys(T, C)),
        %% only list nodes take instances, and list nodes take nothing else
        [?assertEqual(badarg, reason(F)) || F <- [
            fun() -> arbo:add_hkey(T, R, 1, 4) end,
            fun() -> arbo:add_hkey(T, R, {0, 1}, 27) end,
            fun() -> arbo:add_hkey(T, R, <<"k">>, 6) end,
            fun() -> arbo:add_hkey(T, L, 1, 2) end,
            fun() -> arbo:add_hkey_internal(T, L, 1) end,
            fun() -> arbo:add_hkey_dyn(T, L, 1, 0) end]],
        ?assertEqual(7, arbo:get_size(T)),
        ?assertEqual(0, arbo:get_generation(T))
    end).

del_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Keep = [arbo:add_hkey(T, R, K, 3) || K <- [[0 | 4], [2 | 1], [3 | 0]]],
        [arbo:add_hkey(T, R, [1 | K], 3) || K <- [9, 1, 5]],
        L = arbo:add_hkey_dyn(T, R, [1 | 7], 0),
        _ = arbo:add_hkey(T, L, 1, 4),
        ?assertEqual(8, arbo:get_size(T)),
        ?assert(arbo:del_ns(T, R, 1)),
        ?assertEqual(1, arbo:get_generation(T)),
        ?assertEqual(Keep, children(T, R)),
        ?assertEqual(?ROOT_MEM + 3 * ?ONE_MEM, arbo:get_mem(T)),
        ?assertNot(arbo:del_ns(T, R, 1)),
        ?assertNot(arbo:del_ns(T, R, 9)),
        ?assertEqual(1, arbo:get_generation(T))
    end).

rename_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        A = arbo:add_hkey(T, R, [1 | 4], 3),
        B = arbo:add_hkey(T, R, [2 | 4], 3),
        Z = arbo:add_hkey(T, R, 4, 3),
        C = arbo:add_hkey_internal(T, R, 6),
        L = arbo:add_hkey_dyn(T, R, [5 | 1], 3),
        I = arbo:add_hkey(T, L, {2, 1}, 27),
        ok = arbo:set_val(T, A, 17, <<"v">>),
        ?assert(arbo:rename_ns(T, R, A, 3)),
        ?assertEqual([3 | 4], arbo:get_hkey0(T, A)),
        ?assertEqual({csval, <<"v">>}, arbo:get_val_raw(T, A)),
        ?assertEqual([Z, C, B, A, L], children(T, R)),
        ?assert(arbo:rename_ns(T, R, L, 0)),
        ?assertEqual([L, Z, C, B, A], children(T, R)),
        ?assertEqual(2, arbo:get_generation(T)),
        %% refused without an exception: no namespace to move, a container,
        %% a list parent
        ?assertNot(arbo:rename_ns(T, R, Z, 1)),
        ?assertNot(arbo:rename_ns(T, R, C, 1)),
        ?assertNot(arbo:rename_ns(T, R, L, 1)),
        ?assertNot(arbo:rename_ns(T, L, I, 1)),
        ?assertEqual(2, arbo:get_generation(T)),
        %% onto an occupied pair: false, and the moved leaf is gone (kept)
        Mem = arbo:get_mem(T),
        ?assertNot(arbo:rename_ns(T, R, B, 3)),
        ?assertEqual([L, Z, C, A], children(T, R)),
        ?assertEqual(Mem - ?ONE_MEM, arbo:get_mem(T)),
        ?assertEqual(5, arbo:get_size(T)),
        ?assertEqual(2, arbo:get_generation(T))
    end).

%% ---- sorted lists ---------------------------------------------------------

%% {Mode, Code, keys in insertion order (with repeats), read-back in list order}
sorted_cases() ->
    [{0, 4, [5, -3, 100, 0, -3, 5], [{-3}, {0}, {5}, {100}]},
     %% tag first (signed), then namespace; {0, T} reads back as the bare
     %% unsigned tag: the kept asymmetry
     {0, 27, [{2, 7}, {0, 7}, {1, 7}, {0, -1}, {1, 7}], [16#FFFFFFFF, 7, {{1, 7}}, {{2, 7}}]},
     {0, 5, [str(<<"b">>), str(<<"aa">>), str(<<"a">>), str(<<"b">>)],
      [{binary, str(<<"a">>)}, {binary, str(<<"aa">>)}, {binary, str(<<"b">>)}]},
     {1, 5, [str(<<"b">>), str(<<"aa">>), str(<<"a">>)],
      [{binary, str(<<"a">>)}, {binary, str(<<"b">>)}, {binary, str(<<"aa">>)}]},
     {2, 5, [str(<<"b">>), str(<<"aa">>), str(<<"a">>)],
      [{binary, str(<<"a">>)}, {binary, str(<<"aa">>)}, {binary, str(<<"b">>)}]},
     {0, 5, [i32(1), i32(-1), str(<<>>), i32(0)],
      [{binary, i32(-1)}, {binary, i32(0)}, {binary, i32(1)}, {binary, str(<<>>)}]},
     {0, 6, [<<"b">>, <<"aa">>, <<>>, <<"a">>, <<>>], [{<<>>}, {<<"a">>}, {<<"aa">>}, {<<"b">>}]},
     {1, 6, [<<"b">>, <<"aa">>, <<>>, <<"a">>], [{<<>>}, {<<"a">>}, {<<"b">>}, {<<"aa">>}]},
     {0, 6, [binary:copy(<<"k">>, N) || N <- [12, 10, 11, 1]],
      [{binary:copy(<<"k">>, N)} || N <- [1, 10, 11, 12]]}].

sorted_list_test_() ->
    [{lists:flatten(io_lib:format("mode ~p code ~p ~p", [M, C, hd(Ks)])),
      fun() -> sorted_case(M, C, Ks, Want) end} || {M, C, Ks, Want} <- sorted_cases()].

sorted_case(Mode, Code, Keys, Want) ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, Mode),
        Refs = [arbo:add_hkey(T, L, K, Code) || K <- Keys],
        %% one node per key: a repeated key answers the first node
        Firsts = maps:from_list(lists:reverse(lists:zip(Keys, Refs))),
        ?assertEqual([maps:get(K, Firsts) || K <- Keys], Refs),
        ?assertEqual(Want, child_keys(T, L)),
        ?assertEqual(length(Want), arbo:num_children(T, L)),
        ?assertEqual(length(Want) + 1, arbo:get_size(T))
    end).

%% Byte keys sort before integer keys; the tuple flags of one node accumulate
%% as it is named in more ways.
mixed_list_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
        A = arbo:add_hkey(T, L, {0, 7}, 27),
        ?assertEqual(7, arbo:get_hkey0(T, A)),
        ?assertEqual(A, arbo:add_hkey(T, L, 7, 4)),
        ?assertEqual({7}, arbo:get_hkey0(T, A)),
        _ = arbo:add_hkey(T, L, {1, 2}, 27),
        _ = arbo:add_hkey(T, L, <<"z">>, 6),
        _ = arbo:add_hkey(T, L, str(<<"y">>), 5),
        ?assertEqual([{binary, str(<<"y">>)}, {<<"z">>}, {{1, 2}}, {7}], child_keys(T, L))
    end).

%% In a user-ordered list (instances of fixed size) the key storage shows in
%% get_mem: up to 10 bytes inside the node, longer in a shared binary. A key
%% binary handed out stays valid after its node is gone.
key_storage_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 3),
        M0 = arbo:get_mem(T),
        K10 = binary:copy(<<"a">>, 10),
        K11 = str(binary:copy(<<"b">>, 9)),
        K40 = binary:copy(<<"c">>, 40),
        A = arbo:add_hkey(T, L, K10, 6),
        ?assertEqual(M0 + ?TWO_MEM, arbo:get_mem(T)),
        B = arbo:add_hkey(T, L, K11, 5),
        ?assertEqual(M0 + 2 * ?TWO_MEM + 11 + 8, arbo:get_mem(T)),
        C = arbo:add_hkey(T, L, K40, 6),
        ?assertEqual([A, B, C], children(T, L)),
        ?assertEqual([{K10}, {binary, K11}, {K40}], child_keys(T, L)),
        {Out} = arbo:get_hkey0(T, C),
        ?assert(arbo:del_hkey(T, L, K40, 52)),
        ?assert(arbo:del_hkey(T, L, K10, 52)),
        ?assertEqual(M0 + ?TWO_MEM + 11 + 8, arbo:get_mem(T)),
        _ = binary:copy(<<"x">>, 4096),
        ?assertEqual(K40, Out),
        ?assertEqual(K40, binary:copy(Out))
    end).

%% ---- deleting by key form ---------------------------------------------------

%% {what, Code, Key, Result}, applied in order to one sorted list.
del_rows() ->
    [{"tuple tag", 13, {5}, true},
     {"again", 13, {5}, false},
     {"bare tag", 14, 6, true},
     {"[Ns | Tag]", 13, [1 | 8], true},
     {"pair", 29, {2, 8}, true},
     {"pair, absent", 29, {3, 8}, false},
     {"encoded bytes", 15, str(<<"s">>), true},
     {"opaque bytes", 52, <<"o">>, true},
     %% an opaque key equals the encoded string of the same bytes
     {"opaque finds encoded", 52, <<"t">>, true},
     {"opaque, absent", 52, <<"o">>, false},
     {"undecodable tag: tag 0", 13, foo, true}].

del_hkey_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Keys = [{5, 4}, {6, 4}, {{1, 8}, 27}, {{2, 8}, 27}, {{0, 0}, 27},
                {str(<<"s">>), 5}, {str(<<"t">>), 5}, {<<"o">>, 6}],
        [_ = arbo:add_hkey(T, L, K, C) || {K, C} <- Keys],
        Run = fun({What, Code, Key, Want}, Gen) ->
            ?assertEqual({What, Want}, {What, arbo:del_hkey(T, L, Key, Code)}),
            Gen1 = Gen + case Want of true -> 1; false -> 0 end,
            ?assertEqual({What, Gen1}, {What, arbo:get_generation(T)}),
            Gen1
        end,
        lists:foldl(Run, 0, del_rows()),
        ?assertEqual([], children(T, L)),
        ?assertEqual(?ROOT_MEM + ?DYN_MEM, arbo:get_mem(T)),
        %% byte codes on a parent that is not a list: false, key unread
        ?assertNot(arbo:del_hkey(T, R, not_a_binary, 15)),
        ?assertNot(arbo:del_hkey(T, R, not_a_binary, 52)),
        ?assert(arbo:del_hkey(T, R, 1, 13)),
        ?assertEqual(0, arbo:get_size(T))
    end).

%% ---- renaming instances --------------------------------------------------------

rename_instance_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
        [I1, I2, I3] = [arbo:add_hkey(T, L, K, 4) || K <- [1, 2, 3]],
        ok = arbo:set_val(T, I1, 18, binary:copy(<<"v">>, 30)),
        M0 = arbo:get_mem(T),
        ?assert(arbo:rename_instance0(T, L, I1, {0, 9}, 27)),
        ?assertEqual([I2, I3, I1], children(T, L)),
        ?assertEqual([{2}, {3}, 9], child_keys(T, L)),
        ?assert(arbo:rename_instance0(T, L, I3, [2 | 5], 4)),
        ?assertEqual([2 | 5], arbo:get_hkey0(T, I3)),
        ?assert(arbo:rename_instance0(T, L, I2, {-4}, 4)),
        ?assertEqual([I2, I3, I1], children(T, L)),
        %% taken keys are refused, the instance's own key included
        ?assertNot(arbo:rename_instance0(T, L, I2, {0, 9}, 27)),
        ?assertNot(arbo:rename_instance0(T, L, I2, {-4}, 4)),
        %% a byte key replaces the value (byte-keyed nodes hold none)
        ?assertEqual(binary:copy(<<"v">>, 30), arbo:get_val_raw(T, I1)),
        ?assert(arbo:rename_instance0(T, L, I1, str(<<"k">>), 5)),
        ?assertEqual(undefined, arbo:get_val_raw(T, I1)),
        ?assertEqual(M0 - 38, arbo:get_mem(T)),
        ?assert(arbo:rename_instance0(T, L, I2, binary:copy(<<"k">>, 20), 6)),
        ?assertEqual(M0 - 38 + 28, arbo:get_mem(T)),
        ?assertEqual([{binary, str(<<"k">>)}, {binary:copy(<<"k">>, 20)}, [2 | 5]],
                     child_keys(T, L)),
        ?assertEqual(3, arbo:num_children(T, L)),
        ?assertEqual(0, arbo:get_generation(T))
    end).

%% A user-ordered list keeps positions across renames, with and without its
%% hash index; the index finds renamed instances by their new key only.
rename_user_ordered_test_() ->
    [{integer_to_list(N) ++ " instances", fun() -> rename_user_ordered(N) end}
     || N <- [5, 130]].

rename_user_ordered(N) ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 3),
        Refs = [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(N, 1, -1)],
        Mid = lists:nth(3, Refs),
        Old = N - 2,
        ?assert(arbo:rename_instance0(T, L, Mid, {1000}, 4)),
        ?assertNot(arbo:rename_instance0(T, L, Mid, {N}, 4)),
        ?assertEqual(Refs, children(T, L)),
        ?assertEqual(Mid, arbo:find_child(T, L, {1000}, 11)),
        ?assertEqual(0, arbo:find_child(T, L, {Old}, 11)),
        ?assertEqual(Mid, arbo:add_hkey(T, L, 1000, 4)),
        New = arbo:add_hkey(T, L, Old, 4),
        ?assertEqual(Refs ++ [New], children(T, L))
    end).

%% ---- user-ordered lists across the index thresholds ---------------------------

%% Instances have a fixed size here, so every figure is exact: the index is
%% built at the 128th instance (a 16-byte key record per instance), each
%% removal while it exists leaves its lookup record counted (kept), and the
%% index goes when a removal starts at 64 instances.
user_ordered_thresholds_test() ->
    with_table(fun(T) ->
        rand:seed(exsss, {1, 2, 3}),
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 3),
        Base = ?ROOT_MEM + ?DYN_MEM,
        Keys = shuffle(lists:seq(1, 200)),
        Add = fun(K, {N, Refs}) ->
            Ref = arbo:add_hkey(T, L, K, 4),
            N1 = N + 1,
            Index = case N1 >= 128 of true -> N1 * ?HT_KEY; false -> 0 end,
            ?assertEqual({N1, Base + N1 * ?TWO_MEM + Index}, {N1, arbo:get_mem(T)}),
            %% a repeated key is found, by walking or through the index
            Probe = lists:nth(rand:uniform(N1), Keys),
            ?assert(lists:member(arbo:add_hkey(T, L, Probe, 4), [Ref | Refs])),
            {N1, [Ref | Refs]}
        end,
        {200, RevRefs} = lists:foldl(Add, {0, []}, Keys),
        ?assertEqual(lists:reverse(RevRefs), children(T, L)),
        ?assertEqual(200, arbo:get_size(T) - 1),
        Del = fun(K, {N, Leaked, Idx}) ->
            ?assert(arbo:del_hkey(T, L, {K}, 13)),
            N1 = N - 1,
            Leaked1 = Leaked + case Idx of true -> 1; false -> 0 end,
            Idx1 = Idx andalso N > 64,
            Index = case Idx1 of true -> N1 * ?HT_KEY; false -> 0 end,
            ?assertEqual({N1, Base + N1 * ?TWO_MEM + Index + Leaked1 * ?HT_KEY},
                         {N1, arbo:get_mem(T)}),
            {N1, Leaked1, Idx1}
        end,
        {Left, Leaked, false} = lists:foldl(Del, {200, 0, true}, lists:sublist(Keys, 150)),
        ?assertEqual(50, Left),
        ?assertEqual(200 - 64 + 1, Leaked),
        Rest = lists:nthtail(150, Keys),
        ?assertEqual([{K} || K <- Rest], child_keys(T, L)),
        %% rebuild past the threshold, then drop the whole list: the index
        %% and every key record go with it, the leaked lookups stay
        [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1000, 1100)],
        ?assertEqual(Base + 151 * (?TWO_MEM + ?HT_KEY) + Leaked * ?HT_KEY, arbo:get_mem(T)),
        ?assert(arbo:del_hkey(T, arbo:get_root(T), 1, 13)),
        ?assertEqual(?ROOT_MEM + Leaked * ?HT_KEY, arbo:get_mem(T)),
        ?assertEqual(0, arbo:get_size(T))
    end).

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].

%% ---- deletion and accounting ----------------------------------------------------

%% A tree with every kind of allocation; its figures are exact. Freeing it
%% gives back every byte to the tree, and the library counter ends 8 bytes
%% lower per shared binary (the kept drift).
accounting_test_() ->
    [{"del_all", fun() -> accounting(fun(T) -> ok = arbo:del_all(T) end) end},
     {"close", fun() -> accounting(fun(T) -> ok = arbo:close(T), closed end) end},
     {"del_hkey", fun() -> accounting(fun(T) ->
          [true = arbo:del_hkey(T, arbo:get_root(T), K, 13) || K <- [1, 2]] end) end}].

accounting(Free) ->
    Lib0 = lib_mem(),
    T = arbo:new(),
    R = arbo:get_root(T),
    C = arbo:add_hkey_internal(T, R, 1),
    Leaf = arbo:add_hkey(T, C, 2, 3),
    ok = arbo:set_val(T, Leaf, 17, binary:copy(<<1>>, 11)),        % 11 + 8
    _ = arbo:do_set_attr(T, Leaf, 4, binary:copy(<<2>>, 20)),      % 56 + 20 + 8
    L = arbo:add_hkey_dyn(T, R, 2, 3),
    I = arbo:add_hkey(T, L, binary:copy(<<"k">>, 12), 6),          % 64 + 12 + 8
    J = arbo:add_hkey(T, L, 5, 4),
    ok = arbo:set_val(T, J, 18, <<"v">>),                          % 1 + 8
    _ = arbo:do_set_attr(T, I, 1, <<"a">>),                        % 56
    Bins = 4,
    Mem = ?ROOT_MEM + ?INT_MEM + ?ONE_MEM + 19 + ?ONE_MEM + 28 + ?DYN_MEM
          + ?TWO_MEM + 20 + ?TWO_MEM + 9 + ?ONE_MEM,
    ?assertEqual(Mem, arbo:get_mem(T)),
    ?assertEqual(7, arbo:get_size(T)),
    ?assertEqual(Lib0 + Mem - 8 * Bins, lib_mem()),
    case Free(T) of
        closed -> ok;
        _ -> ?assertEqual({0, ?ROOT_MEM}, {arbo:get_size(T), arbo:get_mem(T)}),
             ok = arbo:close(T)
    end,
    ?assertEqual(Lib0 - 8 * Bins, lib_mem()).

del_all_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        ?assertEqual(ok, arbo:del_all(T)),
        ?assertEqual(0, arbo:get_generation(T)),
        L = arbo:add_hkey_dyn(T, R, 3, 0),
        [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, 50)],
        [arbo:add_hkey_internal(T, R, K) || K <- [1, 2, 4]],
        ?assertEqual(ok, arbo:del_all(T)),
        ?assertEqual(1, arbo:get_generation(T)),
        ?assertEqual({0, ?ROOT_MEM, []}, {arbo:get_size(T), arbo:get_mem(T), children(T, R)}),
        %% the tree is usable again
        _ = arbo:add_hkey_internal(T, R, 1),
        ?assertEqual(1, arbo:get_size(T))
    end).

%% ---- generation ---------------------------------------------------------------

%% {what, call, generation delta}, applied in order to one tree.
generation_rows(T, R, L, U, Leaf) ->
    [{"add container", fun() -> arbo:add_hkey_internal(T, R, 50) end, 0},
     {"add leaf", fun() -> arbo:add_hkey(T, R, [2 | 1], 3) end, 0},
     {"add list", fun() -> arbo:add_hkey_dyn(T, R, 51, 0) end, 0},
     {"add instance", fun() -> arbo:add_hkey(T, L, 9, 4) end, 0},
     {"rename instance", fun() -> arbo:rename_instance0(T, L, arbo:add_hkey(T, L, 8, 4), {80}, 4) end, 0},
     {"set value", fun() -> arbo:set_val(T, Leaf, 18, <<"x">>) end, 0},
     {"set flags", fun() -> arbo:set_flags(T, Leaf, 1 bsl 40) end, 0},
     {"set attribute", fun() -> arbo:do_set_attr(T, Leaf, 3, <<"a">>) end, 0},
     {"change attribute", fun() -> arbo:do_set_attr(T, Leaf, 3, <<"b">>) end, 0},
     {"remove absent attribute", fun() -> arbo:do_set_attr(T, Leaf, 4, <<>>) end, 0},
     {"remove attribute", fun() -> arbo:do_set_attr(T, Leaf, 3, <<>>) end, 1},
     {"delete instance", fun() -> arbo:del_hkey(T, L, {9}, 13) end, 1},
     {"delete absent", fun() -> arbo:del_hkey(T, L, {9}, 13) end, 0},
     {"delete bytes absent", fun() -> arbo:del_hkey(T, L, <<"q">>, 52) end, 0},
     {"delete namespace", fun() -> arbo:del_ns(T, R, 2) end, 1},
     {"delete empty namespace", fun() -> arbo:del_ns(T, R, 2) end, 0},
     {"rename namespace", fun() -> arbo:rename_ns(T, R, arbo:add_hkey(T, R, [3 | 1], 3), 4) end, 1},
     {"refused rename namespace", fun() -> arbo:rename_ns(T, R, Leaf, 4) end, 0},
     {"move to", fun() -> arbo:move_to(T, U, arbo:first_child_nif(T, U, [], 0), -1) end, 1},
     {"refused move", fun() -> arbo:move_to(T, U, arbo:last_child(T, U), -1) end, 0},
     {"failed add", fun() -> catch arbo:add_hkey(T, R, 1, 4) end, 0},
     {"del_all", fun() -> arbo:del_all(T) end, 1},
     {"del_all, empty", fun() -> arbo:del_all(T) end, 0}].

generation_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        U = arbo:add_hkey_dyn(T, R, 2, 3),
        [arbo:add_hkey(T, U, K, 4) || K <- [1, 2]],
        Leaf = arbo:add_hkey(T, R, 3, 3),
        lists:foreach(fun({What, F, Delta}) ->
            G0 = arbo:get_generation(T),
            _ = F(),
            ?assertEqual({What, G0 + Delta}, {What, arbo:get_generation(T)})
        end, generation_rows(T, R, L, U, Leaf))
    end).

%% ---- error families ----------------------------------------------------------

badarg_test_() ->
    {setup, fun arbo:new/0, fun arbo:close/1, fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Leaf = arbo:add_hkey(T, R, 2, 3),
        Calls = [
            {add_hkey_dyn, [T, 0, 1, 0]}, {add_hkey_dyn, [T, R, {1, 2}, 0]},
            {add_hkey_dyn, [T, R, [3, 7], 0]}, {add_hkey_dyn, [T, R, -1, 0]},
            {add_hkey_dyn, [T, R, 1, -1]}, {add_hkey_dyn, [T, R, 2, 0]},
            {add_hkey_internal, [T, R, -1]}, {add_hkey_internal, [T, L, 1]},
            {add_hkey_internal, [T, -5, 1]},
            {add_hkey, [T, R, 1, 7]}, {add_hkey, [T, R, 1, -1]}, {add_hkey, [T, L, foo, 4]},
            {add_hkey, [T, L, 1 bsl 31, 4]}, {add_hkey, [T, L, "k", 5]},
            {add_hkey, [T, L, {1}, 27]}, {add_hkey, [T, L, {a, 1}, 27]},
            {add_hkey, [T, L, 1, 2]}, {add_hkey, [T, R, 1, 4]}, {add_hkey, [T, R, <<1>>, 5]},
            {del_hkey, [T, R, 1, 16]}, {del_hkey, [T, L, 1, 15]}, {del_hkey, [T, L, {1}, 29]},
            {del_hkey, [T, R, 1, -13]},
            {get_hkey0, [T, 0]}, {get_hkey0, [T, foo]},
            {del_ns, [T, R, -1]}, {del_ns, [T, 0, 1]},
            {rename_ns, [T, R, 0, 1]}, {rename_ns, [T, R, Leaf, -1]},
            {rename_instance0, [T, R, Leaf, <<"k">>, 5]}, {rename_instance0, [T, L, 0, 1, 4]},
            {rename_instance0, [T, L, Leaf, "k", 6]}, {rename_instance0, [T, L, Leaf, {1}, 27]},
            {rename_instance0, [T, L, Leaf, [1, 2], 4]}, {rename_instance0, [T, L, Leaf, 1, -1]}],
        [{lists:flatten(io_lib:format("~p ~p", [F, tl(A)])),
          ?_assertEqual(badarg, reason(fun() -> apply(arbo, F, A) end))} || {F, A} <- Calls]
    end}.

invalid_node_type_test_() ->
    {setup, fun arbo:new/0, fun arbo:close/1, fun(T) ->
        N = type0_node(T, arbo:get_root(T)),
        Calls = [{add_hkey_dyn, [T, N, 1, 0]}, {add_hkey_internal, [T, N, 1]},
                 {add_hkey, [T, N, 1, 2]}, {add_hkey, [T, N, 1, 4]}, {add_hkey, [T, N, {1, 1}, 27]},
                 {del_hkey, [T, N, 1, 13]}, {del_hkey, [T, N, {1, 1}, 29]},
                 {get_hkey0, [T, N]}, {del_ns, [T, N, 1]},
                 {get_flags, [T, N]}, {set_flags, [T, N, 1]}, {set_flag, [T, N, 1]},
                 {clr_flag, [T, N, 1]}, {get_type, [T, N]}, {get_attr_root, [T, N]},
                 {do_get_attr, [T, N, 1]}, {do_set_attr, [T, N, 1, <<1>>]},
                 {get_val_raw, [T, N]}, {set_val, [T, N, 17, <<1>>]}],
        [{atom_to_list(F) ++ " " ++ integer_to_list(length(A)),
          ?_assertEqual(invalid_node_type, reason(fun() -> apply(arbo, F, A) end))}
         || {F, A} <- Calls]
        %% functions without the check answer by their own rules
        ++ [?_assertEqual({returned, false}, reason(fun() -> arbo:del_hkey(T, N, <<1>>, 15) end)),
            ?_assertEqual({returned, false}, reason(fun() -> arbo:rename_ns(T, arbo:get_root(T), N, 1) end)),
            ?_assertEqual(badarg, reason(fun() -> arbo:add_hkey(T, N, <<1>>, 5) end)),
            ?_assertEqual(1, arbo:get_size(T))]
    end}.

%% Plain arguments are decoded before the handle, keys of add_hkey/del_hkey
%% after it: on a closed table the first fail as badarg, the rest as
%% arbo_closed. Node references come from an open table (the closed one's
%% nodes are gone).
decode_order_test_() ->
    {setup, fun() -> {arbo:new(), arbo:new()} end,
     fun({Open, _}) -> arbo:close(Open) end,
     fun({Open, T}) ->
        ok = arbo:close(T),
        R = arbo:get_root(Open),
        L = arbo:add_hkey_dyn(Open, R, 1, 0),
        Rows = [{badarg, add_hkey_dyn, [T, R, {1, 2}, 0]}, {badarg, add_hkey, [T, R, 1, x]},
                {badarg, del_hkey, [T, 0, 1, 13]}, {badarg, del_ns, [T, R, x]},
                {badarg, rename_instance0, [T, R, R, <<>>, 5]},
                {badarg, rename_instance0, [T, L, R, "k", 5]},
                {badarg, set_val, [T, R, 17, "v"]}, {badarg, do_set_attr, [T, R, 1, x]},
                {arbo_closed, add_hkey, [T, R, 1, 99]}, {arbo_closed, add_hkey, [T, L, foo, 4]},
                {arbo_closed, add_hkey, [T, L, "k", 5]}, {arbo_closed, del_hkey, [T, R, 1, 16]},
                {arbo_closed, del_hkey, [T, L, x, 15]},
                {arbo_closed, rename_instance0, [T, L, R, <<"k">>, 5]},
                {arbo_closed, rename_ns, [T, R, R, 1]},
                {{returned, false}, rename_instance0, [T, R, R, <<>>, 7]}],
        [{lists:flatten(io_lib:format("~p ~p", [F, tl(A)])),
          ?_assertEqual(Want, reason(fun() -> apply(arbo, F, A) end))} || {Want, F, A} <- Rows]
     end}.
