%% @private
%% @doc The filtered walks of `arbo_tree' (fold/5, select/3,4): the
%% library's resumable walk followed chunk by chunk through the gate.
-module(arbo_tree_walk).

-export([walk/6]).

-include("arbo_gate.hrl").

-import(arbo_gate, [read/3]).

%% A walk takes the gate once per chunk of up to ?CHUNK native steps (so a
%% writer waits for one chunk at most) and calls Fun outside it. The
%% library's results: a match, the end, or a yield with the library's own
%% stack, which goes straight back to the library and nowhere else.
-define(CHUNK, 64).

%% @doc Fold Fun over the children of P that match the compiled filter F,
%% at most Limit of them, in order.
-spec walk(arbo_tree:tree(), term(), term(), fun((term(), Acc) -> Acc), Acc,
           pos_integer() | infinity) -> Acc.
walk(T, P, F, Fun, Acc, Limit) -> walk_chunks(T, P, F, Fun, Acc, first, Limit).

walk_chunks(_, _, _, _, Acc, done, _) -> Acc;
walk_chunks(_, _, _, _, Acc, _, 0) -> Acc;
walk_chunks(T, P, F, Fun, Acc, Cont, Left) ->
    {Found, Next} = read(T, [P], fun(_) -> steps(T, P#arbo_node.addr, F, Cont, ?CHUNK, []) end),
    {Acc1, Left1} = visit(Found, P, Fun, Acc, Left),
    walk_chunks(T, P, F, Fun, Acc1, Next, Left1).

steps(T, PA, F, first, N, Found) -> step(T, PA, F, arbo:first_child_nif(T, PA, F, 0), N, Found);
steps(T, PA, F, {next, A}, N, Found) -> step(T, PA, F, arbo:next_sibling_nif(T, A, F, 0), N, Found);
steps(T, PA, F, {resume, Stack, At}, N, Found) ->
    step(T, PA, F, arbo:next_sibling_nif(T, At, F, 0, Stack), N, Found).

%% One library answer; the plain case (a match, more steps left) loops here
%% without building a continuation.
step(_, _, _, 0, _, Found) -> {lists:reverse(Found), done};
step(T, PA, F, {yield, Stack, At}, N, Found) when N > 1 -> steps(T, PA, F, {resume, Stack, At}, N - 1, Found);
step(_, _, _, {yield, Stack, At}, _, Found) -> {lists:reverse(Found), {resume, Stack, At}};
step(T, PA, F, A, N, Found) when N > 1 -> step(T, PA, F, arbo:next_sibling_nif(T, A, F, 0), N - 1, [A | Found]);
step(_, _, _, A, _, Found) -> {lists:reverse([A | Found]), {next, A}}.

visit(_, _, _, Acc, 0) -> {Acc, 0};
visit([], _, _, Acc, Left) -> {Acc, Left};
visit([A | More], P, Fun, Acc, Left) ->
    C = P#arbo_node{addr = A, parent = P#arbo_node.addr},
    visit(More, P, Fun, Fun(C, Acc), dec(Left)).

dec(infinity) -> infinity;
dec(N) -> N - 1.
