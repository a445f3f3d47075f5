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
%% `error({wrong_node_type, Node})' (or `{not_user_ordered, Instance}',
%% `{root, Root}', `{not_a_child, Node}'). Outcomes a caller expects are results:
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
-export([value/2, value_raw/2, set_value/3, set_values/2, clear_value/2,
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
-export([wide_flags_room/1]).

-export_type([tree/0, tree_node/0, name/0, instance_key/0, key/0, order/0, filter/0,
              node_type/0, value/0]).

-include("arbo_codes.hrl").
-include("arbo_gate.hrl").

-import(arbo_tree_keys, [htag/1, add_arg/1, find_arg/1, key_term/2, one_form/4, exact/4,
                         same_key/3, is_list_addr/2]).

%% The gate: every check of a handle or a reference, every reader section and
%% the writer side.
-import(arbo_gate, [read/3, read1/3, write/3, gate/1, readable/1, mk/4]).

-include("arbo_error.hrl").

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

-define(ORDERS, [{sorted, ?ORDER_PLAIN}, {sorted_length_first, ?ORDER_LENGTH_FIRST},
                 {sorted_length_first_but_last, ?ORDER_LENGTH_FIRST_BUT_LAST},
                 {user_order, ?ORDER_USER}]).
-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).
-define(I32(X), (is_integer(X) andalso X >= -16#80000000 andalso X =< 16#7fffffff)).
-define(HIDE_INACTIVE, 16#100).

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
    arbo_gate:open(arbo:new_arbo(), View);
new(Opts) -> error({badarg, {options, Opts}}).

%% @doc A handle of the same tree for the calling process. Any process can
%% use any handle of a tree; the handle a process made itself (with {@link
%% new/1} or here) takes the shortest way through the gate.
-spec attach(tree()) -> tree().
attach(T) -> arbo_gate:attach(T).

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
read_only(T) -> arbo_gate:read_only(T).

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
reading(T, Fun) -> arbo_gate:reading(T, Fun).

%% @doc Close the tree and free its nodes; every later call on it raises
%% `error({arbo_closed, Tree})', whoever makes it. Closing a closed tree is
%% `ok', from any process. A tree whose keeper process was killed is closed
%% by the first call that needs the keeper.
-spec close(tree()) -> ok.
close(T) -> arbo_gate:close(T).

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
        expect_type(T, N, {?NODE_CONTAINER, 0}, Tag),
        mk(T, S, N, P#arbo_node.addr)
    end).

%% @doc Add a leaf (a node that carries a value) under a node that is not a
%% list, or return the one already there.
-spec add_leaf(tree(), tree_node(), name()) -> tree_node().
add_leaf(T, P, Name) ->
    Htag = htag(Name),
    write(T, [P], fun(S) ->
        not_list(T, P),
        N = call(fun() -> arbo:add_hkey(T, P#arbo_node.addr, Htag, ?KEY_TAG_ALT) end, P),
        expect_type(T, N, {?NODE_GEN, 0}, Name),
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
        expect_type(T, N, {?NODE_LIST, Mode}, Name),  % an existing list keeps its order
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
find(T, P, Key) ->
    {K, Code} = find_arg(Key),
    read1(T, P, fun(S) ->
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
                    {I, ?KEY_INT} -> {I, ?NEXT_INT};
                    {Pair, ?KEY_NS_INT} -> {Pair, ?NEXT_NS_INT};
                    {Bin, ?KEY_TUPLE} -> {Bin, ?NEXT_TUPLE};
                    {Bin, ?KEY_OPAQUE} -> {Bin, ?NEXT_OPAQUE}
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
%% Deleting and renaming (the writer side: arbo_tree_delete)

%% @doc Delete a node with its subtree. Every node reference of the tree is
%% stale afterwards. The root cannot be deleted (`{root, Node}').
-spec delete(tree(), tree_node()) -> ok.
delete(T, N) -> arbo_tree_delete:delete(T, N).

%% @doc Delete the child of Parent under a key, with its subtree: `true', or
%% `false' when there is none. Node references are stale after a deletion.
-spec delete(tree(), tree_node(), key()) -> boolean().
delete(T, P, Key) -> arbo_tree_delete:delete(T, P, Key).

%% @doc Delete every child of Parent in namespace Ns: `true' when something
%% was deleted.
-spec delete_ns(tree(), tree_node(), 0..16#ffffffff) -> boolean().
delete_ns(T, P, Ns) -> arbo_tree_delete:delete_ns(T, P, Ns).

%% @doc Delete every node but the root.
-spec clear(tree()) -> ok.
clear(T) -> arbo_tree_delete:clear(T).

%% @doc Give an instance a new key of the same form ({@link
%% instance_key()}: an integer, a pair, a tuple or an opaque key; another
%% form raises `{key_form, NewKey}'): `true', or `false' when another
%% instance already has it. A sorted list puts it in its new place; a
%% user-ordered one keeps it where it is. Runs on the writer side and moves
%% the epoch when the key changed (the library may move the instance to new
%% memory): find nodes again afterwards.
-spec rename(tree(), tree_node(), instance_key()) -> boolean().
rename(T, I, NewKey) -> arbo_tree_delete:rename(T, I, NewKey).

%% @doc Move a child that has a namespace into another namespace (under the
%% same tag): `true', or `false' when the library refuses (a container, a
%% child without a namespace, a list instance) or when the namespace already
%% has a child under that tag: the library itself would drop the moved child
%% with its value and subtree, so it is not asked. Runs on the writer side
%% (raises `{in_reading, Tree}' inside a reading pass).
-spec rename_ns(tree(), tree_node(), 0..16#ffffffff) -> boolean().
rename_ns(T, N, NewNs) -> arbo_tree_delete:rename_ns(T, N, NewNs).

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
next_sibling(T, N) ->
    read1(T, N, fun(S) ->
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
            {?NODE_LIST, Mode} when Mode =/= ?ORDER_USER ->
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
            {?NODE_CONTAINER, _} -> container;
            {?NODE_LIST, Mode} -> {list, order_name(Mode)};
            {?NODE_GEN, _} ->
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
%% Values, flags, attributes (arbo_tree_props)

%% @doc A node's value: `undefined', a binary (a plain binary value), or an
%% encoded value decoded with {@link arbo_val:decode/1}.
-spec value(tree(), tree_node()) -> undefined | value().
value(T, N) -> arbo_tree_props:value(T, N).

%% @doc A node's value as the library hands it out: `undefined', a binary,
%% or `{csval, Bytes}' for an encoded value.
-spec value_raw(tree(), tree_node()) -> undefined | binary() | {csval, binary()}.
value_raw(T, N) -> arbo_tree_props:value_raw(T, N).

%% @doc Set a leaf's or an instance's value: a binary is kept as it is, any
%% other term is encoded with {@link arbo_val:encode/1} (`empty' is refused:
%% use {@link clear_value/2}). Containers, lists and instances with tuple or
%% opaque keys hold no value: `{wrong_node_type, Node}'.
-spec set_value(tree(), tree_node(), value()) -> ok.
set_value(T, N, V) -> arbo_tree_props:set_value(T, N, V).

%% @doc Set the values of several nodes, as {@link set_value/3} does, in one
%% pass of the gate instead of one a node. Every node and every value is
%% checked before any value is set: a bad value, a stale or foreign
%% reference, or a node that holds no value raises, and then no value has
%% changed.
-spec set_values(tree(), [{tree_node(), value()}]) -> ok.
set_values(T, Pairs) -> arbo_tree_props:set_values(T, Pairs).

%% @doc Remove a node's value.
-spec clear_value(tree(), tree_node()) -> ok.
clear_value(T, N) -> arbo_tree_props:clear_value(T, N).

%% @doc A node's user flags (64 bits).
-spec flags(tree(), tree_node()) -> non_neg_integer().
flags(T, N) -> arbo_tree_props:flags(T, N).

%% @doc Replace a node's user flags. Values above 22 bits are kept in one
%% table shared by every tree of the VM, which never shrinks: once it holds
%% 30,000 distinct wide values, setting any wide value answers
%% `{error, flags_table_full}' and changes nothing (values of 22 bits and
%% below are always taken).
-spec set_flags(tree(), tree_node(), non_neg_integer()) -> ok | {error, flags_table_full}.
set_flags(T, N, M) -> arbo_tree_props:set_flags(T, N, M).

%% @doc Set the bits of Mask in a node's user flags (see {@link set_flags/3}
%% for wide values).
-spec add_flags(tree(), tree_node(), non_neg_integer()) -> ok | {error, flags_table_full}.
add_flags(T, N, M) -> arbo_tree_props:add_flags(T, N, M).

%% @doc Clear the bits of Mask in a node's user flags (see {@link
%% set_flags/3} for wide values).
-spec clear_flags(tree(), tree_node(), non_neg_integer()) -> ok | {error, flags_table_full}.
clear_flags(T, N, M) -> arbo_tree_props:clear_flags(T, N, M).

%% @doc Attribute Id (1..2^32-1) of a node, decoded, or `undefined'.
-spec attr(tree(), tree_node(), pos_integer()) -> undefined | arbo_val:value().
attr(T, N, Id) -> arbo_tree_props:attr(T, N, Id).

%% @doc Set attribute Id (1..2^32-1) of a node to an encoded value
%% (attribute 0 is the library's inactive mark and is not set here).
-spec set_attr(tree(), tree_node(), pos_integer(), arbo_val:value()) -> ok.
set_attr(T, N, Id, V) -> arbo_tree_props:set_attr(T, N, Id, V).

%% @doc Remove attribute Id of a node (nothing when it has none).
-spec delete_attr(tree(), tree_node(), pos_integer()) -> ok.
delete_attr(T, N, Id) -> arbo_tree_props:delete_attr(T, N, Id).

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
set_active(T, N, Active) -> arbo_tree_props:set_active(T, N, Active).

%% @doc Whether a node is active (every node but a marked list instance is).
-spec is_active(tree(), tree_node()) -> boolean().
is_active(T, N) -> arbo_tree_props:is_active(T, N).

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
                {?NODE_LIST, ?ORDER_USER} -> L;
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
    arbo_tree_walk:walk(T, P, compile_filter(Filter), Fun, Acc, infinity);
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
    lists:reverse(arbo_tree_walk:walk(T, P, F, fun(C, Acc) -> [C | Acc] end, [], Limit)).

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
iter_push(T, N) -> arbo_tree_iter:push(T, N).

%% @doc Pop the top of the calling process's iterator stack: `ok', or
%% `{error, empty}' (the library itself would abort on an empty stack).
-spec iter_pop(tree()) -> ok | {error, empty}.
iter_pop(T) -> arbo_tree_iter:pop(T).

%% @doc The top of the calling process's iterator stack: `{ok, Node}',
%% `{error, empty}', or `{error, stale}' when nodes of the tree were deleted
%% since it was pushed (the library repairs stacks only where the deleted
%% node itself was pushed, not for its descendants, so its answer is not
%% trusted then).
-spec iter_top(tree()) -> {ok, tree_node()} | {error, empty | stale}.
iter_top(T) -> arbo_tree_iter:top(T).

%% @doc The depth of the calling process's iterator stack of this tree.
-spec iter_depth(tree()) -> non_neg_integer().
iter_depth(T) -> arbo_tree_iter:depth(T).

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
    arbo_gate:check_writer(T),
    arbo_file:load(T, Path, Opts).

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

not_list(T, P) ->
    is_list_addr(T, P#arbo_node.addr) andalso error({wrong_node_type, P}).

is_list_node(T, L) ->
    is_list_addr(T, L#arbo_node.addr) orelse error({wrong_node_type, L}).

expect_type(T, N, Want, Name) ->
    case arbo:get_type(T, N) of
        Want -> ok;
        _ -> error({name_taken, Name})
    end.

%% @private
%% @doc Whether the VM's table of wide flag values has room for N more
%% distinct values below the limit: the library's table counts with 16 bits
%% and searches with a signed 16-bit count, so it is kept well below 32767.
-spec wide_flags_room(non_neg_integer()) -> boolean().
wide_flags_room(N) -> arbo_tree_props:wide_flags_room(N).
