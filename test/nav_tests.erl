%% Navigation: counting, stepping, lookups, moves, hidden inactive nodes and
%% the error families of the navigation functions.
-module(nav_tests).

-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, hide/1, children/2, deactivate/2]).

%% ---- empty nodes ------------------------------------------------------------------

empty_nodes_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Leaf = arbo:add_hkey(T, R, [1 | 1], 3),
        Box = arbo:add_hkey_internal(T, R, 2),
        Sorted = arbo:add_hkey_dyn(T, R, 3, 0),
        Ordered = arbo:add_hkey_dyn(T, R, 4, 3),
        [begin
             ?assertEqual(0, arbo:num_children(T, N)),
             ?assertEqual(0, arbo:first_child_nif(T, N, [], 0)),
             ?assertEqual(0, arbo:first_child_nif(T, N, [], 1)),
             ?assertEqual(0, arbo:first_child_nif(T, N, {4, []}, 1)),
             ?assertEqual(0, arbo:get_child(T, N, 1)),
             ?assertEqual(0, arbo:num_children_with_flag(T, N, 16#ffff)),
             ?assertEqual(false, arbo:has_child_with_flags(T, N, 16#ffff)),
             ?assertEqual(false, arbo:has_child_without_flags(T, N, 16#ffff)),
             ?assertEqual(0, arbo:find_next_nif(T, N, 1, 39, 1, []))
         end || N <- [Leaf, Box, Sorted, Ordered]],
        ?assertEqual(0, arbo:last_child(T, Leaf)),
        ?assertEqual(0, arbo:last_child(T, Box)),
        %% An empty sorted list answers its header view: the list node itself.
        ?assertEqual(Sorted, arbo:last_child(T, Sorted)),
        ?assertEqual(0, arbo:last_child(T, Ordered))
    end).

%% ---- a container's child chain -------------------------------------------------------

chain_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        %% (namespace, key) order whatever the order of insertion.
        Specs = [{box, 0, 5}, {leaf, 1, 2}, {leaf, 0, 9}, {box, 0, 1}, {list, 2, 1},
                 {leaf, 1, 1}, {box, 0, 7}],
        Made = [{Ns, K, add(T, R, Kind, Ns, K)} || {Kind, Ns, K} <- shuffle(Specs)],
        Expected = [N || {_, _, N} <- lists:sort(Made)],
        Len = length(Expected),
        ?assertEqual(Expected, children(T, R)),
        ?assertEqual(Len, arbo:num_children(T, R)),
        ?assertEqual(lists:last(Expected), arbo:last_child(T, R)),
        Indexed = lists:zip(lists:seq(1, Len), Expected),
        [begin
             ?assertEqual(N, arbo:get_child(T, R, I)),
             ?assertEqual(I, arbo:child_index(T, R, N)),
             ?assertEqual(prev(I, Expected), arbo:prev_sibling(T, R, N))
         end || {I, N} <- Indexed],
        %% Kept: N = 0 counts down through the unsigned wrap and finds nothing.
        ?assertEqual(0, arbo:get_child(T, R, 0)),
        ?assertEqual(0, arbo:get_child(T, R, Len + 1)),
        ?assertEqual(0, arbo:child_index(T, R, 12345)),
        ?assertEqual(0, arbo:child_index(T, R, 0)),
        ?assertEqual(0, arbo:prev_sibling(T, R, 12345)),
        [C1, C2 | _] = Expected,
        ?assertEqual({C1, full}, arbo:first_child_nif(T, R, [], 1)),
        ?assertEqual({C2, full}, arbo:next_sibling_nif(T, C1, [], 7)),
        ?assertEqual(0, arbo:next_sibling_nif(T, lists:last(Expected), [], 1)),
        %% find_child by every tag form and the pair form; unknown codes find 0.
        Box1 = lookup(Made, 0, 1),
        Leaf12 = lookup(Made, 1, 2),
        List21 = lookup(Made, 2, 1),
        Cases = [{1, 10, Box1}, {{1}, 11, Box1}, {[1 | 2], 10, Leaf12}, {[1 | 2], 11, Leaf12},
                 {{1, 2}, 28, Leaf12}, {{2, 1}, 28, List21}, {[2 | 1], 10, List21},
                 {[3 | 1], 10, 0}, {4, 10, 0}, {[1 | 9], 10, 0},
                 {not_a_tag, 10, 0}, {not_a_pair, 28, 0},
                 {1, 99, 0}, {<<"x">>, 12, 0}, {whatever, 53, 0}],
        [?assertEqual({Key, Code, Want}, {Key, Code, arbo:find_child(T, R, Key, Code)})
         || {Key, Code, Want} <- Cases]
    end).

add(T, R, box, 0, K) -> arbo:add_hkey_internal(T, R, K);
add(T, R, leaf, Ns, K) -> arbo:add_hkey(T, R, [Ns | K], 3);
add(T, R, list, Ns, K) -> arbo:add_hkey_dyn(T, R, [Ns | K], 0).

lookup(Made, Ns, K) -> hd([N || {X, Y, N} <- Made, X =:= Ns, Y =:= K]).

prev(1, _) -> 0;
prev(I, L) -> lists:nth(I - 1, L).

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].

%% ---- sorted lists ------------------------------------------------------------------------

sorted_int_list_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Keys = [2 * I || I <- lists:seq(1, 300)],
        ByKey = maps:from_list([{K, arbo:add_hkey(T, L, K, 4)} || K <- shuffle(Keys)]),
        Inst = fun(K) -> maps:get(K, ByKey, 0) end,
        Ordered = [Inst(K) || K <- Keys],
        ?assertEqual(Ordered, children(T, L)),
        ?assertEqual(300, arbo:num_children(T, L)),
        ?assertEqual(Inst(600), arbo:last_child(T, L)),
        ?assertEqual(Inst(2), arbo:get_child(T, L, 1)),
        ?assertEqual(Inst(200), arbo:get_child(T, L, 100)),
        ?assertEqual(Inst(198), arbo:prev_sibling(T, L, Inst(200))),
        ?assertEqual(0, arbo:prev_sibling(T, L, Inst(2))),
        ?assertEqual(100, arbo:child_index(T, L, Inst(200))),
        [?assertEqual(Inst(K), arbo:find_child(T, L, {K}, 10)) || K <- [2, 300, 600]],
        ?assertEqual(0, arbo:find_child(T, L, {3}, 11)),
        ?assertEqual(Inst(40), arbo:find_child(T, L, {0, 40}, 28)),
        %% find_next_nif: strictly after the key, or at it with Mode 1.
        Next = [{5, 39, 0, 6}, {6, 39, 0, 8}, {6, 39, 1, 6}, {0, 39, 0, 2}, {-7, 39, 0, 2},
                {600, 39, 0, 0}, {599, 39, 1, 600}, {{0, 5}, 40, 0, 6}, {{0, 6}, 40, 1, 6},
                {5, 77, 0, 0}],
        [?assertEqual({Key, Code, Mode, Inst(Want)},
                      {Key, Code, Mode, arbo:find_next_nif(T, L, Key, Code, Mode, [])})
         || {Key, Code, Mode, Want} <- Next],
        %% With a filter the walk starts at the found instance.
        ?assertEqual(Inst(8), arbo:find_next_nif(T, L, 6, 39, 0, {101, 1, 0, <<"8">>})),
        ?assertEqual(Inst(10), arbo:find_next_nif(T, L, 6, 39, 0, {101, 1, 0, <<"10">>})),
        ?assertEqual(0, arbo:find_next_nif(T, L, 6, 39, 0, {101, 1, 0, <<"7">>})),
        ?assertEqual(0, arbo:find_next_nif(T, R, 6, 39, 0, []))
    end).

sorted_bin_list_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Key = fun(S) -> walk_util:str(S) end,
        Plain = [arbo:add_hkey(T, L, Key(S), 5) || S <- ["b", "d", "f"]],
        Opaque = arbo:add_hkey(T, L, <<"zz">>, 6),
        [B, D, F] = Plain,
        ?assertEqual(4, arbo:num_children(T, L)),
        ?assertEqual(D, arbo:find_child(T, L, Key("d"), 12)),
        ?assertEqual(0, arbo:find_child(T, L, Key("e"), 12)),
        ?assertEqual(Opaque, arbo:find_child(T, L, <<"zz">>, 53)),
        ?assertEqual(D, arbo:find_next_nif(T, L, Key("c"), 41, 0, [])),
        ?assertEqual(F, arbo:find_next_nif(T, L, Key("d"), 41, 0, [])),
        ?assertEqual(D, arbo:find_next_nif(T, L, Key("d"), 41, 1, [])),
        ?assertEqual(B, arbo:find_next_nif(T, L, Key("a"), 41, 0, [])),
        ?assertEqual(badarg, reason(fun() -> arbo:find_child(T, L, not_a_binary, 12) end))
    end).

%% ---- user-ordered lists and the two moves ------------------------------------------------

user_ordered_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 3),
        S = arbo:add_hkey_dyn(T, R, 2, 0),
        SI = arbo:add_hkey(T, S, 1, 4),
        [A, B, C, D] = [arbo:add_hkey(T, L, K, 4) || K <- [40, 10, 30, 20]],
        Gen = fun() -> arbo:get_generation(T) end,
        ?assertEqual([A, B, C, D], children(T, L)),
        ?assertEqual(D, arbo:last_child(T, L)),
        ?assertEqual(B, arbo:prev_sibling(T, L, C)),
        ?assertEqual(0, arbo:prev_sibling(T, L, A)),
        G0 = Gen(),
        %% Positions count the moved node in its current place.
        ?assertEqual(true, arbo:move_to(T, L, A, 2)),
        ?assertEqual([B, A, C, D], children(T, L)),
        ?assertEqual(G0 + 1, Gen()),
        ?assertEqual(false, arbo:move_to(T, L, D, -1)),
        ?assertEqual(false, arbo:move_to(T, L, B, 0)),
        ?assertEqual(false, arbo:move_to(T, L, B, 9)),
        ?assertEqual(G0 + 1, Gen()),
        ?assertEqual(true, arbo:move_to(T, L, B, -1)),
        ?assertEqual([A, C, D, B], children(T, L)),
        ?assertEqual(B, arbo:last_child(T, L)),
        %% Kept contract: "false" means the instance moved, "true" refused.
        ?assertEqual(false, arbo:move_rel_internal(T, L, B, 1, A)),
        ?assertEqual([B, A, C, D], children(T, L)),
        ?assertEqual(false, arbo:move_rel_internal(T, L, B, 0, D)),
        ?assertEqual([A, C, D, B], children(T, L)),
        ?assertEqual(G0 + 4, Gen()),
        ?assertEqual(true, arbo:move_rel_internal(T, L, C, 1, C)),
        ?assertEqual(G0 + 4, Gen()),
        ?assertEqual(C, arbo:prev_sibling(T, L, D)),
        %% Only user-ordered lists move.
        ?assertEqual(badarg, reason(fun() -> arbo:move_to(T, S, SI, 0) end)),
        ?assertEqual(badarg, reason(fun() -> arbo:move_rel_internal(T, S, SI, 1, SI) end)),
        ?assertEqual(badarg, reason(fun() -> arbo:move_to(T, R, SI, 0) end)),
        ?assertEqual(G0 + 4, Gen())
    end).

%% ---- user flags -----------------------------------------------------------------------------

flags_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [C1, C2, C3] = [arbo:add_hkey_internal(T, R, K) || K <- [1, 2, 3]],
        G = arbo:add_hkey(T, C3, [0 | 1], 3),
        arbo:set_flag(T, C1, 2#0011),
        arbo:set_flag(T, C2, 2#0110),
        arbo:set_flag(T, G, 16#100000000),
        arbo:set_flag(T, R, 2#10000),
        Cases = [{2#0001, 1, true, true}, {2#0010, 2, true, true}, {2#0100, 1, true, true},
                 {2#1000, 0, false, true}, {2#0111, 2, true, true}, {0, 0, false, true}],
        [?assertEqual({M, Count, With, Without},
                      {M, arbo:num_children_with_flag(T, R, M), arbo:has_child_with_flags(T, R, M),
                       arbo:has_child_without_flags(T, R, M)})
         || {M, Count, With, Without} <- Cases],
        ?assertEqual(false, arbo:has_child_without_flags(T, C3, 16#100000000)),
        %% Descendants: the fourth argument decides whether Node itself counts.
        ?assertEqual(true, arbo:has_descendant_with_flags(T, R, 16#100000000, 0)),
        ?assertEqual(false, arbo:has_descendant_with_flags(T, R, 2#10000, 0)),
        ?assertEqual(true, arbo:has_descendant_with_flags(T, R, 2#10000, 1)),
        ?assertEqual(false, arbo:has_descendant_with_flags(T, C2, 2#0100, 0))
    end).

%% ---- view option 0x100: inactive nodes hidden -----------------------------------------------

hidden_test() ->
    with_table(fun(T) ->
        H = hide(T),
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Is = [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, 6)],
        [I1, I2, I3, I4, I5, I6] = Is,
        [deactivate(T, I) || I <- [I2, I5, I6]],
        arbo:set_flag(T, I2, 2#100),
        arbo:set_flag(T, I3, 2#001),
        ?assertEqual(6, arbo:num_children(T, L)),
        ?assertEqual(3, arbo:num_children(H, L)),
        ?assertEqual(I4, arbo:get_child(H, L, 3)),
        ?assertEqual(0, arbo:get_child(H, L, 4)),
        ?assertEqual(I3, arbo:get_child(T, L, 3)),
        ?assertEqual(1, arbo:num_children_with_flag(T, L, 2#100)),
        ?assertEqual(0, arbo:num_children_with_flag(H, L, 2#100)),
        ?assertEqual(true, arbo:has_child_with_flags(T, L, 2#100)),
        ?assertEqual(false, arbo:has_child_with_flags(H, L, 2#100)),
        ?assertEqual(I2, arbo:find_child(T, L, {2}, 10)),
        ?assertEqual(0, arbo:find_child(H, L, {2}, 10)),
        ?assertEqual([I1, I3, I4], children(H, L)),
        ?assertEqual(I3, arbo:next_sibling_nif(H, I1, [], 0)),
        ?assertEqual({I3, full}, arbo:next_sibling_nif(H, I1, [], 1)),
        ?assertEqual(0, arbo:next_sibling_nif(H, I4, [], 0)),
        %% last_child does not hide; find_next_nif's answer is stepped past.
        ?assertEqual(I6, arbo:last_child(H, L)),
        ?assertEqual(I3, arbo:find_next_nif(H, L, 1, 39, 0, [])),
        ?assertEqual(I2, arbo:find_next_nif(T, L, 1, 39, 0, [])),
        %% Containers count their inactive children too.
        Box = arbo:add_hkey_internal(T, R, 2),
        Cs = [arbo:add_hkey(T, Box, [0 | K], 3) || K <- [1, 2, 3]],
        deactivate(T, hd(Cs)),
        ?assertEqual(2, arbo:num_children(H, Box)),
        ?assertEqual(tl(Cs), children(H, Box))
    end).

%% ---- error families ---------------------------------------------------------------------------

%% A reference whose type bits read as 0: eight bytes into a childless leaf
%% the type word falls on the leaf's null child link.
type0(T) ->
    Leaf = arbo:add_hkey(T, arbo:get_root(T), [7 | 4242], 3),
    Leaf + 8.

%% Every navigation call, with the node argument N.
calls(N) ->
    [{num_children, fun(T) -> arbo:num_children(T, N) end, raises},
     {num_children_with_flag, fun(T) -> arbo:num_children_with_flag(T, N, 1) end, raises},
     {has_descendant, fun(T) -> arbo:has_descendant_with_flags(T, N, 1, 0) end, raises},
     {has_child_with, fun(T) -> arbo:has_child_with_flags(T, N, 1) end, raises},
     {has_child_without, fun(T) -> arbo:has_child_without_flags(T, N, 1) end, raises},
     {first_child, fun(T) -> arbo:first_child_nif(T, N, [], 0) end, raises},
     {next_sibling4, fun(T) -> arbo:next_sibling_nif(T, N, [], 0) end, raises},
     {next_sibling5, fun(T) -> arbo:next_sibling_nif(T, N, {4, []}, 0, {[], []}) end, raises},
     {last_child, fun(T) -> arbo:last_child(T, N) end, raises},
     {prev_sibling, fun(T) -> arbo:prev_sibling(T, N, N) end, unchecked},
     {get_child, fun(T) -> arbo:get_child(T, N, 1) end, raises},
     {find_child, fun(T) -> arbo:find_child(T, N, 1, 10) end, raises},
     {find_next, fun(T) -> arbo:find_next_nif(T, N, 1, 39, 0, []) end, raises},
     {move_to, fun(T) -> arbo:move_to(T, N, N, 0) end, unchecked},
     {move_rel, fun(T) -> arbo:move_rel_internal(T, N, N, 1, N) end, unchecked},
     {child_index, fun(T) -> arbo:child_index(T, N, 1) end, raises}].

bad_node_test_() ->
    T = arbo:new(),
    [{lists:flatten(io_lib:format("~p ~p", [Name, Bad])),
      ?_assertEqual(badarg, reason(fun() -> F(T) end))}
     || Bad <- [0, -1, atom, 1.5, 1 bsl 64], {Name, F, _} <- calls(Bad)].

bad_handle_test_() ->
    T = arbo:new(),
    N = arbo:get_root(T),
    {arbo, Res, _, _} = T,
    Handles = [{arbo, Res, -1, x}, {arbo, Res, 0}, {other, Res, 0, x}, {arbo, make_ref(), 0, x}],
    [?_assertEqual(badarg, reason(fun() -> F(H) end)) || H <- Handles, {_, F, _} <- calls(N)].

closed_test_() ->
    T = arbo:new(),
    N = arbo:get_root(T),
    ok = arbo:close(T),
    [{atom_to_list(Name), ?_assertEqual(arbo_closed, reason(fun() -> F(T) end))}
     || {Name, F, _} <- calls(N)].

invalid_type_test() ->
    with_table(fun(T) ->
        N = type0(T),
        [?assertEqual({Name, invalid_node_type}, {Name, reason(fun() -> F(T) end)})
         || {Name, F, raises} <- calls(N)],
        %% child_index answers 0 for Child 0 before it looks at the parent.
        ?assertEqual({returned, 0}, reason(fun() -> arbo:child_index(T, N, 0) end))
    end).

bad_plain_args_test_() ->
    T = arbo:new(),
    R = arbo:get_root(T),
    L = arbo:add_hkey_dyn(T, R, 1, 3),
    I = arbo:add_hkey(T, L, 1, 4),
    Calls = [fun() -> arbo:first_child_nif(T, R, [], x) end,
             fun() -> arbo:next_sibling_nif(T, R, [], 1.0) end,
             fun() -> arbo:num_children_with_flag(T, R, -1) end,
             fun() -> arbo:has_child_with_flags(T, R, x) end,
             fun() -> arbo:has_descendant_with_flags(T, R, 1, -1) end,
             fun() -> arbo:get_child(T, R, -1) end,
             fun() -> arbo:find_child(T, R, 1, x) end,
             fun() -> arbo:find_next_nif(T, L, 1, 39, x, []) end,
             fun() -> arbo:find_next_nif(T, L, 1, -39, 0, []) end,
             fun() -> arbo:move_to(T, L, I, x) end,
             fun() -> arbo:move_rel_internal(T, L, I, x, I) end,
             fun() -> arbo:child_index(T, R, x) end],
    [?_assertEqual(badarg, reason(F)) || F <- Calls].
