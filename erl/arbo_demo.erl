%% The demo `make demo` runs.
-module(arbo_demo).
-export([main/0]).

main() ->
    T = arbo:new(),
    io:format("arbo demo~n"),
    io:format("  a fresh table: size ~p, mem ~p bytes, generation ~p~n",
              [arbo:get_size(T), arbo:get_mem(T), arbo:get_generation(T)]),
    [LibMem, {Width, Cap, Free}] = arbo:alloc_info(),
    io:format("  library: ~p bytes held; flags table ~p slots of ~p bytes, ~p free~n",
              [LibMem, Cap, Width, Free]),
    ok = arbo:close(T),
    io:format("  closed: library holds ~p bytes~n", [hd(arbo:alloc_info())]).
