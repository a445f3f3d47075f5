%% @private
%% @doc Batches of a durable store: checked whole against the tree before
%% anything changes, and turned into the parts of a journal frame.
%%
%% A batch is checked against the tree as it stands plus what the batch's
%% earlier operations do to it: nodes made, deleted, renamed, namespaces
%% emptied and the tree cleared are kept in an overlay, so that an
%% operation may name a node an earlier one made and may not name one an
%% earlier one deleted. The records are written as the checking goes: each
%% operation descends from where the previous one left the loader's path
%% (records for the nodes it does not share with it), so a run of changes
%% in one list costs a few bytes each.
-module(arbo_db_batch).

-export([prepare/3, apply_own/2, apply_direct/2]).
-export_type([op/0, part/0, action/0]).

-type path() :: [arbo_tree:key()].
-type op() :: {container, path()} | {leaf, path()} | {list, path(), arbo_tree:order()}
            | {instance, path(), arbo_tree:instance_key()}
            | {set, path(), arbo_tree:value()} | {clear_value, path()}
            | {set_flags, path(), non_neg_integer()}
            | {set_attr, path(), pos_integer(), arbo_val:value()}
            | {delete_attr, path(), pos_integer()} | {set_active, path(), boolean()}
            | {delete, path()} | {delete_ns, path(), non_neg_integer()}
            | {rename, path(), arbo_tree:instance_key()}
            | {move, path(), first | last | {before, arbo_tree:instance_key()}
                             | {'after', arbo_tree:instance_key()} | {position, non_neg_integer()}}
            | clear.
-type part() :: {records, binary()} | {own, term()}.
%% An operation with its paths and keys in one form each, as the plain API
%% applies it.
-type action() :: term().

-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).
-define(I32(X), (is_integer(X) andalso X >= -16#80000000 andalso X =< 16#7fffffff)).
-define(ORDERS, [{sorted, 0}, {sorted_length_first, 1}, {sorted_length_first_but_last, 2},
                 {user_order, 3}]).

%% nodes: Id => {Kind, Key, tree node or undefined (made in this batch), namespaces emptied}
%% links: {ParentId, Key} => Id | deleted (an entry overrides the tree)
%% near: the parent of the last node a value operation named, while the
%% loader's path stands at that node: {ParentPath, ParentChain, ParentId,
%% ParentKind, NodeId}; none after any other operation.
-record(v, {t, nodes, links = #{}, stack = [root], run = none, parts = [], next = 1,
            acts = [], want = true, moved = false, forms = #{}, near = none}).

%% ---------------------------------------------------------------------------

%% Check a batch and make its frame's parts and (when Actions is true) its
%% actions: `{ok, Parts, Actions}', or `{error, {Index, Op, Reason}}' for
%% the first operation (counting from 1) that names a missing node, misuses
%% a node's kind or is malformed.
-spec prepare(arbo_tree:tree(), [op()], boolean()) ->
          {ok, [part()], [action()]} | {error, {pos_integer(), term(), term()}}.
prepare(T, Ops, Actions) ->
    arbo_tree:reading(T, fun(R) ->
        V = #v{t = R, nodes = #{root => {root, 0, arbo_tree:root(R), []}}, want = Actions},
        ops(Ops, 1, V)
    end).

ops([], _, V) -> {ok, lists:reverse((close_run(V))#v.parts), lists:reverse(V#v.acts)};
ops([{set, P, Val} = Op | More], I, #v{near = {Parent, _, _, _, _}} = V) ->
    %% A value set on a sibling of the last node set: the parent's chain
    %% and the loader's path are known, one step up and one down.
    case sibling_key(P, Parent) of
        {ok, Last} ->
            try near_set(Last, Val, V) of
                {_, #v{want = false} = V1} -> ops(More, I + 1, V1);
                {Act, V1} -> ops(More, I + 1, V1#v{acts = [Act | V1#v.acts]})
            catch throw:{refuse, Reason} -> {error, {I, Op, Reason}}
            end;
        error -> general(Op, More, I, V)
    end;
ops([Op | More], I, V) -> general(Op, More, I, V);
ops(_, I, _) -> {error, {I, tail, not_a_list}}.

general(Op, More, I, V) ->
    try op(Op, V#v{near = none}) of
        {_, #v{want = false} = V1} -> ops(More, I + 1, V1);
        {Act, V1} -> ops(More, I + 1, V1#v{acts = [Act | V1#v.acts]})
    catch throw:{refuse, Reason} -> {error, {I, Op, Reason}}
    end.

%% The last key of P when P is Parent plus one key.
sibling_key([K | P], [K | Parent]) -> sibling_key(P, Parent);
sibling_key([Last], []) -> {ok, Last};
sibling_key(_, _) -> error.

near_set(Last, Val, #v{near = {Parent, PChain, PId, PKind, At}, nodes = Nodes} = V) ->
    Key = canon(Last, PKind),
    %% A node the tree holds is not kept in the overlay: a later operation
    %% that names it asks the tree again (and the loader's path may take a
    %% step more), nothing else differs.
    {Id, Kind, V1} =
        case V#v.links of
            #{{PId, Key} := deleted} -> refuse(no_node);
            #{{PId, Key} := Known} -> {Known, element(1, maps:get(Known, Nodes)), V};
            _ ->
                case tree_child(PId, Key, V) of
                    none -> refuse(no_node);
                    C ->
                        K = case PKind of
                                {list, _} -> instance;
                                _ -> arbo_tree:type(V#v.t, C)
                            end,
                        {{tree, C}, K, V}
                end
        end,
    value_node(Kind, Key),
    Recs = case Id of
               At -> value_record(Val);
               _ -> [7, path_record({Kind, Key, x, x}) | value_record(Val)]
           end,
    Target = case {V1, Id} of
                 {#v{want = false}, _} -> [];
                 {#v{moved = false}, {tree, C1}} -> {ref, C1};
                 {#v{moved = false}, _} -> target(PChain ++ [Id], V1);
                 _ -> keys(PChain, V1) ++ [Key]
             end,
    {{set, Target, Val},
     V1#v{stack = PChain ++ [Id], run = [Recs | V1#v.run], near = {Parent, PChain, PId, PKind, Id}}}.

%% After a value operation on P (resolved to Chain, the loader's path now
%% at its end): its parent, for the siblings that may follow.
near(P, Chain, V) ->
    {PChain, [Id]} = lists:split(length(Chain) - 1, Chain),
    PId = lists:last(PChain),
    V#v{near = {lists:droplast(P), PChain, PId, kind(PId, V), Id}}.

op({container, P}, V) -> create(P, container, V);
op({leaf, P}, V) -> create(P, leaf, V);
op({list, P, Order}, V) ->
    lists:keymember(Order, 1, ?ORDERS) orelse refuse({bad_order, Order}),
    create(P, {list, Order}, V);
op({instance, LP, Key}, V) when is_list(LP) -> create(LP ++ [Key], instance, V);
op({set, P, Val}, V) ->
    {Chain, V1} = resolve(P, V),
    holds_value(Chain, V1),
    {{set, target(Chain, V1), Val}, near(P, Chain, emit(value_record(Val), navigate(Chain, V1)))};
op({clear_value, P}, V) ->
    {Chain, V1} = resolve(P, V),
    holds_value(Chain, V1),
    Act = {clear_value, own_keys(Chain, V1)},
    {Act, own(Act, V1)};
op({set_flags, P, F}, V) ->
    {Chain, V1} = resolve(P, V),
    not_root(Chain),
    Rec = flags_record(F),
    {{set_flags, target(Chain, V1), F}, emit(Rec, navigate(Chain, V1))};
op({set_attr, P, Id, Val}, V) ->
    {Chain, V1} = resolve(P, V),
    not_root(Chain),
    attr_id(Id),
    Val =/= empty orelse refuse({bad_value, Val}),
    {{set_attr, target(Chain, V1), Id, Val},
     emit([<<18, Id:32>>, encode(Val)], navigate(Chain, V1))};
op({delete_attr, P, Id}, V) ->
    {Chain, V1} = resolve(P, V),
    not_root(Chain),
    attr_id(Id),
    {{delete_attr, target(Chain, V1), Id}, emit(<<18, Id:32, 0>>, navigate(Chain, V1))};
op({set_active, P, B}, V) when is_boolean(B) ->
    {Chain, V1} = resolve(P, V),
    kind(lists:last(Chain), V1) =:= instance orelse refuse(wrong_node_type),
    Act = {set_active, own_keys(Chain, V1), B},
    {Act, own(Act, V1)};
op({delete, P}, V) ->
    {Chain, V1} = resolve(P, V),
    not_root(Chain),
    {Parent, [Id]} = lists:split(length(Chain) - 1, Chain),
    Key = key(Id, V1),
    V2 = emit(key_record(10, Key), navigate(Parent, V1)),
    {{delete, target(Chain, V1)},
     V2#v{links = (V2#v.links)#{{lists:last(Parent), Key} => deleted}, moved = true}};
op({delete_ns, P, Ns}, V) when ?U32(Ns) ->
    {Chain, V1} = resolve(P, V),
    Id = lists:last(Chain),
    V2 = emit(<<12, Ns:32>>, navigate(Chain, V1)),
    #v{nodes = Nodes, links = Links} = V2,
    case maps:get(Id, Nodes) of
        {{list, _}, _, _, _} ->
            %% the library deletes nothing by namespace in a list
            {{delete_ns, target(Chain, V1), Ns}, V2#v{moved = true}};
        {Kind, Key, Ref, Gone} ->
            Links1 = maps:map(fun({P1, K}, Child) when P1 =:= Id, Child =/= deleted ->
                                      case key_ns(K) of
                                          Ns -> deleted;
                                          _ -> Child
                                      end;
                                 (_, Child) -> Child
                              end, Links),
            {{delete_ns, target(Chain, V1), Ns},
             V2#v{nodes = Nodes#{Id := {Kind, Key, Ref, [Ns | Gone]}}, links = Links1, moved = true}}
    end;
op({rename, P, NewKey}, V) ->
    {Chain, V1} = resolve(P, V),
    {Parent, [Id]} = lists:split(length(Chain) - 1, Chain),
    kind(Id, V1) =:= instance orelse refuse(wrong_node_type),
    ListId = lists:last(Parent),
    {instance, Old, Ref, Gone} = maps:get(Id, V1#v.nodes),
    New0 = instance_key(NewKey),
    form(New0) =:= form(Old) orelse refuse({key_form, NewKey}),
    case New0 of
        Old -> refuse(key_taken);
        New ->
            case child(ListId, New, V1) of
                {none, V2} ->
                    {F, B} = key_bytes(New),
                    V3 = emit([key_record(27, Old), F, B], navigate(Parent, V2)),
                    #v{nodes = Nodes, links = Links} = V3,
                    %% a rename moves the tree's epoch: later actions name
                    %% their nodes by path
                    {{rename, target(Chain, V1), New},
                     V3#v{nodes = Nodes#{Id := {instance, New, Ref, Gone}},
                          links = Links#{{ListId, Old} => deleted, {ListId, New} => Id},
                          moved = true}};
                {_, _} -> refuse(key_taken)
            end
    end;
op({move, P, Where}, V) ->
    {Chain, V1} = resolve(P, V),
    {Parent, [Id]} = lists:split(length(Chain) - 1, Chain),
    ListId = lists:last(Parent),
    kind(ListId, V1) =:= {list, user_order} orelse refuse(not_user_ordered),
    Key = key(Id, V1),
    {To, Rec} =
        case Where of
            first -> {{position, 0}, [key_record(19, Key), <<0:32>>]};
            last -> {{position, -1}, [key_record(19, Key), <<16#ffffffff:32>>]};
            {position, N} when ?I32(N), N >= 0 -> {Where, [key_record(19, Key), <<N:32>>]};
            {Rel, RefKey} when Rel =:= before; Rel =:= 'after' ->
                RK = instance_key(RefKey),
                RK =/= Key orelse refuse(same_node),
                case child(ListId, RK, V1) of
                    {none, _} -> refuse({no_node, RefKey});
                    _ -> ok
                end,
                {F, B} = key_bytes(RK),
                {{Rel, RK}, [key_record(26, Key), if Rel =:= before -> 1; true -> 0 end, F, B]};
            _ -> refuse({bad_position, Where})
        end,
    {{move, keys(Chain, V1), To}, emit(Rec, navigate(Parent, V1))};
op(clear, V) ->
    V1 = own(clear, V),
    {clear, V1#v{nodes = #{root => {root, 0, undefined, []}}, links = #{}, moved = true}};
op(_, _) -> refuse(bad_op).

refuse(Reason) -> throw({refuse, Reason}).

%% ---------------------------------------------------------------------------
%% Nodes: the tree under the overlay

create(P, Kind, V) when is_list(P), P =/= [] ->
    {Init, [Last]} = lists:split(length(P) - 1, P),
    {Chain, V1} = resolve(Init, V),
    PId = lists:last(Chain),
    PKind = kind(PId, V1),
    case {Kind, PKind} of
        {instance, {list, _}} -> ok;
        {instance, _} -> refuse(wrong_node_type);
        {_, {list, _}} -> refuse(wrong_node_type);
        _ -> ok
    end,
    Key = canon(Last, PKind),
    Kind =/= container orelse is_integer(Key) orelse refuse({bad_key, Last}),
    Act = {create, target(Chain, V1), Kind, Key},
    case child(PId, Key, V1) of
        {none, V20} ->
            V2 = one_form(PId, PKind, Key, Last, V20),
            #v{nodes = Nodes, links = Links, next = Id} = V2,
            V3 = V2#v{nodes = Nodes#{Id => {Kind, Key, undefined, []}},
                      links = Links#{{PId, Key} => Id}, next = Id + 1},
            {Act, navigate(Chain ++ [Id], V3)};
        {Id, V2} ->
            kind(Id, V2) =:= Kind orelse refuse({name_taken, kind(Id, V2)}),
            {Act, navigate(Chain ++ [Id], V2)}
    end;
create(_, _, _) -> refuse(bad_path).

resolve(P, V) when is_list(P) -> walk(P, root, [root], V);
resolve(_, _) -> refuse(bad_path).

walk([], _, Acc, V) -> {lists:reverse(Acc), V};
walk([K | Ks], PId, Acc, V) ->
    case child(PId, canon(K, kind(PId, V)), V) of
        {none, _} -> refuse(no_node);
        {Id, V1} -> walk(Ks, Id, [Id | Acc], V1)
    end;
walk(_, _, _, _) -> refuse(bad_path).

%% A child in the tree, unless the overlay's parent was made in this batch
%% or lost the key's namespace.
tree_child(PId, Key, #v{t = T, nodes = Nodes}) ->
    {_, _, Ref, Gone} = maps:get(PId, Nodes),
    case Ref =/= undefined andalso not lists:member(key_ns(Key), Gone)
        andalso arbo_tree:find(T, Ref, Key) of
        false -> none;
        R -> R
    end.

%% A child by its canonical key: the overlay's word, else the tree's (and
%% what the tree answers is kept in the overlay).
child(PId, Key, #v{t = T, nodes = Nodes, links = Links, next = Next} = V) ->
    case Links of
        #{{PId, Key} := deleted} -> {none, V};
        #{{PId, Key} := Id} -> {Id, V};
        _ ->
            {_, _, Ref, Gone} = maps:get(PId, Nodes),
            case Ref =/= undefined andalso not lists:member(key_ns(Key), Gone)
                andalso arbo_tree:find(T, Ref, Key) of
                false -> {none, V};
                none -> {none, V};
                C ->
                    Kind = case element(1, maps:get(PId, Nodes)) of
                               {list, _} -> instance;
                               _ -> arbo_tree:type(T, C)
                           end,
                    {Next, V#v{nodes = Nodes#{Next => {Kind, Key, C, []}},
                               links = Links#{{PId, Key} => Next}, next = Next + 1}}
            end
    end.

%% A user-ordered list holds instances of one key form (its hash index
%% would take keys of two forms for one): the form of its first instance,
%% in the tree or made earlier in the batch, is the only one it takes.
one_form(PId, {list, user_order}, Key, Asked, #v{forms = Forms} = V) ->
    Form = case Forms of
               #{PId := F} -> F;
               _ -> tree_form(PId, V)
           end,
    Form =:= none orelse Form =:= form(Key) orelse refuse({key_form, Asked}),
    V#v{forms = Forms#{PId => form(Key)}};
one_form(_, _, _, _, V) -> V.

tree_form(PId, #v{t = T, nodes = Nodes}) ->
    case maps:get(PId, Nodes) of
        {_, _, undefined, _} -> none;
        {_, _, Ref, _} ->
            case arbo_tree:first_child(T, Ref) of
                none -> none;
                First -> form(arbo_tree:key(T, First))
            end
    end.

form({int, _}) -> int;
form({pair, Ns, _}) -> {pair, Ns};
form({opaque, _}) -> opaque;
form(_) -> tuple.

kind(Id, #v{nodes = Nodes}) -> element(1, maps:get(Id, Nodes)).
key(Id, #v{nodes = Nodes}) -> element(2, maps:get(Id, Nodes)).
keys(_, #v{want = false}) -> [];
keys([root | Chain], V) -> [key(Id, V) || Id <- Chain].

%% How an action names its node: the node itself when it was in the tree
%% before the batch and nothing in the batch has moved the tree's epoch
%% since (the reference is still good), else its path.
target(_, #v{want = false}) -> [];
target(Chain, #v{moved = false, nodes = Nodes} = V) ->
    case maps:get(lists:last(Chain), Nodes) of
        {_, _, undefined, _} -> keys(Chain, V);
        {_, _, Ref, _} -> {ref, Ref}
    end;
target(Chain, V) -> keys(Chain, V).

%% Paths the frame itself carries.
own_keys([root | Chain], V) -> [key(Id, V) || Id <- Chain].

not_root([root]) -> refuse(root);
not_root(_) -> ok.

holds_value(Chain, V) ->
    Id = lists:last(Chain),
    value_node(kind(Id, V), key(Id, V)).

value_node(leaf, _) -> ok;
value_node(instance, {int, _}) -> ok;
value_node(instance, {pair, _, _}) -> ok;
value_node(_, _) -> refuse(wrong_node_type).

attr_id(Id) -> (?U32(Id) andalso Id > 0) orelse refuse({bad_attribute, Id}).

%% Keys in one form each: names under non-lists, instance keys under lists.
canon(K, {list, _}) -> instance_key(K);
canon(Tag, _) when ?U32(Tag) -> Tag;
canon({0, Tag}, _) when ?U32(Tag) -> Tag;
canon({Ns, Tag} = K, _) when ?U32(Ns), ?U32(Tag) -> K;
canon(K, _) -> refuse({bad_key, K}).

instance_key(N) when ?I32(N) -> {int, N};
instance_key({int, N} = K) when ?I32(N) -> K;
%% A pair's namespace travels in one byte, and the byte 12 marks another
%% kind of key: those pairs could not be replayed.
instance_key({pair, Ns, N} = K) when ?I32(N), is_integer(Ns), Ns >= 1, Ns =< 255, Ns =/= 12 -> K;
instance_key({tuple, Elems}) -> instance_key(Elems);
instance_key(Elems) when is_list(Elems) ->
    try {encoded, arbo_key:encode(Elems)}
    catch error:_ -> refuse({bad_key, Elems})
    end;
instance_key({encoded, B} = K) when is_binary(B) ->
    case arbo_key:validate(B) of
        ok -> K;
        {error, _} -> refuse({bad_key, K})
    end;
instance_key({opaque, B} = K) when is_binary(B), byte_size(B) =< 16#7fffffff -> K;
instance_key(K) -> refuse({bad_key, K}).

key_ns({pair, Ns, _}) -> Ns;
key_ns({Ns, Tag}) when is_integer(Ns), is_integer(Tag) -> Ns;
key_ns(_) -> 0.

%% ---------------------------------------------------------------------------
%% Records

emit(Bytes, #v{run = Run} = V) -> V#v{run = [Bytes | Run]}.

own(Op, V) ->
    V1 = close_run(V),
    V1#v{parts = [{own, Op} | V1#v.parts]}.

close_run(#v{run = none} = V) -> V;
close_run(#v{run = Run, parts = Parts} = V) ->
    V#v{run = none, stack = [root],
        parts = [{records, iolist_to_binary(lists:reverse(Run, [3]))} | Parts]}.

%% Records that take the loader from where it stands to the end of Chain:
%% up to the deepest node the two share, then down.
navigate(Chain, #v{run = none} = V) -> navigate(Chain, V#v{run = [2], stack = [root]});
navigate(Chain, #v{stack = Stack, run = Run} = V) ->
    {Up, Down} = diverge(Stack, Chain),
    Recs = [path_record(maps:get(Id, V#v.nodes)) || Id <- Down],
    V#v{stack = Chain, run = [Recs, binary:copy(<<7>>, Up) | Run]}.

diverge([X | A], [X | B]) -> diverge(A, B);
diverge(A, B) -> {length(A), B}.

path_record({container, Tag, _, _}) -> <<16#0F, Tag:32>>;
path_record({leaf, {Ns, Tag}, _, _}) -> <<16#26, Ns:32, Tag:32>>;
path_record({leaf, Tag, _, _}) -> <<6, Tag:32>>;
path_record({{list, Order}, Name, _, _}) ->
    {_, Cmp} = lists:keyfind(Order, 1, ?ORDERS),
    case Name of
        {Ns, Tag} -> <<16#34, Ns:32, Tag:32, Cmp>>;
        Tag -> <<16#14, Tag:32, Cmp>>
    end;
path_record({instance, Key, _, _}) -> key_record(6, Key).

key_record(Op, Key) ->
    {Form, Bytes} = key_bytes(Key),
    [Op + Form * 32, Bytes].

key_bytes({int, N}) -> {2, <<N:32/signed>>};
key_bytes({pair, Ns, N}) -> {3, <<Ns, N:32/signed>>};
key_bytes({opaque, B}) -> {4, <<(byte_size(B)):32, B/binary>>};
key_bytes({encoded, B}) -> {5, <<(byte_size(B)):32, B/binary>>};
key_bytes({Ns, Tag}) -> {1, <<Ns:32, Tag:32>>};
key_bytes(Tag) -> {0, <<Tag:32>>}.

value_record(B) when is_binary(B), byte_size(B) < 256 -> [<<13, (byte_size(B))>>, B];
value_record(B) when is_binary(B) -> [<<14, (byte_size(B)):32>>, B];
value_record(empty) -> refuse({bad_value, empty});
value_record(V) -> [9, encode(V)].

encode(V) ->
    try arbo_val:encode(V)
    catch error:_ -> refuse({bad_value, V})
    end.

flags_record(F) when is_integer(F), F >= 0, F < 16#100 -> <<11, F>>;
flags_record(F) when is_integer(F), F >= 0, F < 16#10000 -> <<17, F:16>>;
flags_record(F) when is_integer(F), F >= 0, F < 16#100000000 -> <<22, F:32>>;
flags_record(F) when is_integer(F), F >= 0, F < 16#10000000000000000 -> <<23, F:64>>;
flags_record(F) -> refuse({bad_flags, F}).

%% ---------------------------------------------------------------------------
%% Applying a checked batch through the plain API

%% Apply the actions of a checked batch, in order, through `arbo_tree'.
%% Nodes found are kept until a deletion, a rename or a delete_ns moves the
%% tree's epoch; values set on nodes the check found go in one pass of the
%% gate a run (runs/1).
-spec apply_direct(arbo_tree:tree(), [action()]) -> ok | {error, term()}.
apply_direct(T, Acts) ->
    try lists:foldl(fun(A, C) -> act(T, A, C) end, #{}, runs(Acts)) of
        _ -> ok
    catch
        throw:{failed, A} -> {error, {failed, A}};
        error:R -> {error, R}
    end.

%% Values set on nodes already found are set in one pass of the gate a run.
runs(Acts) -> runs(Acts, []).

runs([{set, {ref, N}, V} | More], Run) -> runs(More, [{N, V} | Run]);
runs([], []) -> [];
runs([A | More], []) -> [A | runs(More, [])];
runs(More, Run) -> [{set_values, lists:reverse(Run)} | runs(More, [])].

act(T, {set_values, Pairs}, C) -> arbo_tree:set_values(T, Pairs), C;
act(T, {create, PP, Kind, Key} = A, C) ->
    {P, C1} = node(T, PP, C, A),
    N = case Kind of
            container -> arbo_tree:add_container(T, P, Key);
            leaf -> arbo_tree:add_leaf(T, P, Key);
            {list, Order} -> arbo_tree:add_list(T, P, Key, Order);
            instance -> arbo_tree:add(T, P, Key)
        end,
    case PP of
        {ref, _} -> C1;
        _ -> C1#{PP ++ [Key] => N}
    end;
act(T, {set, Path, V} = A, C) -> on(T, Path, C, A, fun(N) -> arbo_tree:set_value(T, N, V) end);
act(T, {set_flags, Path, F} = A, C) ->
    on(T, Path, C, A, fun(N) -> arbo_tree:set_flags(T, N, F) end);
act(T, {set_attr, Path, Id, V} = A, C) ->
    on(T, Path, C, A, fun(N) -> arbo_tree:set_attr(T, N, Id, V) end);
act(T, {delete_attr, Path, Id} = A, C) ->
    on(T, Path, C, A, fun(N) -> arbo_tree:delete_attr(T, N, Id) end);
act(T, {move, Path, To} = A, C) ->
    on(T, Path, C, A,
       fun(N) ->
               _ = case To of
                       {position, Pos} -> arbo_tree:move_to(T, N, Pos);
                       {Rel, K} ->
                           {O, _} = node(T, lists:droplast(Path) ++ [K], C, A),
                           case Rel of
                               before -> arbo_tree:move_before(T, N, O);
                               'after' -> arbo_tree:move_after(T, N, O)
                           end
                   end,
               ok
       end);
act(T, {delete, Path} = A, C) ->
    _ = on(T, Path, C, A, fun(N) -> arbo_tree:delete(T, N) end),
    #{};
act(T, {delete_ns, Path, Ns} = A, C) ->
    _ = on(T, Path, C, A, fun(N) -> _ = arbo_tree:delete_ns(T, N, Ns), ok end),
    #{};
act(T, {rename, Path, Key} = A, C) ->
    _ = on(T, Path, C, A, fun(N) -> arbo_tree:rename(T, N, Key) end),
    #{};
act(T, A, _) ->
    case apply_own(T, A) of
        ok -> #{};
        {error, _} -> throw({failed, A})
    end.

on(T, Path, C, A, Fun) ->
    {N, C1} = node(T, Path, C, A),
    case Fun(N) of
        ok -> C1;
        true -> C1;
        _ -> throw({failed, A})
    end.

node(_, {ref, N}, C, _) -> {N, C};
node(T, Path, C, A) ->
    case C of
        #{Path := N} -> {N, C};
        _ ->
            case arbo_tree:lookup(T, Path) of
                none -> throw({failed, A});
                N -> {N, C#{Path => N}}
            end
    end.

%% ---------------------------------------------------------------------------
%% The store's own operations

%% Apply one of the operations the records do not express.
-spec apply_own(arbo_tree:tree(), term()) -> ok | {error, term()}.
apply_own(T, clear) -> arbo_tree:clear(T);
apply_own(T, {clear_value, Path}) -> on_node(T, Path, fun(N) -> arbo_tree:clear_value(T, N) end);
apply_own(T, {set_active, Path, B}) when is_boolean(B) ->
    on_node(T, Path, fun(N) -> arbo_tree:set_active(T, N, B) end);
apply_own(_, Op) -> {error, {bad_operation, Op}}.

on_node(T, Path, Fun) when is_list(Path) ->
    try arbo_tree:lookup(T, Path) of
        none -> {error, {no_node, Path}};
        N -> Fun(N)
    catch error:R -> {error, R}
    end;
on_node(_, Path, _) -> {error, {bad_path, Path}}.
