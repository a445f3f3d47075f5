%% The reliability figures of the README: runs the concurrency, bad-input
%% and hostile-file scenarios at full scale and prints what each reports.
%% `make reliability' runs it against the release build; the same scenarios
%% run at a bounded scale in `make test'.
-module(arbo_reliability).
-export([main/0]).

main() ->
    Suites = [{"Concurrency", arbo_stress_tests},
              {"Bad input", arbo_fuzz_tests},
              {"Hostile files and persistence faults", arbo_hostile_tests},
              {"Durable stores: SIGKILL while committing, a full disk", arbo_db_faults_tests},
              {"Replication across nodes", arbo_repl_tests},
              {"Tree depth", arbo_sched_tests}],
    Results = [run(Title, Mod) || {Title, Mod} <- Suites],
    case lists:all(fun(R) -> R end, Results) of
        true -> ok;
        false -> halt(1)
    end.

run(Title, Mod) ->
    io:format("~n~s (~s)~n", [Title, Mod]),
    T0 = erlang:monotonic_time(millisecond),
    try Mod:figures(full) of
        Figures ->
            [io:format("  ~-58s ~s~n", [Label, Value]) || {Label, Value} <- Figures],
            io:format("  ~-58s ~.1f s~n",
                      ["wall time", (erlang:monotonic_time(millisecond) - T0) / 1000]),
            true
    catch Class:Reason:Stack ->
            io:format("  FAILED: ~p:~p~n  ~p~n", [Class, Reason, Stack]),
            false
    end.
