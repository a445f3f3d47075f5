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
    [Leaf(K, Kind, V) || {K, Kind, V} <- [{1, 17, str("10")}, {2, 17, int8(-3)}, {4, none, none},
                                          {5, 18, <<"raw">>}, {6, 17, <<14, 1, 0>>},
                                          {7, 17, <<9, -5:64>>},
                                          {8, 37, <<13, (1 bsl 64 - 1):64, 0, 0>>},
                                          {10, 17, <<8, 1, 2>>}]],
    arbo:set_flags(T, Leaf(3, 17, u32(7)), 2#101),
    L = arbo:add_hkey_dyn(T, C, 9, 0),
    [arbo:set_val(T, arbo:add_hkey(T, arbo:add_hkey(T, L, K, 4), [0 | 1], 3), 17, str(S))
     || {K, S} <- [{1, "a"}, {2, "b"}, {3, "c"}]],
    {P, C}.

%% The walk's answer for C: its outcome, match (mf 0), or 0.
outcome(T, P, C, F, MF) ->
    case arbo:first_child_nif(T, P, F, MF) of 0 -> 0; C -> match; {C, A} -> A end.

-define(NOPE, {3, 9, [1], <<>>}).  % unsupported
-define(MISS, {4, [9, 1]}).       % missing: the path stops at a list

%% Rows the random walks below do not reach: value types, number texts,
%% flag masks, own keys, path forms outside the model, and malformed terms.
operator_cases() ->
    [{{4, [[1 | 1]]}, 1, missing}, {{4, [9]}, 1, full}, {?MISS, 1, missing}, {?MISS, 0, match},
     {{4, [bad]}, 1, missing}, {{4, not_a_list}, 1, full},
     %% value kinds (number texts themselves are the native tests' business)
     {{5, 5, [1], <<"1e3">>}, 1, full}, {{3, 6, [3], <<"7">>}, 1, full},
     {{3, 2, [7], <<"-05">>}, 1, full}, {{3, 1, [8], <<"18446744073709551615">>}, 1, full},
     {{3, 1, [6], <<"x">>}, 1, unsupported}, {{3, 3, [10], <<"1">>}, 1, unsupported},
     {{3, 1, [1], "10"}, 1, unsupported}, {{7, 1, [1], <<"10">>, 0}, 1, full},
     %% flags and the presence of a value
     {{7, 1003, [3], 2#001, 2#011}, 1, full}, {{7, 1003, [3], 2#101, 2#011}, 1, 0},
     {{3, 1000, [3], 2#100}, 1, full}, {{3, 1001, [3], 2#011}, 1, 0},
     {{3, 1001, [99], 2#011}, 1, full}, {{3, 1002, [4], x}, 1, 0}, {{3, 1002, [], x}, 1, 0},
     %% the node's own key
     {{101, 1, 0, <<"1">>}, 1, full}, {{102, 5, 0, <<"2">>}, 1, full},
     {{101, 1, x, <<"1">>}, 1, unsupported},
     %% mf 0: a left "missing" answers at once, the right side is not looked at
     {{2, {0, ?MISS, {4, []}}}, 0, match}, {{1, ?MISS, {4, [99]}}, 0, 0},
     {{1, {4, [1]}, ?NOPE}, 1, unsupported},
     {{}, 1, unsupported}, {{99, 1}, 1, unsupported}, {{0, {4, []}}, 1, unsupported},
     %% the instance scan: any instance of list 9 whose leaf 1 compares
     {{3, 1, [9, 1], <<"b">>}, 1, full}, {{3, 1, [9, 7], <<"z">>}, 1, 0},
     {{3, 1002, [9, 1], x}, 1, full}, {{3, 1, [9, 1, 5], <<"b">>}, 1, 0}].

%% Long chains of right operands grow the pending results past their first
%% 32 pairs; a deeply nested left operand is refused as unsupported rather
%% than exhausting the scheduler's stack.
operators_test() ->
    with_table(fun(T) ->
        {P, C} = fixed_tree(T),
        Chain = fun(Op, Ls) -> lists:foldr(fun(A, B) -> {Op, A, B} end, lists:last(Ls),
                                           lists:droplast(Ls)) end,
        Yes = {4, [1]},
        No = {4, [99]},
        Deep = lists:foldl(fun(_, F) -> {2, {2, F}} end, Yes, lists:seq(1, 400)),
        TooDeep = lists:foldl(fun(_, F) -> {1, F, Yes} end, Yes, lists:seq(1, 5000)),
        Chains = [{Chain(1, lists:duplicate(199, Yes) ++ [No]), 1, missing},
                  {Chain(1, lists:duplicate(199, Yes) ++ [No]), 0, 0},
                  {Chain(0, lists:duplicate(199, No) ++ [Yes]), 1, full},
                  {Chain(0, [No, ?NOPE | lists:duplicate(100, No)]), 1, unsupported},
                  {Deep, 1, full}, {TooDeep, 1, unsupported}],
        [?assertEqual({F, MF, Want}, {F, MF, outcome(T, P, C, F, MF)})
         || {F, MF, Want} <- operator_cases() ++ Chains]
    end).

%% Byte keys: elements of an encoded key as text; an opaque key as its bytes.
key_elements_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, 0),
        Q = fun(N) -> list_to_binary(lists:duplicate(N, $q)) end,
        Key = <<(str("eth"))/binary, (u32(42))/binary, 15, 10, 0, 0, 1, 17, 1, 20, 2024:16, 2, 9,
                0, 0, 9, -5:64, 13, 7:64, 7, -300:16, 11, 300:16, 10, 200, (str(Q(70)))/binary>>,
        I = arbo:add_hkey(T, L, Key, 5),
        O = arbo:add_hkey(T, L, <<"opaque">>, 6),
        Cases = [{0, <<"eth">>, {I, full}}, {2, <<"10.0.0.1">>, {I, full}},
                 {9, <<"200">>, {I, full}}, {11, <<"x">>, 0}, {0, <<"opaque">>, {O, full}},
                 {1, <<"opaque">>, 0},
                 %% a text that fills its buffer may have been cut: "missing"
                 {10, Q(63), 0}, {10, Q(64), {I, missing}}, {10, Q(70), {I, missing}}],
        [?assertEqual({Idx, Pat, Want},
                      {Idx, Pat, arbo:first_child_nif(T, L, {101, 1, Idx, Pat}, 1)})
         || {Idx, Pat, Want} <- Cases]
    end).

%% ---- the instance scan and its yield -----------------------------------------------------

%% A container Tag holds C, C holds list 9 with Count instances I1..In, none
%% with a leaf 1.
scan_tree(T, Tag, Count) ->
    P = arbo:add_hkey_internal(T, arbo:get_root(T), Tag),
    C = arbo:add_hkey_internal(T, P, 1),
    L = arbo:add_hkey_dyn(T, C, 9, 0),
    {P, C, [arbo:add_hkey(T, L, K, 4) || K <- lists:seq(1, Count)]}.

scan_yield_test() ->
    with_table(fun(T) ->
        F = {3, 1, [9, 1], <<"z">>},
        %% 8 instances: the scan yields with one entry on the stack. One entry
        %% does not count as a resumption: the scan starts afresh above it and
        %% yields with two. Two entries resume from the node on top.
        {P, C, Is} = scan_tree(T, 11, 8),
        I5 = lists:nth(5, Is),
        ?assertEqual({yield, {[I5], [[1]]}, C}, arbo:first_child_nif(T, P, F, 1)),
        ?assertEqual({yield, {[I5, I5], [[1], [1]]}, C},
                     arbo:next_sibling_nif(T, C, F, 1, {[I5], [[1]]})),
        ?assertEqual(0, arbo:next_sibling_nif(T, C, F, 1, {[I5, I5], [[1], [1]]})),
        %% The node on top is compared itself, also for an empty path; a
        %% stack term whose node list ends first is accepted.
        Z = arbo:add_hkey(T, arbo:get_root(T), [0 | 77], 3),
        arbo:set_val(T, Z, 17, str("z")),
        Own = {3, 1, [], <<"z">>},
        ?assertEqual({C, full}, arbo:next_sibling_nif(T, C, F, 1, {[C, Z], [[1], [1]]})),
        ?assertEqual({C, missing}, arbo:next_sibling_nif(T, C, F, 1, {[C, 0], [[1], [1]]})),
        ?assertEqual({C, full}, arbo:next_sibling_nif(T, C, {0, {4, [99]}, Own}, 1,
                                                      {[C, Z], [[], []]})),
        {_, C3, _} = scan_tree(T, 12, 3),
        ?assertEqual(0, arbo:next_sibling_nif(T, C3, F, 1, {[], [[1], [2]]}))
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
        P = arbo:add_hkey_internal(T, arbo:get_root(T), 1),
        Size = case Round rem 3 of 0 -> rand:uniform(3000); _ -> rand:uniform(60) end,
        Model = build(T, P, Size),
        [begin
             {F, MF, Hide} = {filter(3), rand:uniform(2) - 1, rand:uniform(3) =:= 1},
             H = case Hide of true -> hide(T); false -> T end,
             Got = events(H, F, MF, arbo:first_child_nif(H, P, F, MF), []),
             ?assertEqual({F, MF, Hide, expected(Model, F, MF, Hide, 0)}, {F, MF, Hide, Got})
         end || _ <- lists:seq(1, 25)]
    end).

%% The events a walk produces: {answer, A} and {yield, Node}.
events(_T, _F, _MF, 0, Acc) -> lists:reverse(Acc);
events(T, F, MF, {yield, Stack, N}, Acc) ->
    events(T, F, MF, arbo:next_sibling_nif(T, N, F, MF, Stack), [{yield, N} | Acc]);
events(T, F, MF, A, Acc) ->
    N = case A of {N0, _} -> N0; N0 -> N0 end,
    events(T, F, MF, arbo:next_sibling_nif(T, N, F, MF), [{answer, A} | Acc]).

%% What the walk must produce, stepping the model's siblings as the library
%% steps them: inactive ones skipped when hidden, a yield after 1002 examined.
expected([], _F, _MF, _Hide, _Count) -> [];
expected([#{inactive := true} | Rest], F, MF, true, Count) -> expected(Rest, F, MF, true, Count);
expected([#{ref := Ref} = S | Rest] = Sibs, F, MF, Hide, Count) ->
    case if is_tuple(F) -> eval(F, S, MF); true -> 1 end of
        0 when Count >= 1001 -> [{yield, Ref} | expected(Sibs, F, MF, Hide, 0)];
        0 -> expected(Rest, F, MF, Hide, Count + 1);
        Code -> [{answer, answer(Ref, Code, MF)} | expected(Rest, F, MF, Hide, 0)]
    end.

answer(Ref, _Code, 0) -> Ref;
answer(Ref, Code, _) -> {Ref, element(Code, {full, missing, unsupported})}.

%% ---- the model tree ------------------------------------------------------------------------
%% Siblings of P: leaves (namespace 0 or 1) and containers holding leaves
%% 1..3 and perhaps the list 8 of instances 1..4, each perhaps holding a
%% leaf 1. Every node is a map with its reference, kind, key, value text and
%% children in chain order. (Flags and value presence are pinned above.)

build(T, P, Size) ->
    Keys = lists:usort([{rand:uniform(2) - 1, rand:uniform(4 * Size)} || _ <- lists:seq(1, Size)]),
    Sibs = [case rand:uniform(3) of
                1 when Ns =:= 0 -> box(T, P, K);
                _ -> leaf(T, P, Ns, K)
            end || {Ns, K} <- shuffle(Keys)],
    lists:sort(fun(#{ns := A, key := KA}, #{ns := B, key := KB}) -> {A, KA} =< {B, KB} end, Sibs).

leaf(T, P, Ns, K) ->
    Ref = arbo:add_hkey(T, P, [Ns | K], 3),
    decorate(T, node(Ref, leaf, Ns, K, value(T, Ref), [])).

box(T, P, K) ->
    Ref = arbo:add_hkey_internal(T, P, K),
    Leaves = [leaf(T, Ref, 0, J) || J <- lists:seq(1, 3), rand:uniform(2) =:= 1],
    Lists = [begin
                 L = arbo:add_hkey_dyn(T, Ref, 8, 0),
                 Insts = [begin
                              I = arbo:add_hkey(T, L, J, 4),
                              node(I, inst, 0, J, none, [leaf(T, I, 0, 1) || rand:uniform(2) =:= 1])
                          end || J <- lists:seq(1, 4), rand:uniform(3) > 1],
                 node(L, list, 0, 8, none, Insts)
             end || rand:uniform(3) =:= 1],
    decorate(T, node(Ref, box, 0, K, none, Leaves ++ Lists)).

node(Ref, Kind, Ns, K, Val, Kids) ->
    #{ref => Ref, kind => Kind, ns => Ns, key => K, val => Val, kids => Kids, inactive => false}.

%% For some nodes the inactive mark.
decorate(T, #{ref := Ref} = N) ->
    Inactive = rand:uniform(5) =:= 1,
    Inactive andalso deactivate(T, Ref),
    N#{inactive => Inactive}.

value(T, Ref) ->
    S = pick(["a", "b", "abc", "10", "-3", "7"]),
    case rand:uniform(4) of
        1 -> none;
        2 -> I = rand:uniform(20) - 10, arbo:set_val(T, Ref, 17, int8(I)), integer_to_list(I);
        3 -> arbo:set_val(T, Ref, 18, list_to_binary(S)), S;
        _ -> arbo:set_val(T, Ref, 17, str(S)), S
    end.

%% ---- random filters ----------------------------------------------------------------------
%% Paths never enter list 8 below a container with elements to spare: the
%% instance scan uses the walk's node stack, and it has a filter of its own.

filter(Depth) ->
    case rand:uniform(20) of
        1 -> [];
        N when N =< 3 -> {3, pick([1, 3, 5]), [8, 1], pattern()};
        _ -> filter_plain(Depth)
    end.

filter_plain(Depth) ->
    case Depth > 0 andalso rand:uniform(6) of
        1 -> {0, filter_plain(Depth - 1), filter_plain(Depth - 1)};
        2 -> {1, filter_plain(Depth - 1), filter_plain(Depth - 1)};
        3 -> {2, filter_plain(Depth - 1)};
        _ -> leaf_filter()
    end.

leaf_filter() ->
    Path = pick([[], [8], [1], [3], [[1 | 2]], [1, 1], [2, 2]]),
    case rand:uniform(5) of
        1 -> {4, Path};
        2 -> {3, x, [], <<>>};
        _ -> {3, rand:uniform(6), Path, pattern()}
    end.

pattern() -> list_to_binary(pick(["a", "b", "abc", "", "10", "-3", "7", "3", "0"])).

%% ---- the evaluation ------------------------------------------------------------------------

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
    case eval(A, N, MF) of 1 -> 0; 0 -> 1; R -> R end;
eval({4, Path}, N, MF) ->
    case find(N, Path) of
        {N2, []} when is_map(N2) -> 1;
        {_, _} -> 2;
        none when MF =:= 0 -> 0;
        none -> 2
    end;
eval({3, CmpOp, Path, Pat}, N, MF) when is_integer(CmpOp) ->
    case find(N, Path) of
        {#{kind := list, kids := Insts}, [_ | _] = Rest} ->
            b(lists:any(fun(I) -> case find(I, Rest) of
                                      {Found, []} -> cmp(Found, CmpOp, Pat, MF) =:= 1;
                                      none -> false
                                  end end, Insts));
        {Found, _} -> cmp(Found, CmpOp, Pat, MF);
        none -> cmp(none, CmpOp, Pat, MF)
    end;
eval(_, _, _) -> 3.

%% One pending pair (Op, Left) folded with the right result.
fold(0, _Left, 1) -> 1;
fold(1, _Left, 0) -> 0;
fold(_Op, _Left, 3) -> 3;
fold(_Op, 3, _R) -> 3;
fold(_Op, 2, _R) -> 2;
fold(_Op, _Left, R) -> R.

cmp(none, _, _, 0) -> 0;
cmp(none, _, _, _) -> 2;
cmp(#{val := none}, _, _, _) -> 0;
cmp(#{val := V}, Op, Pat, _) ->
    case {Op, string:to_integer(V), string:to_integer(Pat)} of
        {1, _, _} -> b(V =:= binary_to_list(Pat));
        {2, _, _} -> b(V =/= binary_to_list(Pat));
        {_, {X, []}, {Y, <<>>}} -> b(element(Op - 2, {X > Y, X >= Y, X < Y, X =< Y}));
        _ -> 3
    end.

b(true) -> 1;
b(false) -> 0.

%% Path resolution: {Node, Rest} (Rest non-empty only at a list) or none.
find(N, []) -> {N, []};
find(N, [E | Rest]) ->
    {Ns, Tag} = case E of [A | B] -> {A, B}; _ -> {0, E} end,
    Next = case N of
               #{kind := list, kids := Kids} -> [I || #{key := K} = I <- Kids, K =:= Tag, Ns =:= 0];
               #{kids := Kids} -> [C || #{ns := CNs, key := K} = C <- Kids, {CNs, K} =:= {Ns, Tag}]
           end,
    case Next of
        [] -> none;
        [#{kind := list} = L] when Rest =/= [] -> {L, Rest};
        [C] -> find(C, Rest)
    end.
