%% @doc Explanations of the safe API's exceptions for the shell.
%%
%% Every exception that `arbo_tree', `arbo_file', `arbo_key' and `arbo_val'
%% raise carries `error_info' naming this module, so the shell (and
%% `erl_error:format_exception/3') prints, under the failing call, a line
%% that says what went wrong and what to do:
%% ```
%% 1> arbo_tree:add_container(T, R, -1).
%% ** exception error: bad argument: {tag,-1}
%%      in function  arbo_tree:add_container/3 (...)
%%         *** a tag is an integer 0..4294967295
%% '''
%% The exception's reason stays the term the API documents; only the text
%% is added.
-module(arbo_error).

-export([format_error/2]).

%% @doc The explanation of an exception raised by the safe API: a map with
%% the key `general' (shown by the shell below the failing call), or an
%% empty map for a reason this module does not know.
-spec format_error(term(), erlang:stacktrace()) -> #{general => unicode:chardata()}.
format_error(Reason, _Stack) ->
    case explain(Reason) of
        none -> #{};
        Text -> #{general => Text}
    end.

explain({badarg, What}) -> badarg(What);
explain({arbo_closed, _}) ->
    "the tree is closed: close/1 was called, the process that created it exited, or the "
    "arbo application stopped";
explain({arbo_not_started, Why}) ->
    fmt("the arbo application could not be started (~tp): is arbo's ebin folder in the "
        "code path with its arbo.app?", [Why]);
explain({keeper_not_started, Why}) ->
    fmt("the tree's keeper process could not be started: ~tP", [Why, 12]);
explain({stale_node, _}) ->
    "the node reference was made before a change that can free nodes (a deletion, clear/1, "
    "load, an instance's rename, close/1): find the node again";
explain({read_only, _}) -> "the handle is read-only (arbo_tree:read_only/1): it cannot change the tree";
explain({key_form, _}) ->
    "a user-ordered list holds one key form (integers, pairs of one namespace, tuples or "
    "opaque binaries), and a rename keeps an instance's form";
explain({key_clash, _}) ->
    "the list's order takes this key for another instance's key: it cannot hold both";
explain({wrong_table, _}) -> "the node reference belongs to another tree";
explain({wrong_node_type, _}) -> "the operation does not apply to this kind of node";
explain({not_user_ordered, _}) -> "only instances of a user-ordered list can be moved";
explain({root, _}) -> "the root cannot be deleted, renamed or moved";
explain({not_a_child, _}) -> "the node is not an instance of that list";
explain({name_taken, _}) -> "a node of another kind already holds this name";
explain({in_reading, _}) ->
    "this cannot run inside a reading/2 pass of the calling process (a change that frees "
    "nodes would wait for the pass itself)";
explain({reading_over, _}) ->
    "a reader handle is good only inside its reading/2 pass, in the process that runs it";
explain({bad_filter, Part}) -> fmt("not a filter (see arbo_tree:filter()): ~tP", [Part, 12]);
explain({bad_key, _}) -> "not a key arbo_key can encode (see arbo_key:key())";
explain({bad_key_element, E}) -> fmt("not a key element arbo_key can encode: ~tP", [E, 12]);
explain({bad_value, _}) -> "not a value arbo_val can encode (see arbo_val:value())";
explain({bad_mode, _}) -> "the key order is one of 0..3 (sorted, length first, ...)";
explain(_) -> none.

badarg({option, O}) -> fmt("unknown option ~tP", [O, 12]);
badarg({options, _}) -> "options are a list";
badarg({tag, _}) -> "a tag is an integer 0..4294967295";
badarg({namespace, _}) -> "a namespace is an integer 0..4294967295";
badarg({name, _}) -> "a name is a tag 0..4294967295 or {Namespace, Tag}";
badarg({key, _}) -> "not an instance key: {int, N}, {pair, Ns, N} (Ns 1..255 but 12), "
                    "{tuple, Elements}, {encoded, Bytes} or {opaque, Binary}";
badarg({key, _, Why}) -> fmt("the encoded key does not check: ~tP", [Why, 12]);
badarg({order, _}) -> "an order is sorted, sorted_length_first, sorted_length_first_but_last "
                      "or user_order";
badarg({tree, _}) -> "not a tree handle (made by arbo_tree:new/1 or attach/1)";
badarg({node, _}) -> "not a node reference (made by the functions of arbo_tree)";
badarg({position, _}) -> "not a position the call takes";
badarg({flags, _}) -> "flags are an integer 0..2^64-1";
badarg({attribute, _}) -> "an attribute is an integer 1..4294967295";
badarg({value, _}) -> "not a value: a binary or a value arbo_val encodes";
badarg({skip_flags, _}) -> "skip_flags is an integer 0..2^64-1";
badarg({checkpoint, _}) -> "a checkpoint is a signed 64-bit integer";
badarg({capture, _}) -> "capture is true or false";
badarg({progress, _}) -> "progress is a pid or a fun of one argument";
badarg(_) -> none.

fmt(Format, Args) -> lists:flatten(io_lib:format(Format, Args)).
