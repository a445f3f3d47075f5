%% @private
%% @doc The arbo application's supervisors. `arbo_sup' (one for one) holds
%% `arbo_keeper_sup', a simple one for one supervisor of tree keepers
%% (`arbo_gate'): one keeper per open tree, started by `arbo_tree:new/1'.
%% Keepers are temporary: a keeper that ends is not restarted (its tree is
%% closed with it, and a new keeper would know nothing of its readers).
%% After it comes `arbo_db_sup', the supervisor of durable stores
%% (`arbo_db'), so that stores stop before the trees they hold.
-module(arbo_sup).
-behaviour(supervisor).

-export([start_link/0, keepers/0]).
-export([init/1]).

-spec start_link() -> {ok, pid()} | {error, term()}.
start_link() ->
    supervisor:start_link({local, arbo_sup}, ?MODULE, top).

%% @doc The keeper processes of the open trees.
-spec keepers() -> [pid()].
keepers() ->
    [Pid || {_, Pid, _, _} <- supervisor:which_children(arbo_keeper_sup), is_pid(Pid)].

-spec init(top | keepers) -> {ok, {supervisor:sup_flags(), [supervisor:child_spec()]}}.
init(top) ->
    Keepers = #{id => arbo_keeper_sup,
                start => {supervisor, start_link, [{local, arbo_keeper_sup}, ?MODULE, keepers]},
                type => supervisor, shutdown => infinity},
    %% Children start in this order and stop in the reverse one: whatever
    %% keeps trees of its own goes after the keepers, so it stops first.
    Stores = #{id => arbo_db_sup, start => {arbo_db_sup, start_link, []},
               type => supervisor, shutdown => infinity},
    Children = [Keepers, Stores],
    {ok, {#{strategy => one_for_one, intensity => 5, period => 10}, Children}};
init(keepers) ->
    %% A keeper closes a big tree when it stops: give it time to free it.
    Keeper = #{id => arbo_gate, start => {arbo_gate, start_link, []},
               restart => temporary, shutdown => 30000, type => worker},
    {ok, {#{strategy => simple_one_for_one, intensity => 0, period => 1}, [Keeper]}}.
