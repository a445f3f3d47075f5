%% @doc The supervisor of durable stores: one `arbo_db' server per open
%% store, started by {@link arbo_db:open/2} and not restarted (a store
%% that stops is opened again by its user, who learns of it from the call
%% that failed).
-module(arbo_db_sup).
-behaviour(supervisor).

-export([start_link/0, init/1]).

-spec start_link() -> {ok, pid()} | ignore | {error, term()}.
start_link() -> supervisor:start_link({local, ?MODULE}, ?MODULE, []).

%% @private
%% The table of directories in use by open stores lives as long as this
%% supervisor.
init([]) ->
    arbo_db_dirs = ets:new(arbo_db_dirs, [named_table, public]),
    {ok, {#{strategy => simple_one_for_one, intensity => 10, period => 10},
          [#{id => arbo_db, start => {arbo_db, start_link, []}, restart => temporary,
             shutdown => 30000, type => worker, modules => [arbo_db]}]}}.
