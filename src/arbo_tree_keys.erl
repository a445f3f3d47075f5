%% @private
%% @doc Key arguments of `arbo_tree': names and instance keys turned into
%% the library's key terms and kind codes (only well-formed ones: an encoded
%% key is encoded or validated first), the library's key terms read back,
%% the checks that keep two keys apart that the library could take for
%% one, and whether a node is a list (its children take instance keys).
-module(arbo_tree_keys).
-export([htag/1, add_arg/1, find_arg/1, del_arg/1, key_term/2]).
-export([key_form/1, key_form/2, one_form/4, exact/4, same_key/3, is_list_addr/2]).

-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).
-define(I32(X), (is_integer(X) andalso X >= -16#80000000 andalso X =< 16#7fffffff)).

%% The library's tag form [Ns | Tag] is an improper list on purpose.
-dialyzer({no_improper_lists, [htag/1, find_arg/1]}).

-include("arbo_codes.hrl").
-include("arbo_error.hrl").

htag(Tag) when ?U32(Tag) -> Tag;
htag({Ns, Tag}) when ?U32(Ns), ?U32(Tag) -> [Ns | Tag];
htag(Name) -> error({badarg, {name, Name}}).

%% Instance keys for add_hkey (and rename_instance0: the same codes).
add_arg({int, N}) when ?I32(N) -> {N, ?KEY_INT};
add_arg(N) when ?I32(N) -> {N, ?KEY_INT};
%% A pair's namespace is one byte in a save file; namespace 0 is saved as
%% another form and 12 loads back as a one-element tuple key: the others
%% round-trip.
add_arg({pair, Ns, N}) when ?I32(N), is_integer(Ns), Ns >= 1, Ns =< 255, Ns =/= 12 ->
    {{Ns, N}, ?KEY_NS_INT};
add_arg({tuple, Elems}) when is_list(Elems) -> {arbo_key:encode(Elems), ?KEY_TUPLE};
add_arg(Elems) when is_list(Elems) -> {arbo_key:encode(Elems), ?KEY_TUPLE};
add_arg({encoded, B}) when is_binary(B) -> {encoded(B), ?KEY_TUPLE};
add_arg({opaque, B}) when is_binary(B), byte_size(B) =< 16#7fffffff -> {B, ?KEY_OPAQUE};
add_arg(K) -> error({badarg, {key, K}}).

%% Keys for find_child: names, and instance keys.
find_arg(Tag) when ?U32(Tag) -> {Tag, ?FIND_TAG};
find_arg({Ns, Tag}) when ?U32(Ns), ?U32(Tag) -> {[Ns | Tag], ?FIND_TAG};
find_arg({int, N}) when ?I32(N) -> {{N}, ?FIND_TAG};
find_arg({pair, Ns, N}) when ?I32(N), is_integer(Ns), Ns >= 0, Ns =< 16#7fffffff ->
    {{Ns, N}, ?FIND_NS_INT};
find_arg({tuple, Elems}) when is_list(Elems) -> {arbo_key:encode(Elems), ?FIND_TUPLE};
find_arg(Elems) when is_list(Elems) -> {arbo_key:encode(Elems), ?FIND_TUPLE};
find_arg({encoded, B}) when is_binary(B) -> {encoded(B), ?FIND_TUPLE};
find_arg({opaque, B}) when is_binary(B), byte_size(B) =< 16#7fffffff -> {B, ?FIND_OPAQUE};
find_arg(K) -> error({badarg, {key, K}}).

%% An encoded tuple key given as bytes: only what the library can parse.
encoded(B) ->
    case arbo_key:validate(B) of
        ok -> B;
        {error, R} -> error({badarg, {key, {encoded, B}, R}})
    end.

%% A node's key as get_hkey0 reads it, turned into del_hkey's key and code
%% and find_child's code.
del_arg({binary, B}) -> {B, ?DEL_TUPLE, ?FIND_TUPLE};
del_arg({B}) when is_binary(B) -> {B, ?DEL_OPAQUE, ?FIND_OPAQUE};
del_arg({{Ns, Tag}}) -> {{signed(Ns), signed(Tag)}, ?DEL_NS_INT, ?FIND_NS_INT};
del_arg({I}) -> {{I}, ?DEL_TAG, ?FIND_TAG};
del_arg(K) -> {K, ?DEL_TAG, ?FIND_TAG}.

key_term({binary, B}, _) ->
    case arbo_key:decode(B) of
        {ok, Elems} -> {tuple, Elems};
        {error, _} -> {binary, B}
    end;
key_term({B}, _) when is_binary(B) -> {opaque, B};
key_term({{Ns, Tag}}, _) -> {pair, Ns, signed(Tag)};
key_term({I}, _) -> {int, I};
key_term([Ns | Tag], _) -> {Ns, Tag};
key_term(Tag, true) -> {pair, 0, signed(Tag)};
key_term(Tag, false) -> Tag.

signed(X) when X >= 16#80000000 -> X - 16#100000000;
signed(X) -> X.

%% The key form of an instance: one user-ordered list holds one form, so
%% that its hash index (which compares integers without their namespace,
%% and bytes without their form) never takes two keys for one.
key_form({binary, _}) -> tuple;
key_form({B}) when is_binary(B) -> opaque;
key_form({{Ns, _}}) -> {pair, Ns};
key_form({I}) when is_integer(I) -> int;
key_form(_) -> other.

key_form(_, ?KEY_INT) -> int;
key_form({Ns, _}, ?KEY_NS_INT) -> {pair, Ns};
key_form(_, ?KEY_TUPLE) -> tuple;
key_form(_, ?KEY_OPAQUE) -> opaque.

one_form(T, L, {K, Code}, Key) ->
    case arbo:get_type(T, L) of
        {?NODE_LIST, ?ORDER_USER} ->
            case arbo:first_child_nif(setelement(3, T, 0), L, [], 0) of
                0 -> ok;
                First ->
                    key_form(arbo:get_hkey0(T, First)) =:= key_form(K, Code)
                        orelse error({key_form, Key})
            end;
        _ -> ok
    end.

%% Whether the key the library read back is the key asked for (K and Code
%% as add_arg or find_arg made them).
same_key({binary, B}, B, C) when C =:= ?KEY_TUPLE; C =:= ?FIND_TUPLE -> true;
same_key({B}, B, C) when is_binary(B), (C =:= ?KEY_OPAQUE orelse C =:= ?FIND_OPAQUE) -> true;
same_key({I}, I, ?KEY_INT) -> true;
same_key({I}, {I}, ?FIND_TAG) -> true;
same_key({{Ns, Tag}}, {Ns, N}, C) when C =:= ?KEY_NS_INT; C =:= ?FIND_NS_INT ->
    Tag =:= N orelse Tag - (1 bsl 32) =:= N;
same_key(_, _, _) -> false.

%% A child found by an instance key, when its key is that key; names find
%% exactly.
exact(_, 0, _, _) -> 0;
exact(_, A, K, ?FIND_TAG) when not is_tuple(K) -> A;
exact(T, A, K, Code) ->
    case same_key(arbo:get_hkey0(T, A), K, Code) of
        true -> A;
        false -> 0
    end.

%% Whether the node at Addr is a list: its children are instances, named by
%% instance keys rather than by names.
is_list_addr(T, Addr) ->
    case arbo:get_type(T, Addr) of
        {?NODE_LIST, _} -> true;
        _ -> false
    end.
