%% Helpers shared by the navigation, filter, iterator-stack and dump suites.
-module(walk_util).

-export([with_table/1, reason/1, hide/1, children/2, str/1, u32/1, deactivate/2, shuffle/1, pick/1, child_vm/2]).

%% Runs Fun(T) on a fresh table and closes it afterwards.
with_table(Fun) -> T = arbo:new(), try Fun(T) after catch arbo:close(T) end.

%% The Reason of an exception raised by the library, or {returned, Result}.
reason(Fun) ->
    try Fun() of R -> {returned, R}
    catch error:{Reason, File, Line} when is_list(File), is_integer(Line) -> Reason
    end.

%% The same table seen with inactive nodes hidden.
hide({arbo, Res, _, Any}) -> {arbo, Res, 16#100, Any}.

%% Node's children in chain order, unfiltered.
children(T, Node) -> chain(T, arbo:first_child_nif(T, Node, [], 0)).
chain(_T, 0) -> [];
chain(T, C) -> [C | chain(T, arbo:next_sibling_nif(T, C, [], 0))].

%% Encoded values (type byte first).
str(S) -> B = iolist_to_binary(S), <<200, (byte_size(B)):8, B/binary>>.
u32(N) -> <<12, N:32>>.

%% An instance is inactive when its attribute list begins with key 0.
deactivate(T, Node) -> arbo:do_set_attr(T, Node, 0, <<1>>).

shuffle(L) -> [X || {_, X} <- lists:sort([{rand:uniform(), X} || X <- L])].
pick(L) -> lists:nth(rand:uniform(length(L)), L).

%% Runs Expr (Erlang source text) in a fresh VM that loads the library under
%% test, for traps that abort or stall the VM. Gives up after Secs seconds.
%% Returns {ExitStatus, Output}; 137 means the VM was still running and was
%% killed.
child_vm(Expr, Secs) ->
    Ebin = filename:dirname(code:which(arbo)),
    Env = case os:getenv("ARBO_NIF_DIR") of false -> ""; Dir -> "ARBO_NIF_DIR=" ++ Dir ++ " " end,
    %% Two schedulers, so that one stuck in a trap leaves the other free.
    Cmd = lists:flatten(io_lib:format("~stimeout -s KILL ~b erl +S 2:2 -noshell -pa ~s -eval '~s' 2>&1; echo \"EXIT=$?\"",
                                      [Env, Secs, Ebin, Expr])),
    Out = os:cmd(Cmd),
    [_, Status] = string:split(Out, "EXIT=", trailing),
    {list_to_integer(string:trim(Status)), Out}.
