%% @doc The arbo application: the supervisor of the tree keepers, and
%% {@link info/0}, the list of a VM's open trees.
%%
%% `arbo_tree:new/1' starts the application when it is not running, so
%% nothing needs to be started by hand; in a release or a project that
%% lists `arbo' among its applications it is started at boot. Stopping the
%% application closes every open tree.
-module(arbo_app).
-behaviour(application).

-export([start/2, stop/1, info/0]).

%% @private
-spec start(application:start_type(), term()) -> {ok, pid()} | {error, term()}.
start(_Type, _Args) ->
    arbo_sup:start_link().

%% @private
-spec stop(term()) -> ok.
stop(_State) ->
    ok.

%% @doc The open trees of this VM, one map each: the process that owns the
%% tree (its exit closes it), the tree's node count (the root not counted)
%% and the bytes its nodes hold, the number of other processes that have
%% read it, and the keeper process that guards it (the one to look at in
%% `observer'). Trees whose keeper ends while the list is made are left
%% out; `[]' when the application is not running.
-spec info() -> [#{owner := pid(), size := non_neg_integer(), mem := non_neg_integer(),
                   readers := non_neg_integer(), keeper := pid()}].
info() ->
    Keepers = try arbo_sup:keepers() catch exit:_ -> [] end,
    lists:append([tree_info(K) || K <- Keepers]).

tree_info(Keeper) ->
    try arbo_gate:info(Keeper) of
        {Handle, Owner, Readers} ->
            %% The two counters are read under the tree's own lock; a tree
            %% closed in between raises, and is left out.
            [#{owner => Owner, size => arbo:get_size(Handle), mem => arbo:get_mem(Handle),
               readers => Readers - 1, keeper => Keeper}]
    catch _:_ -> []
    end.
