%% @doc The demo `make demo' runs: a realistic configuration tree built,
%% queried, saved, loaded into a fresh tree and compared with the original,
%% through the safe API.
%%
%% The tree: 100,000 interfaces in a sorted list keyed by name, each with an
%% MTU, a description, an enabled flag and an address, and 10,000 firewall
%% rules in a user-ordered list, each with an action, a port and a source.
%% `ARBO_DEMO_SCALE' (a number, default 1) scales both counts.
-module(arbo_demo).
-export([main/0]).

-define(IFS, 1).
-define(RULES, 2).
-define(MTU, 1).
-define(DESCR, 2).
-define(ENABLED, 3).
-define(ADDR, 4).
-define(ACTION, 1).
-define(PORT, 2).
-define(SOURCE, 3).
-define(ADMIN_DOWN, 16#2).

%% @doc Run the demo and print what it measures.
-spec main() -> ok.
main() ->
    Scale = case os:getenv("ARBO_DEMO_SCALE") of
                false -> 1.0;
                S -> list_to_float_or_int(S)
            end,
    NIfs = max(1, round(100000 * Scale)),
    NRules = max(1, round(10000 * Scale)),
    Dir = filename:join("/tmp", "arbo_demo_" ++ os:getpid()),
    ok = filelib:ensure_dir(filename:join(Dir, "x")),
    File = filename:join(Dir, "config.arbo"),
    io:format("arbo demo: ~p interfaces, ~p rules~n~n", [NIfs, NRules]),
    T = arbo_tree:new(),
    try
        run(T, NIfs, NRules, File)
    after
        arbo_tree:close(T),
        _ = file:delete(File),
        _ = file:del_dir(Dir)
    end.

run(T, NIfs, NRules, File) ->
    Count = counters:new(1, []),
    Tick = fun(What, Total) -> fun() -> io_lib:format("~p/~p ~s", [counters:get(Count, 1), Total, What]) end end,
    step("build interfaces", Tick("interfaces", NIfs), fun() -> build_ifs(T, NIfs, Count) end),
    counters:put(Count, 1, 0),
    step("build rules", Tick("rules", NRules), fun() -> build_rules(T, NRules, Count) end),
    #{size := Size, mem := Mem} = arbo_tree:info(T),
    io:format("  tree: ~p nodes, ~.1f MiB~n~n", [Size, Mem / 1048576]),

    Ifs = arbo_tree:lookup(T, [?IFS]),
    Rules = arbo_tree:lookup(T, [?RULES]),
    query("jumbo interfaces (mtu > 9000)", fun() ->
        arbo_tree:select(T, Ifs, {value, gt, [?MTU], 9000}) end),
    query("enabled interfaces that are admin down", fun() ->
        arbo_tree:select(T, Ifs, {'and', {flags_all, [], ?ADMIN_DOWN},
                                  {value, eq, [?ENABLED], <<"true">>}}) end),
    query("interface ge-0/42/7 by its key (a lookup)", fun() ->
        case arbo_tree:find(T, Ifs, [{string, <<"ge-0/42/7">>}]) of
            none -> [];
            If -> [If]
        end end),
    query("interface ge-0/42/7 by a key filter (a walk)", fun() ->
        arbo_tree:select(T, Ifs, {key, eq, 0, <<"ge-0/42/7">>}) end),
    query("interfaces with a standard mtu, disabled", fun() ->
        arbo_tree:select(T, Ifs, {'and', {value, lt, [?MTU], 9000},
                                  {value, eq, [?ENABLED], <<"false">>}}) end),
    query("rules that deny ssh", fun() ->
        arbo_tree:select(T, Rules, {'and', {value, eq, [?ACTION], <<"deny">>},
                                    {value, eq, [?PORT], 22}}) end),
    First = arbo_tree:first_child(T, Rules),
    Last = arbo_tree:last_child(T, Rules),
    true = arbo_tree:move_before(T, Last, First),
    io:format("  moved rule ~p to the front of the rule list~n~n", [arbo_tree:key(T, Last)]),

    step("save", none, fun() -> ok = arbo_tree:save(T, File) end),
    Bytes = filelib:file_size(File),
    io:format("  file: ~p bytes (~.1f MiB)~n", [Bytes, Bytes / 1048576]),
    step("verify", none, fun() -> ok = arbo_file:verify(File) end),
    Copy = arbo_tree:new(),
    try
        step("load into a fresh tree", none, fun() ->
            {ok, Info} = arbo_tree:load(Copy, File,
                                        [{progress, fun(P) -> io:format("    ~p~n", [P]) end}]),
            io:format("  loaded ~p nodes~n", [maps:get(nodes, Info)])
        end),
        counters:put(Count, 1, 0),
        step("compare copy with original", Tick("nodes", Size), fun() ->
            same(T, arbo_tree:root(T), Copy, arbo_tree:root(Copy), Count)
        end),
        io:format("~n  the copy equals the original: ~p nodes~n", [counters:get(Count, 1)])
    after
        arbo_tree:close(Copy)
    end,
    ok.

list_to_float_or_int(S) ->
    try list_to_float(S) catch error:badarg -> list_to_integer(S) end.

%% ---- building -----------------------------------------------------------------

if_name(I) -> <<"ge-0/", (integer_to_binary(I div 1000))/binary, "/",
                (integer_to_binary(I rem 1000))/binary>>.

build_ifs(T, N, Count) ->
    Ifs = arbo_tree:add_list(T, arbo_tree:root(T), ?IFS, sorted),
    lists:foreach(
      fun(I) ->
              If = arbo_tree:add(T, Ifs, [{string, if_name(I)}]),
              Mtu = case I rem 50 of 0 -> 9216; _ -> 1500 end,
              leaf(T, If, ?MTU, {uint32, Mtu}),
              leaf(T, If, ?DESCR, {string, <<"uplink ", (integer_to_binary(I))/binary>>}),
              leaf(T, If, ?ENABLED, {bool, I rem 7 =/= 0}),
              leaf(T, If, ?ADDR, {ipv4, {10, (I bsr 16) band 255, (I bsr 8) band 255, I band 255}}),
              I rem 13 =:= 0 andalso arbo_tree:set_flags(T, If, ?ADMIN_DOWN),
              counters:add(Count, 1, 1)
      end, lists:seq(1, N)).

build_rules(T, N, Count) ->
    Rules = arbo_tree:add_list(T, arbo_tree:root(T), ?RULES, user_order),
    lists:foreach(
      fun(I) ->
              R = arbo_tree:add(T, Rules, {int, I * 10}),
              leaf(T, R, ?ACTION, {string, case I rem 5 of 0 -> <<"deny">>; _ -> <<"permit">> end}),
              leaf(T, R, ?PORT, {uint16, lists:nth(I rem 4 + 1, [22, 80, 443, 8080])}),
              leaf(T, R, ?SOURCE, {ipv4, {192, 168, (I bsr 8) band 255, I band 255}}),
              counters:add(Count, 1, 1)
      end, lists:seq(1, N)).

leaf(T, Parent, Tag, Value) ->
    ok = arbo_tree:set_value(T, arbo_tree:add_leaf(T, Parent, Tag), Value).

%% ---- comparing ------------------------------------------------------------------

%% Node by node, in order: kind, key, value, flags, then the children.
same(T1, N1, T2, N2, Count) ->
    Here = fun(T, N) -> {arbo_tree:type(T, N), arbo_tree:key(T, N), arbo_tree:flags(T, N),
                         case arbo_tree:type(T, N) of
                             leaf -> arbo_tree:value(T, N);
                             instance -> arbo_tree:value(T, N);
                             _ -> none
                         end}
           end,
    A = Here(T1, N1),
    case Here(T2, N2) of
        A -> ok;
        B -> error({copy_differs, A, B})
    end,
    counters:add(Count, 1, 1),
    same_children(T1, arbo_tree:first_child(T1, N1), T2, arbo_tree:first_child(T2, N2), Count).

same_children(_, none, _, none, _) -> ok;
same_children(T1, C1, T2, C2, Count) when C1 =/= none, C2 =/= none ->
    same(T1, C1, T2, C2, Count),
    same_children(T1, arbo_tree:next_sibling(T1, C1), T2, arbo_tree:next_sibling(T2, C2), Count);
same_children(_, C1, _, C2, _) -> error({copy_differs, C1, C2}).

%% ---- timing and progress -----------------------------------------------------------

%% Run a step; while it runs longer than a second, say every second how far
%% it got (Progress returns the text, or is `none').
step(Name, Progress, Fun) ->
    io:format("~s ...~n", [Name]),
    T0 = erlang:monotonic_time(millisecond),
    Ticker = spawn_link(fun() -> tick(Name, Progress, T0) end),
    try Fun()
    after
        unlink(Ticker),
        exit(Ticker, kill)
    end,
    io:format("  ~s: ~.2f s~n", [Name, (erlang:monotonic_time(millisecond) - T0) / 1000]).

tick(Name, Progress, T0) ->
    receive after 1000 -> ok end,
    Elapsed = (erlang:monotonic_time(millisecond) - T0) div 1000,
    What = case Progress of
               none -> "";
               F -> [", ", F()]
           end,
    io:format("    ~s: ~p s~s~n", [Name, Elapsed, What]),
    tick(Name, Progress, T0).

query(Name, Fun) ->
    {Us, Found} = timer:tc(Fun),
    io:format("  query ~s: ~p found in ~.3f ms~n", [Name, length(Found), Us / 1000]).
