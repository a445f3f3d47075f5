%% @private
%% @doc Values, user flags, attributes and the active mark for `arbo_tree'
%% (value/2 to is_active/2): which nodes hold a value, values and attributes
%% encoded and decoded, and the VM-wide table of wide flag values kept below
%% the size at which the library's count of it goes wrong.
-module(arbo_tree_props).

-export([value/2, value_raw/2, set_value/3, set_values/2, clear_value/2,
         flags/2, set_flags/3, add_flags/3, clear_flags/3,
         attr/3, set_attr/4, delete_attr/3, set_active/3, is_active/2]).
-export([wide_flags_room/1]).

-include("arbo_codes.hrl").
-include("arbo_gate.hrl").

-import(arbo_tree_keys, [is_list_addr/2]).
-import(arbo_gate, [read/3, read1/3, write/3]).

-include("arbo_error.hrl").

-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).
-define(U64(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffffffffffff)).
-define(INLINE_FLAGS, 16#3fffff).
-define(WIDE_FLAGS_LIMIT, 30000).

-spec value(arbo_tree:tree(), term()) -> undefined | arbo_tree:value().
value(T, N) ->
    case value_raw(T, N) of
        {csval, B} ->
            case arbo_val:decode(B) of
                {ok, V} -> V;
                {error, _} -> {csval, B}
            end;
        Other -> Other
    end.

-spec value_raw(arbo_tree:tree(), term()) -> undefined | binary() | {csval, binary()}.
value_raw(T, N) ->
    read1(T, N, fun(_) -> arbo:get_val_raw(T, N#arbo_node.addr) end).

-spec set_value(arbo_tree:tree(), term(), arbo_tree:value()) -> ok.
set_value(T, N, V) ->
    {Kind, Bin} = value_arg(V),
    write(T, [N], fun(_) ->
        holds_value(T, N),
        arbo:set_val(T, N#arbo_node.addr, Kind, Bin)
    end).

%% Every node and value checked before any value is set.
set_values(T, Pairs) when is_list(Pairs) ->
    Args = [case P of
                {N, V} -> {N, value_arg(V)};
                _ -> error({badarg, {pair, P}})
            end || P <- Pairs],
    write(T, [N || {N, _} <- Args], fun(_) ->
        lists:foreach(fun({N, _}) -> holds_value(T, N) end, Args),
        lists:foreach(fun({N, {Kind, Bin}}) -> arbo:set_val(T, N#arbo_node.addr, Kind, Bin) end,
                      Args)
    end);
set_values(_, Pairs) -> error({badarg, {pairs, Pairs}}).

value_arg(V) when is_binary(V) -> {?VAL_BINARY, V};
value_arg(empty) -> error({badarg, {value, empty}});
value_arg(V) -> {?VAL_CSVAL, arbo_val:encode(V)}.

-spec clear_value(arbo_tree:tree(), term()) -> ok.
clear_value(T, N) ->
    write(T, [N], fun(_) ->
        holds_value(T, N),
        arbo:set_val(T, N#arbo_node.addr, ?VAL_CLEAR, <<>>)
    end).

-spec flags(arbo_tree:tree(), term()) -> non_neg_integer().
flags(T, N) -> read(T, [N], fun(_) -> arbo:get_flags(T, N#arbo_node.addr) end).

-spec set_flags(arbo_tree:tree(), term(), non_neg_integer()) -> ok | {error, flags_table_full}.
set_flags(T, N, M) -> flag_op(T, N, M, set_flags).

-spec add_flags(arbo_tree:tree(), term(), non_neg_integer()) -> ok | {error, flags_table_full}.
add_flags(T, N, M) -> flag_op(T, N, M, set_flag).

-spec clear_flags(arbo_tree:tree(), term(), non_neg_integer()) -> ok | {error, flags_table_full}.
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

-spec attr(arbo_tree:tree(), term(), pos_integer()) -> undefined | arbo_val:value().
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

-spec set_attr(arbo_tree:tree(), term(), pos_integer(), arbo_val:value()) -> ok.
set_attr(T, N, Id, V) ->
    attr_id(Id),
    V =/= empty orelse error({badarg, {value, V}}),
    Bin = arbo_val:encode(V),
    write(T, [N], fun(_) -> _ = arbo:do_set_attr(T, N#arbo_node.addr, Id, Bin), ok end).

-spec delete_attr(arbo_tree:tree(), term(), pos_integer()) -> ok.
delete_attr(T, N, Id) ->
    attr_id(Id),
    write(T, [N], fun(_) -> _ = arbo:do_set_attr(T, N#arbo_node.addr, Id, <<>>), ok end).

attr_id(Id) -> (?U32(Id) andalso Id > 0) orelse error({badarg, {attribute, Id}}).

-spec set_active(arbo_tree:tree(), term(), boolean()) -> ok.
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

-spec is_active(arbo_tree:tree(), term()) -> boolean().
is_active(T, N) ->
    read(T, [N], fun(_) -> arbo:do_get_attr(T, N#arbo_node.addr, 0) =:= [] end).

instance(T, N) ->
    P = N#arbo_node.parent,
    (P =/= 0 andalso is_list_addr(T, P) andalso not is_list_addr(T, N#arbo_node.addr))
        orelse error({wrong_node_type, N}).

%% Values live on leaves and integer-keyed instances only.
holds_value(T, N) ->
    Addr = N#arbo_node.addr,
    case arbo:get_type(T, Addr) of
        {?NODE_GEN, _} when N#arbo_node.parent =/= 0 ->
            case arbo:get_hkey0(T, Addr) of
                {binary, _} -> error({wrong_node_type, N});
                {B} when is_binary(B) -> error({wrong_node_type, N});
                _ -> ok
            end;
        _ -> error({wrong_node_type, N})
    end.

%% Whether the VM's table of wide flag values has room for N more distinct
%% values below the limit: the library's table counts with 16 bits and
%% searches with a signed 16-bit count, so it is kept well below 32767.
-spec wide_flags_room(non_neg_integer()) -> boolean().
wide_flags_room(N) ->
    [_, {8, Cap, Free}] = arbo:alloc_info(),
    Cap - Free + N =< ?WIDE_FLAGS_LIMIT.
