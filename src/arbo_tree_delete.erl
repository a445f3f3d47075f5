%% @private
%% @doc Deleting and renaming for `arbo_tree' (delete/2,3, delete_ns/3,
%% clear/1, rename/3, rename_ns/3): the changes that run on the writer side
%% of the gate (in the tree's keeper, no reader inside), each telling it
%% whether the epoch moves: after a deletion that deleted, a clear and a
%% rename that changed a key, never after rename_ns.
-module(arbo_tree_delete).

-export([delete/2, delete/3, delete_ns/3, clear/1, rename/3, rename_ns/3]).

-include("arbo_codes.hrl").
-include("arbo_gate.hrl").

-import(arbo_tree_keys, [add_arg/1, find_arg/1, del_arg/1, key_form/1, key_form/2, exact/4,
                         is_list_addr/2]).
-import(arbo_gate, [exclusive/2, gate/1, own/2, fresh/2]).

-include("arbo_error.hrl").

-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).

-spec delete(arbo_tree:tree(), term()) -> ok.
delete(T, N) ->
    gate(T),
    own(T, N),
    N#arbo_node.parent =/= 0 orelse error({root, N}),
    Reply = exclusive(T, fun(H, S) ->
        fresh(S, N),
        #arbo_node{addr = Addr, parent = Parent} = N,
        {K, Code, FCode} = del_arg(arbo:get_hkey0(H, Addr)),
        %% The key must lead back to this very node (two instances that differ
        %% only in namespace share a key in an indexed list).
        case arbo:find_child(H, Parent, K, FCode) of
            Addr -> {arbo:del_hkey(H, Parent, K, Code), true};
            _ -> {ambiguous, false}
        end
    end),
    case Reply of
        true -> ok;
        ambiguous -> error({ambiguous_key, N})
    end.

-spec delete(arbo_tree:tree(), term(), arbo_tree:key()) -> boolean().
delete(T, P, Key) ->
    {K, Code} = find_arg(Key),
    gate(T),
    own(T, P),
    exclusive(T, fun(H, S) ->
        fresh(S, P),
        Addr = P#arbo_node.addr,
        case exact(H, arbo:find_child(H, Addr, K, Code), K, Code) of
            0 -> {false, false};
            N ->
                {DK, DCode, _} = del_arg(arbo:get_hkey0(H, N)),
                {arbo:del_hkey(H, Addr, DK, DCode), true}
        end
    end).

-spec delete_ns(arbo_tree:tree(), term(), 0..16#ffffffff) -> boolean().
delete_ns(T, P, Ns) ->
    ?U32(Ns) orelse error({badarg, {namespace, Ns}}),
    gate(T),
    own(T, P),
    exclusive(T, fun(H, S) ->
        fresh(S, P),
        R = arbo:del_ns(H, P#arbo_node.addr, Ns),
        {R, R}
    end).

-spec clear(arbo_tree:tree()) -> ok.
clear(T) ->
    gate(T),
    exclusive(T, fun(H, _) -> {arbo:del_all(H), true} end).

-spec rename(arbo_tree:tree(), term(), arbo_tree:instance_key()) -> boolean().
rename(T, I, NewKey) ->
    {K, Code} = add_arg(NewKey),
    gate(T),
    own(T, I),
    Reply = exclusive(T, fun(H, S) ->
        fresh(S, I),
        #arbo_node{addr = Addr, parent = List} = I,
        case List =/= 0 andalso is_list_addr(H, List) andalso not is_list_addr(H, Addr) of
            false -> {{raise, {wrong_node_type, I}}, false};
            true ->
                case key_form(arbo:get_hkey0(H, Addr)) =:= key_form(K, Code) of
                    false -> {{raise, {key_form, NewKey}}, false};
                    true ->
                        R = arbo:rename_instance0(H, List, Addr, rename_key(K, Code), Code),
                        {R, R}
                end
        end
    end),
    case Reply of
        {raise, E} -> error(E);
        R -> R
    end.

rename_key(N, ?KEY_INT) -> {N};  % a tag form here
rename_key(K, _) -> K.

-spec rename_ns(arbo_tree:tree(), term(), 0..16#ffffffff) -> boolean().
rename_ns(T, N, NewNs) ->
    ?U32(NewNs) orelse error({badarg, {namespace, NewNs}}),
    gate(T),
    own(T, N),
    N#arbo_node.parent =/= 0 orelse error({root, N}),
    exclusive(T, fun(H, S) ->
        fresh(S, N),
        #arbo_node{addr = Addr, parent = P} = N,
        Free = case arbo:get_hkey0(H, Addr) of
                   [_ | Tag] ->
                       lists:member(arbo:find_child(H, P, [NewNs | Tag], ?FIND_TAG), [0, Addr]);
                   _ -> true
               end,
        {Free andalso arbo:rename_ns(H, P, Addr, NewNs), false}
    end).
