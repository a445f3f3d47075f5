%% Navigation: counting, stepping, lookups, moves, hidden inactive nodes and
%% the error families of the navigation functions.
-module(nav_tests).

-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, hide/1, children/2, deactivate/2, shuffle/1]).

%% Every kind of childless node answers "nothing"; an empty sorted list's
%% last child is its header view, the list node itself (kept).
empty_nodes_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Nodes = [arbo:add_hkey(T, R, [1 | 1], 3), arbo:add_hkey_internal(T, R, 2),
                 arbo:add_hkey_dyn(T, R, 3, 0), arbo:add_hkey_dyn(T, R, 4, 3)],
        [?assertEqual({N, [0, 0, 0, 0, 0, false, false, 0]},
                      {N, [arbo:num_children(T, N), arbo:first_child_nif(T, N, [], 1),
                           arbo:first_child_nif(T, N, {4, []}, 1), arbo:get_child(T, N, 1),
                           arbo:num_children_with_flag(T, N, 16#ffff),
                           arbo:has_child_with_flags(T, N, 16#ffff),
                           arbo:has_child_without_flags(T, N, 16#ffff),
                           arbo:find_next_nif(T, N, 1, 39, 1, [])]}) || N <- Nodes],
        ?assertEqual([0, 0, lists:nth(3, Nodes), 0], [arbo:last_child(T, N) || N <- Nodes])
    end).

%% A container's chain is in (namespace, key) order whatever the order of
%% insertion; positions, lookups by every tag form.
chain_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Specs = [{box, 0, 5}, {leaf, 1, 2}, {leaf, 0, 9}, {box, 0, 1}, {list, 2, 1},
                 {leaf, 1, 1}, {box, 0, 7}],
        Made = [{Ns, K, add(T, R, Kind, Ns, K)} || {Kind, Ns, K} <- shuffle(Specs)],
        Expected = [N || {_, _, N} <- lists:sort(Made)],
        Len = length(Expected),
        ?assertEqual(Expected, children(T, R)),
        ?assertEqual(Len, arbo:num_children(T, R)),
        ?assertEqual(lists:last(Expected), arbo:last_child(T, R)),
        [?assertEqual({N, I, Prev}, {arbo:get_child(T, R, I), arbo:child_index(T, R, N),
                                     arbo:prev_sibling(T, R, N)})
         || {I, N, Prev} <- lists:zip3(lists:seq(1, Len), Expected, [0 | lists:droplast(Expected)])],
        %% Kept: N = 0 counts down through the unsigned wrap and finds nothing.
        ?assertEqual([0, 0, 0, 0, 0], [arbo:get_child(T, R, 0), arbo:get_child(T, R, Len + 1),
                                       arbo:child_index(T, R, 12345), arbo:child_index(T, R, 0),
                                       arbo:prev_sibling(T, R, 12345)]),
        [C1, C2 | _] = Expected,
        ?assertEqual({C1, full}, arbo:first_child_nif(T, R, [], 1)),
        ?assertEqual({C2, full}, arbo:next_sibling_nif(T, C1, [], 7)),
        Box1 = lookup(Made, 0, 1),
        [Leaf12, List21] = [lookup(Made, Ns, K) || {Ns, K} <- [{1, 2}, {2, 1}]],
        Cases = [{1, 10, Box1}, {{1}, 11, Box1}, {[1 | 2], 11, Leaf12}, {{2, 1}, 28, List21},
                 {[3 | 1], 10, 0}, {not_a_tag, 10, 0}, {1, 99, 0}, {<<"x">>, 12, 0}],
        [?assertEqual({Key, Code, Want}, {Key, Code, arbo:find_child(T, R, Key, Code)})
         || {Key, Code, Want} <- Cases]
    end).

add(T, R, box, 0, K) -> arbo:add_hkey_internal(T, R, K);
add(T, R, leaf, Ns, K) -> arbo:add_hkey(T, R, [Ns | K], 3);
add(T, R, list, Ns, K) -> arbo:add_hkey_dyn(T, R, [Ns | K], 0).

lookup(Made, Ns, K) -> hd([N || {X, Y, N} <- Made, X =:= Ns, Y =:= K]).

%% Sorted lists: skip-list positions and find_next_nif (strictly after the
%% key, or at it with Mode 1; with a filter the walk starts there).
sorted_list_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Keys = [2 * I || I <- lists:seq(1, 300)],
        ByKey = maps:from_list([{K, arbo:add_hkey(T, L, K, 4)} || K <- shuffle(Keys)]),
        Inst = fun(K) -> maps:get(K, ByKey, 0) end,
        ?assertEqual([Inst(K) || K <- Keys], children(T, L)),
        ?assertEqual({300, Inst(600), Inst(200), Inst(198), 100},
                     {arbo:num_children(T, L), arbo:last_child(T, L), arbo:get_child(T, L, 100),
                      arbo:prev_sibling(T, L, Inst(200)), arbo:child_index(T, L, Inst(200))}),
        ?assertEqual(0, arbo:find_child(T, L, {3}, 11)),
        ?assertEqual(Inst(40), arbo:find_child(T, L, {0, 40}, 28)),
        Next = [{5, 39, 0, [], 6}, {6, 39, 0, [], 8}, {6, 39, 1, [], 6}, {600, 39, 0, [], 0},
                {{0, 6}, 40, 1, [], 6}, {5, 77, 0, [], 0}, {6, 39, 0, {101, 1, 0, <<"10">>}, 10}],
        [?assertEqual({Key, Mode, F, Inst(Want)},
                      {Key, Mode, F, arbo:find_next_nif(T, L, Key, Code, Mode, F)})
         || {Key, Code, Mode, F, Want} <- Next],
        ?assertEqual(0, arbo:find_next_nif(T, R, 6, 39, 0, [])),
        %% Byte keys: encoded and opaque.
        B = arbo:add_hkey_dyn(T, R, 2, 0),
        [Bd, Bf] = [arbo:add_hkey(T, B, walk_util:str(S), 5) || S <- ["d", "f"]],
        Opaque = arbo:add_hkey(T, B, <<"zz">>, 6),
        ?assertEqual([Bd, 0, Opaque, Bf, Bd],
                     [arbo:find_child(T, B, walk_util:str("d"), 12),
                      arbo:find_child(T, B, walk_util:str("e"), 12),
                      arbo:find_child(T, B, <<"zz">>, 53)] ++
                     [arbo:find_next_nif(T, B, walk_util:str("d"), 41, M, []) || M <- [0, 1]])
    end).

%% User-ordered lists and the two moves (move_to's positions are followed by
%% the tree layer's model).
user_ordered_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 3),
        S = arbo:add_hkey_dyn(T, R, 2, 0),
        SI = arbo:add_hkey(T, S, 1, 4),
        [A, B, C, D] = [arbo:add_hkey(T, L, K, 4) || K <- [40, 10, 30, 20]],
        ?assertEqual({[A, B, C, D], D, B}, {children(T, L), arbo:last_child(T, L),
                                            arbo:prev_sibling(T, L, C)}),
        G0 = arbo:get_generation(T),
        ?assertEqual([true, false], [arbo:move_to(T, L, B, -1), arbo:move_to(T, L, B, 9)]),
        ?assertEqual({[A, C, D, B], B}, {children(T, L), arbo:last_child(T, L)}),
        %% Kept contract: "false" means the instance moved, "true" refused.
        ?assertEqual([false, true], [arbo:move_rel_internal(T, L, B, 1, A),
                                     arbo:move_rel_internal(T, L, C, 1, C)]),
        ?assertEqual([B, A, C, D], children(T, L)),
        ?assertEqual(G0 + 2, arbo:get_generation(T)),
        %% Only user-ordered lists move.
        [?assertEqual(badarg, reason(F))
         || F <- [fun() -> arbo:move_to(T, S, SI, 0) end,
                  fun() -> arbo:move_rel_internal(T, S, SI, 1, SI) end]]
    end).

flags_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [C1, C2, C3] = [arbo:add_hkey_internal(T, R, K) || K <- [1, 2, 3]],
        G = arbo:add_hkey(T, C3, [0 | 1], 3),
        arbo:set_flag(T, C1, 2#0011),
        arbo:set_flag(T, C2, 2#0110),
        arbo:set_flag(T, G, 16#100000000),
        arbo:set_flag(T, R, 2#10000),
        Cases = [{2#0010, 2, true, true}, {2#1000, 0, false, true}, {2#0111, 2, true, true},
                 {0, 0, false, true}],
        [?assertEqual({M, Count, With, Without},
                      {M, arbo:num_children_with_flag(T, R, M), arbo:has_child_with_flags(T, R, M),
                       arbo:has_child_without_flags(T, R, M)})
         || {M, Count, With, Without} <- Cases],
        ?assertEqual(false, arbo:has_child_without_flags(T, C3, 16#100000000)),
        %% Descendants: the fourth argument decides whether Node itself counts.
        ?assertEqual([true, false, true, false],
                     [arbo:has_descendant_with_flags(T, N, M, Self)
                      || {N, M, Self} <- [{R, 16#100000000, 0}, {R, 2#10000, 0},
                                          {R, 2#10000, 1}, {C2, 2#0100, 0}]])
    end).

%% View option 0x100: inactive nodes hidden.
hidden_test() ->
    with_table(fun(T) ->
        H = hide(T),
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        [I1, I2, I3, I4, I5, I6] = [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, 6)],
        [deactivate(T, I) || I <- [I2, I5, I6]],
        arbo:set_flag(T, I2, 2#100),
        Both = fun(F) -> {F(T), F(H)} end,
        ?assertEqual({6, 3}, Both(fun(X) -> arbo:num_children(X, L) end)),
        ?assertEqual({I3, I4}, Both(fun(X) -> arbo:get_child(X, L, 3) end)),
        ?assertEqual({1, 0}, Both(fun(X) -> arbo:num_children_with_flag(X, L, 2#100) end)),
        ?assertEqual({I2, 0}, Both(fun(X) -> arbo:find_child(X, L, {2}, 10) end)),
        ?assertEqual([I1, I3, I4], children(H, L)),
        %% last_child does not hide; find_next_nif's answer is stepped past.
        ?assertEqual(I6, arbo:last_child(H, L)),
        ?assertEqual({I2, I3}, Both(fun(X) -> arbo:find_next_nif(X, L, 1, 39, 0, []) end)),
        %% Containers count their inactive children too.
        Box = arbo:add_hkey_internal(T, R, 2),
        Cs = [arbo:add_hkey(T, Box, [0 | K], 3) || K <- [1, 2, 3]],
        deactivate(T, hd(Cs)),
        ?assertEqual({2, tl(Cs)}, {arbo:num_children(H, Box), children(H, Box)})
    end).

%% ---- error families -----------------------------------------------------------

%% One row per error path: a malformed node or plain argument (before and
%% after the handle is taken), a bad handle, a closed tree, a node whose
%% type bits read as 0.
errors_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 3),
        I = arbo:add_hkey(T, L, 1, 4),
        N0 = arbo_tree_util:type0_node(T, R),
        {arbo, Res, _, _} = T,
        Closed = arbo:new(),
        ok = arbo:close(Closed),
        Cases = [{badarg, fun() -> arbo:num_children(T, -1) end},
                 {badarg, fun() -> arbo:first_child_nif(T, 1 bsl 64, [], 0) end},
                 {badarg, fun() -> arbo:has_descendant_with_flags(T, R, 1, -1) end},
                 {badarg, fun() -> arbo:find_next_nif(T, L, 1, -39, 0, []) end},
                 {badarg, fun() -> arbo:move_rel_internal(T, L, I, x, I) end},
                 {badarg, fun() -> arbo:get_child({arbo, Res, -1, x}, R, 1) end},
                 {badarg, fun() -> arbo:last_child({arbo, make_ref(), 0, x}, R) end},
                 {arbo_closed, fun() -> arbo:find_child(Closed, R, 1, 10) end},
                 {invalid_node_type, fun() -> arbo:find_next_nif(T, N0, 1, 39, 0, []) end},
                 {invalid_node_type, fun() -> arbo:next_sibling_nif(T, N0, {4, []}, 0, {[], []}) end},
                 %% child_index answers 0 for Child 0 before it looks at the parent
                 {{returned, 0}, fun() -> arbo:child_index(T, N0, 0) end}],
        [?assertEqual({F, Want}, {F, reason(F)}) || {Want, F} <- Cases]
    end).
