%% Attacks on the promises of the safe API, grouped by promise: each case
%% would fail if the promise it names were false. Cases that could take the
%% VM down run in a child VM.
-module(arbo_hostile_api_tests).
-include_lib("eunit/include/eunit.hrl").

-define(RAISES(Pattern, Expr),
        ?assertMatch({error, Pattern}, try Expr, returned catch error:E__ -> {error, E__} end)).

%% ---- a read-only handle changes nothing --------------------------------------

%% A small tree with one node of every kind: a leaf with a value, flags and
%% an attribute, a sorted and a user-ordered list with instances.
small() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    C = arbo_tree:add_container(T, R, 1),
    L = arbo_tree:add_leaf(T, C, {2, 3}),
    ok = arbo_tree:set_value(T, L, {uint32, 7}),
    ok = arbo_tree:set_flags(T, L, 5),
    ok = arbo_tree:set_attr(T, L, 1, {string, <<"a">>}),
    S = arbo_tree:add_list(T, R, 4, sorted),
    [arbo_tree:add(T, S, {int, K}) || K <- [3, 1, 2]],
    U = arbo_tree:add_list(T, R, 5, user_order),
    [arbo_tree:add(T, U, {int, K}) || K <- [30, 10, 20]],
    T.

%% Every changing function, called through the read-only handle Ro with
%% nodes found through it.
changes(Ro) ->
    R = arbo_tree:root(Ro),
    C = arbo_tree:find(Ro, R, 1),
    L = arbo_tree:find(Ro, C, {2, 3}),
    S = arbo_tree:find(Ro, R, 4),
    U = arbo_tree:find(Ro, R, 5),
    [I1, I2 | _] = arbo_tree:children(Ro, U),
    I = arbo_tree:find(Ro, S, {int, 1}),
    [{add_container, fun() -> arbo_tree:add_container(Ro, R, 9) end},
     {add_leaf, fun() -> arbo_tree:add_leaf(Ro, C, 9) end},
     {add_list, fun() -> arbo_tree:add_list(Ro, R, 9, sorted) end},
     {add, fun() -> arbo_tree:add(Ro, S, {int, 9}) end},
     {delete, fun() -> arbo_tree:delete(Ro, L) end},
     {delete_key, fun() -> arbo_tree:delete(Ro, C, {2, 3}) end},
     {delete_ns, fun() -> arbo_tree:delete_ns(Ro, C, 2) end},
     {clear, fun() -> arbo_tree:clear(Ro) end},
     {rename, fun() -> arbo_tree:rename(Ro, I, {int, 8}) end},
     {rename_ns, fun() -> arbo_tree:rename_ns(Ro, L, 6) end},
     {set_value, fun() -> arbo_tree:set_value(Ro, L, <<"x">>) end},
     {clear_value, fun() -> arbo_tree:clear_value(Ro, L) end},
     {set_flags, fun() -> arbo_tree:set_flags(Ro, L, 0) end},
     {add_flags, fun() -> arbo_tree:add_flags(Ro, L, 2) end},
     {clear_flags, fun() -> arbo_tree:clear_flags(Ro, L, 1) end},
     {set_attr, fun() -> arbo_tree:set_attr(Ro, L, 1, {bool, true}) end},
     {delete_attr, fun() -> arbo_tree:delete_attr(Ro, L, 1) end},
     {set_active, fun() -> arbo_tree:set_active(Ro, I, false) end},
     {move_to, fun() -> arbo_tree:move_to(Ro, I2, 0) end},
     {move_before, fun() -> arbo_tree:move_before(Ro, I2, I1) end},
     {move_after, fun() -> arbo_tree:move_after(Ro, I1, I2) end},
     {iter_push, fun() -> arbo_tree:iter_push(Ro, L) end},
     {iter_pop, fun() -> arbo_tree:iter_pop(Ro) end},
     {load, fun() -> arbo_tree:load(Ro, "/nonexistent/arbo") end},
     {close, fun() -> arbo_tree:close(Ro) end}].

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
    InPass = fun(F) -> fun() -> arbo_tree:reading(Ro, fun(Rd) -> F(Rd) end) end end,
    Cases = changes(Ro)
        ++ [{reading_set_value, InPass(fun(Rd) -> [L] = leaf(Rd), arbo_tree:set_value(Rd, L, <<"y">>) end)},
            {reading_add, InPass(fun(Rd) -> arbo_tree:add_container(Rd, arbo_tree:root(Rd), 8) end)},
            {reading_handle, InPass(fun(Rd) -> arbo_tree:set_flags(arbo_tree:read_only(Rd), hd(leaf(Rd)), 0) end)}],
    Wrong = [{Name, Got} || {Name, F} <- Cases,
                            Got <- [try F() catch error:{read_only, _} -> refused; C:E -> {C, E} end],
                            Got =/= refused orelse dump(T) =/= Before],
    ?assertEqual([], Wrong),
    ok = arbo_tree:close(T).

leaf(T) -> [arbo_tree:lookup(T, [1, {2, 3}])].

%% Reads through the read-only handle (and the handles it passes on) see
%% what the owner writes, with shared node references; the owner keeps
%% writing.
read_only_reads_and_owner_writes_test() ->
    T = small(),
    Ro = arbo_tree:read_only(T),
    ?assertEqual(Ro, arbo_tree:read_only(Ro)),
    ?assertEqual(dump(T), dump(Ro)),
    [L] = leaf(T),
    ok = arbo_tree:set_value(T, L, <<"new">>),
    ?assertEqual(<<"new">>, arbo_tree:value(Ro, L)),
    ok = arbo_tree:save(Ro, F = "/tmp/arbo_ro_" ++ os:getpid()),
    file:delete(F),
    Self = self(),
    Other = spawn(fun() ->
        A = arbo_tree:attach(Ro),
        Self ! {self(), arbo_tree:value(A, L),
                try arbo_tree:set_value(A, L, <<"no">>) catch error:{read_only, _} -> refused end,
                arbo_tree:reading(A, fun(Rd) -> arbo_tree:value(Rd, L) end)}
    end),
    receive {Other, V, Refused, V2} -> ?assertEqual({<<"new">>, refused, <<"new">>}, {V, Refused, V2})
    after 5000 -> error(timeout)
    end,
    %% The owner deletes: the read-only handle's references go stale too,
    %% and its reads go on after a fresh find.
    ok = arbo_tree:delete(T, L),
    ?RAISES({stale_node, _}, arbo_tree:value(Ro, L)),
    ?assertEqual([none], leaf(Ro)),
    ok = arbo_tree:close(T),
    ?RAISES({arbo_closed, _}, arbo_tree:root(Ro)).
