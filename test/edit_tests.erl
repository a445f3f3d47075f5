%% Tree editing from Erlang: containers and namespaces (integer child lists),
%% key storage with exact accounting, deletion, generation moves, and one
%% the refusals the store makes (argument decoding, handles and node types
%% are swept by arbo_fuzz_tests). Random sequences of list edits
%% through every key form, renames included, are checked in
%% store_prop_tests (the lists themselves, every key style and the index
%% thresholds, in store_model_test.cpp).
-module(edit_tests).
-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, children/2, str/1]).
-import(arbo_tree_util, [child_keys/2, lib_mem/0]).

%% Record sizes as the allocator counts them.
-define(ROOT_MEM, 112).
-define(INT_MEM, 40).
-define(DYN_MEM, 120).
-define(ONE_MEM, 56).
-define(TWO_MEM, 64).

%% ---- containers and namespaces -------------------------------------------

containers_and_namespaces_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [C, L9, N12, Nneg, L] = [arbo:add_hkey_internal(T, R, 5) | [arbo:add_hkey(T, R, K, 3) || K <- [9, [1 | 2], {-5}]]]
                                ++ [arbo:add_hkey_dyn(T, R, [1 | 1], 1)],
        %% a pair asked for again answers its node, whatever kind asks (a list
        %% keeps its mode); the store refuses a list where a leaf holds the
        %% pair and a byte key outside a list (a container in a list and a
        %% rename outside one are arbo_fuzz_tests' rows)
        ?assertEqual([C, L9, L, L], [arbo:add_hkey_internal(T, R, 5), arbo:add_hkey(T, R, 9, 3),
                                     arbo:add_hkey_dyn(T, R, [1 | 1], 3), arbo:add_hkey(T, R, [1 | 1], 2)]),
        Refused = [{add_hkey_dyn, [T, R, 9, 0]}, {add_hkey, [T, R, <<1>>, 5]}],
        ?assertEqual({{2, 1}, [badarg || _ <- Refused]}, {arbo:get_type(T, L), [reason(fun() -> apply(arbo, F, A) end)
                                                                                 || {F, A} <- Refused]}),
        %% ordered by (namespace, unsigned tag); {-5} is stored as its pattern
        ?assertEqual({[C, L9, Nneg, L, N12], [5, 9, 16#FFFFFFFB, [1 | 1], [1 | 2]]},
                     {children(T, R), child_keys(T, R)}),
        %% adds, found pairs and refused adds leave the generation alone
        ?assertEqual({5, ?ROOT_MEM + ?INT_MEM + 3 * ?ONE_MEM + ?DYN_MEM, 0},
                     {arbo:get_size(T), arbo:get_mem(T), arbo:get_generation(T)}),
        %% a key that is no tag form is taken as tag 0, deliberately
        _ = [arbo:add_hkey(T, C, foo, 3), arbo:add_hkey_internal(T, C, 3)],
        ?assertEqual([0, 3], child_keys(T, C))
    end).

%% A namespace goes whole, lists with their instances; the rest stays.
%% del_all moves the generation once, and not at all on an empty tree.
del_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Keep = [arbo:add_hkey(T, R, K, 3) || K <- [[0 | 4], [2 | 1]]],
        [arbo:add_hkey(T, R, [1 | K], 3) || K <- [9, 1]],
        _ = arbo:add_hkey(T, arbo:add_hkey_dyn(T, R, [1 | 7], 0), 1, 4),
        ?assertEqual({true, Keep, 2, ?ROOT_MEM + 2 * ?ONE_MEM, 1}, {arbo:del_ns(T, R, 1), children(T, R), arbo:get_size(T),
                                                                     arbo:get_mem(T), arbo:get_generation(T)}),
        ?assertEqual([2, 2], [begin ok = arbo:del_all(T), arbo:get_generation(T) end || _ <- [1, 2]])
    end).

%% rename_ns moves a leaf (value kept) or a list and re-sorts; it refuses
%% without an exception a node in namespace 0, a container and a list's
%% child. A leaf moved onto a taken pair is refused and dropped (kept).
rename_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [A, B, Z, C, L] = [arbo:add_hkey(T, R, K, 3) || K <- [[1 | 4], [2 | 6], 4]]
                          ++ [arbo:add_hkey_internal(T, R, 6), arbo:add_hkey_dyn(T, R, [5 | 1], 3)],
        {I, ok} = {arbo:add_hkey(T, L, {2, 1}, 27), arbo:set_val(T, A, 17, <<"v">>)},
        ?assertEqual([true, true], [arbo:rename_ns(T, R, A, 3), arbo:rename_ns(T, R, L, 0)]),
        ?assertEqual({[3 | 4], {csval, <<"v">>}}, {arbo:get_hkey0(T, A), arbo:get_val_raw(T, A)}),
        ?assertEqual([false, false, false, false], [arbo:rename_ns(T, P, N, 1) || {P, N} <- [{R, Z}, {R, C}, {R, L}, {L, I}]]),
        ?assertEqual({[L, Z, C, B, A], 2}, {children(T, R), arbo:get_generation(T)}),
        ?assertEqual(false, arbo:rename_ns(T, R, arbo:add_hkey(T, R, [1 | 6], 3), 2)),
        ?assertEqual({[L, Z, C, B, A], 6}, {children(T, R), arbo:get_size(T)})
    end).

%% rename_instance0 reads its list first: a node that is not a list is
%% refused whatever the code, before an unknown code answers false without
%% the handle (so also with a closed table's). Nothing moves the generation.
rename_outside_list_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [C, G, L] = [arbo:add_hkey_internal(T, R, 1), arbo:add_hkey(T, R, 2, 3), arbo:add_hkey_dyn(T, R, 3, 0)],
        I = arbo:add_hkey(T, L, 1, 4),
        Closed = arbo:new(),
        ok = arbo:close(Closed),
        Rows = [{T, N, Code} || N <- [R, C, G, I], Code <- [4, 5, 27, 7, 16#FFFFFFFF]] ++ [{Closed, G, 7}, {T, L, 7}, {Closed, L, 7}],
        Key = fun(5) -> <<"k">>; (27) -> {1, 2}; (_) -> 9 end,
        ?assertEqual(lists:duplicate(21, badarg) ++ [{returned, false}, {returned, false}],
                     [reason(fun() -> arbo:rename_instance0(H, N, I, Key(Code), Code) end) || {H, N, Code} <- Rows]),
        ?assertEqual({[I], 0}, {children(T, L), arbo:get_generation(T)})
    end).

%% ---- deletion and accounting ----------------------------------------------------

%% del_hkey by the key forms the store model does not use, applied in order:
%% a bare tag, [Ns | Tag], an opaque key finding the encoded string of the
%% same bytes, an undecodable tag read as tag 0.
del_hkey_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
        [_ = arbo:add_hkey(T, L, K, C) || {K, C} <- [{6, 4}, {{1, 8}, 27}, {{0, 0}, 27}, {str(<<"t">>), 5}]],
        Rows = [{14, 6}, {13, [1 | 8]}, {52, <<"t">>}, {13, foo}],
        ?assertEqual([true, true, true, true], [arbo:del_hkey(T, L, Key, Code) || {Code, Key} <- Rows]),
        ?assertEqual({[], ?ROOT_MEM + ?DYN_MEM}, {children(T, L), arbo:get_mem(T)})
    end).

%% A tree with every kind of allocation (a key of 10 bytes kept inside its
%% node, one of 12 in a shared binary); its figures are exact. Freeing it by
%% del_all, close or deleting its top nodes gives back every byte to the
%% tree, and the library counter ends 8 bytes lower per shared binary (the
%% kept drift). A key binary handed out outlives its node.
accounting_test_() ->
    [fun() -> accounting(Free) end || Free <- [fun(T) -> ok = arbo:del_all(T) end, fun(T) -> ok = arbo:close(T), closed end,
                                               fun(T) -> [true = arbo:del_hkey(T, arbo:get_root(T), K, 13) || K <- [1, 2]] end]].

accounting(Free) ->
    Lib0 = lib_mem(),
    T = arbo:new(),
    R = arbo:get_root(T),
    Leaf = arbo:add_hkey(T, arbo:add_hkey_internal(T, R, 1), 2, 3),
    ok = arbo:set_val(T, Leaf, 17, binary:copy(<<1>>, 11)),        % 11 + 8
    _ = arbo:do_set_attr(T, Leaf, 4, binary:copy(<<2>>, 20)),      % 56 + 20 + 8
    L = arbo:add_hkey_dyn(T, R, 2, 3),
    I = arbo:add_hkey(T, L, binary:copy(<<"k">>, 12), 6),          % 64 + 12 + 8
    _ = arbo:add_hkey(T, L, binary:copy(<<"j">>, 10), 6),          % 64
    ok = arbo:set_val(T, arbo:add_hkey(T, L, 5, 4), 18, <<"v">>),  % 64 + 1 + 8
    _ = arbo:do_set_attr(T, I, 1, <<"a">>),                        % 56
    {Key} = arbo:get_hkey0(T, I),
    Mem = ?ROOT_MEM + ?INT_MEM + 2 * ?ONE_MEM + 19 + 28 + ?DYN_MEM + 3 * ?TWO_MEM + 20 + 9 + ?ONE_MEM,
    ?assertEqual({Mem, 8, Lib0 + Mem - 8 * 4}, {arbo:get_mem(T), arbo:get_size(T), lib_mem()}),
    Free(T) =:= closed orelse (?assertEqual({0, ?ROOT_MEM, ok}, {arbo:get_size(T), arbo:get_mem(T), arbo:close(T)})),
    _ = binary:copy(<<"x">>, 4096),
    ?assertEqual({Lib0 - 8 * 4, binary:copy(<<"k">>, 12)}, {lib_mem(), binary:copy(Key)}).
