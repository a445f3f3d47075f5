%% Tree editing from Erlang: containers and namespaces (integer child lists),
%% key storage with exact accounting, deletion, generation moves, and one
%% table per error family (a row per error path). Random sequences of list
%% edits through every key form, renames included, are checked in
%% store_prop_tests (the lists themselves, every key style and the index
%% thresholds, in store_model_test.cpp).
-module(edit_tests).
-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, children/2, str/1]).
-import(arbo_tree_util, [child_keys/2, lib_mem/0, type0_node/2]).

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
        C = arbo:add_hkey_internal(T, R, 5),
        [L9, N12, Nneg] = [arbo:add_hkey(T, R, K, 3) || K <- [9, [1 | 2], {-5}]],
        L = arbo:add_hkey_dyn(T, R, [1 | 1], 1),
        %% a pair asked for again answers its node, whatever kind asks (a list
        %% keeps its mode); only a list where a leaf holds the pair is refused
        ?assertEqual([C, L9, L, L], [arbo:add_hkey_internal(T, R, 5), arbo:add_hkey(T, R, 9, 3),
                                     arbo:add_hkey_dyn(T, R, [1 | 1], 3), arbo:add_hkey(T, R, [1 | 1], 2)]),
        ?assertEqual({{2, 1}, badarg},
                     {arbo:get_type(T, L), reason(fun() -> arbo:add_hkey_dyn(T, R, 9, 0) end)}),
        %% ordered by (namespace, unsigned tag); {-5} is stored as its pattern
        ?assertEqual({[C, L9, Nneg, L, N12], [5, 9, 16#FFFFFFFB, [1 | 1], [1 | 2]]},
                     {children(T, R), child_keys(T, R)}),
        %% adds, found pairs and refused adds leave the generation alone
        ?assertEqual({5, ?ROOT_MEM + ?INT_MEM + 3 * ?ONE_MEM + ?DYN_MEM, 0},
                     {arbo:get_size(T), arbo:get_mem(T), arbo:get_generation(T)}),
        %% a key that is no tag form is taken as tag 0, deliberately
        _ = arbo:add_hkey(T, C, foo, 3),
        _ = arbo:add_hkey_internal(T, C, 3),
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
        ?assert(arbo:del_ns(T, R, 1)),
        ?assertEqual({Keep, 2, ?ROOT_MEM + 2 * ?ONE_MEM, 1},
                     {children(T, R), arbo:get_size(T), arbo:get_mem(T), arbo:get_generation(T)}),
        ?assertEqual([2, 2], [begin ok = arbo:del_all(T), arbo:get_generation(T) end || _ <- [1, 2]])
    end).

%% rename_ns moves a leaf (value kept) or a list and re-sorts; it refuses
%% without an exception a node in namespace 0, a container and a list's
%% child. A leaf moved onto a taken pair is refused and dropped (kept).
rename_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [A, B, Z] = [arbo:add_hkey(T, R, K, 3) || K <- [[1 | 4], [2 | 6], 4]],
        C = arbo:add_hkey_internal(T, R, 6),
        L = arbo:add_hkey_dyn(T, R, [5 | 1], 3),
        I = arbo:add_hkey(T, L, {2, 1}, 27),
        ok = arbo:set_val(T, A, 17, <<"v">>),
        ?assertEqual([true, true], [arbo:rename_ns(T, R, A, 3), arbo:rename_ns(T, R, L, 0)]),
        ?assertEqual({[3 | 4], {csval, <<"v">>}}, {arbo:get_hkey0(T, A), arbo:get_val_raw(T, A)}),
        ?assertEqual([false, false, false, false],
                     [arbo:rename_ns(T, P, N, 1) || {P, N} <- [{R, Z}, {R, C}, {R, L}, {L, I}]]),
        ?assertEqual({[L, Z, C, B, A], 2}, {children(T, R), arbo:get_generation(T)}),
        ?assertEqual(false, arbo:rename_ns(T, R, arbo:add_hkey(T, R, [1 | 6], 3), 2)),
        ?assertEqual({[L, Z, C, B, A], 6}, {children(T, R), arbo:get_size(T)})
    end).

%% ---- key storage -------------------------------------------------------------

%% In a user-ordered list the key storage shows in get_mem: up to 10 bytes
%% inside the node, longer in a shared binary. A key binary handed out
%% stays valid after its node is gone.
key_storage_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 3),
        M0 = arbo:get_mem(T),
        {K10, K11, K40} = {binary:copy(<<"a">>, 10), str(binary:copy(<<"b">>, 9)), binary:copy(<<"c">>, 40)},
        [A, B, C] = [arbo:add_hkey(T, L, K, Code) || {K, Code} <- [{K10, 6}, {K11, 5}, {K40, 6}]],
        ?assertEqual({[A, B, C], [{K10}, {binary, K11}, {K40}], M0 + 3 * ?TWO_MEM + 11 + 40 + 16},
                     {children(T, L), child_keys(T, L), arbo:get_mem(T)}),
        {Out} = arbo:get_hkey0(T, C),
        ?assertEqual([true, true], [arbo:del_hkey(T, L, K, 52) || K <- [K40, K10]]),
        ?assertEqual(M0 + ?TWO_MEM + 11 + 8, arbo:get_mem(T)),
        _ = binary:copy(<<"x">>, 4096),
        ?assertEqual({K40, K40}, {Out, binary:copy(Out)})
    end).

%% ---- deletion and accounting ----------------------------------------------------

%% del_hkey by the key forms the store model does not use, applied in order.
del_hkey_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        [_ = arbo:add_hkey(T, L, K, C) || {K, C} <- [{6, 4}, {{1, 8}, 27}, {{0, 0}, 27}, {str(<<"t">>), 5}]],
        %% a bare tag, [Ns | Tag], an opaque key finding the encoded string of
        %% the same bytes, an undecodable tag read as tag 0
        Rows = [{14, 6}, {13, [1 | 8]}, {52, <<"t">>}, {13, foo}],
        ?assertEqual([true, true, true, true], [arbo:del_hkey(T, L, Key, Code) || {Code, Key} <- Rows]),
        ?assertEqual({[], ?ROOT_MEM + ?DYN_MEM}, {children(T, L), arbo:get_mem(T)}),
        %% byte codes on a parent that is not a list: false, key unread
        ?assertEqual([false, false], [arbo:del_hkey(T, R, not_a_binary, C) || C <- [15, 52]])
    end).

%% A tree with every kind of allocation; its figures are exact. Freeing it
%% by del_all, close or deleting its top nodes gives back every byte to the
%% tree, and the library counter ends 8 bytes lower per shared binary (the
%% kept drift).
accounting_test_() ->
    [fun() -> accounting(fun(T) -> ok = arbo:del_all(T) end) end,
     fun() -> accounting(fun(T) -> ok = arbo:close(T), closed end) end,
     fun() -> accounting(fun(T) -> [true = arbo:del_hkey(T, arbo:get_root(T), K, 13) || K <- [1, 2]] end)
     end].

accounting(Free) ->
    Lib0 = lib_mem(),
    T = arbo:new(),
    R = arbo:get_root(T),
    Leaf = arbo:add_hkey(T, arbo:add_hkey_internal(T, R, 1), 2, 3),
    ok = arbo:set_val(T, Leaf, 17, binary:copy(<<1>>, 11)),        % 11 + 8
    _ = arbo:do_set_attr(T, Leaf, 4, binary:copy(<<2>>, 20)),      % 56 + 20 + 8
    L = arbo:add_hkey_dyn(T, R, 2, 3),
    I = arbo:add_hkey(T, L, binary:copy(<<"k">>, 12), 6),          % 64 + 12 + 8
    ok = arbo:set_val(T, arbo:add_hkey(T, L, 5, 4), 18, <<"v">>),  % 64 + 1 + 8
    _ = arbo:do_set_attr(T, I, 1, <<"a">>),                        % 56
    Mem = ?ROOT_MEM + ?INT_MEM + 2 * ?ONE_MEM + 19 + 28 + ?DYN_MEM + 2 * ?TWO_MEM + 20 + 9 + ?ONE_MEM,
    ?assertEqual({Mem, 7, Lib0 + Mem - 8 * 4}, {arbo:get_mem(T), arbo:get_size(T), lib_mem()}),
    case Free(T) of
        closed -> ok;
        _ -> ?assertEqual({0, ?ROOT_MEM}, {arbo:get_size(T), arbo:get_mem(T)}),
             _ = arbo:add_hkey_internal(T, R, 1),  % the tree is usable again
             ok = arbo:close(T)
    end,
    ?assertEqual(Lib0 - 8 * 4, lib_mem()).

%% ---- error families ----------------------------------------------------------

%% {Want, Function, Args}: one row per way an edit is refused.
errors_test_() ->
    {setup, fun() -> {arbo:new(), arbo:new()} end, fun({T, _}) -> arbo:close(T) end,
     fun({T, Closed}) ->
        ok = arbo:close(Closed),
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Leaf = arbo:add_hkey(T, R, 2, 3),
        N = type0_node(T, R),
        Rows = [%% badarg: references, tags, modes, codes, keys, kinds in the way
                {badarg, add_hkey_dyn, [T, R, {1, 2}, 0]}, {badarg, add_hkey_dyn, [T, R, 1, -1]},
                {badarg, add_hkey_dyn, [T, R, 2, 0]}, {badarg, add_hkey_internal, [T, L, 1]},
                {badarg, add_hkey, [T, R, 1, 7]}, {badarg, add_hkey, [T, L, 1 bsl 31, 4]},
                {badarg, add_hkey, [T, L, "k", 5]}, {badarg, add_hkey, [T, L, {a, 1}, 27]},
                {badarg, add_hkey, [T, R, <<1>>, 5]}, {badarg, del_hkey, [T, R, 1, 16]},
                {badarg, del_ns, [T, R, -1]}, {badarg, rename_ns, [T, R, Leaf, -1]},
                {badarg, rename_instance0, [T, R, Leaf, <<"k">>, 5]},
                {badarg, rename_instance0, [T, L, Leaf, [1, 2], 4]},
                %% a node of type 0 where a typed node is needed; functions
                %% without the check answer by their own rules
                {invalid_node_type, add_hkey_dyn, [T, N, 1, 0]}, {invalid_node_type, add_hkey, [T, N, 1, 2]},
                {invalid_node_type, del_hkey, [T, N, {1, 1}, 29]}, {invalid_node_type, get_flags, [T, N]},
                {invalid_node_type, do_set_attr, [T, N, 1, <<1>>]}, {invalid_node_type, set_val, [T, N, 17, <<1>>]},
                {{returned, false}, del_hkey, [T, N, <<1>>, 15]}, {badarg, add_hkey, [T, N, <<1>>, 5]},
                %% on a closed table plain arguments are decoded before the
                %% handle, keys after it
                {badarg, add_hkey_dyn, [Closed, R, {1, 2}, 0]}, {badarg, set_val, [Closed, R, 17, "v"]},
                {arbo_closed, add_hkey, [Closed, L, foo, 4]}, {arbo_closed, del_hkey, [Closed, L, x, 15]},
                {{returned, false}, rename_instance0, [Closed, R, R, <<>>, 7]}],
        [?_assertEqual({F, tl(A), Want}, {F, tl(A), reason(fun() -> apply(arbo, F, A) end)})
         || {Want, F, A} <- Rows] ++ [?_assertEqual(3, arbo:get_size(T))]
    end}.
