%% Tree editing from Erlang: containers and namespaces (integer child lists,
%% their positions and lookups by every tag form), deletion by the key forms
%% the model does not use, exact accounting of every allocation, the library
%% counter across tables, and the refusals the store makes (argument
%% decoding, handles, node types and the order of the checks are swept by
%% arbo_fuzz_tests). Random sequences of list edits, every key style and the
%% index thresholds are checked in store_model_test.cpp.
-module(edit_tests).
-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-import(arbo_test_util, [with_table/1, reason/1, children/2, str/1, child_keys/2, lib_mem/0, expect/1, child_vm/2]).

%% Record sizes as the allocator counts them.
-define(ROOT_MEM, 112).
-define(INT_MEM, 40).
-define(DYN_MEM, 120).
-define(ONE_MEM, 56).
-define(TWO_MEM, 64).

%% ---- containers and namespaces -------------------------------------------

containers_and_namespaces_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [C, L9, N12, Nneg, L] = [arbo:add_hkey_internal(T, R, 5) | [arbo:add_hkey(T, R, K, ?KEY_TAG_ALT) || K <- [9, [1 | 2], {-5}]]]
                                ++ [arbo:add_hkey_dyn(T, R, [1 | 1], ?ORDER_LENGTH_FIRST)],
        %% a pair asked for again answers its node, whatever kind asks (a list
        %% keeps its mode); the store refuses a list where a leaf holds the
        %% pair and a byte key outside a list (a container in a list and a
        %% rename outside one are arbo_fuzz_tests' rows)
        ?assertEqual([C, L9, L, L], [arbo:add_hkey_internal(T, R, 5), arbo:add_hkey(T, R, 9, ?KEY_TAG_ALT),
                                     arbo:add_hkey_dyn(T, R, [1 | 1], ?ORDER_USER), arbo:add_hkey(T, R, [1 | 1], ?KEY_TAG)]),
        Refused = [{add_hkey_dyn, [T, R, 9, 0]}, {add_hkey, [T, R, <<1>>, 5]}],
        ?assertEqual({{2, 1}, [badarg || _ <- Refused]}, {arbo:get_type(T, L), [reason(fun() -> apply(arbo, F, A) end)
                                                                                 || {F, A} <- Refused]}),
        %% ordered by (namespace, unsigned tag); {-5} is stored as its pattern
        Kids = [C, L9, Nneg, L, N12],
        ?assertEqual({Kids, [5, 9, 16#FFFFFFFB, [1 | 1], [1 | 2]], 5, N12},
                     {children(T, R), child_keys(T, R), arbo:num_children(T, R), arbo:last_child(T, R)}),
        [?assertEqual({N, I, Prev}, {arbo:get_child(T, R, I), arbo:child_index(T, R, N), arbo:prev_sibling(T, R, N)})
         || {I, N, Prev} <- lists:zip3(lists:seq(1, 5), Kids, [0 | lists:droplast(Kids)])],
        %% kept: N = 0 counts down through the unsigned wrap and finds nothing
        ?assertEqual([0, 0, 0, 0, 0], [arbo:get_child(T, R, 0), arbo:get_child(T, R, 6), arbo:child_index(T, R, 12345),
                                       arbo:child_index(T, R, 0), arbo:prev_sibling(T, R, 12345)]),
        Finds = [{5, 10, C}, {{5}, 11, C}, {[1 | 2], 11, N12}, {{1, 1}, 28, L}, {[3 | 1], 10, 0}, {not_a_tag, 10, 0},
                 {5, 99, 0}, {<<"x">>, 12, 0}],
        [?assertEqual({Key, Code, Want}, {Key, Code, arbo:find_child(T, R, Key, Code)}) || {Key, Code, Want} <- Finds],
        %% adds, found pairs and refused adds leave the generation alone
        expect([{size, 5, arbo:get_size(T)}, {mem, ?ROOT_MEM + ?INT_MEM + 3 * ?ONE_MEM + ?DYN_MEM, arbo:get_mem(T)},
                {generation, 0, arbo:get_generation(T)}]),
        %% a key that is no tag form is taken as tag 0, deliberately
        _ = [arbo:add_hkey(T, C, foo, ?KEY_TAG_ALT), arbo:add_hkey_internal(T, C, 3)],
        ?assertEqual([0, 3], child_keys(T, C))
    end).

%% A namespace goes whole, lists with their instances; the rest stays.
%% del_all moves the generation once, and not at all on an empty tree.
del_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        Keep = [arbo:add_hkey(T, R, K, ?KEY_TAG_ALT) || K <- [[0 | 4], [2 | 1]]],
        [arbo:add_hkey(T, R, [1 | K], ?KEY_TAG_ALT) || K <- [9, 1]],
        _ = arbo:add_hkey(T, arbo:add_hkey_dyn(T, R, [1 | 7], ?ORDER_PLAIN), 1, ?KEY_INT),
        ?assert(arbo:del_ns(T, R, 1)),
        expect([{children, Keep, children(T, R)}, {size, 2, arbo:get_size(T)},
                {mem, ?ROOT_MEM + 2 * ?ONE_MEM, arbo:get_mem(T)}, {generation, 1, arbo:get_generation(T)}]),
        ?assertEqual([2, 2], [begin ok = arbo:del_all(T), arbo:get_generation(T) end || _ <- [1, 2]])
    end).

%% rename_ns moves a leaf (value kept) or a list and re-sorts; it refuses
%% without an exception a node in namespace 0, a container and a list's
%% child. (A leaf moved onto a taken pair: store_test.cpp.)
rename_ns_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [A, B, Z, C, L] = [arbo:add_hkey(T, R, K, ?KEY_TAG_ALT) || K <- [[1 | 4], [2 | 6], 4]]
                          ++ [arbo:add_hkey_internal(T, R, 6), arbo:add_hkey_dyn(T, R, [5 | 1], ?ORDER_USER)],
        {I, ok} = {arbo:add_hkey(T, L, {2, 1}, ?KEY_NS_INT), arbo:set_val(T, A, ?VAL_CSVAL, <<"v">>)},
        ?assertEqual([true, true], [arbo:rename_ns(T, R, A, 3), arbo:rename_ns(T, R, L, 0)]),
        ?assertEqual({[3 | 4], {csval, <<"v">>}}, {arbo:get_hkey0(T, A), arbo:get_val_raw(T, A)}),
        ?assertEqual([false, false, false, false], [arbo:rename_ns(T, P, N, 1) || {P, N} <- [{R, Z}, {R, C}, {R, L}, {L, I}]]),
        ?assertEqual({[L, Z, C, B, A], 2}, {children(T, R), arbo:get_generation(T)})
    end).

%% ---- deletion and accounting ----------------------------------------------------

%% del_hkey by the key forms the store model does not use, applied in order:
%% a bare tag, [Ns | Tag], an opaque key finding the encoded string of the
%% same bytes, an undecodable tag read as tag 0.
del_hkey_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, ?ORDER_PLAIN),
        [_ = arbo:add_hkey(T, L, K, C) || {K, C} <- [{6, 4}, {{1, 8}, 27}, {{0, 0}, 27}, {str(<<"t">>), 5}]],
        Rows = [{14, 6}, {13, [1 | 8]}, {52, <<"t">>}, {13, foo}],
        ?assertEqual([true, true, true, true], [arbo:del_hkey(T, L, Key, Code) || {Code, Key} <- Rows]),
        ?assertEqual({[], ?ROOT_MEM + ?DYN_MEM}, {children(T, L), arbo:get_mem(T)})
    end).

%% An instance's key reads back in the form it was last named in: a pair
%% renamed as [Ns | Tag] reads so until an add names it {Ns, Tag} again.
key_form_read_back_test() ->
    with_table(fun(T) ->
        L = arbo:add_hkey_dyn(T, arbo:get_root(T), 1, ?ORDER_PLAIN),
        I = arbo:add_hkey(T, L, {1, 8}, ?KEY_NS_INT),
        true = arbo:rename_instance0(T, L, I, [2 | 8], ?KEY_INT),
        ?assertEqual([2 | 8], arbo:get_hkey0(T, I)),
        I = arbo:add_hkey(T, L, {2, 8}, ?KEY_NS_INT),
        ?assertEqual({{2, 8}}, arbo:get_hkey0(T, I))
    end).

%% A tree with every kind of allocation (a key of 10 bytes kept inside its
%% node, one of 12 in a shared binary); its figures are exact. Freeing it by
%% del_all, close or deleting its top nodes gives back every byte to the
%% tree, and the library counter ends 8 bytes lower per shared binary (the
%% kept drift). A key binary handed out outlives its node.
accounting_test_() ->
    [fun() -> accounting(Free) end || Free <- [fun(T) -> ok = arbo:del_all(T) end, fun(T) -> ok = arbo:close(T), closed end,
                                               fun(T) -> [true = arbo:del_hkey(T, arbo:get_root(T), K, ?DEL_TAG) || K <- [1, 2]] end]].

accounting(Free) ->
    Lib0 = lib_mem(),
    T = arbo:new(),
    R = arbo:get_root(T),
    Leaf = arbo:add_hkey(T, arbo:add_hkey_internal(T, R, 1), 2, ?KEY_TAG_ALT),
    ok = arbo:set_val(T, Leaf, ?VAL_CSVAL, binary:copy(<<1>>, 11)),        % 11 + 8
    _ = arbo:do_set_attr(T, Leaf, 4, binary:copy(<<2>>, 20)),      % 56 + 20 + 8
    L = arbo:add_hkey_dyn(T, R, 2, ?ORDER_USER),
    I = arbo:add_hkey(T, L, binary:copy(<<"k">>, 12), ?KEY_OPAQUE),          % 64 + 12 + 8
    _ = arbo:add_hkey(T, L, binary:copy(<<"j">>, 10), ?KEY_OPAQUE),          % 64
    ok = arbo:set_val(T, arbo:add_hkey(T, L, 5, ?KEY_INT), ?VAL_BINARY, <<"v">>),  % 64 + 1 + 8
    _ = arbo:do_set_attr(T, I, 1, <<"a">>),                        % 56
    {Key} = arbo:get_hkey0(T, I),
    Mem = ?ROOT_MEM + ?INT_MEM + 2 * ?ONE_MEM + 19 + 28 + ?DYN_MEM + 3 * ?TWO_MEM + 20 + 9 + ?ONE_MEM,
    expect([{mem, Mem, arbo:get_mem(T)}, {size, 8, arbo:get_size(T)}, {library, Lib0 + Mem - 8 * 4, lib_mem()}]),
    Free(T) =:= closed orelse expect([{size, 0, arbo:get_size(T)}, {mem, ?ROOT_MEM, arbo:get_mem(T)},
                                      {close, ok, arbo:close(T)}]),
    _ = binary:copy(<<"x">>, 4096),
    ?assertEqual({Lib0 - 8 * 4, binary:copy(<<"k">>, 12)}, {lib_mem(), binary:copy(Key)}).

%% The library counter counts nodes of every table: a table dropped without
%% close gives them back through the destructor, also when many processes
%% create and close tables at once.
destructor_test() ->
    Base = lib_mem(),
    {Pid, Ref} = spawn_monitor(fun() -> arbo:get_size(arbo:new()) end),
    receive {'DOWN', Ref, process, Pid, _} -> ok end,
    ?assert(arbo_test_util:wait_until(fun() -> erlang:garbage_collect(), lib_mem() =:= Base end, 2000)),
    Pids = [spawn_monitor(fun() -> [ok = arbo:close(X) || X <- [arbo:new() || _ <- lists:seq(1, 20)]] end)
            || _ <- lists:seq(1, 16)],
    [receive {'DOWN', R, process, P, normal} -> ok end || {P, R} <- Pids],
    ?assertEqual(Base, lib_mem()).

%% A fresh library in a fresh VM reports only its flags table.
alloc_info_fresh_library_test() ->
    {0, Out} = child_vm("io:format(\"~w~n\", [arbo:alloc_info()]), halt().", 60),
    ?assertEqual("[512,{8,64,64}]", hd(string:split(Out, "\n"))).
