%% Attacks on the promises of the safe API, grouped by promise: each case
%% would fail if the promise it names were false.
-module(arbo_hostile_api_tests).
-include_lib("eunit/include/eunit.hrl").

-import(arbo_test_util, [tmp/1]).
-export([wide_flags/0]).

%% What F() answered, or the tag of the error it raised.
raised(F) -> try F() catch error:{E, _} -> E; C:E -> {C, E} end.

%% Everything readable through the tree, the caller's iterator stack too.
dump(T) -> {arbo_file_tests:dump(T), arbo_tree:iter_depth(T)}.

%% ---- a read-only handle reads everything and changes nothing -------------------

%% Every public call on the tree of arbo_file_tests:config/0 through the
%% handle H, on nodes found through H: {Function, Arguments after the
%% handle}, the changing ones first, then readers.
calls(H) ->
    R = arbo_tree:root(H),
    C = arbo_tree:find(H, R, 1),
    Ifs = arbo_tree:find(H, C, 2),
    I = arbo_tree:first_child(H, Ifs),
    L = arbo_tree:find(H, I, 5),
    [U1, U2 | _] = arbo_tree:children(H, arbo_tree:find(H, R, {2, 7})),
    {[{add_container, [R, 9]}, {add_leaf, [C, 9]}, {add_list, [R, 9, sorted]},
      {add, [Ifs, [{string, <<"x">>}]]}, {delete, [L]}, {delete, [I, 5]}, {delete_ns, [I, 3]}, {clear, []},
      {rename, [U1, {int, 8}]}, {rename_ns, [arbo_tree:find(H, I, {3, 6}), 4]}, {set_value, [L, <<"x">>]},
      {clear_value, [L]}, {set_flags, [L, 0]}, {add_flags, [L, 2]}, {clear_flags, [I, 16#1000]},
      {set_attr, [L, 1, {bool, true}]}, {delete_attr, [I, 4]}, {set_active, [U1, false]},
      {move_to, [U2, 0]}, {move_before, [U2, U1]}, {move_after, [U1, U2]}, {iter_push, [L]},
      {iter_pop, []}, {load, ["/nonexistent/arbo"]}, {close, []}],
     [{root, []}, {children, [Ifs]}, {value, [L]}, {info, []}, {save, [tmp("calls")]},
      {reading, [fun(Rd) -> arbo_tree:root(Rd) end]}, {iter_top, []}, {iter_depth, []}]}.

read_only_test() ->
    T = arbo_file_tests:config(),
    Ro = arbo_tree:read_only(T),
    Before = dump(T),
    ?assertEqual({Ro, Before}, {arbo_tree:read_only(Ro), dump(Ro)}),
    Leaf = fun(Rd) -> arbo_tree:lookup(Rd, [1, 2, [{string, <<"eth1">>}], 5]) end,
    InPass = [{reading_add, fun(Rd) -> arbo_tree:add_container(Rd, arbo_tree:root(Rd), 8) end},
              {reading_handle, fun(Rd) -> arbo_tree:set_flags(arbo_tree:read_only(Rd), Leaf(Rd), 0) end}],
    Cases = [{{F, length(A)}, fun() -> apply(arbo_tree, F, [Ro | A]) end} || {F, A} <- element(1, calls(Ro))]
        ++ [{Name, fun() -> arbo_tree:reading(Ro, F) end} || {Name, F} <- InPass],
    ?assertEqual([], [{Name, Got} || {Name, F} <- Cases, Got <- [raised(F)],
                                     Got =/= read_only orelse dump(T) =/= Before]),
    %% the owner writes: a handle passed on by Ro reads it through a shared
    %% reference, and cannot write
    L = Leaf(T),
    ok = arbo_tree:set_value(T, L, <<"new">>),
    Self = self(),
    spawn(fun() -> A = arbo_tree:attach(Ro),
                   Self ! {got, arbo_tree:value(A, L), raised(fun() -> arbo_tree:set_value(A, L, <<"no">>) end)}
          end),
    ?assertEqual({got, <<"new">>, read_only}, receive {got, _, _} = G -> G after 5000 -> timeout end),
    %% the owner's close closes Ro
    ok = arbo_tree:close(T),
    ?assertEqual(arbo_closed, raised(fun() -> arbo_tree:root(Ro) end)).

%% After close/1 returns, or the application stops, every call raises
%% arbo_closed, whoever makes it and through whichever handle (the owner's
%% reads skip the keeper; a read-only handle may say read_only first);
%% closing again is ok from anywhere (also where the answer needs no
%% native call: an empty iterator stack, a missing file to load).
closed_for_everyone_test_() ->
    [{Name, fun() -> closed_for_everyone(Close) end}
     || {Name, Close} <- [{"close", fun arbo_tree:close/1},
                          {"application stop", fun(_) -> application:stop(arbo) end}]].

closed_for_everyone(Close) ->
    T = arbo_file_tests:config(),
    {Changes, Reads} = calls(T),
    Self = self(),
    Answers = fun(H) -> [case raised(fun() -> apply(arbo_tree, F, [H | A]) end) of
                             ok when F =:= close -> arbo_closed;
                             read_only -> arbo_tree:read_only(H) =:= H andalso arbo_closed;
                             Got -> Got
                         end || {F, A} <- Changes ++ Reads] end,
    Procs = [spawn(fun() -> H = Handle(), _ = arbo_tree:root(H), Self ! ready,
                            receive go -> Self ! {self(), Answers(H)} end end)
             || Handle <- [fun() -> arbo_tree:attach(T) end, fun() -> T end]],
    [receive ready -> ok end || _ <- Procs],
    ok = Close(T),
    Fresh = spawn(fun() -> Self ! {self(), Answers(T)} end),
    [P ! go || P <- Procs],
    All = [Answers(T), Answers(arbo_tree:read_only(T))
           | [receive {P, A} -> A after 5000 -> timeout end || P <- [Fresh | Procs]]],
    ?assertEqual([], [A || As <- All, A <- As, A =/= arbo_closed]).

%% ---- keys the API treats as different are never one for the library ---------

%% From 128 instances a user-ordered list finds keys through a hash index
%% that compares integers without their namespace and bytes without their
%% form: one list holds one key form, at any size; a rename keeps the form,
%% and a deletion afterwards hits the renamed instance only.
one_form_per_user_list_test() ->
    T = arbo_tree:new(),
    R = arbo_tree:root(T),
    Lists = [{Form, arbo_tree:add_list(T, R, Tag, user_order), [Key(N) || N <- lists:seq(1, 200)]}
             || {Tag, Form, Key} <- [{1, int, fun(N) -> {int, N} end}, {2, pair, fun(N) -> {pair, 7, N} end},
                                     {3, tuple, fun(N) -> {tuple, [{uint32, N}]} end},
                                     {4, opaque, fun(N) -> {opaque, <<N:16>>} end}]],
    [arbo_tree:add(T, L, K) || {_, L, Keys} <- Lists, K <- Keys],
    ?assertEqual([], [K || {_, L, Keys} <- Lists, K <- Keys, arbo_tree:key(T, arbo_tree:find(T, L, K)) =/= K]),
    %% keys the index would take for listed ones: another form is refused,
    %% the list's form finds nothing and is added as itself
    Others = [{int, 5}, {pair, 7, 5}, {pair, 7, 500}, {pair, 8, 5}, {tuple, []}, {opaque, <<>>}, {opaque, <<0, 5>>}],
    Got = fun(L, K) -> {arbo_tree:find(T, L, K), raised(fun() -> arbo_tree:key(T, arbo_tree:add(T, L, K)) end)} end,
    Want = fun(Form, K) -> case form(K) of Form -> {none, K}; _ -> {none, key_form} end end,
    ?assertEqual([], [{Form, K, G} || {Form, L, Keys} <- Lists, K <- Others, not lists:member(K, Keys),
                                      G <- [Got(L, K)], G =/= Want(Form, K)]),
    L = fun() -> arbo_tree:find(T, arbo_tree:root(T), 1) end,
    I = arbo_tree:find(T, L(), {int, 7}),
    ?assertEqual([key_form, key_form, false, true],
                 [raised(fun() -> arbo_tree:rename(T, I, K) end) || K <- [{tuple, [{uint32, 7}]}, {pair, 3, 7},
                                                                         {int, 8}, {int, 1000}]]),
    ?assertEqual([stale_node, none, true, false],
                 [raised(fun() -> arbo_tree:value(T, I) end), arbo_tree:find(T, L(), {int, 7}),
                  arbo_tree:delete(T, L(), {int, 1000}), arbo_tree:delete(T, L(), {int, 7})]),
    ?assertEqual([{int, N} || N <- lists:seq(1, 200), N =/= 7],
                 [arbo_tree:key(T, C) || C <- arbo_tree:children(T, L())]),
    ok = arbo_tree:close(T).

form({pair, Ns, _}) when Ns =/= 7 -> pair_other_namespace;
form(K) -> element(1, K).

%% ---- loads that end early -----------------------------------------------------

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
    ?assertEqual([], [{Why, Got} || {Why, Parts, At} <- Cases,
                                    Got <- [with_file(Parts, fun(F, T) -> arbo_tree:load(T, F) end)],
                                    Got =/= {error, {stopped_at, At, Why}}]).

%% Fun(File, Tree) with Bytes in a scratch file and a fresh tree.
with_file(Bytes, Fun) ->
    ok = file:write_file(F = tmp("bytes"), Bytes),
    T = arbo_tree:new(),
    try Fun(F, T) after arbo_tree:close(T), file:delete(F) end.

%% Loads stopped by a truncation mark or a checkpoint answer what the
%% library answers for the file itself, in the file's own positions (the
%% library reads a copy with a marker byte per record).
truncation_positions_test() ->
    Leaf = fun(N) -> <<6, N:32, 13, 1, "v", 7>> end,
    Files = [[2, Leaf(1), 3, 2, Leaf(2), 4, Leaf(3), 1, Leaf(4)], [2, Leaf(1), 4, Leaf(2), 2, Leaf(3), 4, Leaf(4), 3],
             [Leaf(1), 1, Leaf(2)], [2, 2, Leaf(1), 4, 4]],
    ?assertEqual([], [{Bin, C, Safe, Raw} || Parts <- Files, Bin <- [iolist_to_binary([<<16#EE, 16#DA, 0, 1>>, Parts])],
                                            C <- [-1, -2, 0, 12, 13, 14, 25, 26, 27],
                                            {Safe, Raw} <- [{load(Bin, C, safe), load(Bin, C, raw)}], Safe =/= Raw]).

load(Bin, C, safe) ->
    with_file(Bin, fun(F, T) ->
        {ok, I} = arbo_tree:load(T, F, [{checkpoint, C}]),
        {maps:without([captured, file_size], I), dump(T)}
    end);
load(Bin, C, raw) ->
    with_file(Bin, fun(F, T) ->
        Load = fun(Raw, _) -> {arbo:load_nif(Raw, <<(list_to_binary(F))/binary, 0>>, C, 0, undefined), true} end,
        {true, {Trans, _, Size, _, _, Ckpt, _, Where}} = arbo_gate:exclusive(T, Load),
        {#{nodes => Size, transactions => Trans, checkpoint => Ckpt,
           truncated_at => case Where of undefined -> undefined; {checkpoint, N} -> N - 1 end}, dump(T)}
    end).

%% ---- documented answers --------------------------------------------------------

%% A tree made with hide_inactive leaves inactive instances out of every
%% finding, stepping and counting function (find_after steps past them);
%% child_index counts them.
hide_inactive_test() ->
    T = arbo_tree:new([hide_inactive]),
    %% instances 1..5 of a list of each order, 1, 3 and 5 inactive
    Wrong = [{Order, Name, Got, Want}
             || {Tag, Order} <- [{1, user_order}, {2, sorted}],
                L <- [arbo_tree:add_list(T, arbo_tree:root(T), Tag, Order)],
                [_, I2, _, I4, I5] <- [[inactive(T, arbo_tree:add(T, L, {int, N}), N rem 2) || N <- lists:seq(1, 5)]],
                {Name, Got, Want} <- [{lookup, arbo_tree:lookup(T, [Tag, {int, 3}]), none},
                                      {first_child, arbo_tree:first_child(T, L), I2},
                                      {last_child, arbo_tree:last_child(T, L), I4},
                                      {prev_sibling, arbo_tree:prev_sibling(T, I4), I2},
                                      {prev_sibling_first, arbo_tree:prev_sibling(T, I2), none},
                                      {nth_child_past, arbo_tree:nth_child(T, L, 3), none},
                                      {children, arbo_tree:children(T, L), [I2, I4]},
                                      {num_children, arbo_tree:num_children(T, L), 2},
                                      {fold, arbo_tree:fold(T, L, all, fun(C, A) -> [C | A] end, []), [I4, I2]},
                                      {child_index, [arbo_tree:child_index(T, I) || I <- [I2, I4, I5]], [2, 4, 5]}]
                                     ++ [{find_after, arbo_tree:find_after(T, L, {int, 2}), I4} || Order =:= sorted],
                Got =/= Want],
    ?assertEqual([], Wrong),
    ok = arbo_tree:close(T).

inactive(T, I, 1) -> ok = arbo_tree:set_active(T, I, false), I;
inactive(_, I, _) -> I.

%% A FIFO (whose open would block), a device (which never ends), a file that
%% says it is empty and is not: prompt errors, nothing loaded.
not_files_test() ->
    Fifo = tmp("fifo"),
    "" = os:cmd("rm -f " ++ Fifo ++ "; mkfifo " ++ Fifo),
    T = arbo_tree:new(),
    Cases = [{Fifo, not_regular}, {"/dev/zero", not_regular}, {"/tmp", not_regular}, {"/proc/self/status", changed}],
    Wrong = [{P, A} || {P, Why} <- Cases,
                       {Us, A} <- [timer:tc(fun() -> {arbo_file:verify(P), arbo_tree:load(T, P)} end)],
                       A =/= {{error, {Why, 0}}, {error, {Why, 0}}} orelse Us > 1000000],
    file:delete(Fifo),
    ?assertEqual({[], 0}, {Wrong, maps:get(size, arbo_tree:info(T))}),
    ok = arbo_tree:close(T).

%% ---- processes killed, many trees -------------------------------------------------

%% Callers killed at random moments of their loads and saves leave no
%% temporary file (the private copies of loads go to TMPDIR), no helper
%% process, and the tree takes a writer.
killed_callers_test_() ->
    {timeout, 120, fun() ->
        ok = filelib:ensure_path(Dir = tmp("killed")),
        Old = os:getenv("TMPDIR", "/tmp"),
        os:putenv("TMPDIR", Dir),
        try killed_callers(Dir) after os:putenv("TMPDIR", Old), os:cmd("rm -rf " ++ Dir) end
    end}.

killed_callers(Dir) ->
    T = arbo_tree:new(),
    L = arbo_tree:add_list(T, arbo_tree:root(T), 1, sorted),
    [ok = arbo_tree:set_value(T, arbo_tree:add(T, L, {int, N}), <<N:32>>) || N <- lists:seq(1, 100000)],
    ok = arbo_tree:save(T, File = filename:join(Dir, "big")),
    Took = [{F, element(1, timer:tc(arbo_tree, F, [T, File]))} || F <- [load, save]],
    Procs = erlang:system_info(process_count),
    [begin
         {Pid, MRef} = spawn_monitor(arbo_tree, F, [T, File]),
         timer:sleep(I * Us div 8000),
         exit(Pid, kill),
         receive {'DOWN', MRef, _, _, _} -> ok end
     end || {F, Us} <- Took, I <- lists:seq(0, 9)],
    %% the helpers finish the work of the dead callers, then go; a writer gets in
    ?assertEqual(ok, arbo_tree:clear(T)),
    Now = fun() -> {element(2, file:list_dir(Dir)), erlang:system_info(process_count)} end,
    Clean = fun Wait(Ms) -> Now() =:= {["big"], Procs} orelse Ms =< 0
                                orelse (timer:sleep(20) =:= ok andalso Wait(Ms - 20)) end,
    Clean(30000),
    ?assertEqual({["big"], Procs}, Now()),
    ?assertMatch({ok, #{nodes := 100001}}, arbo_tree:load(T, File)),
    ok = arbo_tree:close(T).

%% A process that reads many trees other processes create and close keeps
%% no dictionary entry of a closed one.
many_trees_test() ->
    Self = self(),
    Dict0 = length(get()),
    Owner = fun() -> Self ! {tree, arbo_tree:new()}, receive close -> ok end end,
    [receive {tree, T} -> arbo_tree:root(T), Pid ! close, receive {'DOWN', Ref, _, _, _} -> ok end end
     || _ <- lists:seq(1, 300), {Pid, Ref} <- [spawn_monitor(Owner)]],
    ?assert(length(get()) - Dict0 < 3).

%% ---- the VM-wide table of wide flag values ------------------------------------

%% It never shrinks and counts with 16 bits: wide values are refused with
%% flags_table_full once it holds 30,000 distinct ones, by set_flags, add_flags,
%% clear_flags and load alike; narrow values are always taken. In a peer
%% VM: the table is the VM's.
wide_flags_test_() ->
    {timeout, 300, fun() ->
        Full = {error, flags_table_full},
        ?assertEqual([{filled, 30000}, {set_known, Full}, {set, Full}, {add, Full}, {clear, Full}, {set_narrow, ok},
                      {clear_narrow, ok}, {load, Full}, {still, 30000}],
                     arbo_hostile_tests:in_child(#{}, {?MODULE, wide_flags, []}, 280000))
    end}.

wide_flags() ->
    T = arbo_tree:new(),
    N = arbo_tree:add_leaf(T, arbo_tree:root(T), 1),
    %% a file with one wide value not in the table yet
    ok = arbo_tree:set_flags(T, N, 16#7000000000),
    ok = arbo_tree:save(T, F = tmp("wide")),
    Fill = fun Loop(V) -> arbo_tree:set_flags(T, N, V) =:= ok andalso Loop(V + 1) end,
    Fill(16#400000),
    Used = fun() -> [_, {8, Cap, Free}] = arbo:alloc_info(), Cap - Free end,
    [{Name, Call()} || {Name, Call} <- [{filled, Used}, {set_known, fun() -> arbo_tree:set_flags(T, N, 16#400000) end},
        {set, fun() -> arbo_tree:set_flags(T, N, 1 bsl 40) end},
        {add, fun() -> arbo_tree:add_flags(T, N, 1 bsl 41) end},
        {clear, fun() -> arbo_tree:clear_flags(T, arbo_tree:root(T), 0), arbo_tree:clear_flags(T, N, 1) end},
        {set_narrow, fun() -> arbo_tree:set_flags(T, N, 16#3fffff) end},
        {clear_narrow, fun() -> arbo_tree:clear_flags(T, N, 16#3fffff) end},
        {load, fun() -> arbo_tree:load(T, F) end}, {still, Used}]].
