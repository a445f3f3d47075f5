%% Model-based property at the library boundary: random sequences of adds,
%% deletes, renames, value, flag and attribute changes made through every
%% key form the calls decode, applied to a tree and to a plain Erlang model
%% of it, compared after every step (counts, keys as read back, lookups,
%% values, flags, attributes, the order of instances, generation) and once
%% more, in full, at the end, where freeing the tree must give back every
%% byte but the lookup records that indexed user-ordered lists keep on
%% purpose. The lists themselves are followed at store level, thresholds and
%% all, in store_model_test.cpp; integer child lists are pinned in
%% edit_tests.
-module(store_prop_tests).
-include_lib("eunit/include/eunit.hrl").

-export([prop_model/0]).

-import(arbo_test_util, [with_table/1, children/2]).
-import(proper_types, [range/2, elements/1, frequency/1]).

%% The lists every tree starts with, under the root at tags 1..4 (ns 0):
%% {tag, ordering mode, key family}. Mode 2 orders these keys as mode 0 does
%% (where it differs is pinned in keys_tests); opaque keys in sorted lists
%% are followed in store_model_test.cpp.
-define(LISTS, [{1, 0, int}, {2, 1, bin5}, {3, 3, int3}, {4, 3, bin5}]).
-define(ROOT_MEM, 112).
-define(HT_KEY, 16).
-define(FLAG_VALUES, [0, 5, 16#3fffff, 16#400001, 1 bsl 40, 16#ffffffffffffffff]).

-record(it, {key, ref, kflags = [], val = undefined, uflags = 0, attrs = []}).
-record(l, {ref, mode, fam, idx = false, items = []}).
-record(m, {t, lists = #{}, gen = 0, leaked = 0}).

%% ---- the property -------------------------------------------------------------

model_test_() ->
    N = case os:getenv("ARBO_PROP_TESTS") of false -> 250; S -> list_to_integer(S) end,
    {timeout, 300, fun() -> ?assertEqual(true, proper:quickcheck(prop_model(), [{numtests, N}, {to_file, user}])) end}.

prop_model() ->
    proper:forall(commands(), fun(Cmds) ->
        %% failures come back as false, not as exceptions: this PropEr
        %% cannot report an exception on this OTP (no get_stacktrace)
        try with_table(fun(T) -> run(T, Cmds) end) =:= ok
        catch C:E:St -> proper:whenfail(fun() -> io:format(user, "~p:~p~n~p~n", [C, E, St]) end, fun() -> false end)
        end
    end).

%% ---- commands ------------------------------------------------------------------

%% Sequences long enough for the user-ordered lists to cross the 128/64
%% index thresholds, so lookups and renames meet the index too.
commands() -> proper_types:resize(60, proper_types:list(command())).

command() ->
    {Idx, Seed, Pos} = {range(1, length(?LISTS)), range(0, 337), range(0, 999)},
    Bulk = frequency([{1, Idx}, {3, elements([3, 4])}]),
    frequency([{10, {add, Idx, Seed, 1}}, {3, {add, Bulk, Seed, range(1, 200)}},
               {6, {del, Idx, Seed, 1}}, {3, {del, Bulk, Seed, range(1, 200)}},
               {4, {rename, Idx, Pos, Seed}},
               {4, {set_val, Idx, Pos, elements([17, 18, 37, 99]), range(0, 24)}},
               {2, {set_flags, Idx, Pos, elements(?FLAG_VALUES)}},
               {3, {set_attr, Idx, Pos, range(0, 3), range(0, 14)}}]).

run(T, Cmds) ->
    Ls = [{Tag, #l{ref = arbo:add_hkey_dyn(T, arbo:get_root(T), Tag, Mode), mode = Mode, fam = F}} || {Tag, Mode, F} <- ?LISTS],
    M = lists:foldl(fun(C, Acc) -> Acc1 = step(C, Acc), check(element(2, C), Acc1), Acc1 end,
                    #m{t = T, lists = maps:from_list(Ls)}, Cmds),
    [check(Idx, M) || Idx <- maps:keys(M#m.lists)],
    %% freeing everything gives back every byte but the kept lookup records
    expect(final, {ok, M#m.gen + 1, 0, ?ROOT_MEM + ?HT_KEY * M#m.leaked},
           {arbo:del_all(T), arbo:get_generation(T), arbo:get_size(T), arbo:get_mem(T)}).

%% ---- keys of each family ----------------------------------------------------------

%% {add code, key term, model key, key flags it sets}
add_key(int, S) when S rem 2 =:= 0 -> H = S div 2 - 40, {4, H, {int, H, 0}, [tuple]};
add_key(int, S) -> H = S div 2 - 40, Ns = (S div 2) rem 3, {27, {Ns, H}, {int, H, Ns}, [btuple]};
add_key(int3, S) -> {4, S - 20, {int, S - 20, 0}, [tuple]};
add_key(bin5, S) -> B = enc(S), {5, B, {bin, 5, B}, []}.

%% The new key of a rename: {code, key term, model key, the key flags it leaves}
rename_key(int, S) when S rem 7 =:= 5, S div 2 >= 40 ->
    H = S div 2 - 40, Ns = (S div 2) rem 3, {4, [Ns | H], {int, H, Ns}, [tuple]};
rename_key(int, S) when S rem 2 =:= 0 -> H = S div 2 - 40, {4, {H}, {int, H, 0}, [tuple]};
rename_key(int3, S) -> {4, {S - 20}, {int, S - 20, 0}, [tuple]};
rename_key(Fam, S) -> add_key(Fam, S).

letters(S, Mod) -> binary:copy(<<($a + (S div Mod) rem 26)>>, S rem Mod).

%% Encoded keys: empty, one signed 32-bit element, or one string element
%% (up to 15 bytes, so both inline and shared keys occur).
enc(S) when S rem 50 =:= 1 -> <<>>;
enc(S) when S rem 3 =:= 0 -> <<8, (S div 3 - 30):32/signed>>;
enc(S) -> Str = letters(S, 14), <<200, (byte_size(Str)), Str/binary>>.

%% {delete code, find code, key term}
key_form({int, Tag, 0}) -> {13, 11, {Tag}};
key_form({int, Tag, Ns}) -> {29, 28, {Ns, Tag}};
key_form({bin, 5, B}) -> {15, 12, B}.

%% The key order of the sorted lists: byte keys first, integers by signed
%% tag then namespace; encoded keys element by element, strings length
%% first in mode 1.
sort_key(_, {int, Tag, Ns}) -> {1, Tag, Ns};
sort_key(_, {bin, 5, <<>>}) -> {0, {0}};
sort_key(_, {bin, 5, <<8, I:32/signed>>}) -> {0, {1, I}};
sort_key(1, {bin, 5, <<200, L, S:L/binary>>}) -> {0, {2, L, S}};
sort_key(_, {bin, 5, <<200, _, S/binary>>}) -> {0, {2, S}}.

%% The key as get_hkey0 reads it back: integer keys by the forms they were
%% given (the tuple flags accumulate).
hkey(#it{key = {bin, 5, B}}) -> {binary, B};
hkey(#it{key = {int, Tag, Ns}, kflags = F}) ->
    U = Tag band 16#FFFFFFFF,
    case {Ns, lists:member(btuple, F), lists:member(tuple, F)} of
        {0, _, Tuple} -> if Tuple -> {Tag}; true -> U end;
        {_, BTuple, _} -> if BTuple -> {{Ns, U}}; true -> [Ns | U] end
    end.

%% ---- one step -----------------------------------------------------------------

step({Op, Idx, S0, N}, M) when Op =:= add; Op =:= del ->
    Step = fun(S, Acc) when Op =:= add -> add(Idx, S, Acc); (S, Acc) -> del(Idx, S, Acc) end,
    lists:foldl(Step, M, lists:seq(S0, S0 + N - 1));
step({rename, Idx, Pos, S}, M) ->
    with_item(Idx, Pos, M, fun(L, It) ->
        {Code, Term, Key, KF} = rename_key(L#l.fam, S),
        Free = not lists:keymember(Key, #it.key, L#l.items),
        expect({rename, Term}, Free, arbo:rename_instance0(M#m.t, L#l.ref, It#it.ref, Term, Code)),
        It1 = case Free of true -> It#it{key = Key, kflags = KF}; false -> It end,
        put_list(Idx, L#l{items = order(L#l.mode, lists:keyreplace(It#it.ref, #it.ref, L#l.items, It1))}, M)
    end);
step({set_val, Idx, Pos, Kind, Len}, M) ->
    with_item(Idx, Pos, M, fun(L, It) -> ok = arbo:set_val(M#m.t, It#it.ref, Kind, B = binary:copy(<<Len>>, Len)),
                                          put_item(Idx, L, It#it{val = value(element(1, It#it.key), Kind, B)}, M) end);
step({set_flags, Idx, Pos, V}, M) ->
    with_item(Idx, Pos, M, fun(L, It) -> expect(set_flags, V, arbo:set_flags(M#m.t, It#it.ref, V)),
                                          put_item(Idx, L, It#it{uflags = V}, M) end);
step({set_attr, Idx, Pos, Key, Len}, M) ->
    with_item(Idx, Pos, M, fun(L, It) ->
        _ = arbo:do_set_attr(M#m.t, It#it.ref, Key, B = binary:copy(<<(Len + 100)>>, Len)),
        %% removing an attribute moves the generation
        Had = lists:keymember(Key, 1, It#it.attrs),
        Attrs = if Len =:= 0 -> lists:keydelete(Key, 1, It#it.attrs); true -> lists:keystore(Key, 1, It#it.attrs, {Key, B}) end,
        put_item(Idx, L, It#it{attrs = Attrs}, M#m{gen = M#m.gen + length([x || Had, Len =:= 0])})
    end).

add(Idx, S, M) ->
    L = get_list(Idx, M),
    {Code, Term, Key, KF} = add_key(L#l.fam, S),
    Ref = arbo:add_hkey(M#m.t, L#l.ref, Term, Code),
    case lists:keyfind(Key, #it.key, L#l.items) of
        #it{ref = Old} = It ->
            expect({add_existing, Term}, Old, Ref),
            %% the tuple flags of an integer key accumulate (byte keys have none)
            put_item(Idx, L, It#it{kflags = lists:usort(KF ++ It#it.kflags)}, M);
        false ->
            Items = order(L#l.mode, L#l.items ++ [#it{key = Key, ref = Ref, kflags = KF}]),
            Idx1 = L#l.idx orelse (L#l.mode =:= 3 andalso length(Items) >= 128),
            put_list(Idx, L#l{items = Items, idx = Idx1}, M)
    end.

del(Idx, S, M) ->
    L = get_list(Idx, M),
    {_, _, Key, _} = add_key(L#l.fam, S),
    {Code, _, Term} = key_form(Key),
    Want = lists:keymember(Key, #it.key, L#l.items),
    expect({del, Term, Code}, Want, arbo:del_hkey(M#m.t, L#l.ref, Term, Code)),
    %% with an index, each removal leaves its lookup record counted; the
    %% index goes when a removal starts at 64 instances or fewer
    Items = lists:keydelete(Key, #it.key, L#l.items),
    put_list(Idx, L#l{items = Items, idx = L#l.idx andalso (not Want orelse length(L#l.items) > 64)},
             M#m{gen = M#m.gen + length([x || Want]), leaked = M#m.leaked + length([x || Want, L#l.idx])}).

order(3, Items) -> Items;
order(Mode, Items) -> lists:sort(fun(A, B) -> sort_key(Mode, A#it.key) =< sort_key(Mode, B#it.key) end, Items).

value(bin, _, _) -> undefined;
value(_, 18, B) -> B;
value(_, K, B) when K =:= 37; K =:= 17, B =/= <<>> -> {csval, B};
value(_, _, _) -> undefined.

with_item(Idx, Pos, M, Fun) ->
    case get_list(Idx, M) of #l{items = []} -> M; L = #l{items = Is} -> Fun(L, lists:nth(Pos rem length(Is) + 1, Is)) end.

get_list(Idx, M) -> maps:get(Idx, M#m.lists).
put_list(Idx, L, M) -> M#m{lists = maps:put(Idx, L, M#m.lists)}.
put_item(Idx, L, It, M) -> put_list(Idx, L#l{items = lists:keyreplace(It#it.ref, #it.ref, L#l.items, It)}, M).

%% ---- checks ------------------------------------------------------------------

expect(What, Want, Got) -> Want =:= Got orelse error({mismatch, What, {want, Want}, {got, Got}}), ok.

%% Size and generation, and one list in full: order, and per instance key,
%% lookup, value, flags, attributes.
check(Idx, M = #m{t = T}) ->
    Size = lists:sum([1 + length(L#l.items) + lists:sum([length(It#it.attrs) || It <- L#l.items]) || L <- maps:values(M#m.lists)]),
    expect(size_gen, {Size, M#m.gen}, {arbo:get_size(T), arbo:get_generation(T)}),
    L = get_list(Idx, M),
    Refs = [It#it.ref || It <- L#l.items],
    %% (an empty sorted list's last child is its header view: the list itself)
    Last = case {Refs, L#l.mode} of {[], 3} -> 0; {[], _} -> L#l.ref; _ -> lists:last(Refs) end,
    expect({order, Idx}, {Refs, length(Refs), Last},
           {children(T, L#l.ref), arbo:num_children(T, L#l.ref), arbo:last_child(T, L#l.ref)}),
    %% the positions of the instance in the middle, walked to by the library
    Pos = (length(Refs) + 1) div 2,
    Pos =:= 0 orelse expect({position, Idx}, {lists:nth(Pos, Refs), Pos, lists:nth(Pos, [0 | Refs])},
                            {arbo:get_child(T, L#l.ref, Pos), arbo:child_index(T, L#l.ref, lists:nth(Pos, Refs)),
                             arbo:prev_sibling(T, L#l.ref, lists:nth(Pos, Refs))}),
    lists:foreach(fun(It = #it{ref = Ref}) ->
        {_, FC, FK} = key_form(It#it.key),
        %% attribute values of up to 10 bytes read back in their string form
        Attrs = [case lists:keyfind(K, 1, It#it.attrs) of false -> []; {K, B} when byte_size(B) =< 10 -> {csval, B};
                     {K, B} -> B end || K <- [0, 1, 2, 3]],
        expect({instance, Idx, It#it.key}, {hkey(It), Ref, It#it.val, It#it.uflags, Attrs},
               {arbo:get_hkey0(T, Ref), arbo:find_child(T, L#l.ref, FK, FC), arbo:get_val_raw(T, Ref),
                arbo:get_flags(T, Ref), [arbo:do_get_attr(T, Ref, K) || K <- [0, 1, 2, 3]]})
    end, L#l.items).
