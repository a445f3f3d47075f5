%% @private
%% @doc Filters of `arbo_tree': the symbolic forms turned into the library's
%% numeric ones, and the numeric ones checked, so that nothing reaches the
%% library that it evaluates unsafely (operator 6 loops for ever, an unknown
%% comparison operator aborts).
-module(arbo_tree_filter).
-export([compile/1]).

-define(U32(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffff)).
-define(U64(X), (is_integer(X) andalso X >= 0 andalso X =< 16#ffffffffffffffff)).

%% The library's tag form [Ns | Tag] is an improper list on purpose.
-dialyzer({no_improper_lists, [cpath/1]}).

-include("arbo_error.hrl").

%% @doc The numeric form of a filter other than `all'; raises
%% `error({bad_filter, Part})'.
-spec compile(tuple() | term()) -> tuple().
compile(F) -> cf(F, 0).

-define(MAX_DEPTH, 64).
cf(F, D) when D > ?MAX_DEPTH -> error({bad_filter, {too_deep, F}});
cf({'and', A, B}, D) -> {1, cf(A, D + 1), cf(B, D + 1)};
cf({'or', A, B}, D) -> {0, cf(A, D + 1), cf(B, D + 1)};
cf({'not', A}, D) -> {2, cf(A, D + 1)};
cf({exists, Path}, _) -> {4, cpath(Path)};
cf({value, Op, Path, Pat}, _) -> {3, text_op(Op), cpath(Path), pattern(Pat)};
cf({key, Op, I, Pat}, _) when ?U32(I) -> {101, text_op(Op), I, pattern(Pat)};
cf({has_value, Path}, _) -> {3, 1002, cpath(Path), <<>>};
cf({flags_all, Path, M}, _) when ?U64(M) -> {3, 1000, cpath(Path), M};
cf({flags_none, Path, M}, _) when ?U64(M) -> {3, 1001, cpath(Path), M};
cf({flags_masked, Path, M, V}, _) when ?U64(M), ?U64(V) -> {7, 1003, cpath(Path), V, M};
%% The library's numeric forms.
cf({Op, A, B}, D) when Op =:= 0; Op =:= 1 -> {Op, cf(A, D + 1), cf(B, D + 1)};
cf({2, A}, D) -> {2, cf(A, D + 1)};
cf({4, Path}, _) -> {4, npath(Path)};
cf({Op, C, Path, V}, _) when Op =:= 3; Op =:= 5 -> {Op, ncmp(C, V), npath(Path), V};
cf({7, C, Path, V, M}, _) when ?U64(M) -> {7, ncmp(C, V), npath(Path), V, M};
cf({Op, C, I, V}, _) when (Op =:= 101 orelse Op =:= 102), ?U32(I) -> {Op, ncmp(C, V), I, V};
cf(F, _) -> error({bad_filter, F}).

text_op(eq) -> 1;
text_op(ne) -> 2;
text_op(gt) -> 3;
text_op(ge) -> 4;
text_op(lt) -> 5;
text_op(le) -> 6;
text_op(Op) -> error({bad_filter, {operator, Op}}).

pattern(B) when is_binary(B) -> B;
pattern(I) when is_integer(I) -> integer_to_binary(I);
pattern(P) -> error({bad_filter, {pattern, P}}).

cpath(Path) when is_list(Path) ->
    [case E of
         {Ns, Tag} when ?U32(Ns), ?U32(Tag) -> [Ns | Tag];
         Tag when ?U32(Tag) -> Tag;
         _ -> error({bad_filter, {path, Path}})
     end || E <- Path];
cpath(Path) -> error({bad_filter, {path, Path}}).

npath(Path) when is_list(Path) ->
    lists:foreach(fun([Ns | Tag]) when ?U32(Ns), ?U32(Tag) -> ok;
                     (Tag) when ?U32(Tag) -> ok;
                     (_) -> error({bad_filter, {path, Path}})
                  end, Path),
    Path;
npath(Path) -> error({bad_filter, {path, Path}}).

%% Comparison operators the library knows; any other one aborts it.
ncmp(C, _) when C >= 1, C =< 6, is_integer(C) -> C;
ncmp(C, _) when C >= 1000, C =< 1003, is_integer(C) -> C;
ncmp(C, _) -> error({bad_filter, {operator, C}}).
