%% Diagnostic dumps: the exact text for small trees (pointer texts masked,
%% node addresses compared as numbers) and the path rules of fprint_nif.
-module(print_tests).

-include_lib("eunit/include/eunit.hrl").

-import(walk_util, [with_table/1, reason/1, str/1]).

dump(T) ->
    Path = tmp_path(),
    ok = arbo:fprint_nif(T, <<(list_to_binary(Path))/binary, 0>>),
    {ok, Bin} = file:read_file(Path),
    ok = file:delete(Path),
    %% "%p" is the platform's text: only its place is compared.
    Masked = re:replace(Bin, "@ 0x[0-9a-fA-F]+", "@ P", [global, {return, list}]),
    string:split(Masked, "\n", all).

tmp_path() ->
    filename:join(os:getenv("TMPDIR", "/tmp"),
                  "arbo_dump_" ++ integer_to_list(erlang:unique_integer([positive]))).

i(N) -> integer_to_list(N).
pad(N) -> lists:duplicate(N, $\s).

%% The lines of one node. Key is the key line after its indent, without the
%% uflags part; Tail the type-specific lines.
node(Ind, Ref, Flags, Attrs, Type, Key, Uflags, Next, Child, Tail) ->
    [pad(Ind) ++ "NODE: " ++ i(Ref) ++ " @ P",
     pad(Ind) ++ "flags:" ++ Flags] ++
    case Attrs of
        [] -> [];
        _ -> [pad(Ind) ++ "attribute nodes:" | Attrs]
    end ++
    [pad(Ind) ++ "type: " ++ Type,
     Key ++ " uflags=" ++ Uflags,
     pad(Ind) ++ "next: " ++ i(Next) ++ " @ P child: " ++ i(Child) ++ " @ P"] ++
    [pad(Ind) ++ L || L <- Tail] ++ [""].

nexts(Ns) -> [lists:flatten(io_lib:format("next[~b]=~b @ P", [I - 1, N]))
              || {I, N} <- lists:enumerate(Ns)].
gen_tail(Nexts) -> ["height=" ++ i(length(Nexts)) | nexts(Nexts)].
dyn_tail(Cmp, Size, Curh, Heads) ->
    ["cmp=" ++ i(Cmp), "size=" ++ i(Size), "curh=" ++ i(Curh) |
     nexts(Heads ++ lists:duplicate(8 - length(Heads), 0))].

%% Two containers with one leaf each (inline value with flags and an
%% attribute; a 12-byte value kept without string form), a user-ordered list of two byte-keyed instances (inline and
%% shared key) and one of integer instances ({Int} and {Ns, Int} keys).
%% Siblings share one flags buffer: after the first sibling that printed a
%% flag, the later ones print none.
small_tree_test() ->
    with_table(fun(T) ->
        R = arbo:get_root(T),
        [B1, B2] = [arbo:add_hkey_internal(T, R, K) || K <- [1, 2]],
        [LA, LB] = [arbo:add_hkey(T, B, [0 | 1], 3) || B <- [B1, B2]],
        arbo:set_val(T, LA, 17, <<1, 2, 3>>),
        arbo:set_flags(T, LA, 5),
        arbo:do_set_attr(T, LA, 3, <<9>>),
        Attr = arbo:get_attr_root(T, LA),
        arbo:set_val(T, LB, 37, <<"0123456789ab">>),
        U = arbo:add_hkey_dyn(T, R, [1 | 4], 3),
        [U1, U2] = [arbo:add_hkey(T, U, str(K), 5) || K <- ["a", "abcdefghij"]],
        V = arbo:add_hkey_dyn(T, R, [1 | 5], 3),
        V1 = arbo:add_hkey(T, V, -5, 4),
        V2 = arbo:add_hkey(T, V, {2, 7}, 27),
        arbo:set_flags(T, V2, 16#abc),
        Want =
            node(0, R, "", [], "T_GEN_NODE_MAX", "key=0 val=<<>> ns=0", "0x00", 0, B1,
                 ["height=0"]) ++
            node(4, B1, "", [], "T_INT_NODE", "    key=1", "0x00", B2, LA, []) ++
            node(8, LA, "",
                 node(10, Attr, "", [], "T_GEN_NODE_ONE", pad(10) ++ "key=3 val=<<9,>> ns=0",
                      "0x00", 0, 0, gen_tail([0])),
                 "T_GEN_NODE_ONE", pad(8) ++ "key=1 val=<<1,2,3,>> ns=0", "0x05", 0, 0,
                 gen_tail([0])) ++
            node(4, B2, "", [], "T_INT_NODE", "    key=2", "0x00", U, LB, []) ++
            node(8, LB, " F_VAL_IS_BIN F_VAL_IS_BIN_NOSTR", [], "T_GEN_NODE_ONE",
                 pad(8) ++ "key=1 val=<<12 bytes>> ns=0", "0x00", 0, 0, gen_tail([0])) ++
            node(4, U, "", [], "T_DYN_NODE", "    key=4", "0x00", V, U1,
                 dyn_tail(3, 2, 0, [U1, U2])) ++
            node(8, U1, " F_KEY_IS_BIN", [], "T_GEN_NODE_TWO", pad(8) ++ "key=<<200,1,97>> ns=0",
                 "0x00", U2, 0, gen_tail([U2, 0])) ++
            node(8, U2, "", [], "T_GEN_NODE_TWO", pad(8) ++ "key=<<12 bytes>> ns=0", "0x00", 0, 0,
                 gen_tail([0, U1])) ++
            node(4, V, "", [], "T_DYN_NODE", "    key=5", "0x00", 0, V1,
                 dyn_tail(3, 2, 0, [V1, V2])) ++
            node(8, V1, " F_KEY_IS_TUPLE", [], "T_GEN_NODE_TWO", pad(8) ++ "key=-5 val=<<>> ns=0",
                 "0x00", V2, 0, gen_tail([V2, 0])) ++
            node(8, V2, "", [], "T_GEN_NODE_TWO", pad(8) ++ "key=7 val=<<>> ns=2", "0xabc", 0, 0,
                 gen_tail([0, V1])) ++
            [""],
        ?assertEqual(Want, dump(T))
    end).

%% The path is a binary with a NUL; after it only NULs, except that the very
%% last byte may be anything. A file that cannot be opened: still ok.
path_rules_test() ->
    with_table(fun(T) ->
        P = list_to_binary(tmp_path()),
        [begin
             ?assertEqual(ok, arbo:fprint_nif(T, B)),
             ?assertMatch({ok, <<"NODE: ", _/binary>>}, file:read_file(P)),
             ok = file:delete(P)
         end || B <- [<<P/binary, 0, 0, 0>>, <<P/binary, 0, 0, $x>>]],
        Bad = [P, <<P/binary, 0, $x, 0>>, "path"],
        [?assertEqual({B, badarg}, {B, reason(fun() -> arbo:fprint_nif(T, B) end)}) || B <- Bad],
        ?assertEqual({error, enoent}, file:read_file(P)),
        ?assertEqual(ok, arbo:fprint_nif(T, <<"/nonexistent-dir/x", 0>>))
    end),
    T = arbo:new(),
    ok = arbo:close(T),
    ?assertEqual(arbo_closed, reason(fun() -> arbo:fprint_nif(T, <<"p", 0>>) end)).
