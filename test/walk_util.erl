%% Helpers shared by the navigation, filter, iterator-stack and dump suites.
-module(walk_util).

-export([with_table/1, with_table/2, reason/1, hide/1, walk/4, walk_from/5,
         children/2, int8/1, str/1, u32/1, deactivate/2, child_vm/2]).

%% Runs Fun(T) on a fresh table and closes it afterwards.
with_table(Fun) -> with_table(0, Fun).

with_table(Options, Fun) ->
    T = arbo:new(Options),
    try Fun(T)
    after catch arbo:close(T)
    end.

%% The Reason of an exception raised by the library, or {returned, Result}.
reason(Fun) ->
    try Fun() of R -> {returned, R}
    catch error:{Reason, File, Line} when is_list(File), is_integer(Line) -> Reason
    end.

%% The same table seen with inactive nodes hidden.
hide({arbo, Res, _, Any}) -> {arbo, Res, 16#100, Any}.

%% Every answer of a filtered walk over Parent's children, yields resumed
%% with next_sibling_nif/5 and matches stepped past with next_sibling_nif/4.
%% Returns {Answers, Yields}: answers in order, Yields the yielded nodes.
walk(T, Parent, Filter, MatchFlag) ->
    collect(T, Filter, MatchFlag, arbo:first_child_nif(T, Parent, Filter, MatchFlag), [], []).

%% The same from a yield term or answer already in hand.
walk_from(T, First, Filter, MatchFlag, Yields) ->
    collect(T, Filter, MatchFlag, First, [], Yields).

collect(_T, _F, _M, 0, Acc, Ys) ->
    {lists:reverse(Acc), lists:reverse(Ys)};
collect(T, F, M, {yield, Stack, Node}, Acc, Ys) ->
    collect(T, F, M, arbo:next_sibling_nif(T, Node, F, M, Stack), Acc, [Node | Ys]);
collect(T, F, M, {Node, Outcome} = A, Acc, Ys) when is_atom(Outcome) ->
    collect(T, F, M, arbo:next_sibling_nif(T, Node, F, M), [A | Acc], Ys);
collect(T, F, M, Node, Acc, Ys) when is_integer(Node) ->
    collect(T, F, M, arbo:next_sibling_nif(T, Node, F, M), [Node | Acc], Ys).

%% Node's children in chain order, unfiltered.
children(T, Node) -> element(1, walk(T, Node, [], 0)).

%% Encoded values (type byte first).
int8(N) -> <<6, N:8/signed>>.
str(S) -> B = iolist_to_binary(S), <<200, (byte_size(B)):8, B/binary>>.
u32(N) -> <<12, N:32>>.

%% An instance is inactive when its attribute list begins with key 0.
deactivate(T, Node) -> arbo:do_set_attr(T, Node, 0, <<1>>).

%% Runs Expr (Erlang source text) in a fresh VM that loads the library under
%% test, for traps that abort or stall the VM. Gives up after Secs seconds.
%% Returns {ExitStatus, Output}; 137 means the VM was still running and was
%% killed.
child_vm(Expr, Secs) ->
    Ebin = filename:dirname(code:which(arbo)),
    Env = case os:getenv("ARBO_NIF_DIR") of
              false -> "";
              Dir -> "ARBO_NIF_DIR=" ++ Dir ++ " "
          end,
    %% Two schedulers, so that one stuck in a trap leaves the other free.
    Cmd = lists:flatten(
            io_lib:format("~stimeout -s KILL ~b erl +S 2:2 -noshell -pa ~s -eval '~s' 2>&1; "
                          "echo \"EXIT=$?\"", [Env, Secs, Ebin, Expr])),
    Out = os:cmd(Cmd),
    [_, Status] = string:split(Out, "EXIT=", trailing),
    {list_to_integer(string:trim(Status)), Out}.
