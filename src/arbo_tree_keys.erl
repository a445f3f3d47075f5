%% @private
%% @doc Key arguments of `arbo_tree': names and instance keys turned into
%% the library's key terms and kind codes (only well-formed ones: an encoded
%% key is encoded or validated first), and the library's key terms read back.
-module(arbo_tree_keys).
-export([htag/1, add_arg/1, find_arg/1, del_arg/2, key_term/2]).

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
add_arg({pair, Ns, N}) when ?I32(N), is_integer(Ns), Ns >= 0, Ns =< 16#7fffffff -> {{Ns, N}, 27};
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
