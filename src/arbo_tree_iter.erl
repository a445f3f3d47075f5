%% @private
%% @doc The iterator stacks of `arbo_tree' (iter_push/2, iter_pop/1,
%% iter_top/1, iter_depth/1): the library's per-process stack, with a copy
%% of it in the calling process's dictionary so that an empty stack is never
%% popped (the library would abort) and a top pushed before nodes of the
%% tree were freed is answered stale.
-module(arbo_tree_iter).

-export([push/2, pop/1, top/1, depth/1]).

-include("arbo_gate.hrl").

-import(arbo_gate, [read/3, write/3, readable/1, writable/1]).

-spec push(arbo_tree:tree(), term()) -> ok.
push(T, N) ->
    write(T, [N], fun(_) -> arbo:push_iter_node(T, N#arbo_node.addr) end),
    Key = iter_key(T),
    put(Key, [N | iter_stack(Key)]),
    ok.

-spec pop(arbo_tree:tree()) -> ok | {error, empty}.
pop(T) ->
    Key = iter_key(T),
    writable(T),
    case iter_stack(Key) of
        [] -> arbo_gate:check_open(T), {error, empty};
        [_ | Rest] ->
            write(T, [], fun(_) -> arbo:pop_iter_node(T) end),
            put(Key, Rest),
            ok
    end.

-spec top(arbo_tree:tree()) -> {ok, term()} | {error, empty | stale}.
top(T) ->
    case iter_stack(iter_key(T)) of
        [] -> arbo_gate:check_open(T), {error, empty};
        [N | _] ->
            read(T, [], fun(S) ->
                Top = arbo:get_iter_node(T),
                case N of
                    #arbo_node{stamp = S, addr = Top} -> {ok, N};
                    _ -> {error, stale}
                end
            end)
    end.

-spec depth(arbo_tree:tree()) -> non_neg_integer().
depth(T) ->
    Key = iter_key(T),
    arbo_gate:check_open(T),
    length(iter_stack(Key)).

iter_key({arbo, Res, _, {arbo_reading, _, _, _}}) -> {'$arbo_iter', Res};
iter_key(T) ->
    {Res, _} = readable(T),
    {'$arbo_iter', Res}.

iter_stack(Key) ->
    case get(Key) of
        undefined -> [];
        L -> L
    end.
