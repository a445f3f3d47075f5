%% Attacks on the promises of the safe API, grouped by promise: each case
%% would fail if the promise it names were false. Cases that could take the
%% VM down run in a child VM.
-module(arbo_hostile_api_tests).
-include_lib("proper/include/proper.hrl").
-include_lib("eunit/include/eunit.hrl").

-export([wide_flags/0]).

%% What F() did: returned, or the tag of the error it raised.
raised(F) -> try F(), returned catch error:{E, _} -> E; C:E -> {C, E} end.

%% ---- a read-only handle changes nothing --------------------------------------

%% A small tree with one node of every kind: a leaf with a value, flags and
%% an attribute, a sorted and a user-ordered list with instances.
small() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    L = arbo_tree:add_leaf(T, arbo_tree:add_container(T, R, 1), {2, 3}),
    [ok = apply(arbo_tree, F, [T, L | A])
     || {F, A} <- [{set_value, [{uint32, 7}]}, {set_flags, [5]}, {set_attr, [1, {string, <<"a">>}]}]],
    [arbo_tree:add(T, arbo_tree:add_list(T, R, Tag, Order), {int, K})
     || {Tag, Order, Ks} <- [{4, sorted, [3, 1, 2]}, {5, user_order, [30, 10, 20]}], K <- Ks],
    T.

%% Every changing function, called through the read-only handle Ro with
%% nodes found through it.
changes(Ro) ->
    R = arbo_tree:root(Ro),
    [C, S, U] = [arbo_tree:find(Ro, R, K) || K <- [1, 4, 5]],
    L = arbo_tree:find(Ro, C, {2, 3}),
    [I1, I2 | _] = arbo_tree:children(Ro, U),
    I = arbo_tree:find(Ro, S, {int, 1}),
    [{F, [Ro | A]} || {F, A} <- [{add_container, [R, 9]}, {add_leaf, [C, 9]}, {add_list, [R, 9, sorted]},
        {add, [S, {int, 9}]}, {delete, [L]}, {delete, [C, {2, 3}]}, {delete_ns, [C, 2]}, {clear, []},
        {rename, [I, {int, 8}]}, {rename_ns, [L, 6]}, {set_value, [L, <<"x">>]}, {clear_value, [L]},
        {set_flags, [L, 0]}, {add_flags, [L, 2]}, {clear_flags, [L, 1]}, {set_attr, [L, 1, {bool, true}]},
        {delete_attr, [L, 1]}, {set_active, [I, false]}, {move_to, [I2, 0]}, {move_before, [I2, I1]},
        {move_after, [I1, I2]}, {iter_push, [L]}, {iter_pop, []}, {load, ["/nonexistent/arbo"]}, {close, []}]].

%% Everything readable through the tree: what a change would show.
dump(T) -> dump(T, arbo_tree:root(T)).
dump(T, N) ->
    {arbo_tree:key(T, N), arbo_tree:type(T, N), arbo_tree:value_raw(T, N), arbo_tree:flags(T, N),
     arbo_tree:attr(T, N, 1), arbo_tree:is_active(T, N), arbo_tree:iter_depth(T),
     [dump(T, C) || C <- arbo_tree:children(T, N)]}.

read_only_refuses_every_change_test() ->
    T = small(),
    Before = dump(T),
    Ro = arbo_tree:read_only(T),
    Leaf = fun(Rd) -> arbo_tree:lookup(Rd, [1, {2, 3}]) end,
    InPass = [{reading_set_value, fun(Rd) -> arbo_tree:set_value(Rd, Leaf(Rd), <<"y">>) end},
              {reading_add, fun(Rd) -> arbo_tree:add_container(Rd, arbo_tree:root(Rd), 8) end},
              {reading_handle, fun(Rd) -> arbo_tree:set_flags(arbo_tree:read_only(Rd), Leaf(Rd), 0) end}],
    Cases = [{{F, length(A)}, fun() -> apply(arbo_tree, F, A) end} || {F, A} <- changes(Ro)]
        ++ [{Name, fun() -> arbo_tree:reading(Ro, F) end} || {Name, F} <- InPass],
    ?assertEqual([], [{Name, Got} || {Name, F} <- Cases, Got <- [raised(F)], Got =/= read_only orelse dump(T) =/= Before]),
    ok = arbo_tree:close(T).

%% Reads through the read-only handle (and the handles it passes on) see
%% what the owner writes, with shared node references; the owner keeps
%% writing.
read_only_reads_and_owner_writes_test() ->
    T = small(),
    Ro = arbo_tree:read_only(T),
    ?assertEqual(Ro, arbo_tree:read_only(Ro)),
    ?assertEqual(dump(T), dump(Ro)),
    L = arbo_tree:lookup(T, [1, {2, 3}]),
    ok = arbo_tree:set_value(T, L, <<"new">>),
    ?assertEqual(<<"new">>, arbo_tree:value(Ro, L)),
    ok = arbo_tree:save(Ro, F = "/tmp/arbo_ro_" ++ os:getpid()),
    file:delete(F),
    Self = self(),
    Other = spawn(fun() ->
        A = arbo_tree:attach(Ro),
        Self ! {self(), arbo_tree:value(A, L), raised(fun() -> arbo_tree:set_value(A, L, <<"no">>) end),
                arbo_tree:reading(A, fun(Rd) -> arbo_tree:value(Rd, L) end)}
    end),
    ?assertEqual({<<"new">>, read_only, <<"new">>}, receive {Other, V, R, V2} -> {V, R, V2} after 5000 -> timeout end),
    %% The owner deletes: the read-only handle's references go stale too,
    %% and its reads go on after a fresh find.
    ok = arbo_tree:delete(T, L),
    ?assertEqual({stale_node, none}, {raised(fun() -> arbo_tree:value(Ro, L) end), arbo_tree:lookup(Ro, [1, {2, 3}])}),
    ok = arbo_tree:close(T),
    ?assertEqual(arbo_closed, raised(fun() -> arbo_tree:root(Ro) end)).

%% ---- keys the API treats as different are never one for the library ---------

%% From 128 instances a user-ordered list finds keys through a hash index
%% that compares integers without their namespace and bytes without their
%% form: one list holds one key form, and a clash is refused, at any size.
one_form_per_user_list_test() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    Lists = [{Form, arbo_tree:add_list(T, R, Tag, user_order), [Key(N) || N <- lists:seq(1, 200)]}
             || {Tag, Form, Key} <- [{1, int, fun(N) -> {int, N} end}, {2, pair, fun(N) -> {pair, 7, N} end},
                                     {3, tuple, fun(N) -> {tuple, [{uint32, N}]} end},
                                     {4, opaque, fun(N) -> {opaque, <<N:16>>} end}]],
    [arbo_tree:add(T, L, K) || {_, L, Keys} <- Lists, K <- Keys],
    %% keys the index would take for listed ones: of another form refused,
    %% of the list's form their own instance; every key finds its own
    Others = [{int, 5}, {pair, 7, 5}, {pair, 8, 5}, {tuple, []}, {opaque, <<>>}, {opaque, <<0, 5>>}],
    ?assertEqual([], [{Form, K, Got} || {Form, L, _} <- Lists, K <- Others, form(K) =/= Form,
                                        Got <- [raised(fun() -> arbo_tree:add(T, L, K) end)], Got =/= key_form]),
    ?assertEqual([], [{K, Got} || {_, L, Keys} <- Lists, K <- Keys,
                                  Got <- [arbo_tree:key(T, arbo_tree:find(T, L, K))], K =/= Got]),
    ?assertEqual([], [{Form, K} || {Form, L, Keys} <- Lists, K <- Others, not lists:member(K, Keys),
                                   arbo_tree:find(T, L, K) =/= none]),
    ?assertEqual([], [K || {Form, L, Keys} <- Lists, K <- Others ++ [{pair, 7, 500}], form(K) =:= Form,
                           not lists:member(K, Keys), K =/= arbo_tree:key(T, arbo_tree:add(T, L, K))]),
    ok = arbo_tree:close(T).

form({pair, Ns, _}) when Ns =/= 7 -> pair_other_namespace;
form(K) -> element(1, K).

%% Renames keep the key form (another form would free the value), move the
%% epoch (the library may move the instance), and a delete afterwards acts
%% on the renamed instance only: in an indexed list, under both builds.
rename_then_delete_test() ->
    T = arbo_tree:new(),
    L0 = arbo_tree:add_list(T, arbo_tree:root(T), 1, user_order),
    [ok = arbo_tree:set_value(T, arbo_tree:add(T, L0, {int, N}), {uint32, N}) || N <- lists:seq(1, 300)],
    Epoch = fun() -> maps:get(epoch, arbo_tree:info(T)) end,
    L = fun() -> arbo_tree:find(T, arbo_tree:root(T), 1) end,
    I = arbo_tree:find(T, L(), {int, 7}),
    ?assertEqual([key_form, key_form],
                 [raised(fun() -> arbo_tree:rename(T, I, K) end) || K <- [{tuple, [{uint32, 7}]}, {pair, 3, 7}]]),
    E0 = Epoch(),
    ?assertEqual({false, true}, {arbo_tree:rename(T, I, {int, 8}),
                                 arbo_tree:rename(T, arbo_tree:find(T, L(), {int, 7}), {int, 1000})}),
    ?assert(Epoch() > E0),
    ?assertEqual({stale_node, {uint32, 7}, none}, {raised(fun() -> arbo_tree:value(T, I) end),
                 arbo_tree:value(T, arbo_tree:find(T, L(), {int, 1000})), arbo_tree:find(T, L(), {int, 7})}),
    ?assertEqual({true, false}, {arbo_tree:delete(T, L(), {int, 1000}), arbo_tree:delete(T, L(), {int, 7})}),
    ?assertEqual([{uint32, N} || N <- lists:seq(1, 300), N =/= 7],
                 [arbo_tree:value(T, C) || C <- arbo_tree:children(T, L())]),
    ok = arbo_tree:close(T).

%% Encoded keys the library's order takes for one (a comparison that stops
%% early) are refused as a clash, never handed out for each other. (The
%% order is not total across element types, so a find may miss an instance
%% that is there: only a wrong instance is a failure.)
clashing_keys_test() ->
    Prop = ?FORALL({Bins, Order}, {list(arbo_codec_tests:key_bytes()),
                                   oneof([sorted, sorted_length_first, sorted_length_first_but_last, user_order])},
        begin
            T = arbo_tree:new(),
            L = arbo_tree:add_list(T, arbo_tree:root(T), 1, Order),
            Valid = lists:usort([B || B <- Bins, arbo_key:validate(B) =:= ok]),
            Added = [B || B <- Valid, raised(fun() -> arbo_tree:add(T, L, {encoded, B}) end) =:= returned],
            Keys = [K || {tuple, _} = K0 <- [arbo_tree:key(T, C) || C <- arbo_tree:children(T, L)],
                         K <- [arbo_key:encode(element(2, K0))]],
            Finds = [{B, [arbo_key:encode(element(2, arbo_tree:key(T, N)))
                          || N <- [arbo_tree:find(T, L, {encoded, B})], N =/= none]} || B <- Valid],
            ok = arbo_tree:close(T),
            lists:sort(Keys) =:= Added andalso lists:all(fun({B, F}) -> F =:= [B] orelse F =:= [] end, Finds)
        end),
    ?assertEqual(true, proper:quickcheck(Prop, [{numtests, 300}, quiet]) orelse lists:flatten(io_lib:format("~w", [proper:counterexample()]))).

%% ---- what the API builds, a file carries back --------------------------------

%% Pair keys round-trip with namespaces 1..255 but 12; the others are refused.
pair_namespaces_test() ->
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    ?assertEqual([badarg], lists:usort([raised(fun() -> arbo_tree:add(T, L, {pair, Ns, 1}) end) || Ns <- [0, 12, 256, -1]])),
    [ok = arbo_tree:set_value(T, arbo_tree:add(T, L, {pair, Ns, N}), <<Ns, N:32/signed>>)
     || Ns <- lists:seq(1, 255) -- [12], N <- [-16#80000000, -1, 0, 16#7fffffff]],
    ?assertEqual(dump(T), dump(round_trip(T))),
    ok = arbo_tree:close(T).

round_trip(T) ->
    ok = arbo_tree:save(T, F = scratch_file("rt")),
    {ok, _} = arbo_tree:load(T2 = arbo_tree:new(), F),
    ok = file:delete(F),
    T2.

scratch_file(Name) -> filename:join("/tmp", "arbo_hostile_api_" ++ os:getpid() ++ "_" ++ Name).

%% Random trees built through the API (every key form, values, flags,
%% attributes, inactive marks, moves) save and load back equal.
random_round_trip_test() ->
    Prop = ?FORALL(Ops, list(build_op()),
        begin
            T = arbo_tree:new(),
            [build(T, Op) || Op <- Ops],
            T2 = round_trip(T),
            {Same, ok, ok} = {dump(T) =:= dump(T2), arbo_tree:close(T), arbo_tree:close(T2)},
            Same
        end),
    ?assertEqual(true, proper:quickcheck(Prop, [{numtests, 150}, quiet]) orelse proper:counterexample()).

build_op() ->
    T = range(1, 3),
    oneof([[add_list, T, oneof([sorted, user_order, sorted_length_first])],
           [add, T, oneof([{int, integer()}, {pair, range(1, 255), integer(-3, 3)},
                           {tuple, [{uint32, range(0, 5)}]}, {opaque, binary(2)}])],
           [add_leaf, T, oneof([range(0, 4), {range(1, 3), range(0, 4)}])],
           [set_value, T, oneof([binary(), {uint32, range(0, 100)}, {string, binary(3)}])],
           [set_flags, T, oneof([range(0, 16#3fffff), range(16#400000, 16#400003)])],
           [set_attr, T, range(1, 3), {bool, boolean()}], [set_active, T, false], [move_to, T, integer(-1, 4)]]).

%% An op names the function and the list at the root by its tag: add acts on
%% the list, move_to on its last instance, the others on its first.
build(T, [add_list, Tag, Order]) -> catch arbo_tree:add_list(T, arbo_tree:root(T), Tag, Order);
build(T, [F, Tag | Args]) ->
    L = arbo_tree:find(T, arbo_tree:root(T), Tag),
    At = if L =:= none -> none; F =:= add -> L;
            F =:= move_to -> arbo_tree:last_child(T, L); true -> arbo_tree:first_child(T, L) end,
    At =/= none andalso catch apply(arbo_tree, F, [T, At | Args]).

%% A load that stops before the end of the file is an error naming the
%% record it stopped at (the records before it stay applied), never `ok'.
stopped_load_test() ->
    M = <<16#EE, 16#DA, 0, 1>>,
    Leaf = <<6, 1:32, 13, 1, "v", 7>>,
    Cases = [{above_root, [M, Leaf, 7, Leaf], 13},
             {above_root, [M, Leaf, 8, 2, Leaf], 13},
             {value_at_root, [M, Leaf, 13, 1, "x", Leaf], 13},
             {value_at_root, [M, 9, arbo_val:encode({uint32, 1}), Leaf], 4},
             {child_refused, [M, <<20, 2:32, 0>>, <<6, 1:32>>, 7, Leaf], 10},
             {list_mode, [M, <<20, 2:32, 9>>, Leaf], 4},
             {list_key_form, [M, <<(20 + 64), 2:32, 0>>, Leaf], 4},
             {namespace_key_form, [M, <<(12 + 64), 2:32>>, Leaf], 4},
             {move_target_missing, [M, <<20, 2:32, 3>>, <<(19 + 64), 5:32, 0:32>>, 7, Leaf], 10}],
    ?assertEqual([], [{Why, Got} || {Why, Parts, At} <- Cases, Got <- [with_file(Parts, fun(F, T) -> arbo_tree:load(T, F) end)],
                                    Got =/= {error, {stopped_at, At, Why}}]).

%% Fun(File, Tree) with Bytes in a scratch file and a fresh tree.
with_file(Bytes, Fun) ->
    ok = file:write_file(F = scratch_file("bytes"), Bytes),
    T = arbo_tree:new(),
    try Fun(F, T) after arbo_tree:close(T), file:delete(F) end.

%% Loads stopped by a truncation mark or a checkpoint answer what the
%% library answers for the file itself, in the file's own positions.
truncation_positions_test() ->
    M = <<16#EE, 16#DA, 0, 1>>,
    Leaf = fun(N) -> <<6, N:32, 13, 1, "v", 7>> end,
    Files = [[M, 2, Leaf(1), 3, 2, Leaf(2), 4, Leaf(3), 1, Leaf(4)],
             [M, 2, Leaf(1), 4, Leaf(2), 2, Leaf(3), 4, Leaf(4), 3],
             [M, Leaf(1), 1, Leaf(2)],
             [M, 2, 2, Leaf(1), 4, 4]],
    Ckpts = [-1, -2, 0, 12, 13, 14, 25, 26, 27],
    ?assertEqual([], [{Bin, C, Safe, Raw} || Parts <- Files, Bin <- [iolist_to_binary(Parts)], C <- Ckpts,
                                            {Safe, Raw} <- [{safe_load(Bin, C), raw_load(Bin, C)}], Safe =/= Raw]).

safe_load(Bin, C) ->
    with_file(Bin, fun(F, T) ->
        {ok, I} = arbo_tree:load(T, F, [{checkpoint, C}]),
        {maps:without([captured, file_size], I), dump(T)}
    end).

raw_load(Bin, C) ->
    F = scratch_file("ckpt_raw"),
    ok = file:write_file(F, Bin),
    H = arbo_tree:new(),
    try
        {true, {Trans, _, Size, _, _, Ckpt, _, Where}} =
            arbo_tree:exclusive(H, fun(Raw, _) -> {arbo:load_nif(Raw, <<(list_to_binary(F))/binary, 0>>, C, 0, undefined), true} end),
        {#{nodes => Size, transactions => Trans, checkpoint => Ckpt,
           truncated_at => case Where of undefined -> undefined; {checkpoint, N} -> N - 1 end}, dump(H)}
    after arbo_tree:close(H), file:delete(F)
    end.

%% ---- documented answers --------------------------------------------------------

%% A tree made with hide_inactive leaves inactive instances out of every
%% finding, stepping and counting function; child_index counts them.
hide_inactive_test() ->
    T = arbo_tree:new([hide_inactive]),
    %% instances 1..5 of a list of each order, 1, 3 and 5 inactive
    Wrong = [{Order, Name, Got, Want}
             || {Tag, Order} <- [{1, user_order}, {2, sorted}],
                L <- [arbo_tree:add_list(T, arbo_tree:root(T), Tag, Order)],
                [_, I2, _, I4, I5] <- [[inactive(T, arbo_tree:add(T, L, {int, N}), N rem 2) || N <- lists:seq(1, 5)]],
                {Name, Got, Want} <- [{find, arbo_tree:find(T, L, {int, 1}), none},
                                      {lookup, arbo_tree:lookup(T, [Tag, {int, 3}]), none},
                                      {first_child, arbo_tree:first_child(T, L), I2}, {last_child, arbo_tree:last_child(T, L), I4},
                                      {next_sibling, arbo_tree:next_sibling(T, I2), I4},
                                      {prev_sibling, arbo_tree:prev_sibling(T, I4), I2},
                                      {prev_sibling_first, arbo_tree:prev_sibling(T, I2), none},
                                      {nth_child, arbo_tree:nth_child(T, L, 2), I4},
                                      {nth_child_past, arbo_tree:nth_child(T, L, 3), none},
                                      {num_children, arbo_tree:num_children(T, L), 2},
                                      {children, arbo_tree:children(T, L), [I2, I4]},
                                      {select, arbo_tree:select(T, L, all), [I2, I4]},
                                      {fold, arbo_tree:fold(T, L, all, fun(C, A) -> [C | A] end, []), [I4, I2]},
                                      {child_index, [arbo_tree:child_index(T, I) || I <- [I2, I4, I5]], [2, 4, 5]}],
                Got =/= Want],
    ?assertEqual([], Wrong),
    %% every instance inactive: nothing to step to from either end
    L = arbo_tree:add_list(T, arbo_tree:root(T), 3, sorted),
    Is = [inactive(T, arbo_tree:add(T, L, {int, N}), 1) || N <- [1, 2, 3]],
    ?assertEqual({none, none, none, 0}, {arbo_tree:last_child(T, L), arbo_tree:prev_sibling(T, lists:last(Is)),
                                         arbo_tree:first_child(T, L), arbo_tree:num_children(T, L)}),
    ok = arbo_tree:close(T).

inactive(T, I, 1) -> ok = arbo_tree:set_active(T, I, false), I;
inactive(_, I, _) -> I.

%% Which calls move the epoch, as the module documentation says.
epoch_moves_test() ->
    T = arbo_tree:new(),
    R = fun() -> arbo_tree:root(T) end,
    F = scratch_file("epoch"),
    Calls = [{add_leaf, false, fun() -> arbo_tree:add_leaf(T, R(), {3, 3}) end},
             {add_list, false, fun() -> arbo_tree:add_list(T, R(), 1, user_order) end},
             {add, false, fun() -> [arbo_tree:add(T, arbo_tree:find(T, R(), 1), {int, N}) || N <- [1, 2]] end},
             {set_value, false, fun() -> arbo_tree:set_value(T, arbo_tree:find(T, R(), {3, 3}), <<"v">>) end},
             {set_flags, false, fun() -> arbo_tree:set_flags(T, R(), 7) end},
             {set_attr, false, fun() -> arbo_tree:set_attr(T, R(), 1, {bool, true}) end},
             {move_to, false, fun() -> arbo_tree:move_to(T, arbo_tree:lookup(T, [1, {int, 2}]), 0) end},
             {rename_ns, false, fun() -> arbo_tree:rename_ns(T, arbo_tree:find(T, R(), {3, 3}), 4) end},
             {delete_nothing, false, fun() -> arbo_tree:delete(T, R(), 99) end},
             {save, false, fun() -> arbo_tree:save(T, F) end},
             {rename, true, fun() -> arbo_tree:rename(T, arbo_tree:lookup(T, [1, {int, 2}]), {int, 3}) end},
             {delete, true, fun() -> arbo_tree:delete(T, arbo_tree:lookup(T, [1, {int, 3}])) end},
             {delete_key, true, fun() -> arbo_tree:delete(T, R(), {4, 3}) end},
             {load, true, fun() -> arbo_tree:load(T, F) end},
             {delete_ns, true, fun() -> arbo_tree:delete_ns(T, R(), 4) end},
             {clear, true, fun() -> arbo_tree:clear(T) end}],
    Epoch = fun() -> maps:get(epoch, arbo_tree:info(T)) end,
    Wrong = [{Name, Moves} || {Name, Moves, Call} <- Calls,
                              E0 <- [Epoch()], _ <- [Call()], (Epoch() =/= E0) =/= Moves],
    file:delete(F),
    ?assertEqual([], Wrong),
    ok = arbo_tree:close(T).

%% After close/1 returns, every call raises arbo_closed, whoever makes it
%% and through whichever handle; closing again is ok from anywhere.
closed_for_everyone_test() ->
    T = arbo_tree:new(),
    N = arbo_tree:add_leaf(T, arbo_tree:root(T), 1),
    Self = self(),
    Reader = spawn(fun() -> A = arbo_tree:attach(T), _ = arbo_tree:value(A, N), Self ! ready,
                            receive go -> Self ! {self(), calls(A, N)} end end),
    Known = spawn(fun() -> _ = arbo_tree:value(T, N), Self ! ready,
                           receive go -> Self ! {self(), calls(T, N)} end end),
    [receive ready -> ok end || _ <- [1, 2]],
    ok = arbo_tree:close(T),
    Fresh = spawn(fun() -> Self ! {self(), calls(T, N)} end),
    [P ! go || P <- [Reader, Known]],
    Answers = [calls(T, N), calls(arbo_tree:read_only(T), N)
               | [receive {P, A} -> A after 5000 -> timeout end || P <- [Reader, Known, Fresh]]],
    ?assertEqual([], [A || As <- Answers, A <- As, A =/= closed]),
    ?assertEqual(ok, arbo_tree:close(T)).

calls(T, N) ->
    Ro = case T of {_, _, _, {_, {read_only, _}, _, _}} -> true; _ -> false end,
    [try F(), returned
     catch error:{arbo_closed, _} -> closed;
           error:{read_only, _} when Ro -> closed;
           C:E -> {C, E}
     end
     || F <- [fun() -> arbo_tree:root(T) end, fun() -> arbo_tree:value(T, N) end,
              fun() -> arbo_tree:find(T, N, 1) end, fun() -> arbo_tree:info(T) end,
              fun() -> arbo_tree:set_value(T, N, <<"x">>) end, fun() -> arbo_tree:delete(T, N) end,
              fun() -> arbo_tree:clear(T) end, fun() -> arbo_tree:children(T, N) end,
              fun() -> arbo_tree:save(T, scratch_file("closed")) end,
              fun() -> arbo_tree:reading(T, fun(Rd) -> arbo_tree:root(Rd) end) end]]
        ++ [case arbo_tree:close(T) of ok -> closed; X -> X end || not Ro].

%% A keeper killed: the tree is closed by the first call that needs it;
%% nothing hangs.
killed_keeper_test() ->
    T = arbo_tree:new(),
    N = arbo_tree:add_leaf(T, arbo_tree:root(T), 1),
    {arbo, _, _, {arbo_gate, Keeper, _, _}} = T,
    MRef = erlang:monitor(process, Keeper),
    exit(Keeper, kill),
    receive {'DOWN', MRef, _, _, _} -> ok end,
    ?assertError({arbo_closed, _}, arbo_tree:delete(T, N)),
    ?assertEqual([], [A || A <- calls(T, N), A =/= closed]).

%% A keeper killed in the middle of a write (here a load it runs) leaves
%% no reader waiting for ever: they answer arbo_closed.
keeper_killed_inside_write_test_() ->
    {timeout, 60, fun() ->
        T = arbo_tree:new(),
        L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
        [arbo_tree:add(T, L, {int, N}) || N <- lists:seq(1, 200000)],
        F = scratch_file("keeper_write"),
        ok = arbo_tree:save(T, F),
        R = arbo_tree:root(T),
        {arbo, _, _, {arbo_gate, Keeper, _, _}} = T,
        Self = self(),
        %% a reader with its word registered, which the writer bit reaches
        Reader = spawn(fun() -> A = arbo_tree:attach(T), arbo_tree:root(A),
                                receive go -> Self ! {self(), catch arbo_tree:num_children(A, R)} end end),
        spawn(fun() -> catch arbo_tree:load(T, F) end),
        %% the keeper is inside the load once the writer bit shows
        {arbo, _, _, {arbo_gate, _, _, Word}} = T,
        Inside = fun Wait() -> atomics:get(Word, 1) band (1 bsl 22) =/= 0 orelse (erlang:yield() =:= true andalso Wait()) end,
        Inside(),
        exit(Keeper, kill),
        Reader ! go,
        Got = receive {Reader, G} -> G after 20000 -> stuck end,
        file:delete(F),
        ?assertMatch({'EXIT', {{arbo_closed, _}, _}}, Got)
    end}.

%% Options that are not a list, and unknown or misspelled ones, are badarg.
options_test() ->
    T = arbo_tree:new(),
    ok = arbo_tree:save(T, F = scratch_file("opts")),
    Cases = [{options, arbo_tree, new, [hide_inactive]}, {option, arbo_tree, new, [[hide_inactiv]]},
             {options, arbo_tree, save, [T, F, skip_flags]}, {option, arbo_tree, save, [T, F, [{skipflags, 1}]]},
             {option, arbo_tree, save, [T, F, [skip_flags]]}, {options, arbo_tree, load, [T, F, #{checkpoint => 1}]},
             {option, arbo_tree, load, [T, F, [{progres, self()}]]}, {option, arbo_tree, load, [T, F, [capture]]},
             {options, arbo_file, load, [T, F, {capture, true}]}],
    Wrong = [{What, Fn, A, Got} || {What, M, Fn, A} <- Cases,
                                   Got <- [try apply(M, Fn, A) catch error:{badarg, {W, _}} -> W end], Got =/= What],
    {ok, ok} = {file:delete(F), arbo_tree:close(T)},
    ?assertEqual([], Wrong).

%% ---- files that are not files ----------------------------------------------------

%% A FIFO (whose open would block), a device (which never ends), a file that
%% says it is empty and is not: prompt errors, nothing loaded.
not_files_test() ->
    Fifo = scratch_file("fifo"),
    "" = os:cmd("rm -f " ++ Fifo ++ "; mkfifo " ++ Fifo),
    T = arbo_tree:new(),
    Cases = [{Fifo, not_regular}, {"/dev/zero", not_regular}, {"/dev/null", not_regular}, {"/tmp", not_regular},
             {"/proc/self/status", changed}],
    Wrong = [{P, A} || {P, Why} <- Cases, {Us, A} <- [timer:tc(fun() -> {arbo_file:verify(P), arbo_tree:load(T, P)} end)],
                       A =/= {{error, {Why, 0}}, {error, {Why, 0}}} orelse Us > 1000000],
    file:delete(Fifo),
    ?assertEqual([], Wrong),
    ?assertEqual(0, maps:get(size, arbo_tree:info(T))),
    ok = arbo_tree:close(T).

%% ---- processes killed, callbacks that misbehave, many trees ---------------------

%% Callers killed at random moments of their loads and saves leave no
%% temporary file, no helper process, and the tree takes a writer.
killed_callers_test_() ->
    {timeout, 120, fun() ->
        Dir = scratch_file("killed"),
        os:cmd("rm -rf " ++ Dir ++ "; mkdir -p " ++ Dir),
        Old = os:getenv("TMPDIR"),
        os:putenv("TMPDIR", Dir),
        try killed_callers(Dir)
        after
            case Old of false -> os:unsetenv("TMPDIR"); _ -> os:putenv("TMPDIR", Old) end,
            os:cmd("rm -rf " ++ Dir)
        end
    end}.

killed_callers(Dir) ->
    File = filename:join(Dir, "big"),
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    [ok = arbo_tree:set_value(T, arbo_tree:add(T, L, {int, N}), <<N:32>>) || N <- lists:seq(1, 100000)],
    ok = arbo_tree:save(T, File),
    {LoadUs, {ok, _}} = timer:tc(arbo_tree, load, [T, File]),
    {SaveUs, ok} = timer:tc(arbo_tree, save, [T, File]),
    Procs = erlang:system_info(process_count),
    [begin
         {Pid, MRef} = spawn_monitor(arbo_tree, F, [T, File]),
         timer:sleep(I * Us div 8000),
         exit(Pid, kill),
         receive {'DOWN', MRef, _, _, _} -> ok end
     end || {F, Us} <- [{load, LoadUs}, {save, SaveUs}], I <- lists:seq(0, 9)],
    %% the helpers finish the loads of the dead callers, then go with
    %% their copies; a writer gets in
    ?assertEqual(ok, arbo_tree:clear(T)),
    Clean = fun Wait(Ms) ->
                    Now = {lists:sort(element(2, file:list_dir(Dir))), erlang:system_info(process_count)},
                    case Now =:= {["big"], Procs} orelse Ms =< 0 of true -> Now; false -> timer:sleep(20), Wait(Ms - 20) end
            end,
    ?assertEqual({["big"], Procs}, Clean(30000)),
    ?assertMatch({ok, #{nodes := 100001}}, arbo_tree:load(T, File)),
    ok = arbo_tree:close(T).

%% Callbacks that raise, exit, throw or block leave the gate free: a writer
%% in another process gets through at once.
callbacks_test() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    [arbo_tree:add_leaf(T, R, N) || N <- lists:seq(1, 100)],
    Bad = [fun(_) -> error(boom) end, fun(_) -> exit(boom) end, fun(_) -> throw(boom) end],
    Outcomes = [{How, catch Call(), writer(T)}
                || F <- Bad,
                   {How, Call} <- [{fold, fun() -> arbo_tree:fold(T, R, all, fun(C, A) -> F(C), A end, 0) end},
                                   {reading, fun() -> arbo_tree:reading(T, F) end}]],
    ?assertEqual([], [O || {_, _, W} = O <- Outcomes, not is_boolean(W)]),
    %% a fold whose callback blocks holds no gate
    Self = self(),
    Blocked = spawn(fun() -> arbo_tree:fold(T, arbo_tree:root(T), all,
                                            fun(_, A) -> Self ! blocked, receive never -> A end end, 0) end),
    receive blocked -> ok end,
    ?assertEqual(false, writer(T)),
    exit(Blocked, kill),
    ok = arbo_tree:close(T).

%% A deletion in another process: its answer, or stuck after 2 s.
writer(T) ->
    {Pid, MRef} = spawn_monitor(fun() -> exit({answer, arbo_tree:delete(T, arbo_tree:root(T), 1)}) end),
    receive {'DOWN', MRef, _, _, {answer, G}} -> G after 2000 -> exit(Pid, kill), stuck end.

%% A process that reads thousands of trees other processes create and close
%% keeps no dictionary entry of a closed one.
many_trees_test_() ->
    {timeout, 60, fun() ->
        Self = self(),
        Dict0 = length(get()),
        Procs = erlang:system_info(process_count),
        [begin
             {Owner, MRef} = spawn_monitor(fun() -> Self ! {tree, self(), arbo_tree:new()}, receive close -> ok end end),
             receive {tree, Owner, T} -> arbo_tree:root(T) end,
             Owner ! close,
             receive {'DOWN', MRef, _, _, _} -> ok end
         end || _ <- lists:seq(1, 3000)],
        timer:sleep(50),
        ?assertMatch({D, P} when D < 3 andalso P < 3, {length(get()) - Dict0, erlang:system_info(process_count) - Procs})
    end}.

%% ---- the VM-wide table of wide flag values ------------------------------------

%% It never shrinks and counts with 16 bits: wide values are refused with
%% flags_table_full once it holds 30,000 distinct ones, by set_flags, add_flags,
%% clear_flags and load alike; narrow values are always taken. In a child
%% VM: the table is the VM's.
wide_flags_test_() ->
    {timeout, 300, fun() ->
        Args = lists:append([["-pa", filename:absname(filename:dirname(code:which(M)))] || M <- [?MODULE, arbo_tree]]),
        {ok, Peer, _} = peer:start(#{connection => standard_io, args => Args}),
        R = try peer:call(Peer, ?MODULE, wide_flags, [], 280000) after catch peer:stop(Peer) end,
        Full = {error, flags_table_full},
        ?assertEqual({30000, Full, Full, Full, Full, ok, ok, Full, 30000}, R)
    end}.

wide_flags() ->
    T = arbo_tree:new(),
    N = arbo_tree:add_leaf(T, arbo_tree:root(T), 1),
    %% a file with one wide value not in the table yet
    ok = arbo_tree:set_flags(T, N, 16#7000000000),
    ok = arbo_tree:save(T, F = scratch_file("wide")),
    Fill = fun Loop(V) -> arbo_tree:set_flags(T, N, V) =:= ok andalso Loop(V + 1) end,
    Fill(16#400000),
    Used = fun() -> [_, {8, Cap, Free}] = arbo:alloc_info(), Cap - Free end,
    R = {Used(),
         arbo_tree:set_flags(T, N, 16#400000),  % one already there too
         arbo_tree:set_flags(T, N, 1 bsl 40),
         arbo_tree:add_flags(T, N, 1 bsl 41),
         arbo_tree:clear_flags(T, arbo_tree:root(T), 0) =:= ok andalso arbo_tree:clear_flags(T, N, 1),
         arbo_tree:set_flags(T, N, 16#3fffff),  % narrow
         arbo_tree:clear_flags(T, N, 16#3fffff),
         arbo_tree:load(T, F),
         Used()},
    file:delete(F),
    R.
