%% Filter matching and filtered walks: the operators and term shapes a random
%% walk does not reach (the instance scan among them), pinned against a fixed
%% tree; malformed paths; what values and key elements compare as; the
%% instance scan's yield; and a randomized comparison of whole walks (with
%% yields resumed through next_sibling_nif/5) against a plain Erlang
%% evaluation of the same filter over a model of the same tree. Text
%% comparison and element texts themselves are pinned in filter_test.cpp.
-module(filter_tests).

-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-import(arbo_test_util, [with_table/1, hide/1, str/1, u32/1, deactivate/2, shuffle/1, pick/1]).

%% ---- the fixed tree ------------------------------------------------------------------------

%% P holds C; C holds leaves 1, 3, 4, 6, 8, 10 (values of each kind, flags on
%% 3) and the list 9 whose instances 1..3 hold a leaf 1 with values "a", "b",
%% "c".
fixed_tree(T) ->
    C = arbo:add_hkey_internal(T, P = arbo:add_hkey_internal(T, arbo:get_root(T), 1), 1),
    Leaf = fun(K, V) -> N = arbo:add_hkey(T, C, [0 | K], ?KEY_TAG_ALT), V =:= none orelse arbo:set_val(T, N, ?VAL_CSVAL, V), N end,
    [Leaf(K, V) || {K, V} <- [{1, str("10")}, {4, none}, {6, <<14, 1, 0>>}, {10, <<8, 1, 2>>}]],
    arbo:set_val(T, Leaf(8, none), ?VAL_CSVAL_BIN, <<13, (1 bsl 64 - 1):64, 0, 0>>),
    arbo:set_flags(T, Leaf(3, u32(7)), 2#101),
    L = arbo:add_hkey_dyn(T, C, 9, ?ORDER_PLAIN),
    [arbo:set_val(T, arbo:add_hkey(T, arbo:add_hkey(T, L, K, ?KEY_INT), [0 | 1], ?KEY_TAG_ALT), ?VAL_CSVAL, str(S)) || {K, S} <- [{1, "a"}, {2, "b"}, {3, "c"}]],
    {P, C}.

-define(NOPE, {3, 9, [1], <<>>}).  % unsupported
-define(MISS, {4, [9, 1]}).       % missing: the path stops at a list
-define(YES, {4, [1]}).
-define(NO, {4, [99]}).

%% One row per path the random walks below do not take: value kinds, flag
%% masks, own keys, malformed terms, mf 0 answering early, long chains of
%% right operands (past the first 32 pending pairs) and a left operand
%% nested too deep, refused rather than exhausting the scheduler's stack.
%% A path is read as far as its resolution goes, and a malformed part met on
%% the way answers "unsupported" (a path that is no list, an element that is
%% neither Tag nor [Ns | Tag] of 32-bit unsigned integers, a tail other than
%% [], also behind a list node or in the instance scan); what lies past a
%% missing child, or past a list node for existence, is not read.
operators_test() ->
    with_table(fun(T) ->
        {P, C} = fixed_tree(T),
        Chain = fun(Op, Ls) -> lists:foldr(fun(A, B) -> {Op, A, B} end, lists:last(Ls), lists:droplast(Ls)) end,
        Cases = [{?MISS, 1, missing}, {{3, 1, [6], <<"x">>}, 1, unsupported},
             {{3, 1, [8], <<"18446744073709551615">>}, 1, full}, {{3, 3, [10], <<"1">>}, 1, unsupported},
             {{3, 1, [1], "10"}, 1, unsupported}, {{7, 1003, [3], 2#001, 2#011}, 1, full}, {{7, 1003, [3], 2#101, 2#011}, 1, 0},
             {{3, 1000, [3], 2#100}, 1, full}, {{3, 1000, [3], 2#110}, 1, 0},
             {{3, 1001, [99], 2#011}, 1, full}, {{3, 1002, [4], x}, 1, 0},
             {{101, 1, 0, <<"1">>}, 1, full}, {{101, 1, x, <<"1">>}, 1, unsupported}, {{2, {0, ?MISS, {4, []}}}, 0, match},
             {{1, {4, [1]}, ?NOPE}, 1, unsupported}, {{}, 1, unsupported}, {{0, {4, []}}, 1, unsupported},
             {{3, 1002, [9, 1], x}, 1, full}, {{3, 1, [9, 1, 5], <<"b">>}, 1, 0}, {{3, 1, [9, 1], <<"b">>}, 1, full},
             {Chain(1, lists:duplicate(199, ?YES) ++ [?NO]), 1, missing},
             {Chain(0, [?NO, ?NOPE | lists:duplicate(100, ?NO)]), 1, unsupported},
             {lists:foldl(fun(_, F) -> {2, {2, F}} end, ?YES, lists:seq(1, 400)), 1, full},
             {lists:foldl(fun(_, F) -> {1, F, ?YES} end, ?YES, lists:seq(1, 5000)), 1, unsupported}]
            ++ [{F, 1, unsupported} || F <- [{4, not_a_list}, {4, [bad]}, {4, [1 | 2]}, {4, [[0 | x]]}, {4, [1 bsl 32]},
                                             {4, [1, bad]}, {4, [9 | 2]}, {3, 1, [9, 1 | 2], <<"a">>}, {3, 1, [9, bad], <<"a">>}]]
            ++ [{F, 1, missing} || F <- [{4, [99 | 2]}, {4, [99, bad]}, {4, [9, bad]}, {3, 1, [99, bad], <<"a">>}]],
        [?assertEqual({F, MF, Want}, {F, MF, case arbo:first_child_nif(T, P, F, MF) of 0 -> 0; C -> match; {C, A} -> A end}) || {F, MF, Want} <- Cases]
    end).

%% What a value or a key element is compared as: its element's text, whole
%% when it fits the buffer (the pattern's length, at least 64), else its
%% head, and a match on a head is only "missing". A plain binary value and
%% an opaque key are read as one element each, their first byte the type
%% code: without a text form (or empty) they are "unsupported". Elements of
%% an encoded key by index; past its last one, no match.
text_forms_test() ->
    Q = fun(N) -> binary:copy(<<"q">>, N) end,
    Answer = fun(T, Parent, F) -> case arbo:first_child_nif(T, Parent, F, 1) of {_, A} -> A; Other -> Other end end,
    Value = fun(Kind, V, Op, Pat) -> with_table(fun(T) ->
                B = arbo:add_hkey_internal(T, arbo:get_root(T), 1),
                ok = arbo:set_val(T, arbo:add_hkey(T, B, 1, ?KEY_TAG_ALT), Kind, V),
                Answer(T, B, {3, Op, [], Pat}) end) end,
    Key = fun(Code, K, Idx, Op, Pat) -> with_table(fun(T) ->
                L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, ?ORDER_PLAIN),
                _ = arbo:add_hkey(T, L, K, Code),
                Answer(T, L, {101, Op, Idx, Pat}) end) end,
    Long = <<205, 300:32, (Q(300))/binary>>,
    Eth = <<(str("eth"))/binary, (str(Q(70)))/binary>>,
    Rows = [{full, Value, [17, str(Q(64)), 1, Q(64)]}, {full, Value, [17, str(Q(65)), 1, Q(65)]},
            {missing, Value, [17, str(Q(65)), 1, Q(64)]}, {0, Value, [17, str(Q(65)), 2, Q(64)]},
            {0, Value, [17, str(Q(64)), 1, Q(63)]}, {full, Value, [37, Long, 1, Q(300)]},
            {missing, Value, [37, Long, 1, Q(299)]}, {unsupported, Value, [18, <<"abc">>, 1, <<"abc">>]},
            {unsupported, Value, [18, <<>>, 1, <<>>]}, {unsupported, Value, [18, <<200, 9, "ab">>, 1, <<"ab">>]},
            {full, Value, [18, str("abc"), 1, <<"abc">>]}, {full, Value, [18, <<8, 5:32>>, 3, <<"4">>]},
            {full, Key, [5, str(Q(65)), 0, 1, Q(65)]}, {missing, Key, [5, Eth, 1, 1, Q(64)]},
            {full, Key, [5, <<(str("eth"))/binary, 15, 10, 0, 0, 1, (str(Q(70)))/binary>>, 1, 1, <<"10.0.0.1">>]},
            {missing, Key, [5, Eth, 1, 2, Q(63)]}, {0, Key, [5, str("eth"), 1, 2, <<"x">>]},
            {unsupported, Key, [6, <<"opaque">>, 0, 1, <<"opaque">>]}, {full, Key, [6, str("abc"), 0, 1, <<"abc">>]},
            {full, Key, [6, <<8, 7:32>>, 0, 6, <<"7">>]}, {0, Key, [6, str("abc"), 1, 2, <<"x">>]}],
    [?assertEqual({Args, Want}, {Args, apply(F, Args)}) || {Want, F, Args} <- Rows].

%% The instance scan over 8 instances yields with one entry on the stack.
%% One entry does not count as a resumption: the scan starts afresh above it
%% and yields with two; two entries resume from the node on top, which is
%% compared itself (also for an empty path). A stack term whose node list
%% ends first is accepted.
scan_test() ->
    with_table(fun(T) ->
        C = arbo:add_hkey_internal(T, P = arbo:add_hkey_internal(T, arbo:get_root(T), 11), 1),
        I5 = lists:nth(5, [arbo:add_hkey(T, L, K, ?KEY_INT) || L <- [arbo:add_hkey_dyn(T, C, 9, ?ORDER_PLAIN)], K <- lists:seq(1, 8)]),
        F = {3, 1, [9, 1], <<"z">>},
        ?assertEqual({yield, {[I5], [[1]]}, C}, arbo:first_child_nif(T, P, F, 1)),
        ?assertEqual({yield, {[I5, I5], [[1], [1]]}, C}, arbo:next_sibling_nif(T, C, F, 1, {[I5], [[1]]})),
        ?assertEqual(0, arbo:next_sibling_nif(T, C, F, 1, {[I5, I5], [[1], [1]]})),
        ok = arbo:set_val(T, Z = arbo:add_hkey(T, arbo:get_root(T), [0 | 77], ?KEY_TAG_ALT), ?VAL_CSVAL, str("z")),
        ?assertEqual({C, full}, arbo:next_sibling_nif(T, C, F, 1, {[C, Z], [[1], [1]]})),
        ?assertEqual({C, missing}, arbo:next_sibling_nif(T, C, F, 1, {[C, 0], [[1], [1]]})),
        ?assertEqual({C, full}, arbo:next_sibling_nif(T, C, {0, {4, [99]}, {3, 1, [], <<"z">>}}, 1, {[C, Z], [[], []]}))
    end).

%% ---- randomized walks against an Erlang model -------------------------------------------------

random_walks_test_() ->
    {timeout, 300, fun() ->
        Seed = rand:seed(exsss),
        io:format(user, "~nfilter_tests random seed: ~p~n", [rand:export_seed_s(Seed)]),
        [with_table(fun(T) -> walks(T, Round) end) || Round <- lists:seq(1, 12)]
    end}.

walks(T, Round) ->
    P = arbo:add_hkey_internal(T, arbo:get_root(T), 1),
    Model = build(T, P, case Round rem 3 of 0 -> rand:uniform(3000); _ -> rand:uniform(60) end),
    [?assertEqual({F, MF, Hide, expected(Model, F, MF, Hide, 0)}, {F, MF, Hide, events(H, F, MF, arbo:first_child_nif(H, P, F, MF), [])})
     || _ <- lists:seq(1, 25), {F, MF, Hide} <- [{filter(3), rand:uniform(2) - 1, rand:uniform(3) =:= 1}],
        H <- [case Hide of true -> hide(T); false -> T end]].

%% The events a walk produces: {answer, A} and {yield, Node}.
events(_T, _F, _MF, 0, Acc) -> lists:reverse(Acc);
events(T, F, MF, {yield, Stack, N}, Acc) -> events(T, F, MF, arbo:next_sibling_nif(T, N, F, MF, Stack), [{yield, N} | Acc]);
events(T, F, MF, A, Acc) -> events(T, F, MF, arbo:next_sibling_nif(T, case A of {N, _} -> N; N -> N end, F, MF), [{answer, A} | Acc]).

%% What the walk must produce, stepping the model's siblings as the library
%% steps them: inactive ones skipped when hidden, a yield after 1002 examined.
expected([], _F, _MF, _Hide, _Count) -> [];
expected([#{inactive := true} | Rest], F, MF, true, Count) -> expected(Rest, F, MF, true, Count);
expected([#{ref := Ref} = S | Rest] = Sibs, F, MF, Hide, Count) ->
    case if is_tuple(F) -> eval(F, S, MF); true -> 1 end of
        0 when Count >= 1001 -> [{yield, Ref} | expected(Sibs, F, MF, Hide, 0)];
        0 -> expected(Rest, F, MF, Hide, Count + 1);
        _ when MF =:= 0 -> [{answer, Ref} | expected(Rest, F, MF, Hide, 0)];
        Code -> [{answer, {Ref, element(Code, {full, missing, unsupported})}} | expected(Rest, F, MF, Hide, 0)]
    end.

%% ---- the model tree ------------------------------------------------------------------------
%% Siblings of P: leaves (namespace 0 or 1) and containers holding leaves
%% 1..3; some inactive. Every node is a map with its reference, kind, key,
%% value text and children in chain order.

build(T, P, Size) ->
    Keys = lists:usort([{rand:uniform(2) - 1, rand:uniform(4 * Size)} || _ <- lists:seq(1, Size)]),
    Sibs = [case rand:uniform(3) of 1 when Ns =:= 0 -> box(T, P, K); _ -> leaf(T, P, Ns, K) end || {Ns, K} <- shuffle(Keys)],
    lists:sort(fun(#{ns := A, key := KA}, #{ns := B, key := KB}) -> {A, KA} =< {B, KB} end, Sibs).

leaf(T, P, Ns, K) -> Ref = arbo:add_hkey(T, P, [Ns | K], ?KEY_TAG_ALT), node(T, Ref, leaf, Ns, K, value(T, Ref), []).

box(T, P, K) ->
    Ref = arbo:add_hkey_internal(T, P, K),
    node(T, Ref, box, 0, K, none, [leaf(T, Ref, 0, J) || J <- lists:seq(1, 3), rand:uniform(2) =:= 1]).

%% A node of the model, marked inactive one time in five.
node(T, Ref, Kind, Ns, K, Val, Kids) ->
    #{ref => Ref, kind => Kind, ns => Ns, key => K, val => Val, kids => Kids,
      inactive => rand:uniform(5) =:= 1 andalso is_integer(deactivate(T, Ref))}.

%% Values as string elements, encoded or held as plain binaries, and plain
%% bytes without a text form (integer elements' texts are the element
%% text's business).
value(T, Ref) ->
    case {rand:uniform(4), pick(["a", "b", "abc", "10", "-3", "7"])} of
        {1, _} -> none;
        {2, S} -> arbo:set_val(T, Ref, ?VAL_BINARY, list_to_binary(S)), no_text;
        {3, S} -> arbo:set_val(T, Ref, ?VAL_BINARY, str(S)), S;
        {_, S} -> arbo:set_val(T, Ref, ?VAL_CSVAL, str(S)), S
    end.

%% ---- random filters and their evaluation ----------------------------------------------------
%% (The instance scan through a list's instances is pinned above.)

filter(Depth) -> case rand:uniform(20) of 1 -> []; _ -> filter_plain(Depth) end.

filter_plain(Depth) ->
    Path = pick([[], [1], [3], [[1 | 2]], [1, 1], [2, 2]]),
    case {Depth > 0 andalso rand:uniform(6), rand:uniform(5)} of
        {Op, _} when Op =:= 1; Op =:= 2 -> {Op - 1, filter_plain(Depth - 1), filter_plain(Depth - 1)};
        {3, _} -> {2, filter_plain(Depth - 1)};
        {_, 1} -> {4, Path};
        {_, 2} -> {3, x, [], <<>>};
        _ -> {3, rand:uniform(6), Path, pattern()}
    end.

pattern() -> list_to_binary(pick(["a", "b", "abc", "", "10", "-3", "7", "3", "0"])).

%% Results: 0 no, 1 yes, 2 missing, 3 unsupported.
eval({0, A, B}, N, MF) ->
    case eval(A, N, MF) of R when R =:= 1; MF =:= 0, R =/= 0 -> R; R -> fold(0, R, eval(B, N, MF)) end;
eval({1, A, B}, N, MF) -> case eval(A, N, MF) of 0 -> 0; R -> fold(1, R, eval(B, N, MF)) end;
eval({2, A}, N, MF) -> case eval(A, N, MF) of 1 -> 0; 0 -> 1; R -> R end;
eval({4, Path}, N, MF) ->
    case find(N, Path) of {N2, []} when is_map(N2) -> 1; {none, _} when MF =:= 0 -> 0; _ -> 2 end;
eval({3, CmpOp, Path, Pat}, N, MF) when is_integer(CmpOp) -> cmp(element(1, find(N, Path)), CmpOp, Pat, MF);
eval(_, _, _) -> 3.

%% One pending pair (Op, Left) folded with the right result.
fold(0, _Left, 1) -> 1;
fold(1, _Left, 0) -> 0;
fold(_Op, Left, R) when Left =:= 3; R =:= 3 -> 3;
fold(_Op, 2, _R) -> 2;
fold(_Op, _Left, R) -> R.

cmp(none, _, _, MF) -> 2 * b(MF =/= 0);
cmp(#{val := none}, _, _, _) -> 0;
cmp(#{val := no_text}, _, _, _) -> 3;
cmp(#{val := V}, Op, Pat, _) ->
    case {Op, string:to_integer(V), string:to_integer(Pat)} of
        {Eq, _, _} when Eq =< 2 -> b((V =:= binary_to_list(Pat)) =:= (Eq =:= 1));
        {_, {X, []}, {Y, <<>>}} -> b(element(Op - 2, {X > Y, X >= Y, X < Y, X =< Y}));
        _ -> 3
    end.

b(B) -> if B -> 1; true -> 0 end.

%% Path resolution: {Node, []} or {none, []}.
find(N, []) -> {N, []};
find(#{kids := Kids}, [E | Rest]) ->
    Want = case E of [Ns | Tag] -> {Ns, Tag}; Tag -> {0, Tag} end,
    case [C || #{ns := Ns, key := K} = C <- Kids, {Ns, K} =:= Want] of [] -> {none, []}; [C] -> find(C, Rest) end.
