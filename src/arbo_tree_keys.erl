%% @private
%% @doc Key arguments of `arbo_tree': names and instance keys turned into
%% the library's key terms and kind codes (only well-formed ones: an encoded
%% key is encoded or validated first), the library's key terms read back,
%% and the checks that keep two keys apart that the library could take for
%% one.
-module(arbo_tree_keys).
-export([htag/1, add_arg/1, find_arg/1, del_arg/2, key_term/2]).
-export([key_form/1, key_form/2, one_form/4, exact/4, same_key/3]).

-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).
-define(I32(X), (is_integer(X) andalso X >= -16#80000000 andalso X =< 16#7fffffff)).

%% The library's tag form [Ns | Tag] is an improper list on purpose.
-dialyzer({no_improper_lists, [htag/1, find_arg/1]}).

-include("arbo_error.hrl").

htag(Tag) when ?U32(Tag) -> Tag;
htag({Ns, Tag}) when ?U32(Ns), ?U32(Tag) -> [Ns | Tag];
htag(Name) -> error({badarg, {name, Name}}).

%% Instance keys for add_hkey (and rename_instance0: the same codes).
add_arg({int, N}) when ?I32(N) -> {N, 4};
add_arg(N) when ?I32(N) -> {N, 4};
%% A pair's namespace is one byte in a save file; namespace 0 is saved as
%% another form and 12 loads back as a one-element tuple key: the others
%% round-trip.
add_arg({pair, Ns, N}) when ?I32(N), is_integer(Ns), Ns >= 1, Ns =< 255, Ns =/= 12 ->
    {{Ns, N}, 27};
add_arg({tuple, Elems}) when is_list(Elems) -> {arbo_key:encode(Elems), 5};
add_arg(Elems) when is_list(Elems) -> {arbo_key:encode(Elems), 5};
add_arg({encoded, B}) when is_binary(B) -> {encoded(B), 5};
add_arg({opaque, B}) when is_binary(B), byte_size(B) =< 16#7fffffff -> {B, 6};
add_arg(K) -> error({badarg, {key, K}}).

%% Keys for find_child: names, and instance keys.
find_arg(Tag) when ?U32(Tag) -> {Tag, 10};
find_arg({Ns, Tag}) when ?U32(Ns), ?U32(Tag) -> {[Ns | Tag], 10};
find_arg({int, N}) when ?I32(N) -> {{N}, 10};
find_arg({pair, Ns, N}) when ?I32(N), is_integer(Ns), Ns >= 0, Ns =< 16#7fffffff ->
    {{Ns, N}, 28};
find_arg({tuple, Elems}) when is_list(Elems) -> {arbo_key:encode(Elems), 12};
find_arg(Elems) when is_list(Elems) -> {arbo_key:encode(Elems), 12};
find_arg({encoded, B}) when is_binary(B) -> {encoded(B), 12};
find_arg({opaque, B}) when is_binary(B), byte_size(B) =< 16#7fffffff -> {B, 53};
find_arg(K) -> error({badarg, {key, K}}).

%% An encoded tuple key given as bytes: only what the library can parse.
encoded(B) ->
    case arbo_key:validate(B) of
        ok -> B;
        {error, R} -> error({badarg, {key, {encoded, B}, R}})
    end.

%% A node's key as get_hkey0 reads it, turned into del_hkey's key and code
%% and find_child's code.
del_arg({binary, B}, _) -> {B, 15, 12};
del_arg({B}, _) when is_binary(B) -> {B, 52, 53};
del_arg({{Ns, Tag}}, _) -> {{signed(Ns), signed(Tag)}, 29, 28};
del_arg({I}, _) -> {{I}, 13, 10};
del_arg(K, _) -> {K, 13, 10}.

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

key_form(_, 4) -> int;
key_form({Ns, _}, 27) -> {pair, Ns};
key_form(_, 5) -> tuple;
key_form(_, 6) -> opaque.

one_form(T, L, {K, Code}, Key) ->
    case arbo:get_type(T, L) of
        {2, 3} ->
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
same_key({binary, B}, B, C) when C =:= 5; C =:= 12 -> true;
same_key({B}, B, C) when is_binary(B), (C =:= 6 orelse C =:= 53) -> true;
same_key({I}, I, 4) -> true;
same_key({I}, {I}, 10) -> true;
same_key({{Ns, Tag}}, {Ns, N}, C) when C =:= 27; C =:= 28 -> Tag =:= N orelse Tag - (1 bsl 32) =:= N;
same_key(_, _, _) -> false.

%% A child found by an instance key, when its key is that key; names find
%% exactly.
exact(_, 0, _, _) -> 0;
exact(_, A, K, 10) when not is_tuple(K) -> A;
exact(T, A, K, Code) ->
    case same_key(arbo:get_hkey0(T, A), K, Code) of
        true -> A;
        false -> 0
    end.
