%% Diagnostic dumps: the exact text for a small tree (pointer texts masked,
%% node addresses compared as numbers). Malformed paths are swept by
%% arbo_fuzz_tests.
-module(print_tests).

-include_lib("eunit/include/eunit.hrl").
-include("arbo_codes.hrl").

-import(arbo_test_util, [with_table/1, str/1]).

dump(T) ->
    Path = tmp_path(),
    {ok, {ok, Bin}, ok} = {arbo:fprint_nif(T, <<(list_to_binary(Path))/binary, 0>>), file:read_file(Path), file:delete(Path)},
    %% "%p" is the platform's text: only its place is compared.
    Masked = re:replace(Bin, "@ 0x[0-9a-fA-F]+", "@ P", [global, {return, list}]),
    string:split(Masked, "\n", all).

tmp_path() -> filename:join(os:getenv("TMPDIR", "/tmp"), "arbo_dump_" ++ integer_to_list(erlang:unique_integer([positive]))).

i(N) -> integer_to_list(N).
pad(N) -> lists:duplicate(N, $\s).

%% The lines of one node. Key is the key line without its indent and the
%% uflags part; Tail the type-specific lines.
node(Ind, Ref, Flags, Attrs, Type, Key, Uflags, Next, Child, Tail) ->
    [pad(Ind) ++ "NODE: " ++ i(Ref) ++ " @ P", pad(Ind) ++ "flags:" ++ Flags] ++
    [pad(Ind) ++ "attribute nodes:" || Attrs =/= []] ++ Attrs ++
    [pad(Ind) ++ "type: " ++ Type, pad(Ind) ++ Key ++ " uflags=" ++ Uflags,
     pad(Ind) ++ "next: " ++ i(Next) ++ " @ P child: " ++ i(Child) ++ " @ P"] ++ [pad(Ind) ++ L || L <- Tail] ++ [""].

nexts(Ns) -> [lists:flatten(io_lib:format("next[~b]=~b @ P", [I - 1, N])) || {I, N} <- lists:enumerate(Ns)].
gen_tail(Nexts) -> ["height=" ++ i(length(Nexts)) | nexts(Nexts)].
dyn_tail(Heads) -> ["cmp=3", "size=" ++ i(length(Heads)), "curh=0" | nexts(Heads ++ lists:duplicate(8 - length(Heads), 0))].

%% Two containers with one leaf each (inline value with flags and an
%% attribute; a 12-byte value kept without string form), a user-ordered
%% list of two byte-keyed instances (inline and shared key) and one of
%% integer instances ({Int} and {Ns, Int} keys). Integer fields sit at the
%% ends of their ranges: signed keys at -2^31 and 2^31-1, unsigned keys and
%% namespaces at 2^32-1 and 2^31, all 64 user-flag bits, value bytes 255 and
%% 128. Siblings share one flags buffer: after the first sibling that
%% printed a flag, the later ones print none.
small_tree_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [B1, B2] = [arbo:add_hkey_internal(T, R, K) || K <- [1, 16#FFFFFFFF]],
        [LA, LB] = [arbo:add_hkey(T, B, K, ?KEY_TAG_ALT) || {B, K} <- [{B1, [16#FFFFFFFF | 16#FFFFFFFF]}, {B2, [0 | 1]}]],
        [ok, _, Attr, ok] = [arbo:set_val(T, LA, ?VAL_CSVAL, <<255, 128>>), arbo:set_flags(T, LA, 1 bsl 64 - 1),
                             arbo:do_set_attr(T, LA, 3, <<9>>),
                             arbo:set_val(T, LB, ?VAL_CSVAL_BIN, <<"0123456789ab">>)],
        [U, V] = [arbo:add_hkey_dyn(T, R, [1 | K], ?ORDER_USER) || K <- [4, 5]],
        [U1, U2] = [arbo:add_hkey(T, U, str(K), ?KEY_TUPLE) || K <- ["a", "abcdefghij"]],
        [V1, V2] = [arbo:add_hkey(T, V, K, C) || {K, C} <- [{-16#80000000, 4}, {{-16#80000000, 16#7FFFFFFF}, 27}]],
        arbo:set_flags(T, V2, 16#abc),
        Want =
            node(0, R, "", [], "T_GEN_NODE_MAX", "key=0 val=<<>> ns=0", "0x00", 0, B1, ["height=0"]) ++
            node(4, B1, "", [], "T_INT_NODE", "key=1", "0x00", B2, LA, []) ++
            node(8, LA, "", node(10, Attr, "", [], "T_GEN_NODE_ONE", "key=3 val=<<9,>> ns=0", "0x00", 0, 0, gen_tail([0])),
                 "T_GEN_NODE_ONE", "key=4294967295 val=<<255,128,>> ns=4294967295", "0xffffffffffffffff", 0, 0, gen_tail([0])) ++
            node(4, B2, "", [], "T_INT_NODE", "key=4294967295", "0x00", U, LB, []) ++
            node(8, LB, " F_VAL_IS_BIN F_VAL_IS_BIN_NOSTR", [], "T_GEN_NODE_ONE", "key=1 val=<<12 bytes>> ns=0", "0x00", 0, 0,
                 gen_tail([0])) ++
            node(4, U, "", [], "T_DYN_NODE", "key=4", "0x00", V, U1, dyn_tail([U1, U2])) ++
            node(8, U1, " F_KEY_IS_BIN", [], "T_GEN_NODE_TWO", "key=<<200,1,97>> ns=0", "0x00", U2, 0, gen_tail([U2, 0])) ++
            node(8, U2, "", [], "T_GEN_NODE_TWO", "key=<<12 bytes>> ns=0", "0x00", 0, 0, gen_tail([0, U1])) ++
            node(4, V, "", [], "T_DYN_NODE", "key=5", "0x00", 0, V1, dyn_tail([V1, V2])) ++
            node(8, V1, " F_KEY_IS_TUPLE", [], "T_GEN_NODE_TWO", "key=-2147483648 val=<<>> ns=0", "0x00", V2, 0, gen_tail([V2, 0])) ++
            node(8, V2, "", [], "T_GEN_NODE_TWO", "key=2147483647 val=<<>> ns=2147483648", "0xabc", 0, 0, gen_tail([0, V1])) ++ [""],
        ?assertEqual(Want, dump(T))
    end).
