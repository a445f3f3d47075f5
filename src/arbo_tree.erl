%% @doc The tree API: safe functions over the raw library in {@link arbo}.
%%
%% == Trees and nodes ==
%% A tree is created with {@link new/0} and belongs to the process that
%% created it: it is closed when that process exits or when {@link close/1}
%% is called, like an ETS table. Any process may read and change it.
%% Each tree has a keeper process under the `arbo' application, which
%% {@link new/1} starts when it is not running (see {@link arbo_app}).
%%
%% Nodes are of four kinds: containers (children addressed by integer tags),
%% leaves (carry a value, may have children of their own), lists (children
%% are instances, kept sorted by key or in user order) and instances (list
%% children: carry a value, may have children). Children of containers,
%% leaves, instances and the root are named by a {@link name()}: a tag
%% `0..2^32-1', or `{Ns, Tag}' with a namespace. Instances are named by an
%% {@link instance_key()}: `{int, N}' (a 32-bit integer), `{pair, Ns, N}'
%% (Ns 1..255 but 12: the namespaces a save file carries back),
%% `{tuple, Elements}' (an encoded tuple key, elements as in {@link
%% arbo_key}; a bare element list means the same; `{encoded, Bytes}' is the
%% same key already encoded, checked with {@link arbo_key:validate/1}) or
%% `{opaque, Binary}' (a binary taken whole as one element).
%%
%% == Node references ==
%% Functions hand out {@link tree_node()} references: opaque terms that carry the
%% tree's identity, the node's address, its parent's address and the epoch
%% of the tree at the moment they were made. The epoch moves on every change
%% that can free nodes (deletions that delete something, {@link clear/1},
%% {@link load/3}, {@link rename/3} of an instance, {@link close/1}); moves,
%% namespace renames ({@link rename_ns/3}), additions and changes of values,
%% flags and attributes do not free nodes and leave it.
%% A reference of another tree raises `error({wrong_table, Ref})', one made
%% before the epoch moved raises `error({stale_node, Ref})': find the node
%% again. The check and the native call form one step: a reader/writer gate
%% per tree (see the `arbo_gate' module) keeps every change that can free
%% nodes out while a reader is between the two, and survives processes
%% killed inside it. References are not meant to be built by hand; the layer
%% cannot tell a forged address from a real one.
%%
%% == Errors ==
%% Malformed arguments raise `error({badarg, What})'; a closed tree raises
%% `error({arbo_closed, Tree})'; operations on the wrong kind of node raise
%% `error({wrong_node_type, Node})' (or `{not_user_ordered, List}', `{root,
%% Root}', `{not_a_child, Node}'). Outcomes a caller expects are results:
%% `none' for no node, `false' for a refused move, rename or deletion,
%% `{error, Reason}' from files.
%%
%% == Filters ==
%% {@link fold/5} and {@link select/3} walk the children of a node that
%% match a {@link filter()}; the library's resumable walk (it hands control
%% back every thousand or so siblings) is followed transparently. Filters
%% are checked before they reach the library. See {@link filter()}.
-module(arbo_tree).

%% lifecycle
-export([new/0, new/1, attach/1, read_only/1, reading/2, close/1, info/1, root/1]).
%% adding, finding, deleting
-export([add_container/3, add_leaf/3, add_list/4, add/3,
         find/3, lookup/2, find_after/3, find_after/4,
         delete/2, delete/3, delete_ns/3, clear/1, rename/3, rename_ns/3]).
%% navigation
-export([first_child/2, last_child/2, next_sibling/2, prev_sibling/2, nth_child/3,
         child_index/2, num_children/2, children/2, key/2, type/2, is_same/2]).
%% values, flags, attributes
-export([value/2, value_raw/2, set_value/3, clear_value/2,
         flags/2, set_flags/3, add_flags/3, clear_flags/3,
         attr/3, set_attr/4, delete_attr/3, set_active/3, is_active/2]).
%% moves
-export([move_to/3, move_before/3, move_after/3]).
%% filtered walks
-export([fold/5, select/3, select/4, compile_filter/1]).
%% iterator stacks
-export([iter_push/2, iter_pop/1, iter_top/1, iter_depth/1]).
%% persistence
-export([save/2, save/3, load/2, load/3]).
%% used by arbo_file
-export([exclusive/2, check_writer/1, wide_flags_room/1]).

-export_type([tree/0, tree_node/0, name/0, instance_key/0, key/0, order/0, filter/0,
              node_type/0, value/0]).

-include("arbo_gate.hrl").

-import(arbo_tree_keys, [htag/1, add_arg/1, find_arg/1, del_arg/2, key_term/2, key_form/1, key_form/2,
                         one_form/4, exact/4, same_key/3]).

-include("arbo_error.hrl").

-record(arbo_node, {table, stamp, addr, parent}).

-type tree() :: {arbo, reference(), non_neg_integer(),
                 {arbo_gate, pid() | {read_only, pid()}, pid(), atomics:atomics_ref()}}.
-opaque tree_node() :: #arbo_node{table :: reference(), stamp :: non_neg_integer(),
                                  addr :: pos_integer(), parent :: non_neg_integer()}.
-type name() :: 0..16#ffffffff | {0..16#ffffffff, 0..16#ffffffff}.
-type instance_key() :: {int, -16#80000000..16#7fffffff}
                      | {pair, 1..255, -16#80000000..16#7fffffff}
                      | {tuple, arbo_key:key()} | arbo_key:key() | {encoded, binary()}
                      | {opaque, binary()}.
-type key() :: name() | instance_key().
-type order() :: sorted | sorted_length_first | sorted_length_first_but_last | user_order.
-type node_type() :: root | container | leaf | {list, order()} | instance.
-type value() :: binary() | arbo_val:value().
-type filter() :: all | tuple().
%% A filter: `all' (every child), or
%% <ul>
%%  <li>``{'and', F, F}'', ``{'or', F, F}'', ``{'not', F}''</li>
%%  <li>`{exists, Path}': a node exists at Path below the child</li>
%%  <li>`{value, Op, Path, Pattern}': the value of the node at Path, as
%%      text, against Pattern (a binary, or an integer); Op is one of `eq',
%%      `ne' (text equality), `gt', `ge', `lt', `le' (numbers). A plain
%%      binary value is read as an encoded one: it has a text form only
%%      when its bytes are an encoded string, number, address, date or
%%      boolean</li>
%%  <li>`{key, Op, Index, Pattern}': element Index (from 0) of the child's
%%      own key, as text (an opaque key is one element, read like a plain
%%      binary value)</li>
%%  <li>`{has_value, Path}', `{flags_all, Path, Mask}', `{flags_none, Path,
%%      Mask}', `{flags_masked, Path, Mask, Value}'</li>
%%  <li>the library's own numeric forms (`{0, F, F}', `{3, CmpOp, Path,
%%      Value}', ...), checked the same way</li>
%% </ul>
%% A Path is a list of tags or `{Ns, Tag}' pairs; below a list, a tag names
%% an integer instance, and a path that ends inside a list matches when any
%% instance matches. As the library decides it, a comparison it cannot make
%% (`gt' on text that is not a number, a value without a text form, a text
%% longer than both 64 bytes and Pattern whose head matches) counts as a
%% match in a select, like a full one.

-define(ORDERS, [{sorted, 0}, {sorted_length_first, 1}, {sorted_length_first_but_last, 2},
                 {user_order, 3}]).
-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).
-define(I32(X), (is_integer(X) andalso X >= -16#80000000 andalso X =< 16#7fffffff)).
-define(U64(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffffffffffff)).
-define(HIDE_INACTIVE, 16#100).
%% A native exception: {Reason, SourceFile, Line}, turned into {Reason, Tree}.
-define(NATIVE_ERROR(R), error:{R, F__, L__} when is_atom(R), is_list(F__), is_integer(L__)).
-define(INLINE_FLAGS, 16#3fffff).
-define(WIDE_FLAGS_LIMIT, 30000).

%% ===========================================================================
%% Lifecycle

%% @equiv new([])
-spec new() -> tree().
new() -> new([]).

%% @doc Create a tree owned by the calling process. Option `hide_inactive'
%% hides inactive instances from finding, counting and stepping (see {@link
%% set_active/3}). Options that are not a list raise `error({badarg,
%% {options, Opts}})', an unknown one `error({badarg, {option, O}})'.
-spec new([hide_inactive]) -> tree().
new(Opts) when is_list(Opts) ->
    View = lists:foldl(fun(hide_inactive, V) -> V bor ?HIDE_INACTIVE;
                          (O, _) -> error({badarg, {option, O}})
                       end, 0, Opts),
    Res = arbo:new_arbo(),
    Word = atomics:new(1, [{signed, true}]),
    {ok, Keeper} = arbo_gate:start({arbo, Res, View, {arbo_gate, undefined, self(), Word}},
                                   self()),
    {arbo, Res, View, {arbo_gate, Keeper, self(), Word}};
new(Opts) -> error({badarg, {options, Opts}}).

%% @doc A handle of the same tree for the calling process. Any process can
%% use any handle of a tree; the handle a process made itself (with {@link
%% new/1} or here) takes the shortest way through the gate.
-spec attach(tree()) -> tree().
attach({arbo, Res, View, {arbo_gate, Keeper, _, _}} = T) ->
    {arbo, Res, View, {arbo_gate, Keeper, self(), word(T)}};
attach(T) -> error({badarg, {tree, T}}).

%% @doc A handle of the same tree through which it can only be read: every
%% reading function works with it as with the tree's own handle (node
%% references are shared between the two), every function that changes the
%% tree (adding, deleting, clearing, renaming, values, flags, attributes,
%% the active mark, moves, loading, the iterator stack, closing) raises
%% `error({read_only, Handle})' before it touches anything. The handles it
%% passes on ({@link attach/1}, the reader of {@link reading/2}) are
%% read-only too. The tree's own handle keeps changing it; a read-only
%% handle does not keep the tree open (it closes with its owner).
-spec read_only(tree()) -> tree().
read_only({arbo, Res, View, {arbo_gate, {read_only, _}, _, _}} = T) when is_reference(Res),
                                                                         is_integer(View) ->
    T;
read_only({arbo, Res, View, {arbo_gate, Keeper, Owner, Word}}) when is_pid(Keeper) ->
    {arbo, Res, View, {arbo_gate, {read_only, Keeper}, Owner, Word}};
read_only({arbo, _, _, {arbo_reading, _, _, {read_only, _}}} = T) -> T;
read_only({arbo, Res, View, {arbo_reading, Word, S, Tok}}) ->
    {arbo, Res, View, {arbo_reading, Word, S, {read_only, Tok}}};
read_only(T) -> error({badarg, {tree, T}}).

%% @doc Run `Fun(Reader)' in one pass through the gate: Reader is a handle
%% of the tree with which the calls inside Fun skip the gate (node
%% references are still checked for their tree and epoch, but the epoch
%% cannot move while Fun runs). Changes that free nodes wait until Fun
%% returns, so Fun should be short, and must not wait for another process
%% that deletes in this tree; deleting in it from inside Fun, with either
%% handle, raises `{in_reading, Tree}'. Reader is good only inside Fun (or
%% another pass) and only in the calling process (`{reading_over, Reader}'
%% elsewhere): the calling process's gate word must show it inside.
%% Returns what Fun returns.
-spec reading(tree(), fun((tree()) -> R)) -> R.
reading({arbo, Res, View, {arbo_gate, _, _, _}} = T, Fun) when is_function(Fun, 1) ->
    Word = word(T),
    S = enter(T, Word, 0),
    %% The pass's token in the process dictionary is what a reader handle
    %% is checked against on every call: a nested pass keeps the outer one.
    {Tok, Outer} = case get({'$arbo_pass', Res}) of
                       undefined -> {erlang:unique_integer(), true};
                       Tok0 -> {Tok0, false}
                   end,
    Outer andalso begin put({'$arbo_pass', Res}, Tok), put(Tok, '$arbo_pass') end,
    HTok = case T of
               {_, _, _, {_, {read_only, _}, _, _}} -> {read_only, Tok};
               _ -> Tok
           end,
    try Fun({arbo, Res, View, {arbo_reading, Word, S, HTok}})
    after
        Outer andalso begin erase({'$arbo_pass', Res}), erase(Tok) end,
        atomics:sub(Word, 1, 1)
    end;
reading(T, Fun) -> error({badarg, {T, Fun}}).

%% @doc Close the tree and free its nodes; every later call on it raises
%% `error({arbo_closed, Tree})', whoever makes it. Closing a closed tree is
%% `ok', from any process. A tree whose keeper process was killed is closed
%% by the first call that needs the keeper.
-spec close(tree()) -> ok.
close(T) ->
    {_, Keeper} = gate(T),
    try
        not_inside(T),
        arbo_gate:close(Keeper)
    catch
        exit:_ -> try keeper_gone(T) catch error:{arbo_closed, _} -> ok end;
        error:{arbo_closed, _} -> ok
    end.

%% @doc Node count (the root not counted), bytes held, and the epoch.
-spec info(tree()) -> #{size := non_neg_integer(), mem := non_neg_integer(),
                        epoch := non_neg_integer()}.
info(T) ->
    read(T, [], fun(S) ->
        #{size => arbo:get_size(T), mem => arbo:get_mem(T), epoch => S bsr 2}
    end).

%% @doc The root node.
-spec root(tree()) -> tree_node().
root(T) ->
    read(T, [], fun(S) -> mk(T, S, arbo:get_root(T), 0) end).

%% ===========================================================================
%% Adding

%% @doc Add a container (children by integer tag) under a node that is not a
%% list, or return the one already there. Raises `{wrong_node_type, Parent}'
%% under a list and `{name_taken, Tag}' when a node of another kind holds
%% the tag.
-spec add_container(tree(), tree_node(), 0..16#ffffffff) -> tree_node().
add_container(T, P, Tag) ->
    ?U32(Tag) orelse error({badarg, {tag, Tag}}),
    write(T, [P], fun(S) ->
        not_list(T, P),
        N = call(fun() -> arbo:add_hkey_internal(T, P#arbo_node.addr, Tag) end, P),
        expect_type(T, N, {1, 0}, Tag),
        mk(T, S, N, P#arbo_node.addr)
    end).

%% @doc Add a leaf (a node that carries a value) under a node that is not a
%% list, or return the one already there.
-spec add_leaf(tree(), tree_node(), name()) -> tree_node().
add_leaf(T, P, Name) ->
    Htag = htag(Name),
    write(T, [P], fun(S) ->
        not_list(T, P),
        N = call(fun() -> arbo:add_hkey(T, P#arbo_node.addr, Htag, 3) end, P),
        expect_type(T, N, {3, 0}, Name),
        mk(T, S, N, P#arbo_node.addr)
    end).

%% @doc Add a list under a node that is not a list, or return the one
%% already there (which must have the same order).
-spec add_list(tree(), tree_node(), name(), order()) -> tree_node().
add_list(T, P, Name, Order) ->
    Htag = htag(Name),
    Mode = case lists:keyfind(Order, 1, ?ORDERS) of
               {_, M} -> M;
               false -> error({badarg, {order, Order}})
           end,
    write(T, [P], fun(S) ->
        not_list(T, P),
        N = call(fun() -> arbo:add_hkey_dyn(T, P#arbo_node.addr, Htag, Mode) end, P),
        expect_type(T, N, {2, Mode}, Name),  % an existing list keeps its order
        mk(T, S, N, P#arbo_node.addr)
    end).

%% @doc Add an instance to a list, or return the instance already under
%% that key. In a user-ordered list a new instance goes last.
-spec add(tree(), tree_node(), instance_key()) -> tree_node().
add(T, L, Key) ->
    {K, Code} = add_arg(Key),
    write(T, [L], fun(S) ->
        Addr = L#arbo_node.addr,
        is_list_node(T, L),
        one_form(T, Addr, {K, Code}, Key),
        N = call(fun() -> arbo:add_hkey(T, Addr, K, Code) end, L),
        %% The library answers the instance it takes for equal: another
        %% key that compares equal is not this one.
        same_key(arbo:get_hkey0(T, N), K, Code) orelse error({key_clash, Key}),
        mk(T, S, N, Addr)
    end).

%% ===========================================================================
%% Finding

%% @doc The child of a node under a name (children of containers, leaves,
%% instances, the root) or an instance key (children of lists), or `none'.
%% Only the instance with that very key is answered. The library's order of
%% encoded keys is not total across element types (see {@link
%% arbo_key:compare/3}): in a sorted list whose keys mix element types a
%% find may answer `none' for an instance that is there; {@link
%% children/2} and {@link fold/5} see every instance.
-spec find(tree(), tree_node(), key()) -> tree_node() | none.
find({arbo, Res, _, {arbo_gate, _, Owner, Word}} = T,
     #arbo_node{table = Res, stamp = S, addr = Addr} = P, Key) when Owner =:= self() ->
    {K, Code} = find_arg(Key),
    case atomics:add_get(Word, 1, 1) bsr ?ARBO_SHIFT of
        S ->
            R = try exact(T, arbo:find_child(T, Addr, K, Code), K, Code)
                catch ?NATIVE_ERROR(E) -> error({E, T})
                after atomics:sub(Word, 1, 1)
                end,
            case R of
                0 -> none;
                _ -> #arbo_node{table = Res, stamp = S, addr = R, parent = Addr}
            end;
        _ ->
            atomics:sub(Word, 1, 1),
            read(T, [P], fun(S1) -> mk(T, S1, exact(T, arbo:find_child(T, Addr, K, Code), K, Code),
                                       Addr)
                         end)
    end;
find({arbo, Res, _, {arbo_reading, _, S, Tok}} = T,
     #arbo_node{table = Res, stamp = S, addr = Addr}, Key) ->
    {K, Code} = find_arg(Key),
    inside(T, Tok),
    case native(T, fun() -> exact(T, arbo:find_child(T, Addr, K, Code), K, Code) end) of
        0 -> none;
        R -> #arbo_node{table = Res, stamp = S, addr = R, parent = Addr}
    end;
find(T, P, Key) ->
    {K, Code} = find_arg(Key),
    read(T, [P], fun(S) ->
        Addr = P#arbo_node.addr,
        mk(T, S, exact(T, arbo:find_child(T, Addr, K, Code), K, Code), Addr)
    end).

%% @doc Follow a path of keys from the root: the node reached, or `none'.
-spec lookup(tree(), [key()]) -> tree_node() | none.
lookup(T, Path) when is_list(Path) ->
    Args = [find_arg(K) || K <- Path],
    read(T, [], fun(S) -> walk(T, S, arbo:get_root(T), 0, Args) end);
lookup(_, Path) -> error({badarg, {path, Path}}).

walk(T, S, Addr, Parent, []) -> mk(T, S, Addr, Parent);
walk(T, S, Addr, _, [{K, Code} | More]) ->
    case exact(T, arbo:find_child(T, Addr, K, Code), K, Code) of
        0 -> none;
        Next -> walk(T, S, Next, Addr, More)
    end.

%% @equiv find_after(T, List, Key, exclusive)
-spec find_after(tree(), tree_node(), instance_key()) -> tree_node() | none.
find_after(T, L, Key) -> find_after(T, L, Key, exclusive).

%% @doc The first instance of a sorted list after Key (`exclusive') or at or
%% after it (`inclusive'), in the list's order; `none' past the end and for
%% user-ordered lists.
-spec find_after(tree(), tree_node(), instance_key(), exclusive | inclusive) ->
          tree_node() | none.
find_after(T, L, Key, Incl) ->
    {K, Code} = case add_arg(Key) of
                    {I, 4} -> {I, 39};
                    {Pair, 27} -> {Pair, 40};
                    {Bin, 5} -> {Bin, 41};
                    {Bin, 6} -> {Bin, 54}
                end,
    Mode = case Incl of
               exclusive -> 0;
               inclusive -> 1;
               _ -> error({badarg, Incl})
           end,
    read(T, [L], fun(S) ->
        Addr = L#arbo_node.addr,
        mk(T, S, arbo:find_next_nif(T, Addr, K, Code, Mode, []), Addr)
    end).

%% ===========================================================================
%% Deleting and renaming

%% @doc Delete a node with its subtree. Every node reference of the tree is
%% stale afterwards. The root cannot be deleted (`{root, Node}').
-spec delete(tree(), tree_node()) -> ok.
delete(T, N) ->
    gate(T),
    own(T, N),
    N#arbo_node.parent =/= 0 orelse error({root, N}),
    Reply = exclusive(T, fun(H, S) ->
        fresh(S, N),
        #arbo_node{addr = Addr, parent = Parent} = N,
        {K, Code, FCode} = del_arg(arbo:get_hkey0(H, Addr), is_list_addr(H, Parent)),
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

%% @doc Delete the child of Parent under a key, with its subtree: `true', or
%% `false' when there is none. Node references are stale afterwards.
-spec delete(tree(), tree_node(), key()) -> boolean().
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
                {DK, DCode, _} = del_arg(arbo:get_hkey0(H, N), is_list_addr(H, Addr)),
                {arbo:del_hkey(H, Addr, DK, DCode), true}
        end
    end).

%% @doc Delete every child of Parent in namespace Ns: `true' when something
%% was deleted.
-spec delete_ns(tree(), tree_node(), 0..16#ffffffff) -> boolean().
delete_ns(T, P, Ns) ->
    ?U32(Ns) orelse error({badarg, {namespace, Ns}}),
    gate(T),
    own(T, P),
    exclusive(T, fun(H, S) ->
        fresh(S, P),
        R = arbo:del_ns(H, P#arbo_node.addr, Ns),
        {R, R}
    end).

%% @doc Delete every node but the root.
-spec clear(tree()) -> ok.
clear(T) ->
    gate(T),
    exclusive(T, fun(H, _) -> {arbo:del_all(H), true} end).

%% @doc Give an instance a new key of the same form ({@link
%% instance_key()}: an integer, a pair, a tuple or an opaque key; another
%% form raises `{key_form, NewKey}'): `true', or `false' when another
%% instance already has it. A sorted list puts it in its new place; a
%% user-ordered one keeps it where it is. Runs on the writer side and moves
%% the epoch when the key changed (the library may move the instance to new
%% memory): find nodes again afterwards.
-spec rename(tree(), tree_node(), instance_key()) -> boolean().
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

rename_key(N, 4) -> {N};  % a tag form here
rename_key(K, _) -> K.

%% @doc Move a child that has a namespace into another namespace (under the
%% same tag): `true', or `false' when the library refuses (a container, a
%% child without a namespace, a list instance) or when the namespace already
%% has a child under that tag: the library itself would drop the moved child
%% with its value and subtree, so it is not asked. Runs on the writer side
%% (raises `{in_reading, Tree}' inside a reading pass).
-spec rename_ns(tree(), tree_node(), 0..16#ffffffff) -> boolean().
rename_ns(T, N, NewNs) ->
    ?U32(NewNs) orelse error({badarg, {namespace, NewNs}}),
    gate(T),
    own(T, N),
    N#arbo_node.parent =/= 0 orelse error({root, N}),
    exclusive(T, fun(H, S) ->
        fresh(S, N),
        #arbo_node{addr = Addr, parent = P} = N,
        Free = case arbo:get_hkey0(H, Addr) of
                   [_ | Tag] -> lists:member(arbo:find_child(H, P, [NewNs | Tag], 10), [0, Addr]);
                   _ -> true
               end,
        {Free andalso arbo:rename_ns(H, P, Addr, NewNs), false}
    end).

%% ===========================================================================
%% Navigation

%% @doc The first child, or `none'.
-spec first_child(tree(), tree_node()) -> tree_node() | none.
first_child(T, N) ->
    read(T, [N], fun(S) ->
        Addr = N#arbo_node.addr,
        mk(T, S, arbo:first_child_nif(T, Addr, [], 0), Addr)
    end).

%% @doc The next sibling, or `none'.
-spec next_sibling(tree(), tree_node()) -> tree_node() | none.
next_sibling({arbo, Res, _, {arbo_gate, _, Owner, Word}} = T,
             #arbo_node{table = Res, stamp = S, addr = Addr, parent = Parent} = N)
  when Owner =:= self() ->
    case atomics:add_get(Word, 1, 1) bsr ?ARBO_SHIFT of
        S ->
            R = try arbo:next_sibling_nif(T, Addr, [], 0)
                catch ?NATIVE_ERROR(E) -> error({E, T})
                after atomics:sub(Word, 1, 1)
                end,
            case R of
                0 -> none;
                _ -> #arbo_node{table = Res, stamp = S, addr = R, parent = Parent}
            end;
        _ ->
            atomics:sub(Word, 1, 1),
            read(T, [N], fun(S1) -> mk(T, S1, arbo:next_sibling_nif(T, Addr, [], 0), Parent)
                         end)
    end;
next_sibling({arbo, Res, _, {arbo_reading, _, S, Tok}} = T,
             #arbo_node{table = Res, stamp = S, addr = Addr, parent = Parent}) ->
    inside(T, Tok),
    case native(T, fun() -> arbo:next_sibling_nif(T, Addr, [], 0) end) of
        0 -> none;
        R -> #arbo_node{table = Res, stamp = S, addr = R, parent = Parent}
    end;
next_sibling(T, N) ->
    read(T, [N], fun(S) ->
        #arbo_node{addr = Addr, parent = Parent} = N,
        mk(T, S, arbo:next_sibling_nif(T, Addr, [], 0), Parent)
    end).

%% @doc The last child, or `none'.
-spec last_child(tree(), tree_node()) -> tree_node() | none.
last_child(T, N) ->
    read(T, [N], fun(S) ->
        Addr = N#arbo_node.addr,
        %% An empty sorted list answers its own header view: not a node.
        case arbo:get_type(T, Addr) of
            {2, Mode} when Mode =/= 3 ->
                case arbo:num_children(plain_view(T), Addr) of
                    0 -> none;
                    _ -> mk(T, S, skip_back(T, Addr, arbo:last_child(T, Addr)), Addr)
                end;
            _ -> mk(T, S, skip_back(T, Addr, arbo:last_child(T, Addr)), Addr)
        end
    end).

%% The library steps back over inactive instances for no view: this layer
%% does, for a tree that hides them.
skip_back(T, Parent, A) ->
    case A =/= 0 andalso element(3, T) band ?HIDE_INACTIVE =/= 0
         andalso arbo:do_get_attr(T, A, 0) =/= [] of
        true -> skip_back(T, Parent, arbo:prev_sibling(T, Parent, A));
        false -> A
    end.

%% @doc The previous sibling, or `none' (also for the root).
-spec prev_sibling(tree(), tree_node()) -> tree_node() | none.
prev_sibling(T, N) ->
    read(T, [N], fun(S) ->
        case N#arbo_node.parent of
            0 -> none;
            P -> mk(T, S, skip_back(T, P, arbo:prev_sibling(T, P, N#arbo_node.addr)), P)
        end
    end).

%% @doc The I-th child, counting from 1, or `none'.
-spec nth_child(tree(), tree_node(), pos_integer()) -> tree_node() | none.
nth_child(T, N, I) ->
    (?U32(I) andalso I >= 1) orelse error({badarg, {position, I}}),
    read(T, [N], fun(S) ->
        Addr = N#arbo_node.addr,
        mk(T, S, arbo:get_child(T, Addr, I), Addr)
    end).

%% @doc The position of a node among its siblings, counting from 1 (the
%% root: 0); inactive instances are counted too, also in a tree that hides
%% them.
-spec child_index(tree(), tree_node()) -> non_neg_integer().
child_index(T, N) ->
    read(T, [N], fun(_) ->
        case N#arbo_node.parent of
            0 -> 0;
            P -> arbo:child_index(T, P, N#arbo_node.addr)
        end
    end).

%% @doc The number of children.
-spec num_children(tree(), tree_node()) -> non_neg_integer().
num_children(T, N) ->
    read(T, [N], fun(_) -> arbo:num_children(T, N#arbo_node.addr) end).

%% @doc All children, in order.
-spec children(tree(), tree_node()) -> [tree_node()].
children(T, N) ->
    lists:reverse(fold(T, N, all, fun(C, Acc) -> [C | Acc] end, [])).

%% @doc A node's key: a {@link name()} for children of non-lists, an
%% {@link instance_key()} (in its tagged form) for instances; the root's is
%% 0.
-spec key(tree(), tree_node()) -> key().
key(T, N) ->
    read(T, [N], fun(_) ->
        #arbo_node{addr = Addr, parent = P} = N,
        InList = P =/= 0 andalso is_list_addr(T, P),
        key_term(arbo:get_hkey0(T, Addr), InList)
    end).

%% @doc What kind of node this is.
-spec type(tree(), tree_node()) -> node_type().
type(T, N) ->
    read(T, [N], fun(_) ->
        #arbo_node{addr = Addr, parent = P} = N,
        case arbo:get_type(T, Addr) of
            _ when P =:= 0 -> root;
            {1, _} -> container;
            {2, Mode} -> {list, order_name(Mode)};
            {3, _} ->
                case is_list_addr(T, P) of
                    true -> instance;
                    false -> leaf
                end
        end
    end).

%% @doc Whether two references name the same node.
-spec is_same(tree_node(), tree_node()) -> boolean().
is_same(#arbo_node{table = R, addr = A}, #arbo_node{table = R, addr = A}) -> true;
is_same(#arbo_node{}, #arbo_node{}) -> false;
is_same(A, B) -> error({badarg, {A, B}}).

%% ===========================================================================
%% Values, flags, attributes

%% @doc A node's value: `undefined', a binary (a plain binary value), or an
%% encoded value decoded with {@link arbo_val:decode/1}.
-spec value(tree(), tree_node()) -> undefined | value().
value(T, N) ->
    case value_raw(T, N) of
        {csval, B} ->
            case arbo_val:decode(B) of
                {ok, V} -> V;
                {error, _} -> {csval, B}
            end;
        Other -> Other
    end.

%% @doc A node's value as the library hands it out: `undefined', a binary,
%% or `{csval, Bytes}' for an encoded value.
-spec value_raw(tree(), tree_node()) -> undefined | binary() | {csval, binary()}.
value_raw({arbo, Res, _, {arbo_gate, _, Owner, Word}} = T,
          #arbo_node{table = Res, stamp = S, addr = Addr} = N) when Owner =:= self() ->
    case atomics:add_get(Word, 1, 1) bsr ?ARBO_SHIFT of
        S ->
            try arbo:get_val_raw(T, Addr)
            catch ?NATIVE_ERROR(E) -> error({E, T})
            after atomics:sub(Word, 1, 1)
            end;
        _ ->
            atomics:sub(Word, 1, 1),
            read(T, [N], fun(_) -> arbo:get_val_raw(T, Addr) end)
    end;
value_raw({arbo, Res, _, {arbo_reading, _, S, Tok}} = T,
          #arbo_node{table = Res, stamp = S, addr = Addr}) ->
    inside(T, Tok),
    native(T, fun() -> arbo:get_val_raw(T, Addr) end);
value_raw(T, N) ->
    read(T, [N], fun(_) -> arbo:get_val_raw(T, N#arbo_node.addr) end).

%% @doc Set a leaf's or an instance's value: a binary is kept as it is, any
%% other term is encoded with {@link arbo_val:encode/1} (`empty' is refused:
%% use {@link clear_value/2}). Containers, lists and instances with tuple or
%% opaque keys hold no value: `{wrong_node_type, Node}'.
-spec set_value(tree(), tree_node(), value()) -> ok.
set_value(T, N, V) ->
    {Kind, Bin} = if
                      is_binary(V) -> {18, V};
                      V =:= empty -> error({badarg, {value, V}});
                      true -> {17, arbo_val:encode(V)}
                  end,
    write(T, [N], fun(_) ->
        holds_value(T, N),
        arbo:set_val(T, N#arbo_node.addr, Kind, Bin)
    end).

%% @doc Remove a node's value.
-spec clear_value(tree(), tree_node()) -> ok.
clear_value(T, N) ->
    write(T, [N], fun(_) ->
        holds_value(T, N),
        arbo:set_val(T, N#arbo_node.addr, 0, <<>>)
    end).

%% @doc A node's user flags (64 bits).
-spec flags(tree(), tree_node()) -> non_neg_integer().
flags(T, N) -> read(T, [N], fun(_) -> arbo:get_flags(T, N#arbo_node.addr) end).

%% @doc Replace a node's user flags. Values above 22 bits are kept in one
%% table shared by every tree of the VM, which never shrinks: once it holds
%% 30,000 distinct wide values, setting any wide value answers
%% `{error, flags_table_full}' and changes nothing (values of 22 bits and
%% below are always taken).
-spec set_flags(tree(), tree_node(), non_neg_integer()) -> ok | {error, flags_table_full}.
set_flags(T, N, M) -> flag_op(T, N, M, set_flags).

%% @doc Set the bits of Mask in a node's user flags (see {@link set_flags/3}
%% for wide values).
-spec add_flags(tree(), tree_node(), non_neg_integer()) -> ok | {error, flags_table_full}.
add_flags(T, N, M) -> flag_op(T, N, M, set_flag).

%% @doc Clear the bits of Mask in a node's user flags (see {@link
%% set_flags/3} for wide values).
-spec clear_flags(tree(), tree_node(), non_neg_integer()) -> ok | {error, flags_table_full}.
clear_flags(T, N, M) -> flag_op(T, N, M, clr_flag).

flag_op(T, N, M, F) ->
    ?U64(M) orelse error({badarg, {flags, M}}),
    write(T, [N], fun(_) ->
        Addr = N#arbo_node.addr,
        New = case F of
                  set_flags -> M;
                  set_flag -> arbo:get_flags(T, Addr) bor M;
                  clr_flag -> arbo:get_flags(T, Addr) band bnot M
              end,
        case New =< ?INLINE_FLAGS orelse wide_flags_room(1) of
            true -> _ = arbo:F(T, Addr, M), ok;
            false -> {error, flags_table_full}
        end
    end).

%% @doc Attribute Id (1..2^32-1) of a node, decoded, or `undefined'.
-spec attr(tree(), tree_node(), pos_integer()) -> undefined | arbo_val:value().
attr(T, N, Id) ->
    attr_id(Id),
    R = read(T, [N], fun(_) -> arbo:do_get_attr(T, N#arbo_node.addr, Id) end),
    case R of
        [] -> undefined;
        {csval, B} -> decode_attr(B);
        B when is_binary(B) -> decode_attr(B)
    end.

decode_attr(B) ->
    case arbo_val:decode(B) of
        {ok, V} -> V;
        {error, _} -> {binary, B}
    end.

%% @doc Set attribute Id (1..2^32-1) of a node to an encoded value
%% (attribute 0 is the library's inactive mark and is not set here).
-spec set_attr(tree(), tree_node(), pos_integer(), arbo_val:value()) -> ok.
set_attr(T, N, Id, V) ->
    attr_id(Id),
    V =/= empty orelse error({badarg, {value, V}}),
    Bin = arbo_val:encode(V),
    write(T, [N], fun(_) -> _ = arbo:do_set_attr(T, N#arbo_node.addr, Id, Bin), ok end).

%% @doc Remove attribute Id of a node (nothing when it has none).
-spec delete_attr(tree(), tree_node(), pos_integer()) -> ok.
delete_attr(T, N, Id) ->
    attr_id(Id),
    write(T, [N], fun(_) -> _ = arbo:do_set_attr(T, N#arbo_node.addr, Id, <<>>), ok end).

attr_id(Id) -> (?U32(Id) andalso Id > 0) orelse error({badarg, {attribute, Id}}).

%% @doc Mark a list instance active (`true') or inactive (`false'). A tree
%% made with the `hide_inactive' option leaves inactive instances out of
%% finding, counting and stepping: {@link find/3}, {@link lookup/2},
%% {@link first_child/2}, {@link last_child/2}, {@link next_sibling/2},
%% {@link prev_sibling/2}, {@link nth_child/3}, {@link num_children/2},
%% {@link children/2}, {@link fold/5} and {@link select/4} ({@link
%% child_index/2} counts every instance). The mark is the library's
%% attribute 0, kept in save files. Raises `{wrong_node_type,
%% Node}' for a node that is not a list instance.
-spec set_active(tree(), tree_node(), boolean()) -> ok.
set_active(T, N, Active) when is_boolean(Active) ->
    write(T, [N], fun(_) ->
        instance(T, N),
        Mark = case Active of
                   true -> <<>>;                  % removes the mark
                   false -> arbo_val:encode({bool, true})
               end,
        _ = arbo:do_set_attr(T, N#arbo_node.addr, 0, Mark),
        ok
    end);
set_active(_, _, Active) -> error({badarg, {active, Active}}).

%% @doc Whether a node is active (every node but a marked list instance is).
-spec is_active(tree(), tree_node()) -> boolean().
is_active(T, N) ->
    read(T, [N], fun(_) -> arbo:do_get_attr(T, N#arbo_node.addr, 0) =:= [] end).

instance(T, N) ->
    P = N#arbo_node.parent,
    (P =/= 0 andalso is_list_addr(T, P) andalso not is_list_addr(T, N#arbo_node.addr))
        orelse error({wrong_node_type, N}).

%% ===========================================================================
%% Moves (user-ordered lists)

%% @doc Move an instance of a user-ordered list to position Pos (counting
%% from 0, the instance itself counted where it stands now; a negative
%% position means the end): `true' when it moved, `false' when it was there
%% already or Pos is past the end.
-spec move_to(tree(), tree_node(), integer()) -> boolean().
move_to(T, I, Pos) ->
    ?I32(Pos) orelse error({badarg, {position, Pos}}),
    write(T, [I], fun(_) ->
        L = user_list(T, I),
        arbo:move_to(T, L, I#arbo_node.addr, Pos)
    end).

%% @doc Move an instance of a user-ordered list just before another one of
%% the same list: `true' when it moved, `false' when the library refused.
-spec move_before(tree(), tree_node(), tree_node()) -> boolean().
move_before(T, I, Other) -> move_rel(T, I, 1, Other).

%% @doc Move an instance of a user-ordered list just after another one.
-spec move_after(tree(), tree_node(), tree_node()) -> boolean().
move_after(T, I, Other) -> move_rel(T, I, 0, Other).

move_rel(T, I, Where, Other) ->
    write(T, [I, Other], fun(_) ->
        L = user_list(T, I),
        Other#arbo_node.parent =:= L orelse error({not_a_child, Other}),
        %% The library answers false when it moved the instance.
        not arbo:move_rel_internal(T, L, I#arbo_node.addr, Where, Other#arbo_node.addr)
    end).

user_list(T, I) ->
    case I#arbo_node.parent of
        0 -> error({root, I});
        L ->
            case arbo:get_type(T, L) of
                {2, 3} -> L;
                _ -> error({not_user_ordered, I})
            end
    end.

%% ===========================================================================
%% Filtered walks

%% @doc Fold over the children of a node that match a filter, in order.
%% `Fun(Child, Acc)' runs outside the gate and may call this module; if it
%% (or another process) deletes nodes of the tree meanwhile, the walk
%% cannot go on and raises `{stale_node, Parent}'.
-spec fold(tree(), tree_node(), filter(), fun((tree_node(), Acc) -> Acc), Acc) -> Acc.
fold(T, P, Filter, Fun, Acc) when is_function(Fun, 2) ->
    walk_chunks(T, P, compile_filter(Filter), Fun, Acc, first, infinity);
fold(_, _, _, Fun, _) -> error({badarg, Fun}).

%% @doc The children of a node that match a filter.
-spec select(tree(), tree_node(), filter()) -> [tree_node()].
select(T, P, Filter) -> select(T, P, Filter, infinity).

%% @doc At most Limit children of a node that match a filter.
-spec select(tree(), tree_node(), filter(), pos_integer() | infinity) -> [tree_node()].
select(T, P, Filter, Limit) ->
    (Limit =:= infinity orelse (is_integer(Limit) andalso Limit > 0))
        orelse error({badarg, {limit, Limit}}),
    F = compile_filter(Filter),
    lists:reverse(walk_chunks(T, P, F, fun(C, Acc) -> [C | Acc] end, [], first, Limit)).

%% A walk takes the gate once per chunk of up to ?CHUNK native steps (so a
%% writer waits for one chunk at most) and calls Fun outside it. The
%% library's results: a match, the end, or a yield with the library's own
%% stack, which goes straight back to the library and nowhere else.
-define(CHUNK, 64).

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

%% @doc Check a filter and turn it into the library's numeric form; raises
%% `error({bad_filter, Part})' for the first part that is not a filter the
%% library evaluates safely (operator 6 and unknown comparison operators
%% included).
-spec compile_filter(filter()) -> term().
compile_filter(all) -> [];
compile_filter(F) -> arbo_tree_filter:compile(F).


%% ===========================================================================
%% Iterator stacks

%% @doc Push a node on the calling process's iterator stack of this tree.
-spec iter_push(tree(), tree_node()) -> ok.
iter_push(T, N) ->
    write(T, [N], fun(_) -> arbo:push_iter_node(T, N#arbo_node.addr) end),
    Key = iter_key(T),
    put(Key, [N | iter_stack(Key)]),
    ok.

%% @doc Pop the top of the calling process's iterator stack: `ok', or
%% `{error, empty}' (the library itself would abort on an empty stack).
-spec iter_pop(tree()) -> ok | {error, empty}.
iter_pop(T) ->
    Key = iter_key(T),
    writable(T),
    case iter_stack(Key) of
        [] -> {error, empty};
        [_ | Rest] ->
            write(T, [], fun(_) -> arbo:pop_iter_node(T) end),
            put(Key, Rest),
            ok
    end.

%% @doc The top of the calling process's iterator stack: `{ok, Node}',
%% `{error, empty}', or `{error, stale}' when nodes of the tree were deleted
%% since it was pushed (the library repairs stacks only where the deleted
%% node itself was pushed, not for its descendants, so its answer is not
%% trusted then).
-spec iter_top(tree()) -> {ok, tree_node()} | {error, empty | stale}.
iter_top(T) ->
    case iter_stack(iter_key(T)) of
        [] -> {error, empty};
        [N | _] ->
            read(T, [], fun(S) ->
                Top = arbo:get_iter_node(T),
                case N of
                    #arbo_node{stamp = S, addr = Top} -> {ok, N};
                    _ -> {error, stale}
                end
            end)
    end.

%% @doc The depth of the calling process's iterator stack of this tree.
-spec iter_depth(tree()) -> non_neg_integer().
iter_depth(T) -> length(iter_stack(iter_key(T))).

iter_key({arbo, Res, _, {arbo_reading, _, _, _}}) -> {'$arbo_iter', Res};
iter_key(T) ->
    {Res, _} = readable(T),
    {'$arbo_iter', Res}.

iter_stack(Key) ->
    case get(Key) of
        undefined -> [];
        L -> L
    end.

%% ===========================================================================
%% Persistence

%% @equiv save(T, Path, [])
-spec save(tree(), file:filename_all()) -> ok | {error, term()}.
save(T, Path) -> save(T, Path, []).

%% @doc See {@link arbo_file:save/3}.
-spec save(tree(), file:filename_all(), [{skip_flags, non_neg_integer()}]) ->
          ok | {error, term()}.
save(T, Path, Opts) ->
    readable(T),
    arbo_file:save(T, Path, Opts).

%% @equiv load(T, Path, [])
-spec load(tree(), file:filename_all()) -> {ok, arbo_file:load_info()} | {error, term()}.
load(T, Path) -> load(T, Path, []).

%% @doc See {@link arbo_file:load/3}.
-spec load(tree(), file:filename_all(), [arbo_file:load_option()]) ->
          {ok, arbo_file:load_info()} | {error, term()}.
load(T, Path, Opts) ->
    gate(T),
    arbo_file:load(T, Path, Opts).

%% ===========================================================================
%% The gate

%% @private
%% @doc Run `Fun(Handle, Stamp)' on the writer side of the tree's gate (in
%% its keeper); Fun returns `{Reply, Changed}' and Changed moves the epoch.
-spec exclusive(tree(), fun((tree(), non_neg_integer()) -> {Reply, boolean()})) -> Reply.
exclusive(T, Fun) ->
    {_, Keeper} = gate(T),
    not_inside(T),
    Reply = try arbo_gate:exclusive(Keeper, Fun)
            catch exit:_ -> keeper_gone(T)
            end,
    case Reply of
        {ok, R} -> R;
        {raise, error, {R, File, Line}, _} when is_list(File), is_integer(Line) ->
            error({R, T});
        {raise, C, R, Stack} -> erlang:raise(C, R, Stack)
    end.

%% The keeper stopped (the tree was closed) or was killed: then no one is
%% left to run writers, and the tree is closed where it stands. The
%% library's lock keeps every native call out while it closes, and every
%% later one answers arbo_closed, so a reader between its check and its
%% call meets a closed tree, never freed memory.
-spec keeper_gone(tree()) -> no_return().
keeper_gone(T) ->
    _ = (catch arbo:close(plain_view(T))),
    error({arbo_closed, T}).

%% @private
%% @doc Raise what {@link exclusive/2} would raise before it runs: a
%% read-only handle, a closed tree, a process inside a reading pass.
-spec check_writer(tree()) -> ok.
check_writer(T) ->
    gate(T),
    not_inside(T),
    ok.

gate({arbo, Res, _, {arbo_gate, Keeper, Owner, _}}) when is_pid(Keeper), is_pid(Owner) ->
    {Res, Keeper};
gate({arbo, _, _, {arbo_reading, _, _, _}} = T) -> error({in_reading, T});
gate({arbo, _, _, {arbo_gate, {read_only, _}, _, _}} = T) -> error({read_only, T});
gate(T) -> error({badarg, {tree, T}}).

%% The same for reading: a read-only handle is good.
readable({arbo, Res, _, {arbo_gate, {read_only, Keeper}, Owner, _}}) when is_pid(Keeper),
                                                                          is_pid(Owner) ->
    {Res, Keeper};
readable(T) -> gate(T).

%% A reader section that changes the tree (in place, without freeing
%% nodes): refused through a read-only handle. One match on the hot path.
write({arbo, _, _, {arbo_gate, Keeper, _, _}} = T, Nodes, Fun) when is_pid(Keeper) ->
    gated_read(T, Nodes, Fun);
write(T, Nodes, Fun) ->
    writable(T),
    read(T, Nodes, Fun).

writable({arbo, _, _, {arbo_gate, {read_only, _}, _, _}} = T) -> error({read_only, T});
writable({arbo, _, _, {arbo_reading, _, _, {read_only, _}}} = T) -> error({read_only, T});
writable(_) -> ok.

%% The writer side waits for every reader to leave: a process inside a
%% pass of its own would wait for itself.
not_inside(T) ->
    atomics:get(word(T), 1) band ?ARBO_COUNT =:= 0 orelse error({in_reading, T}).

%% A reader handle is good while the pass that made it runs, in the process
%% that runs it: only that process's dictionary holds the pass's token (and
%% while the pass runs the process is announced, so the epoch cannot move).
inside(T, {read_only, Tok}) -> inside(T, Tok);
inside(T, Tok) ->
    get(Tok) =:= '$arbo_pass' orelse error({reading_over, T}).

%% The calling process's gate word of this tree.
word({arbo, _, _, {arbo_gate, _, Owner, Word}}) when Owner =:= self() -> Word;
word({arbo, Res, _, {arbo_gate, Keeper, _, _}} = T) ->
    case get({'$arbo_reader', Res}) of
        undefined ->
            forget_closed(),
            K = case Keeper of
                    {read_only, K0} -> K0;
                    K0 -> K0
                end,
            W = try arbo_gate:register_reader(K, self())
                catch exit:_ -> keeper_gone(T)
                end,
            put({'$arbo_reader', Res}, W),
            W;
        W -> W
    end.

%% A process that reads thousands of trees others close keeps no word of
%% a closed one: they go when it registers for another tree.
forget_closed() ->
    [erase(Key) || {{'$arbo_reader', _} = Key, W} <- get(),
                   atomics:get(W, 1) band ?ARBO_CLOSED =/= 0],
    ok.

%% A reader section: every node argument belongs to the tree and is as new
%% as the epoch; Fun(Stamp) runs with deletions kept out.
read({arbo, _, _, {arbo_reading, _, S, Tok}} = T, Nodes, Fun) ->
    inside(T, Tok),
    lists:foreach(fun(N) -> own(T, N) end, Nodes),
    case [N || #arbo_node{stamp = NS} = N <- Nodes, NS =/= S] of
        [] -> native(T, fun() -> Fun(S) end);
        [Stale | _] -> error({stale_node, Stale})
    end;
read({arbo, _, _, {arbo_gate, _, _, _}} = T, Nodes, Fun) -> gated_read(T, Nodes, Fun);
read(T, _, _) -> error({badarg, {tree, T}}).

gated_read(T, Nodes, Fun) ->
    lists:foreach(fun(N) -> own(T, N) end, Nodes),
    Word = word(T),
    S = enter(T, Word, 0),
    case [N || #arbo_node{stamp = NS} = N <- Nodes, NS =/= S] of
        [] ->
            try Fun(S)
            catch error:{R, File, Line} when is_atom(R), is_list(File), is_integer(Line) ->
                    error({R, T})
            after atomics:sub(Word, 1, 1)
            end;
        [Stale | _] ->
            atomics:sub(Word, 1, 1),
            error({stale_node, Stale})
    end.

%% A native call whose exceptions name the tree instead of a source line.
native(T, Fun) ->
    try Fun()
    catch error:{R, File, Line} when is_atom(R), is_list(File), is_integer(Line) ->
            error({R, T})
    end.

%% Announce; wait while a writer is in; the stamp of the current epoch.
enter(T, Word, Tries) ->
    V = atomics:add_get(Word, 1, 1),
    S = V bsr ?ARBO_SHIFT,
    case S band 3 of
        0 -> S;
        %% Inside already (a reading/2 pass): the writer waits for this
        %% process, which must not wait for it.
        1 when V band ?ARBO_COUNT > 1 -> S band (bnot 1);
        _ ->
            atomics:sub(Word, 1, 1),
            S band 2 =:= 0 orelse error({arbo_closed, T}),
            if
                Tries < 50 -> erlang:yield();
                true -> keeper_alive(T), receive after 1 -> ok end
            end,
            enter(T, Word, Tries + 1)
    end.

%% A keeper killed in the middle of a write leaves its bit in every word:
%% a reader that waits for it looks whether it is still there.
keeper_alive({arbo, _, _, {arbo_gate, K, _, _}} = T) ->
    Keeper = case K of
                 {read_only, K0} -> K0;
                 K0 -> K0
             end,
    is_process_alive(Keeper) orelse keeper_gone(T).


%% On the writer side: the node is as new as the epoch.
fresh(S, #arbo_node{stamp = S}) -> ok;
fresh(_, N) -> error({stale_node, N}).

own({arbo, Res, _, _}, #arbo_node{table = Res}) -> ok;
own(_, #arbo_node{} = N) -> error({wrong_table, N});
own(_, N) -> error({badarg, {node, N}}).

mk(_, _, 0, _) -> none;
mk({arbo, Res, _, _}, S, Addr, Parent) ->
    #arbo_node{table = Res, stamp = S, addr = Addr, parent = Parent}.

%% A native call whose null result (raised as badarg) means the parent
%% refused the child.
call(Fun, Parent) ->
    try Fun()
    catch error:{badarg, _, _} -> error({wrong_node_type, Parent})
    end.

plain_view({arbo, Res, _, G}) -> {arbo, Res, 0, G}.

%% Ordering modes; a loaded file may hold mode 4, which orders as mode 0.
order_name(Mode) ->
    case lists:keyfind(Mode, 2, ?ORDERS) of
        {Name, _} -> Name;
        false -> sorted
    end.

is_list_addr(T, Addr) ->
    case arbo:get_type(T, Addr) of
        {2, _} -> true;
        _ -> false
    end.

not_list(T, P) ->
    is_list_addr(T, P#arbo_node.addr) andalso error({wrong_node_type, P}).

is_list_node(T, L) ->
    is_list_addr(T, L#arbo_node.addr) orelse error({wrong_node_type, L}).

expect_type(T, N, Want, Name) ->
    case arbo:get_type(T, N) of
        Want -> ok;
        _ -> error({name_taken, Name})
    end.

%% Values live on leaves and integer-keyed instances only.
holds_value(T, N) ->
    Addr = N#arbo_node.addr,
    case arbo:get_type(T, Addr) of
        {3, _} when N#arbo_node.parent =/= 0 ->
            case arbo:get_hkey0(T, Addr) of
                {binary, _} -> error({wrong_node_type, N});
                {B} when is_binary(B) -> error({wrong_node_type, N});
                _ -> ok
            end;
        _ -> error({wrong_node_type, N})
    end.


%% @private
%% @doc Whether the VM's table of wide flag values has room for N more
%% distinct values below the limit: the library's table counts with 16 bits
%% and searches with a signed 16-bit count, so it is kept well below 32767.
-spec wide_flags_room(non_neg_integer()) -> boolean().
wide_flags_room(N) ->
    [_, {8, Cap, Free}] = arbo:alloc_info(),
    Cap - Free + N =< ?WIDE_FLAGS_LIMIT.
