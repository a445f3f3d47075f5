%% The arbo application: keepers under supervision, the list of open
%% trees, where the library is found, and the shell's explanations of the
%% safe API's exceptions. (Trees closed by its stop: arbo_gate_tests.)
-module(arbo_app_tests).
-include_lib("eunit/include/eunit.hrl").

keeper({arbo, _, _, {arbo_gate, Keeper, _, _}}) -> Keeper.

wait_down(Pid) ->
    Ref = erlang:monitor(process, Pid),
    receive {'DOWN', Ref, process, Pid, _} -> ok after 5000 -> error({alive, Pid}) end.

listed(T) -> [I || #{keeper := P} = I <- arbo_app:info(), P =:= keeper(T)].

%% arbo_tree:new/1 starts the application when it is not running; keepers
%% are its children, listed by arbo_app:info/0 with owner, size and memory
%% until their tree closes (the owner's exit closes it); a keeper that dies
%% is not restarted, and its tree takes no more changes that free nodes.
supervised_keepers_test() ->
    _ = application:stop(arbo),
    ?assertEqual([], arbo_app:info()),
    Self = self(),
    Owner = spawn(fun() -> T = arbo_tree:new(), arbo_tree:add_leaf(T, arbo_tree:root(T), 1), Self ! {tree, T},
                           receive stop -> ok end end),
    T = receive {tree, Tree} -> Tree end,
    ?assert(lists:member(keeper(T), arbo_sup:keepers())),
    #{size := 1, mem := Mem} = arbo_tree:info(T),
    ?assertMatch([#{owner := Owner, size := 1, mem := Mem, readers := 1}], listed(T)),
    Owner ! stop,
    wait_down(keeper(T)),
    ?assertEqual([], listed(T)),
    ?assertError({arbo_closed, _}, arbo_tree:root(T)),
    K2 = keeper(T2 = arbo_tree:new()),
    _Kept = arbo_tree:new(),   % a keeper that must outlive K2
    Others = lists:sort(arbo_sup:keepers() -- [K2]),
    exit(K2, kill),
    wait_down(K2),
    timer:sleep(100),
    ?assertEqual(Others, lists:sort(arbo_sup:keepers())),
    ?assertError({arbo_closed, _}, arbo_tree:clear(T2)).

%% Where the library is looked for: the OS variable, then the application
%% variable, then priv/ (beside ebin/ when arbo is not in an OTP lib folder).
nif_path_test() ->
    Priv = case code:priv_dir(arbo) of
               D when is_list(D) -> D;
               _ -> filename:join(filename:dirname(filename:dirname(code:which(arbo))), "priv")
           end,
    Set = fun(false, App) -> os:unsetenv("ARBO_NIF_DIR"), set_app(App);
             (Os, App) -> os:putenv("ARBO_NIF_DIR", Os), set_app(App) end,
    Saved = [os:getenv("ARBO_NIF_DIR"), application:get_env(arbo, nif_dir)],
    Cases = [{"/os", {ok, "/app"}, "/os/arbo_nif"}, {false, {ok, "/app"}, "/app/arbo_nif"},
             {"", {ok, "/app"}, "/app/arbo_nif"}, {false, undefined, filename:join(Priv, "arbo_nif")}],
    try [?assertEqual({Os, App, Want}, {Os, App, (Set(Os, App)) andalso arbo:nif_path()}) || {Os, App, Want} <- Cases]
    after apply(Set, Saved)
    end.

set_app(undefined) -> application:unset_env(arbo, nif_dir), true;
set_app({ok, V}) -> application:set_env(arbo, nif_dir, V), true.

%% Without its application file arbo cannot start, and new/0 says so.
not_startable_test() ->
    Dir = arbo_test_util:tmp("noapp"),
    ok = filelib:ensure_path(Dir),
    [{ok, _} = file:copy(B, filename:join(Dir, filename:basename(B)))
     || B <- filelib:wildcard(filename:join(filename:dirname(code:which(arbo)), "*.beam"))],
    Expr = "try arbo_tree:new() catch error:E:S -> io:format(\"~ts\", [erl_error:format_exception(error, E, S)]) end, "
           "halt().",
    Out = os:cmd("ARBO_NIF_DIR=" ++ filename:dirname(arbo:nif_path()) ++ " erl -noshell -pa " ++ Dir ++
                 " -eval '" ++ Expr ++ "' 2>&1; rm -rf " ++ Dir),
    ?assertEqual({[], Out}, {[S || S <- ["arbo_not_started", "the arbo application could not be started"],
                                  string:find(Out, S) =:= nomatch], Out}).

%% Each module's exceptions name a function of that module (not the helper
%% that raised), carry error_info, and the shell adds a line that explains
%% them; a reason the safe API does not raise gets no text.
explained_errors_test_() ->
    T = arbo_tree:new(),
    Closed = arbo_tree:new(),
    ok = arbo_tree:close(Closed),
    Cases =
        [{fun() -> arbo_tree:add_container(T, arbo_tree:root(T), -1) end, arbo_tree, "a tag is an integer"},
         {fun() -> arbo_tree:add_leaf(T, arbo_tree:root(T), {x}) end, arbo_tree_keys, "a name is a tag"},
         {fun() -> arbo_tree:root(Closed) end, arbo_gate, "the tree is closed"},
         {fun() -> arbo_tree:select(T, arbo_tree:root(T), {bogus}) end, arbo_tree_filter, "not a filter"},
         {fun() -> arbo_key:encode([{no_such_type, 1}]) end, arbo_key, "not a key element"},
         {fun() -> arbo_val:encode({no_such_type, 1}) end, arbo_val, "not a value arbo_val"},
         {fun() -> arbo_file:load(T, "/tmp/x", [{capture, maybe}]) end, arbo_file, "capture is true or false"}],
    {setup, fun() -> ok end, fun(_) -> arbo_tree:close(T) end,
     [?_assertEqual(#{}, arbo_error:format_error({something, else}, []))
      | [{Text, fun() -> explained(F, Mod, Text) end} || {F, Mod, Text} <- Cases]]}.

explained(F, Mod, Text) ->
    try F() of
        Result -> error({no_exception, Result})
    catch error:Reason:Stack ->
        [{M, Top, _, Info} | _] = Stack,
        ?assertEqual({Mod, true}, {M, Top =/= error}),
        ?assertMatch({error_info, #{module := arbo_error}}, lists:keyfind(error_info, 1, Info)),
        Shown = lists:flatten(erl_error:format_exception(error, Reason, Stack)),
        ?assertNotEqual({nomatch, Shown}, {string:find(Shown, Text), Shown})
    end.
