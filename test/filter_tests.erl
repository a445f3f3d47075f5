%% Filter matching and filtered walks: every operator against a fixed tree,
%% the instance scan and its yield, and a randomized comparison of whole
%% walks (with yields resumed through next_sibling_nif/5) against a plain
%% Erlang evaluation of the same filter over a model of the same tree.
-module(filter_tests).

-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, hide/1, int8/1, str/1, u32/1, deactivate/2, shuffle/1,
                    pick/1]).

%% ---- one node, every operator --------------------------------------------------------------

%% P holds C; C holds leaves 1..8 and 10 (values of each kind, flags on 3)
%% and the list 9 whose instances 1..3 hold a leaf 1 with values "a", "b",
%% "c".
fixed_tree(T) ->
    R = arbo:get_root(T),
    P = arbo:add_hkey_internal(T, R, 1),
    C = arbo:add_hkey_internal(T, P, 1),
    Leaf = fun(K, Kind, V) ->
                   N = arbo:add_hkey(T, C, [0 | K], 3),
                   Kind =:= none orelse arbo:set_val(T, N, Kind, V),
                   N
           end,
    Leaf(1, 17, str("10")),
    Leaf(2, 17, int8(-3)),
    L3 = Leaf(3, 17, u32(7)),
    arbo:set_flags(T, L3, 2#101),
    Leaf(4, none, none),
    Leaf(5, 18, <<"raw">>),
    Leaf(6, 17, <<14, 1, 0>>),
    Leaf(7, 17, <<9, -5:64>>),
    Leaf(8, 37, <<13, (1 bsl 64 - 1):64, 0, 0>>),
    Leaf(10, 17, <<8, 1, 2>>),
    L = arbo:add_hkey_dyn(T, C, 9, 0),
    [begin
         I = arbo:add_hkey(T, L, K, 4),
         V = arbo:add_hkey(T, I, [0 | 1], 3),
         arbo:set_val(T, V, 17, str(S))
     end || {K, S} <- [{1, "a"}, {2, "b"}, {3, "c"}]],
    {P, C}.

%% The matcher's code for C, read through the walk's answer.
outcome(T, P, C, F, 1) ->
    case arbo:first_child_nif(T, P, F, 1) of
        0 -> 0;
        {C, full} -> 1;
        {C, missing} -> 2;
        {C, unsupported} -> 3
    end;
outcome(T, P, C, F, 0) ->
    case arbo:first_child_nif(T, P, F, 0) of
        0 -> 0;
        C -> match
    end.

-define(NOPE, {3, 9, [1], <<>>}).  % unsupported
-define(MISS, {4, [9, 1]}).       % missing: the path stops at a list

%% Rows the random walks below do not reach: value types, number texts and
%% path forms outside the model, and malformed terms.
operator_cases() ->
    [%% path existence
     {{4, [[0 | 1]]}, 1, 1}, {{4, [[1 | 1]]}, 1, 2}, {{4, [9]}, 1, 1}, {?MISS, 1, 2},
     {?MISS, 0, match}, {{4, [1, 1]}, 1, 2}, {{4, [bad]}, 1, 2}, {{4, not_a_list}, 1, 1},
     {{2, ?NOPE}, 1, 3},
     %% text and numbers
     {{3, 1, [1], <<"1">>}, 1, 0}, {{3, 3, [1], <<"9.5">>}, 1, 1}, {{3, 5, [1], <<"1e3">>}, 1, 1},
     {{3, 3, [1], <<"abc">>}, 1, 3}, {{3, 3, [1], <<>>}, 1, 3},
     {{3, 3, [1], <<"99999999999999999999">>}, 1, 0},
     {{3, 3, [2], <<"-4">>}, 1, 1}, {{3, 6, [3], <<"7">>}, 1, 1},
     {{3, 1, [4], <<>>}, 1, 0}, {{3, 1, [5], <<"raw">>}, 1, 1}, {{3, 1, [6], <<"x">>}, 1, 3},
     {{3, 5, [7], <<"0">>}, 1, 1}, {{3, 1, [7], <<"-5">>}, 1, 1}, {{3, 2, [7], <<"-05">>}, 1, 1},
     {{3, 1, [8], <<"18446744073709551615">>}, 1, 1},
     {{3, 3, [8], <<"9223372036854775807">>}, 1, 1}, {{3, 5, [8], <<"2e19">>}, 1, 1},
     {{3, 1, [10], <<"x">>}, 1, 3}, {{3, 3, [10], <<"1">>}, 1, 3},
     {{3, 1, [], <<"1">>}, 1, 0}, {{3, 10, [1], <<"x">>}, 1, 3}, {{3, 9, [99], <<"x">>}, 1, 2},
     {{3, 1, [1], "10"}, 1, 3},
     %% flags and presence of a value
     {{3, 1000, [3], <<"x">>}, 1, 3}, {{3, 1002, [], x}, 1, 0},
     {{7, 1, [1], <<"10">>, 0}, 1, 1}, {{7, 1, [1], <<"10">>}, 1, 3}, {{7, 1, [1], <<"10">>, -1}, 1, 3},
     %% the node's own key
     {{101, 1, x, <<"1">>}, 1, 3},
     %% or / and and the folding of pending results
     {{0, ?NOPE, {4, [98]}}, 1, 3}, {{0, ?NOPE, {4, []}}, 1, 1},
     {{0, foo, {4, []}}, 1, 1}, {{0, foo, {4, []}}, 0, match},
     %% mf 0: a left "missing" answers at once, the right side is not looked at
     {{2, {0, ?MISS, {4, []}}}, 0, match}, {{1, ?MISS, {4, [99]}}, 0, 0},
     {{1, {4, [99]}, ?NOPE}, 0, 0}, {{1, {4, [1]}, ?NOPE}, 1, 3}, {{1, ?NOPE, {4, [99]}}, 0, 0},
     %% malformed terms
     {{}, 1, 3}, {{x}, 1, 3}, {{99, 1}, 1, 3}, {{0, {4, []}}, 1, 3}, {{1, {4, []}, {4, []}, x}, 1, 3},
     {{2}, 1, 3}, {{3, 1, [], <<>>, x}, 1, 3}, {{4}, 1, 3},
     %% the instance scan: any instance of list 9 whose leaf 1 compares
     {{3, 1, [9, 1], <<"b">>}, 1, 1}, {{3, 1, [9, 1], <<"z">>}, 1, 0},
     {{3, 1, [9, 7], <<"z">>}, 1, 0}, {{3, 1002, [9, 1], x}, 1, 1},
     {{3, 1, [9, 1, 5], <<"b">>}, 1, 0}].

operators_test() ->
    with_table(fun(T) ->
        {P, C} = fixed_tree(T),
        [?assertEqual({F, MF, Want}, {F, MF, outcome(T, P, C, F, MF)})
         || {F, MF, Want} <- operator_cases()]
    end).

%% Long chains of right operands grow the pending results past their first
%% 32 pairs; a deeply nested left operand is refused as unsupported rather
%% than exhausting the scheduler's stack.
chains_test() ->
    with_table(fun(T) ->
        {P, C} = fixed_tree(T),
        Chain = fun(Op, Leafs) -> lists:foldr(fun(A, B) -> {Op, A, B} end, lists:last(Leafs),
                                              lists:droplast(Leafs)) end,
        Yes = {4, [1]},
        No = {4, [99]},
        ?assertEqual(1, outcome(T, P, C, Chain(1, lists:duplicate(200, Yes)), 1)),
        ?assertEqual(2, outcome(T, P, C, Chain(1, lists:duplicate(199, Yes) ++ [No]), 1)),
        ?assertEqual(0, outcome(T, P, C, Chain(1, lists:duplicate(199, Yes) ++ [No]), 0)),
        ?assertEqual(2, outcome(T, P, C, Chain(0, lists:duplicate(200, No)), 1)),
        ?assertEqual(1, outcome(T, P, C, Chain(0, lists:duplicate(199, No) ++ [Yes]), 1)),
        ?assertEqual(3, outcome(T, P, C, Chain(0, [No, ?NOPE | lists:duplicate(100, No)]), 1)),
        Deep = lists:foldl(fun(_, F) -> {2, {2, F}} end, Yes, lists:seq(1, 400)),
        ?assertEqual(1, outcome(T, P, C, Deep, 1)),
        TooDeep = lists:foldl(fun(_, F) -> {1, F, Yes} end, Yes, lists:seq(1, 5000)),
        ?assertEqual(3, outcome(T, P, C, TooDeep, 1))
    end).

%% Byte keys: elements of an encoded key as text; an opaque key as its bytes.
key_elements_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        L = arbo:add_hkey_dyn(T, R, 1, 0),
        Long = lists:duplicate(70, $q),
        Key = <<(str("eth"))/binary, (u32(42))/binary, 15, 10, 0, 0, 1, 17, 1, 20, 2024:16, 2, 9,
                0, 0, 9, -5:64, 13, 7:64, 7, -300:16, 11, 300:16, 10, 200, (str(Long))/binary>>,
        I = arbo:add_hkey(T, L, Key, 5),
        O = arbo:add_hkey(T, L, <<"opaque">>, 6),
        ?assertEqual([I, O], walk_util:children(T, L)),
        Q = fun(N) -> list_to_binary(lists:duplicate(N, $q)) end,
        Cases = [{0, <<"eth">>, {I, full}}, {1, <<"42">>, {I, full}}, {2, <<"10.0.0.1">>, {I, full}},
                 {3, <<"true">>, {I, full}}, {4, <<"2024-02-09">>, {I, full}},
                 {5, <<"-5">>, {I, full}}, {6, <<"7">>, {I, full}}, {7, <<"-300">>, {I, full}},
                 {8, <<"300">>, {I, full}}, {9, <<"200">>, {I, full}}, {10, Q(70), {I, missing}},
                 {11, <<"x">>, 0}, {0, <<"opaque">>, {O, full}}, {1, <<"opaque">>, 0},
                 %% a text that fills its buffer may have been cut: "missing"
                 {10, Q(63), 0}, {10, Q(64), {I, missing}}, {10, Q(65), {I, missing}}, {10, Q(69), {I, missing}}],
        [?assertEqual({Idx, Pat, Want},
                      {Idx, Pat, arbo:first_child_nif(T, L, {101, 1, Idx, Pat}, 1)})
         || {Idx, Pat, Want} <- Cases]
    end).

%% ---- the instance scan and its yield -----------------------------------------------------

%% A container Tag holds C, C holds list 9 with Count instances I1..In, none
%% with a leaf 1.
scan_tree(T, Tag, Count) ->
    R = arbo:get_root(T),
    P = arbo:add_hkey_internal(T, R, Tag),
    C = arbo:add_hkey_internal(T, P, 1),
    L = arbo:add_hkey_dyn(T, C, 9, 0),
    {P, C, [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, Count)]}.

scan_yield_test() ->
    with_table(fun(T) ->
        F = {3, 1, [9, 1], <<"z">>},
        %% 50 instances: the eleventh step pushes where to go on and yields;
        %% the bottom entry is the second instance the scan pushed on entry.
        {P, C, Is} = scan_tree(T, 10, 50),
        ?assertEqual({yield, {[lists:nth(2, Is), lists:nth(12, Is)], [[1], [1]]}, C},
                     arbo:first_child_nif(T, P, F, 1)),
        %% A match within the first steps ends the scan.
        I7 = lists:nth(7, Is),
        V = arbo:add_hkey(T, I7, [0 | 1], 3),
        arbo:set_val(T, V, 17, str("z")),
        ?assertEqual({C, full}, arbo:first_child_nif(T, P, F, 1)),
        %% 8 instances: the scan passes the list once, takes the entry it
        %% pushed on entry and goes on from the second instance; it yields
        %% with one entry on the stack. One entry does not count as a
        %% resumption: the scan starts afresh above it and yields with two.
        %% Two entries resume by comparing the node on top itself.
        {P8, C8, Is8} = scan_tree(T, 11, 8),
        I5 = lists:nth(5, Is8),
        Y8 = {yield, {[I5], [[1]]}, C8},
        ?assertEqual(Y8, arbo:first_child_nif(T, P8, F, 1)),
        Y8b = {yield, {[I5, I5], [[1], [1]]}, C8},
        ?assertEqual(Y8b, arbo:next_sibling_nif(T, C8, F, 1, element(2, Y8))),
        ?assertEqual(0, arbo:next_sibling_nif(T, C8, F, 1, element(2, Y8b))),
        %% 5 instances finish within the step limit.
        {P5, _, _} = scan_tree(T, 12, 5),
        ?assertEqual(0, arbo:first_child_nif(T, P5, F, 1))
    end).

%% Resuming a path comparison takes its node from the top of a stack of two
%% entries or more and compares that node itself.
resume_from_stack_test() ->
    with_table(fun(T) ->
        {P, C, _} = scan_tree(T, 10, 3),
        R = arbo:get_root(T),
        Z = arbo:add_hkey(T, R, [0 | 77], 3),
        arbo:set_val(T, Z, 17, str("z")),
        F = {3, 1, [9, 1], <<"z">>},
        ?assertEqual(0, arbo:first_child_nif(T, P, F, 1)),
        ?assertEqual({C, full}, arbo:next_sibling_nif(T, C, F, 1, {[C, Z], [[1], [1]]})),
        ?assertEqual(0, arbo:next_sibling_nif(T, C, F, 1, {[Z], [[1]]})),
        ?assertEqual({C, missing}, arbo:next_sibling_nif(T, C, F, 1, {[C, 0], [[1], [1]]})),
        %% Also when the comparison is of the node itself (an empty path).
        Own = {3, 1, [], <<"z">>},
        ?assertEqual(0, arbo:next_sibling_nif(T, C, Own, 1, {[], []})),
        ?assertEqual({C, full}, arbo:next_sibling_nif(T, C, Own, 1, {[C, Z], [[], []]})),
        ?assertEqual({C, full}, arbo:next_sibling_nif(T, C, {0, {4, [99]}, Own}, 1,
                                                      {[C, Z], [[], []]})),
        %% A stack term whose node list ends first is accepted.
        ?assertEqual(0, arbo:next_sibling_nif(T, C, F, 1, {[], [[1], [2]]}))
    end).

%% ---- randomized walks against an Erlang model -------------------------------------------------

random_walks_test_() ->
    {timeout, 300, fun() ->
        Seed = rand:seed(exsss),
        io:format(user, "~nfilter_tests random seed: ~p~n", [rand:export_seed_s(Seed)]),
        [random_tree_walks(I) || I <- lists:seq(1, 12)]
    end}.

random_tree_walks(Round) ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        P = arbo:add_hkey_internal(T, R, 1),
        Size = case Round rem 3 of 0 -> rand:uniform(3000); _ -> rand:uniform(60) end,
        Model = build(T, P, Size),
        [begin
             F = filter(3),
             MF = rand:uniform(2) - 1,
             Hide = rand:uniform(3) =:= 1,
             H = case Hide of true -> hide(T); false -> T end,
             Want = expected(Model, F, MF, Hide),
             Got = events(H, P, F, MF),
             ?assertEqual({F, MF, Hide, Want}, {F, MF, Hide, Got})
         end || _ <- lists:seq(1, 25)]
    end).

%% The events a walk produces: {answer, A} and {yield, Node}.
events(T, P, F, MF) -> events(T, F, MF, arbo:first_child_nif(T, P, F, MF), []).

events(_T, _F, _MF, 0, Acc) -> lists:reverse(Acc);
events(T, F, MF, {yield, Stack, N}, Acc) ->
    events(T, F, MF, arbo:next_sibling_nif(T, N, F, MF, Stack), [{yield, N} | Acc]);
events(T, F, MF, {N, _} = A, Acc) ->
    events(T, F, MF, arbo:next_sibling_nif(T, N, F, MF), [{answer, A} | Acc]);
events(T, F, MF, N, Acc) ->
    events(T, F, MF, arbo:next_sibling_nif(T, N, F, MF), [{answer, N} | Acc]).

%% What the walk must produce, stepping the model's siblings as the library
%% steps them: inactive ones skipped when hidden, a yield after 1002 examined.
expected(Sibs, F, MF, Hide) -> expected(Sibs, F, MF, Hide, 0, []).

expected([], _F, _MF, _Hide, _Count, Acc) -> lists:reverse(Acc);
expected([#{inactive := true} | Rest], F, MF, true, Count, Acc) ->
    expected(Rest, F, MF, true, Count, Acc);
expected([S | Rest] = Sibs, F, MF, Hide, Count, Acc) ->
    case is_tuple(F) of
        false -> expected(Rest, F, MF, Hide, 0, [{answer, answer(S, 1, MF)} | Acc]);
        true ->
            case eval(F, S, MF) of
                0 when Count >= 1001 ->
                    expected(Sibs, F, MF, Hide, 0, [{yield, ref(S)} | Acc]);
                0 -> expected(Rest, F, MF, Hide, Count + 1, Acc);
                Code -> expected(Rest, F, MF, Hide, 0, [{answer, answer(S, Code, MF)} | Acc])
            end
    end.

answer(S, _Code, 0) -> ref(S);
answer(S, 1, _) -> {ref(S), full};
answer(S, 2, _) -> {ref(S), missing};
answer(S, _, _) -> {ref(S), unsupported}.

ref(#{ref := Ref}) -> Ref.

%% ---- the model tree ------------------------------------------------------------------------
%% Siblings of P: leaves (namespace 0 or 1), containers holding leaves 1..3
%% and perhaps the list 8, and lists holding instances 1..4. Instances hold
%% perhaps a leaf 1. Every node is a map with its reference, kind, key,
%% value text, flags and children in chain order.

build(T, P, Size) ->
    Keys = lists:usort([{rand:uniform(2) - 1, rand:uniform(4 * Size)} || _ <- lists:seq(1, Size)]),
    Sibs = [sibling(T, P, Ns, K) || {Ns, K} <- shuffle(Keys)],
    lists:sort(fun(A, B) -> order(A) =< order(B) end, Sibs).

order(#{kind := box, key := K}) -> {0, K};
order(#{ns := Ns, key := K}) -> {Ns, K}.

sibling(T, P, Ns, K) ->
    case rand:uniform(6) of
        N when N =< 3 -> leaf(T, P, Ns, K);
        4 when Ns =:= 0 -> box(T, P, K);
        _ -> list(T, P, Ns, K)
    end.

leaf(T, P, Ns, K) ->
    Ref = arbo:add_hkey(T, P, [Ns | K], 3),
    decorate(T, node(Ref, leaf, Ns, K, value(T, Ref), [])).

box(T, P, K) ->
    Ref = arbo:add_hkey_internal(T, P, K),
    Leaves = [leaf(T, Ref, 0, J) || J <- lists:seq(1, 3), rand:uniform(2) =:= 1],
    Lists = [scan_list(T, Ref) || rand:uniform(3) =:= 1],
    decorate(T, node(Ref, box, 0, K, none, Leaves ++ Lists)).

list(T, P, Ns, K) ->
    Ref = arbo:add_hkey_dyn(T, P, [Ns | K], 0),
    node(Ref, list, Ns, K, none, instances(T, Ref)).

scan_list(T, Box) ->
    Ref = arbo:add_hkey_dyn(T, Box, 8, 0),
    node(Ref, list, 0, 8, none, instances(T, Ref)).

instances(T, L) ->
    [begin
         I = arbo:add_hkey(T, L, J, 4),
         Kids = [leaf(T, I, 0, 1) || rand:uniform(2) =:= 1],
         node(I, inst, 0, J, none, Kids)
     end || J <- lists:seq(1, 4), rand:uniform(3) > 1].

node(Ref, Kind, Ns, K, Val, Kids) ->
    #{ref => Ref, kind => Kind, ns => Ns, key => K, val => Val, kids => Kids, flags => 0,
      inactive => false}.

%% Random flags, and for some nodes the inactive mark.
decorate(T, #{ref := Ref} = N) ->
    Flags = rand:uniform(8) - 1,
    arbo:set_flags(T, Ref, Flags),
    Inactive = rand:uniform(5) =:= 1,
    Inactive andalso deactivate(T, Ref),
    N#{flags => Flags, inactive => Inactive}.

value(T, Ref) ->
    Texts = ["a", "b", "abc", "10", "2.5", "-3", "7"],
    case rand:uniform(6) of
        1 -> none;
        2 -> I = rand:uniform(20) - 10, arbo:set_val(T, Ref, 17, int8(I)), integer_to_list(I);
        3 -> I = rand:uniform(12), arbo:set_val(T, Ref, 17, u32(I)), integer_to_list(I);
        4 -> S = pick(Texts), arbo:set_val(T, Ref, 18, list_to_binary(S)), S;
        _ -> S = pick(Texts), arbo:set_val(T, Ref, 17, str(S)), S
    end.

%% ---- random filters ----------------------------------------------------------------------
%% Paths never enter list 8 below a container with elements to spare: the
%% instance scan uses the walk's node stack, and it has a filter of its own.

filter(Depth) ->
    case rand:uniform(20) of
        1 -> [];
        N when N =< 3 -> {3, pick([1, 3, 5]), [8, 1], pattern()};
        4 when Depth > 0 -> {0, filter_plain(Depth - 1), filter_plain(Depth - 1)};
        _ -> filter_plain(Depth)
    end.

filter_plain(0) -> leaf_filter();
filter_plain(Depth) ->
    case rand:uniform(6) of
        1 -> {0, filter_plain(Depth - 1), filter_plain(Depth - 1)};
        2 -> {1, filter_plain(Depth - 1), filter_plain(Depth - 1)};
        3 -> {2, filter_plain(Depth - 1)};
        _ -> leaf_filter()
    end.

leaf_filter() ->
    case rand:uniform(10) of
        1 -> {4, path()};
        2 -> {pick([3, 5]), rand:uniform(6), path(), pattern()};
        3 -> {3, pick([1000, 1001]), path(), rand:uniform(8) - 1};
        4 -> {3, 1002, path(), x};
        5 -> {7, 1003, path(), rand:uniform(4) - 1, 2#11};
        6 -> {pick([101, 102]), rand:uniform(6), 0, pattern()};
        7 -> pick([{3, x, [], <<>>}, {5}, {9, a, b}, {3, 9, path(), <<>>}]);
        _ -> {3, rand:uniform(6), path(), pattern()}
    end.

path() ->
    First = [1, 2, 3, 4, [1 | 2], [1 | 5]],
    case rand:uniform(5) of
        1 -> [];
        2 -> [8];
        3 -> [pick(First), pick([1, 2])];
        _ -> [pick(First)]
    end.

pattern() -> list_to_binary(pick(["a", "b", "abc", "", "10", "2.5", "-3", "7", "3", "0"])).

%% ---- the evaluation ------------------------------------------------------------------------

-define(UINT(X), (is_integer(X) andalso X >= 0)).

eval({0, A, B}, N, MF) ->
    case eval(A, N, MF) of
        R when MF =:= 0, R =/= 0 -> R;
        1 -> 1;
        R -> fold(0, R, eval(B, N, MF))
    end;
eval({1, A, B}, N, MF) ->
    case eval(A, N, MF) of
        0 -> 0;
        R -> fold(1, R, eval(B, N, MF))
    end;
eval({2, A}, N, MF) ->
    case eval(A, N, MF) of
        1 -> 0;
        0 -> 1;
        R -> R
    end;
eval({4, Path}, N, MF) ->
    case find(N, Path) of
        {N2, []} when is_map(N2) -> 1;
        {_, _} -> 2;
        none when MF =:= 0 -> 0;
        none -> 2
    end;
eval({Op, CmpOp, Path, Pat}, N, MF) when (Op =:= 3 orelse Op =:= 5), ?UINT(CmpOp) ->
    compare_at(N, Path, CmpOp, Pat, 0, MF);
eval({7, CmpOp, Path, Pat, Mask}, N, MF) when ?UINT(CmpOp), ?UINT(Mask) ->
    compare_at(N, Path, CmpOp, Pat, Mask, MF);
eval({Op, CmpOp, 0, Pat}, N, MF) when (Op =:= 101 orelse Op =:= 102), ?UINT(CmpOp) ->
    cmp(N, CmpOp, Pat, 0, MF, key);
eval(_, _, _) -> 3.

%% One pending pair (Op, Left) folded with the right result.
fold(0, _Left, 1) -> 1;
fold(1, _Left, 0) -> 0;
fold(_Op, _Left, 3) -> 3;
fold(_Op, 3, _R) -> 3;
fold(_Op, 2, _R) -> 2;
fold(_Op, _Left, R) -> R.

compare_at(N, Path, CmpOp, Pat, Mask, MF) ->
    case find(N, Path) of
        {#{kind := list, kids := Insts}, [_ | _] = Rest} ->
            Hit = [I || I <- Insts, {Found, []} <- [find(I, Rest)],
                        cmp(Found, CmpOp, Pat, Mask, MF, value) =:= 1],
            case Hit of [] -> 0; _ -> 1 end;
        {Found, _} -> cmp(Found, CmpOp, Pat, Mask, MF, value);
        none -> cmp(none, CmpOp, Pat, Mask, MF, value)
    end.

cmp(N, 1000, Mask, _, _, _) when is_integer(Mask) ->
    case N of none -> 0; #{flags := F} -> b(F band Mask =:= Mask) end;
cmp(N, 1001, Mask, _, _, _) when is_integer(Mask) ->
    case N of none -> 1; #{flags := F} -> b(F band Mask =:= 0) end;
cmp(_, Op, _, _, _, _) when Op =:= 1000; Op =:= 1001 -> 3;
cmp(N, 1003, Want, Mask, _, _) when is_integer(Want) ->
    case N of none -> 0; #{flags := F} -> b(F band Mask =:= Want) end;
cmp(none, _, _, _, 0, _) -> 0;
cmp(none, _, _, _, _, _) -> 2;
cmp(#{val := V, kind := K}, 1002, _, _, _, _) -> b(V =/= none andalso K =/= box);
cmp(_, Op, _, _, _, _) when Op =:= 9; Op =:= 10 -> 3;
cmp(_, _, Pat, _, _, _) when not is_binary(Pat) -> 3;
cmp(#{key := K}, Op, Pat, _, _, key) -> text_cmp(Op, integer_to_list(K), binary_to_list(Pat));
cmp(#{val := none}, _, _, _, _, value) -> 0;
cmp(#{val := V}, Op, Pat, _, _, value) -> text_cmp(Op, V, binary_to_list(Pat)).

b(true) -> 1;
b(false) -> 0.

text_cmp(1, A, B) -> b(A =:= B);
text_cmp(2, A, B) -> b(A =/= B);
text_cmp(Op, A, B) ->
    case {int(A), int(B)} of
        {{ok, X}, {ok, Y}} -> order(Op, X, Y);
        _ ->
            case {num(A), num(B)} of
                {{ok, X}, {ok, Y}} -> order(Op, X, Y);
                _ -> 3
            end
    end.

order(3, X, Y) -> b(X > Y);
order(4, X, Y) -> b(X >= Y);
order(5, X, Y) -> b(X < Y);
order(6, X, Y) -> b(X =< Y).

int(S) ->
    case string:to_integer(S) of
        {I, []} -> {ok, I};
        _ -> error
    end.

num(S) ->
    case string:to_float(S) of
        {F, []} -> {ok, F};
        _ -> int(S)
    end.

%% Path resolution: {Node, Rest} (Rest non-empty only at a list) or none.
find(N, []) -> {N, []};
find(N, [E | Rest]) ->
    {Ns, Tag} = case E of [A | B] -> {A, B}; _ -> {0, E} end,
    Next = case N of
               #{kind := list, kids := Kids} ->
                   [I || #{key := K} = I <- Kids, K =:= Tag, Ns =:= 0];
               #{kids := Kids} ->
                   [C || C <- Kids, matches(C, Ns, Tag)]
           end,
    case Next of
        [] -> none;
        [#{kind := list} = L] when Rest =/= [] -> {L, Rest};
        [C] -> find(C, Rest)
    end.

matches(#{kind := box, key := K}, Ns, Tag) -> Ns =:= 0 andalso K =:= Tag;
matches(#{ns := CNs, key := K}, Ns, Tag) -> CNs =:= Ns andalso K =:= Tag.
