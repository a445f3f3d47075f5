%% Tree editing from Erlang: containers and namespaces, sorted lists in the
%% cases the store model leaves out, key storage and renames with exact
%% accounting, deletion, generation moves, and one table-driven generator per
%% error family. Random sequences of the same calls, user-ordered lists
%% across their index thresholds included, are checked in store_prop_tests
%% (their exact per-step figures in store_test.cpp).
-module(edit_tests).
-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, children/2]).
-import(arbo_tree_util, [child_keys/2, lib_mem/0, type0_node/2]).

%% Record sizes as the allocator counts them.
-define(ROOT_MEM, 112).
-define(INT_MEM, 40).
-define(DYN_MEM, 120).
-define(ONE_MEM, 56).
-define(TWO_MEM, 64).

%% An encoded key of one string element.
str(S) -> <<200, (byte_size(S)), S/binary>>.

%% ---- containers and namespaces -------------------------------------------

containers_and_namespaces_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        C = arbo:add_hkey_internal(T, R, 5),
        L9 = arbo:add_hkey(T, R, 9, 2),
        N12 = arbo:add_hkey(T, R, [1 | 2], 3),
        Nneg = arbo:add_hkey(T, R, {-5}, 3),
        L = arbo:add_hkey_dyn(T, R, [1 | 1], 1),
        %% a pair asked for again answers its node, whatever kind asks (a list
        %% keeps its mode); only a list where a leaf holds the pair is refused
        ?assertEqual([C, L9, L, L], [arbo:add_hkey_internal(T, R, 5), arbo:add_hkey(T, R, 9, 3),
                                     arbo:add_hkey_dyn(T, R, [1 | 1], 3),
                                     arbo:add_hkey(T, R, [1 | 1], 2)]),
        ?assertEqual({2, 1}, arbo:get_type(T, L)),
        ?assertEqual(badarg, reason(fun() -> arbo:add_hkey_dyn(T, R, 9, 0) end)),
        %% ordered by (namespace, unsigned tag); {-5} is stored as its pattern
        ?assertEqual([C, L9, Nneg, L, N12], children(T, R)),
        ?assertEqual([5, 9, 16#FFFFFFFB, [1 | 1], [1 | 2]], child_keys(T, R)),
        ?assertEqual({5, ?ROOT_MEM + ?INT_MEM + 3 * ?ONE_MEM + ?DYN_MEM},
                     {arbo:get_size(T), arbo:get_mem(T)}),
        %% a key that is no tag form is taken as tag 0, deliberately
        _ = arbo:add_hkey(T, C, foo, 3),
        _ = arbo:add_hkey_internal(T, C, 3),
        ?assertEqual([0, 3], child_keys(T, C))
    end).

%% A namespace goes whole, lists with their instances; the rest stays.
del_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Keep = [arbo:add_hkey(T, R, K, 3) || K <- [[0 | 4], [2 | 1]]],
        [arbo:add_hkey(T, R, [1 | K], 3) || K <- [9, 1]],
        _ = arbo:add_hkey(T, arbo:add_hkey_dyn(T, R, [1 | 7], 0), 1, 4),
        ?assert(arbo:del_ns(T, R, 1)),
        ?assertEqual({Keep, 2, ?ROOT_MEM + 2 * ?ONE_MEM},
                     {children(T, R), arbo:get_size(T), arbo:get_mem(T)})
    end).

%% rename_ns moves a leaf (value kept) or a list and re-sorts; it refuses
%% without an exception a node in namespace 0, a container and a list's child.
rename_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        A = arbo:add_hkey(T, R, [1 | 4], 3),
        Z = arbo:add_hkey(T, R, 4, 3),
        C = arbo:add_hkey_internal(T, R, 6),
        L = arbo:add_hkey_dyn(T, R, [5 | 1], 3),
        I = arbo:add_hkey(T, L, {2, 1}, 27),
        ok = arbo:set_val(T, A, 17, <<"v">>),
        ?assertEqual([true, true], [arbo:rename_ns(T, R, A, 3), arbo:rename_ns(T, R, L, 0)]),
        ?assertEqual({[3 | 4], {csval, <<"v">>}}, {arbo:get_hkey0(T, A), arbo:get_val_raw(T, A)}),
        ?assertEqual([false, false, false, false],
                     [arbo:rename_ns(T, P, N, 1) || {P, N} <- [{R, Z}, {R, C}, {R, L}, {L, I}]]),
        ?assertEqual({[L, Z, C, A], 2}, {children(T, R), arbo:get_generation(T)})
    end).

%% ---- sorted lists ---------------------------------------------------------

%% {Mode, Code, keys in insertion order (repeats find their node), read-back in
%% list order}
sorted_cases() ->
    [%% tag first (signed), then namespace; {0, T} reads back as the bare
     %% unsigned tag: the kept asymmetry
     {0, 27, [{2, 7}, {0, 7}, {1, 7}, {0, -1}, {1, 7}], [16#FFFFFFFF, 7, {{1, 7}}, {{2, 7}}]},
     %% opaque keys by content, then length, across the inline/shared boundary
     {0, 6, [<<"b">>, <<"aa">>, <<>>, <<"a">>, <<>>] ++ [binary:copy(<<"k">>, N) || N <- [12, 10, 11]],
      [{<<>>}, {<<"a">>}, {<<"aa">>}, {<<"b">>}] ++ [{binary:copy(<<"k">>, N)} || N <- [10, 11, 12]]}].

sorted_list_test() ->
    [with_table(fun(T) ->
         L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, Mode),
         [arbo:add_hkey(T, L, K, Code) || K <- Keys],
         ?assertEqual({Want, length(Want)}, {child_keys(T, L), arbo:num_children(T, L)})
     end) || {Mode, Code, Keys, Want} <- sorted_cases()].

%% ---- key storage and renames -------------------------------------------------

%% In a user-ordered list (instances of fixed size) the key storage shows in
%% get_mem: up to 10 bytes inside the node, longer in a shared binary. A key
%% binary handed out stays valid after its node is gone.
key_storage_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 3),
        M0 = arbo:get_mem(T),
        {K10, K11, K40} = {binary:copy(<<"a">>, 10), str(binary:copy(<<"b">>, 9)), binary:copy(<<"c">>, 40)},
        A = arbo:add_hkey(T, L, K10, 6),
        ?assertEqual(M0 + ?TWO_MEM, arbo:get_mem(T)),
        B = arbo:add_hkey(T, L, K11, 5),
        ?assertEqual(M0 + 2 * ?TWO_MEM + 11 + 8, arbo:get_mem(T)),
        C = arbo:add_hkey(T, L, K40, 6),
        ?assertEqual({[A, B, C], [{K10}, {binary, K11}, {K40}]}, {children(T, L), child_keys(T, L)}),
        {Out} = arbo:get_hkey0(T, C),
        ?assertEqual([true, true], [arbo:del_hkey(T, L, K, 52) || K <- [K40, K10]]),
        ?assertEqual(M0 + ?TWO_MEM + 11 + 8, arbo:get_mem(T)),
        _ = binary:copy(<<"x">>, 4096),
        ?assertEqual({K40, K40}, {Out, binary:copy(Out)})
    end).

%% Renaming an instance to a byte key drops its value (byte-keyed nodes hold
%% none); a long new key is counted.
rename_instance_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
        [I1, I2] = [arbo:add_hkey(T, L, K, 4) || K <- [1, 2]],
        ok = arbo:set_val(T, I1, 18, binary:copy(<<"v">>, 30)),
        M0 = arbo:get_mem(T),
        ?assert(arbo:rename_instance0(T, L, I1, str(<<"k">>), 5)),
        ?assertEqual({undefined, M0 - 38}, {arbo:get_val_raw(T, I1), arbo:get_mem(T)}),
        ?assert(arbo:rename_instance0(T, L, I2, binary:copy(<<"k">>, 20), 6)),
        ?assertEqual({[{binary, str(<<"k">>)}, {binary:copy(<<"k">>, 20)}], M0 - 38 + 28},
                     {child_keys(T, L), arbo:get_mem(T)})
    end).

%% ---- deletion and accounting ----------------------------------------------------

%% del_hkey by the key forms the store model does not use, applied in order.
del_hkey_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        [_ = arbo:add_hkey(T, L, K, C) || {K, C} <- [{6, 4}, {{1, 8}, 27}, {{0, 0}, 27},
                                                      {str(<<"t">>), 5}]],
        Rows = [{"bare tag", 14, 6}, {"[Ns | Tag]", 13, [1 | 8]},
                %% an opaque key equals the encoded string of the same bytes
                {"opaque finds encoded", 52, <<"t">>}, {"undecodable tag: tag 0", 13, foo}],
        [?assertEqual({What, true}, {What, arbo:del_hkey(T, L, Key, Code)}) || {What, Code, Key} <- Rows],
        ?assertEqual({[], ?ROOT_MEM + ?DYN_MEM}, {children(T, L), arbo:get_mem(T)}),
        %% byte codes on a parent that is not a list: false, key unread
        ?assertEqual([false, false], [arbo:del_hkey(T, R, not_a_binary, C) || C <- [15, 52]])
    end).

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
    ?assertEqual({Mem, 7, Lib0 + Mem - 8 * Bins}, {arbo:get_mem(T), arbo:get_size(T), lib_mem()}),
    case Free(T) of
        closed -> ok;
        _ -> ?assertEqual({0, ?ROOT_MEM}, {arbo:get_size(T), arbo:get_mem(T)}),
             %% the tree is usable again
             _ = arbo:add_hkey_internal(T, R, 1),
             ok = arbo:close(T)
    end,
    ?assertEqual(Lib0 - 8 * Bins, lib_mem()).

%% ---- generation ---------------------------------------------------------------

%% {what, call, generation delta}, applied in order to one tree; the moves of
%% adds, deletes, renames, values, flags and attributes are in the store model.
generation_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        U = arbo:add_hkey_dyn(T, R, 2, 3),
        [arbo:add_hkey(T, U, K, 4) || K <- [1, 2]],
        Leaf = arbo:add_hkey(T, R, 3, 3),
        Rows = [{"add container", fun() -> arbo:add_hkey_internal(T, R, 50) end, 0},
                {"add list", fun() -> arbo:add_hkey_dyn(T, R, 51, 0) end, 0},
                {"refused rename namespace", fun() -> arbo:rename_ns(T, R, Leaf, 4) end, 0},
                {"move to", fun() -> arbo:move_to(T, U, arbo:first_child_nif(T, U, [], 0), -1) end, 1},
                {"refused move", fun() -> arbo:move_to(T, U, arbo:last_child(T, U), -1) end, 0},
                {"failed add", fun() -> catch arbo:add_hkey(T, R, 1, 4) end, 0},
                {"del_all", fun() -> arbo:del_all(T) end, 1},
                {"del_all, empty", fun() -> arbo:del_all(T) end, 0}],
        lists:foreach(fun({What, F, Delta}) ->
            G0 = arbo:get_generation(T),
            _ = F(),
            ?assertEqual({What, G0 + Delta}, {What, arbo:get_generation(T)})
        end, Rows)
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
            {add_hkey, [T, R, {0, 1}, 27]}, {add_hkey, [T, R, <<"k">>, 6]},
            {add_hkey_dyn, [T, L, 1, 0]},
            {del_hkey, [T, R, 1, 16]}, {del_hkey, [T, L, 1, 15]}, {del_hkey, [T, L, {1}, 29]},
            {del_hkey, [T, R, 1, -13]},
            {get_hkey0, [T, 0]}, {get_hkey0, [T, foo]},
            {del_ns, [T, R, -1]}, {del_ns, [T, 0, 1]},
            {rename_ns, [T, R, 0, 1]}, {rename_ns, [T, R, Leaf, -1]},
            {rename_instance0, [T, R, Leaf, <<"k">>, 5]}, {rename_instance0, [T, L, 0, 1, 4]},
            {rename_instance0, [T, L, Leaf, "k", 6]}, {rename_instance0, [T, L, Leaf, {1}, 27]},
            {rename_instance0, [T, L, Leaf, [1, 2], 4]}, {rename_instance0, [T, L, Leaf, 1, -1]}],
        [?_assertEqual({F, tl(A), badarg}, {F, tl(A), reason(fun() -> apply(arbo, F, A) end)})
         || {F, A} <- Calls]
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
        %% functions without the check answer by their own rules
        Own = [{{returned, false}, del_hkey, [T, N, <<1>>, 15]},
               {{returned, false}, rename_ns, [T, arbo:get_root(T), N, 1]},
               {badarg, add_hkey, [T, N, <<1>>, 5]}],
        [?_assertEqual({F, tl(A), Want}, {F, tl(A), reason(fun() -> apply(arbo, F, A) end)})
         || {Want, F, A} <- [{invalid_node_type, F, A} || {F, A} <- Calls] ++ Own]
        ++ [?_assertEqual(1, arbo:get_size(T))]
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
        [?_assertEqual({F, tl(A), Want}, {F, tl(A), reason(fun() -> apply(arbo, F, A) end)})
         || {Want, F, A} <- Rows]
     end}.
