%% The benchmark harness behind `make bench`: runs arbo and its peers side
%% by side, in one VM and one run, and prints one table with the ratio
%% arbo/peer of every row and whether the row's target holds.
%%
%% Row groups live in their own modules. Each group module that is loadable
%% exports rows/0, returning a list of maps:
%%   #{row => Text, arbo => Number, peer => Number, unit => Text,
%%     peer_name => Text, target => Text}
%% A target is written "<side> <op> <number>" with side one of arbo/peer,
%% peer/arbo, arbo or peer and op one of <=, <, >=, >, e.g. "arbo/peer <= 0.8"
%% or "arbo <= 64"; "-" (or no target) means none. A group that crashes is
%% reported, the others still run and their rows are printed, and then the
%% run fails (exit status 1).
%%
%% ARBO_BENCH_QUICK=1 asks every group for a short smoke run.
-module(arbo_bench).

-export([main/0, groups/0, quick/0, median/1, ns_per_op/3, turns/2, holds/3]).

groups() -> [arbo_bench_store, arbo_bench_walk, arbo_bench_io, arbo_bench_api, arbo_bench_db, arbo_bench_repl,
            arbo_bench_sched].

quick() -> os:getenv("ARBO_BENCH_QUICK") =:= "1".

main() ->
    io:format("arbo benchmarks (~s run, OTP ~s, ~p schedulers)~n~n",
              [case quick() of true -> "quick"; false -> "full" end,
               erlang:system_info(otp_release), erlang:system_info(schedulers_online)]),
    Results = [{M, run_group(M)} || M <- groups(), loadable(M)],
    print(lists:append([Rows || {_, Rows} <- Results, is_list(Rows)])),
    %% the other groups' rows are printed; a failed group fails the run
    case [M || {M, failed} <- Results] of
        [] -> ok;
        Failed -> io:format("~nfailed groups: ~p~n", [Failed]), halt(1)
    end.

loadable(M) ->
    case code:ensure_loaded(M) of
        {module, M} -> erlang:function_exported(M, rows, 0);
        _ -> io:format("(group ~p not available)~n", [M]), false
    end.

run_group(M) ->
    T0 = erlang:monotonic_time(millisecond),
    try M:rows() of
        Rows ->
            io:format("group ~p: ~p rows in ~.1f s~n",
                      [M, length(Rows), (erlang:monotonic_time(millisecond) - T0) / 1000]),
            Rows
    catch C:E:St ->
        io:format("group ~p failed: ~p:~p~n  ~p~n", [M, C, E, St]),
        failed
    end.

%% ---- measuring helpers for the groups ------------------------------------------

median([]) -> 0;
median(L) ->
    S = lists:sort(L),
    N = length(S),
    case N rem 2 of
        1 -> lists:nth(N div 2 + 1, S);
        0 -> (lists:nth(N div 2, S) + lists:nth(N div 2 + 1, S)) / 2
    end.

%% Runs every fun of Funs once per repetition, Runs repetitions, the order
%% turned round each time (A B C, then C B A, ...): a machine that speeds up
%% or slows down during the run then weighs on every side alike. Answers,
%% per fun, the list of its results.
turns(Runs, Funs) ->
    Rounds = [case R rem 2 of
                  1 -> [{I, settled(F)} || {I, F} <- lists:enumerate(Funs)];
                  0 -> [{I, settled(F)} || {I, F} <- lists:reverse(lists:enumerate(Funs))]
              end || R <- lists:seq(1, Runs)],
    [[V || Round <- Rounds, {J, V} <- Round, J =:= I] || I <- lists:seq(1, length(Funs))].

%% Runs Fun/0 once the schedulers have been idle for a 20 ms window (waiting
%% at most about 2 s). Memory that a run freed (a closed tree's million
%% binaries, a deleted table) is handed back to its allocators by the
%% schedulers after the freeing call returned, for up to a few hundred ms on
%% this machine: that work belongs to the run that caused it, not to
%% whichever side happens to be measured next.
settled(Fun) ->
    Was = erlang:system_flag(scheduler_wall_time, true),
    idle(100),
    erlang:system_flag(scheduler_wall_time, Was),
    Fun().

idle(0) -> ok;
idle(Tries) ->
    S0 = lists:sort(erlang:statistics(scheduler_wall_time_all)),
    timer:sleep(20),
    S1 = lists:sort(erlang:statistics(scheduler_wall_time_all)),
    Busy = lists:max([0.0 | [(A1 - A0) / (T1 - T0) || {{I, A0, T0}, {I, A1, T1}} <- lists:zip(S0, S1), T1 > T0]]),
    case Busy < 0.05 of
        true -> ok;
        false -> idle(Tries - 1)
    end.

%% Runs Fun/0 once and returns its nanoseconds per operation for Ops
%% operations; Fun's result must match Want (a check, not a measurement).
ns_per_op(Ops, Want, Fun) ->
    T0 = erlang:monotonic_time(nanosecond),
    Want = Fun(),
    (erlang:monotonic_time(nanosecond) - T0) / Ops.

%% ---- the table -----------------------------------------------------------------

print([]) -> io:format("~nno rows~n");
print(Rows) ->
    Head = ["row", "arbo", "peer", "unit", "peer", "arbo/peer", "target", "holds"],
    Lines = [line(R) || R <- Rows],
    Widths = [lists:max([string:length(C) || C <- Col]) || Col <- columns([Head | Lines])],
    Sep = lists:duplicate(lists:sum(Widths) + 2 * (length(Widths) - 1), $-),
    io:format("~n~ts~n~ts~n", [fmt_line(Head, Widths), Sep]),
    [io:format("~ts~n", [fmt_line(L, Widths)]) || L <- Lines],
    Missed = [R || R <- Rows, holds_row(R) =:= false],
    io:format("~n~p rows, ~p with a target, ~p missed~n",
              [length(Rows), length([R || R <- Rows, holds_row(R) =/= none]), length(Missed)]).

line(R = #{row := Name, arbo := A, peer := P}) ->
    [text(Name), num(A), num(P), text(maps:get(unit, R, "")), text(maps:get(peer_name, R, "")),
     ratio(A, P), text(maps:get(target, R, "-")),
     case holds_row(R) of true -> "yes"; false -> "NO"; none -> "" end].

columns([[] | _]) -> [];
columns(Rows) -> [[hd(R) || R <- Rows] | columns([tl(R) || R <- Rows])].

fmt_line(Cells, Widths) ->
    string:trim(lists:join("  ", [pad(C, W, I) || {C, W, I} <- zip3(Cells, Widths)]), trailing).

zip3(Cells, Widths) -> lists:zip3(Cells, Widths, lists:seq(1, length(Cells))).

%% The row name and the text columns left-aligned, numbers right-aligned.
pad(C, W, I) when I =:= 1; I =:= 4; I =:= 5; I =:= 7 -> string:pad(C, W, trailing);
pad(C, W, _) -> string:pad(C, W, leading).

text(T) when is_list(T) -> T;
text(T) when is_binary(T) -> binary_to_list(T);
text(T) -> io_lib:format("~p", [T]).

num(N) when is_integer(N) -> integer_to_list(N);
num(N) when is_float(N), abs(N) >= 100 -> float_to_list(N, [{decimals, 0}]);
num(N) when is_float(N), abs(N) >= 10 -> float_to_list(N, [{decimals, 1}]);
num(N) when is_float(N) -> float_to_list(N, [{decimals, 2}]);
num(N) -> text(N).

ratio(A, P) when is_number(A), is_number(P), P /= 0 -> float_to_list(A / P, [{decimals, 2}]);
ratio(_, _) -> "-".

holds_row(R = #{arbo := A, peer := P}) -> holds(maps:get(target, R, "-"), A, P).

%% true / false when the target can be read, none otherwise.
holds(Target, A, P) ->
    case string:lexemes(text(Target), " ") of
        [Side, Op, Num] ->
            case {side(Side, A, P), number(Num)} of
                {X, Y} when is_number(X), is_number(Y) -> compare(Op, X, Y);
                _ -> none
            end;
        _ -> none
    end.

side("arbo/peer", A, P) when is_number(A), is_number(P), P /= 0 -> A / P;
side("peer/arbo", A, P) when is_number(A), is_number(P), A /= 0 -> P / A;
side("arbo", A, _) -> A;
side("peer", _, P) -> P;
side(_, _, _) -> none.

number(S) ->
    case string:to_float(S) of
        {F, ""} -> F;
        _ -> case string:to_integer(S) of {I, ""} -> I; _ -> none end
    end.

compare("<=", X, Y) -> X =< Y;
compare("<", X, Y) -> X < Y;
compare(">=", X, Y) -> X >= Y;
compare(">", X, Y) -> X > Y;
compare(_, _, _) -> none.
