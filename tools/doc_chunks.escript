#!/usr/bin/env escript
%% Embeds each module's EDoc, as a documentation chunk, in its .beam file,
%% so that h/2 in erl and iex finds it wherever the beams go: a rebar3 or
%% mix dependency's build folder, a release. rebar3's compile hook runs it
%% in arbo's folder; the ebin folder is the argument, else the one the
%% build tool names in its environment. Missing EDoc only warns.
-mode(compile).

main(Args) ->
    Ebin = case Args of
               [Dir] -> Dir;
               [] -> filename:join(out_dir(), "ebin")
           end,
    try embed(Ebin)
    catch C:R:St ->
        io:format(standard_error, "arbo: docs not embedded in ~ts: ~p~n", [Ebin, {C, R, St}])
    end.

out_dir() ->
    case os:getenv("REBAR_BARE_COMPILER_OUTPUT_DIR") of
        Out when is_list(Out), Out =/= "" -> Out;
        _ -> filename:join([os:getenv("REBAR_BUILD_DIR"), "lib", "arbo"])
    end.

embed(Ebin) ->
    Tmp = filename:join(Ebin, ".doc_chunks"),
    Srcs = filelib:wildcard("src/*.erl"),
    ok = edoc:files(Srcs, [{doclet, edoc_doclet_chunks}, {layout, edoc_layout_chunks},
                           {dir, Tmp}, {preprocess, true}, {includes, ["src"]}]),
    Chunks = filelib:wildcard(filename:join([Tmp, "chunks", "*.chunk"])),
    lists:foreach(fun(C) -> add(Ebin, C) end, Chunks),
    _ = [file:delete(C) || C <- Chunks],
    _ = file:del_dir(filename:join(Tmp, "chunks")),
    _ = file:del_dir(Tmp),
    ok.

add(Ebin, Chunk) ->
    Beam = filename:join(Ebin, filename:basename(Chunk, ".chunk") ++ ".beam"),
    {ok, Docs} = file:read_file(Chunk),
    {ok, _, All} = beam_lib:all_chunks(Beam),
    {ok, Bin} = beam_lib:build_module(lists:keystore("Docs", 1, All, {"Docs", Docs})),
    ok = file:write_file(Beam, Bin).
