%% Model-based property: random sequences of adds, deletes, renames, value,
%% flag and attribute changes applied to a tree and to a plain Erlang model
%% of it, compared after every step (counts, keys, values, flags,
%% attributes, the order of instances and of the root's children,
%% generation) and once more, in full, at the end, where freeing the tree
%% must give back every byte but the lookup records that indexed
%% user-ordered lists keep on purpose.
-module(store_prop_tests).
-include_lib("eunit/include/eunit.hrl").

-export([prop_model/0]).

-import(walk_util, [with_table/1, children/2]).
-import(proper_types, [range/2, elements/1, frequency/1]).

%% The lists every tree starts with, under the root at tags 1..7 (ns 0):
%% {tag, ordering mode, key family}.
-define(LISTS, [{1, 0, int}, {2, 1, bin6}, {3, 0, bin5}, {4, 1, bin5}, {5, 2, bin5},
                {6, 3, int3}, {7, 3, bin6}]).
-define(ROOT_MEM, 112).
-define(HT_KEY, 16).
-define(FLAG_VALUES, [0, 5, 16#3fffff, 16#400001, 1 bsl 40, 16#ffffffffffffffff]).

-record(it, {key, ref, kflags = [], val = undefined, uflags = 0, attrs = []}).
-record(l, {ref, mode, fam, idx = false, items = []}).
-record(m, {t, root, lists = #{}, leaves = [], gen = 0, leaked = 0,
            events = []}).  % index_built / index_dropped, for the statistics

%% ---- the property -------------------------------------------------------------

model_test_() ->
    N = case os:getenv("ARBO_PROP_TESTS") of false -> 250; S -> list_to_integer(S) end,
    {timeout, 300, fun() ->
        ?assertEqual(true, proper:quickcheck(prop_model(), [{numtests, N}, {to_file, user}]))
    end}.

prop_model() ->
    proper:forall(commands(), fun(Cmds) ->
        %% failures come back as false, not as exceptions: this PropEr
        %% cannot report an exception on this OTP (no get_stacktrace)
        try with_table(fun(T) -> run(T, Cmds) end) of
            Events -> proper:aggregate([{index, lists:usort(Events)}], true)
        catch
            C:E:St ->
                proper:whenfail(fun() -> io:format(user, "~p:~p~n~p~n", [C, E, St]) end,
                                fun() -> false end)
        end
    end).

%% ---- commands ------------------------------------------------------------------

%% Sequences long enough for lists to cross the 128/64 index thresholds.
commands() -> proper_types:resize(60, proper_types:list(command())).

command() ->
    Idx = range(1, length(?LISTS)),
    {Seed, Pos} = {range(0, 337), range(0, 999)},
    %% bulk changes mostly hit the user-ordered lists, to cross their thresholds
    Bulk = frequency([{1, Idx}, {3, elements([6, 7])}]),
    frequency([{10, {add, Idx, Seed}}, {3, {add_many, Bulk, Seed, range(1, 200)}},
               {6, {del, Idx, Seed}}, {3, {del_many, Bulk, Seed, range(1, 200)}},
               {2, {thin, Bulk, range(0, 80)}}, {4, {rename, Idx, Pos, Seed}},
               {4, {set_val, Idx, Pos, elements([17, 18, 37, 99]), range(0, 24)}},
               {2, {set_flags, Idx, Pos, elements(?FLAG_VALUES)}},
               {3, {set_attr, Idx, Pos, range(0, 3), range(0, 14)}},
               {3, {leaf_add, range(1, 3), range(0, 5)}}, {1, {leaf_del, range(1, 3), range(0, 5)}},
               {1, {leaf_del_ns, range(1, 4)}}, {2, {leaf_rename, Pos, range(1, 3)}}]).

run(T, Cmds) ->
    M = lists:foldl(fun(C, Acc) -> Acc1 = step(C, Acc), check_step(C, Acc1), Acc1 end,
                    new_model(T), Cmds),
    check_all(M),
    %% freeing everything gives back every byte but the kept lookup records
    ok = arbo:del_all(T),
    expect(final_generation, M#m.gen + 1, arbo:get_generation(T)),
    expect(final_size, 0, arbo:get_size(T)),
    expect(final_mem, ?ROOT_MEM + ?HT_KEY * M#m.leaked, arbo:get_mem(T)),
    M#m.events.

new_model(T) ->
    R = arbo:get_root(T),
    Ls = maps:from_list([{Tag, #l{ref = arbo:add_hkey_dyn(T, R, Tag, Mode), mode = Mode, fam = F}}
                         || {Tag, Mode, F} <- ?LISTS]),
    #m{t = T, root = R, lists = Ls}.

%% ---- keys of each family ----------------------------------------------------------

%% {add code, key term, model key, key flags it sets}
add_key(int, S) when S rem 2 =:= 0 -> H = S div 2 - 40, {4, H, {int, H, 0}, [tuple]};
add_key(int, S) -> H = S div 2 - 40, Ns = (S div 2) rem 3, {27, {Ns, H}, {int, H, Ns}, [btuple]};
add_key(int3, S) -> {4, S - 20, {int, S - 20, 0}, [tuple]};
add_key(bin6, S) -> B = letters(S, 13), {6, B, {bin, 6, B}, []};
add_key(bin5, S) -> B = enc(S), {5, B, {bin, 5, B}, []}.

%% The new key of a rename: {code, key term, model key, the key flags it leaves}
rename_key(int, S) when S rem 7 =:= 6 -> B = enc(S), {5, B, {bin, 5, B}, []};
rename_key(int, S) when S rem 2 =:= 0 -> H = S div 2 - 40, {4, {H}, {int, H, 0}, [tuple]};
rename_key(int, S) when S rem 7 =:= 5, S div 2 >= 40 ->
    H = S div 2 - 40, Ns = (S div 2) rem 3, {4, [Ns | H], {int, H, Ns}, [tuple]};
rename_key(int, S) -> H = S div 2 - 40, Ns = (S div 2) rem 3, {27, {Ns, H}, {int, H, Ns}, [btuple]};
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
key_form({bin, 5, B}) -> {15, 12, B};
key_form({bin, 6, B}) -> {52, 53, B}.

%% The key order of sorted lists: byte keys first; integers by signed tag,
%% then namespace; opaque bytes by content then length (mode 1: length
%% first); encoded keys element by element (strings length first in mode 1).
sort_key(_, {int, Tag, Ns}) -> {1, Tag, Ns};
sort_key(1, {bin, 6, B}) -> {0, byte_size(B), B};
sort_key(_, {bin, 6, B}) -> {0, B};
sort_key(Mode, {bin, 5, B}) -> {0, enc_key(Mode, B)}.

enc_key(_, <<>>) -> {0};
enc_key(_, <<8, I:32/signed>>) -> {1, I};
enc_key(1, <<200, L, S:L/binary>>) -> {2, L, S};
enc_key(_, <<200, _, S/binary>>) -> {2, S}.

hkey(#it{key = {bin, 5, B}}) -> {binary, B};
hkey(#it{key = {bin, 6, B}}) -> {B};
hkey(#it{key = {int, Tag, Ns}, kflags = F}) ->
    U = Tag band 16#FFFFFFFF,
    case {Ns, lists:member(btuple, F), lists:member(tuple, F)} of
        {0, _, true} -> {Tag};
        {0, _, false} -> U;
        {_, true, _} -> {{Ns, U}};
        {_, false, _} -> [Ns | U]
    end.

is_bin(#it{key = {bin, _, _}}) -> true;
is_bin(_) -> false.

%% ---- one step -----------------------------------------------------------------

step({add, Idx, S}, M) -> add(Idx, S, M);
step({add_many, Idx, S0, N}, M) ->
    lists:foldl(fun(S, Acc) -> add(Idx, S, Acc) end, M, lists:seq(S0, S0 + N - 1));
step({del, Idx, S}, M) -> del(Idx, S, M);
step({del_many, Idx, S0, N}, M) ->
    lists:foldl(fun(S, Acc) -> del(Idx, S, Acc) end, M, lists:seq(S0, S0 + N - 1));
step({thin, Idx, Keep}, M) ->
    %% delete until Keep instances remain, every other one first
    Items = (get_list(Idx, M))#l.items,
    {Odd, Even} = lists:partition(fun({I, _}) -> I rem 2 =:= 1 end,
                                  lists:zip(lists:seq(1, length(Items)), Items)),
    Doomed = lists:sublist([It || {_, It} <- Odd ++ Even], max(0, length(Items) - Keep)),
    lists:foldl(fun(It, Acc) -> del_key(Idx, It#it.key, Acc) end, M, Doomed);
step({rename, Idx, Pos, S}, M) ->
    with_item(Idx, Pos, M, fun(L, It) ->
        {Code, Term, Key, KF} = rename_key(L#l.fam, S),
        Want = not lists:keymember(Key, #it.key, L#l.items),
        expect({rename, Term}, Want, arbo:rename_instance0(M#m.t, L#l.ref, It#it.ref, Term, Code)),
        case Want of
            false -> M;
            true ->
                Val = case Key of {bin, _, _} -> undefined; _ -> It#it.val end,
                It1 = It#it{key = Key, kflags = KF, val = Val},
                Items = lists:keyreplace(It#it.ref, #it.ref, L#l.items, It1),
                put_list(Idx, L#l{items = order(L#l.mode, Items)}, M)
        end
    end);
step({set_val, Idx, Pos, Kind, Len}, M) ->
    with_item(Idx, Pos, M, fun(L, It) ->
        B = binary:copy(<<Len>>, Len),
        ok = arbo:set_val(M#m.t, It#it.ref, Kind, B),
        Val = case is_bin(It) of true -> undefined; false -> value(Kind, B) end,
        put_item(Idx, L, It#it{val = Val}, M)
    end);
step({set_flags, Idx, Pos, V}, M) ->
    with_item(Idx, Pos, M, fun(L, It) ->
        expect(set_flags, V, arbo:set_flags(M#m.t, It#it.ref, V)),
        put_item(Idx, L, It#it{uflags = V}, M)
    end);
step({set_attr, Idx, Pos, Key, Len}, M) ->
    with_item(Idx, Pos, M, fun(L, It) ->
        B = binary:copy(<<(Len + 100)>>, Len),
        _ = arbo:do_set_attr(M#m.t, It#it.ref, Key, B),
        {Attrs, Gen} = case {Len, lists:keymember(Key, 1, It#it.attrs)} of
            {0, true} -> {lists:keydelete(Key, 1, It#it.attrs), M#m.gen + 1};
            {0, false} -> {It#it.attrs, M#m.gen};
            _ -> {lists:keystore(Key, 1, It#it.attrs, {Key, B}), M#m.gen}
        end,
        put_item(Idx, L, It#it{attrs = Attrs}, M#m{gen = Gen})
    end);
step({leaf_add, Ns, Tag}, M = #m{leaves = Lv}) ->
    Ref = arbo:add_hkey(M#m.t, M#m.root, [Ns | Tag], 3),
    case orddict:find({Ns, Tag}, Lv) of
        {ok, Old} -> expect({leaf_add, Ns, Tag}, Old, Ref), M;
        error -> M#m{leaves = orddict:store({Ns, Tag}, Ref, Lv)}
    end;
step({leaf_del, Ns, Tag}, M = #m{leaves = Lv}) ->
    Want = orddict:is_key({Ns, Tag}, Lv),
    expect({leaf_del, Ns, Tag}, Want, arbo:del_hkey(M#m.t, M#m.root, [Ns | Tag], 13)),
    M#m{leaves = orddict:erase({Ns, Tag}, Lv), gen = M#m.gen + b2i(Want)};
step({leaf_del_ns, Ns}, M = #m{leaves = Lv}) ->
    Keep = [E || E = {{N, _}, _} <- Lv, N =/= Ns],
    Want = length(Keep) < length(Lv),
    expect({leaf_del_ns, Ns}, Want, arbo:del_ns(M#m.t, M#m.root, Ns)),
    M#m{leaves = Keep, gen = M#m.gen + b2i(Want)};
step({leaf_rename, _, _}, M = #m{leaves = []}) -> M;
step({leaf_rename, Pos, NewNs}, M = #m{leaves = Lv}) ->
    {{Ns, Tag}, Ref} = lists:nth(Pos rem length(Lv) + 1, Lv),
    Taken = NewNs =/= Ns andalso orddict:is_key({NewNs, Tag}, Lv),
    Got = arbo:rename_ns(M#m.t, M#m.root, Ref, NewNs),
    expect({leaf_rename, Ns, Tag, NewNs}, not Taken, Got),
    Lv1 = orddict:erase({Ns, Tag}, Lv),
    case Taken of
        %% an occupied target drops the moved leaf (kept behaviour)
        true -> M#m{leaves = Lv1};
        false -> M#m{leaves = orddict:store({NewNs, Tag}, Ref, Lv1), gen = M#m.gen + 1}
    end.

add(Idx, S, M) ->
    L = get_list(Idx, M),
    {Code, Term, Key, KF} = add_key(L#l.fam, S),
    Ref = arbo:add_hkey(M#m.t, L#l.ref, Term, Code),
    case lists:keyfind(Key, #it.key, L#l.items) of
        It = #it{} ->
            expect({add_existing, Term}, It#it.ref, Ref),
            %% the tuple flags of an integer key accumulate
            KF1 = case is_bin(It) of true -> It#it.kflags; false -> lists:usort(KF ++ It#it.kflags) end,
            put_item(Idx, L, It#it{kflags = KF1}, M);
        false ->
            Items = order(L#l.mode, L#l.items ++ [#it{key = Key, ref = Ref, kflags = KF}]),
            Idx1 = L#l.idx orelse (L#l.mode =:= 3 andalso length(Items) >= 128),
            Ev = [index_built || Idx1, not L#l.idx],
            put_list(Idx, L#l{items = Items, idx = Idx1}, M#m{events = Ev ++ M#m.events})
    end.

del(Idx, S, M) ->
    {_, _, Key, _} = add_key((get_list(Idx, M))#l.fam, S),
    del_key(Idx, Key, M).

del_key(Idx, Key, M) ->
    L = get_list(Idx, M),
    {Code, _, Term} = key_form(Key),
    Want = lists:keymember(Key, #it.key, L#l.items),
    expect({del, Term, Code}, Want, arbo:del_hkey(M#m.t, L#l.ref, Term, Code)),
    case Want of
        false -> M;
        true ->
            N = length(L#l.items),
            %% with an index, each removal leaves its lookup record counted;
            %% the index goes when a removal starts at 64 instances or fewer
            Leaked = M#m.leaked + b2i(L#l.idx),
            Items = lists:keydelete(Key, #it.key, L#l.items),
            Idx1 = L#l.idx andalso N > 64,
            Ev = [index_dropped || L#l.idx, not Idx1],
            put_list(Idx, L#l{items = Items, idx = Idx1},
                     M#m{gen = M#m.gen + 1, leaked = Leaked, events = Ev ++ M#m.events})
    end.

order(3, Items) -> Items;
order(Mode, Items) -> lists:sort(fun(A, B) -> sort_key(Mode, A#it.key) =< sort_key(Mode, B#it.key) end, Items).

value(17, <<>>) -> undefined;
value(17, B) -> {csval, B};
value(18, B) -> B;
value(37, B) -> {csval, B};
value(_, _) -> undefined.

attr_value(B) when byte_size(B) =< 10 -> {csval, B};
attr_value(B) -> B.

with_item(Idx, Pos, M, Fun) ->
    L = get_list(Idx, M),
    case L#l.items of
        [] -> M;
        Items -> Fun(L, lists:nth(Pos rem length(Items) + 1, Items))
    end.

get_list(Idx, M) -> maps:get(Idx, M#m.lists).
put_list(Idx, L, M) -> M#m{lists = maps:put(Idx, L, M#m.lists)}.
put_item(Idx, L, It, M) ->
    put_list(Idx, L#l{items = lists:keyreplace(It#it.ref, #it.ref, L#l.items, It)}, M).

b2i(true) -> 1;
b2i(false) -> 0.

%% ---- checks ------------------------------------------------------------------

expect(_What, Want, Want) -> ok;
expect(What, Want, Got) -> error({mismatch, What, {want, Want}, {got, Got}}).

check_step(Cmd, M) ->
    check_shape(M),
    case atom_to_list(element(1, Cmd)) of
        "leaf_" ++ _ -> ok;
        _ -> check_list(element(2, Cmd), M)
    end.

check_all(M) ->
    check_shape(M),
    [check_list(Idx, M) || Idx <- maps:keys(M#m.lists)],
    ok.

%% Counts, the root's children in order, generation.
check_shape(M = #m{t = T}) ->
    Items = lists:append([L#l.items || L <- maps:values(M#m.lists)]),
    Size = maps:size(M#m.lists) + length(Items) + length(M#m.leaves)
           + lists:sum([length(It#it.attrs) || It <- Items]),
    expect(size, Size, arbo:get_size(T)),
    expect(generation, M#m.gen, arbo:get_generation(T)),
    Lists = [(maps:get(Tag, M#m.lists))#l.ref || {Tag, _, _} <- ?LISTS],
    expect(root_children, Lists ++ [R || {_, R} <- M#m.leaves], children(T, M#m.root)),
    [expect({leaf_key, K}, [Ns | Tag], arbo:get_hkey0(T, R)) || {K = {Ns, Tag}, R} <- M#m.leaves],
    [expect({num_children, Idx}, length(L#l.items), arbo:num_children(T, L#l.ref))
     || {Idx, L} <- maps:to_list(M#m.lists)],
    ok.

%% One list in full: order, and per instance key, lookup, value, flags, attributes.
check_list(Idx, M = #m{t = T}) ->
    L = get_list(Idx, M),
    expect({order, Idx}, [It#it.ref || It <- L#l.items], children(T, L#l.ref)),
    lists:foreach(fun(It = #it{ref = Ref}) ->
        expect({hkey, Idx, It#it.key}, hkey(It), arbo:get_hkey0(T, Ref)),
        {_, FC, FK} = key_form(It#it.key),
        expect({find, Idx, It#it.key}, Ref, arbo:find_child(T, L#l.ref, FK, FC)),
        expect({val, Idx, It#it.key}, It#it.val, arbo:get_val_raw(T, Ref)),
        expect({flags, Idx, It#it.key}, It#it.uflags, arbo:get_flags(T, Ref)),
        [expect({attr, Idx, It#it.key, K},
                case lists:keyfind(K, 1, It#it.attrs) of false -> []; {K, B} -> attr_value(B) end,
                arbo:do_get_attr(T, Ref, K)) || K <- [0, 1, 2, 3]]
    end, L#l.items).
