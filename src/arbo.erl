%% @doc The raw native functions of arbo, one stub per native function in
%% the order the library registers them, and {@link new/0}, which wraps a
%% new table into the handle every other function takes.
%%
%% These functions keep the library's exact contracts, including the traps
%% it keeps on purpose (a corrupt encoded key or filter operator 6 aborts or
%% stalls the VM, pushing node 0 or popping an empty iterator stack aborts).
%% Node references are raw addresses. Application code should use the safe
%% API modules instead.
-module(arbo).

-export([new/0, new/1, nif_path/0]).
-export([
    %% handle and allocation
    new_arbo/0, close/1, get_root/1, get_generation/1, get_size/1, get_mem/1, alloc_info/0,
    %% tree editing
    add_hkey_dyn/4, add_hkey_internal/3, add_hkey/4, del_hkey/4, get_hkey0/2, del_ns/3, rename_ns/4, rename_instance0/5, del_all/1,
    %% navigation
    num_children/2, num_children_with_flag/3, has_descendant_with_flags/4, has_child_with_flags/3, has_child_without_flags/3, first_child_nif/4, next_sibling_nif/4, next_sibling_nif/5, last_child/2, prev_sibling/3, get_child/3, find_child/4, find_next_nif/6, move_to/4, move_rel_internal/5, child_index/3,
    %% node properties
    get_flags/2, set_flags/3, set_flag/3, clr_flag/3, get_type/2, get_attr_root/2, do_get_attr/3, do_set_attr/4, get_val_raw/2, set_val/4, fprint_nif/2, cmp_keys_nif/5,
    %% iterator stacks
    push_iter_node/2, pop_iter_node/1, get_iter_node/1,
    %% persistence
    load_nif/5, save_nif/3
]).

-on_load(init/0).

-define(NIF_STUB, erlang:nif_error({nif_not_loaded, ?MODULE, ?LINE})).

-type handle() :: {arbo, reference(), non_neg_integer(), term()}.
-export_type([handle/0]).

%% @doc Create a table and wrap it into a handle with view options 0.
-spec new() -> handle().
new() -> new(0).

%% @doc Create a table with the given view options (bit 16#100 hides
%% inactive nodes from counting and stepping).
-spec new(non_neg_integer()) -> handle().
new(ViewOptions) -> {arbo, new_arbo(), ViewOptions, undefined}.

%% @doc The shared library this module loads (without the ".so"), from the
%% first of: the folder in the OS variable `ARBO_NIF_DIR'; the folder in
%% the application variable `nif_dir' of `arbo' (set it with
%% `application:set_env(arbo, nif_dir, Dir)' before arbo is first used);
%% the application's `priv' folder (`code:priv_dir(arbo)'); `priv' beside
%% the folder this module was loaded from. An escript, whose modules live
%% in an archive the library cannot be loaded from, names a folder holding
%% `arbo_nif.so' with one of the first two.
-spec nif_path() -> string().
nif_path() ->
    filename:join(nif_dir(), "arbo_nif").

nif_dir() ->
    case {os:getenv("ARBO_NIF_DIR"), application:get_env(arbo, nif_dir)} of
        {Dir, _} when Dir =/= false, Dir =/= "" -> Dir;
        {_, {ok, Dir}} -> Dir;
        _ ->
            case code:priv_dir(arbo) of
                Dir when is_list(Dir) -> Dir;
                {error, _} ->
                    Ebin = filename:dirname(code:which(?MODULE)),
                    filename:join(filename:dirname(Ebin), "priv")
            end
    end.

init() ->
    erlang:load_nif(nif_path(), 0).

%% ---- handle and allocation ---------------------------------------
new_arbo() -> ?NIF_STUB.
close(_T) -> ?NIF_STUB.
get_root(_T) -> ?NIF_STUB.
get_generation(_T) -> ?NIF_STUB.
get_size(_T) -> ?NIF_STUB.
get_mem(_T) -> ?NIF_STUB.
alloc_info() -> ?NIF_STUB.

%% ---- tree editing ------------------------------------------------
add_hkey_dyn(_T, _Parent, _Htag, _Mode) -> ?NIF_STUB.
add_hkey_internal(_T, _Parent, _Tag) -> ?NIF_STUB.
add_hkey(_T, _Parent, _Key, _Code) -> ?NIF_STUB.
del_hkey(_T, _Parent, _Key, _Code) -> ?NIF_STUB.
get_hkey0(_T, _Node) -> ?NIF_STUB.
del_ns(_T, _Parent, _Ns) -> ?NIF_STUB.
rename_ns(_T, _Parent, _Child, _NewNs) -> ?NIF_STUB.
rename_instance0(_T, _List, _Instance, _NewKey, _Code) -> ?NIF_STUB.
del_all(_T) -> ?NIF_STUB.

%% ---- navigation --------------------------------------------------
num_children(_T, _Node) -> ?NIF_STUB.
num_children_with_flag(_T, _Node, _Mask) -> ?NIF_STUB.
has_descendant_with_flags(_T, _Node, _Mask, _IncludeSelf) -> ?NIF_STUB.
has_child_with_flags(_T, _Node, _Mask) -> ?NIF_STUB.
has_child_without_flags(_T, _Node, _Mask) -> ?NIF_STUB.
first_child_nif(_T, _Node, _Filter, _MatchFlag) -> ?NIF_STUB.
next_sibling_nif(_T, _Node, _Filter, _MatchFlag) -> ?NIF_STUB.
next_sibling_nif(_T, _Node, _Filter, _MatchFlag, _Stack) -> ?NIF_STUB.
last_child(_T, _Node) -> ?NIF_STUB.
prev_sibling(_T, _Parent, _Node) -> ?NIF_STUB.
get_child(_T, _Node, _N) -> ?NIF_STUB.
find_child(_T, _Node, _Key, _Code) -> ?NIF_STUB.
find_next_nif(_T, _List, _Key, _Code, _Mode, _Filter) -> ?NIF_STUB.
move_to(_T, _List, _Instance, _Pos) -> ?NIF_STUB.
move_rel_internal(_T, _List, _Instance, _Where, _Other) -> ?NIF_STUB.
child_index(_T, _Parent, _Child) -> ?NIF_STUB.

%% ---- node properties ---------------------------------------------
get_flags(_T, _Node) -> ?NIF_STUB.
set_flags(_T, _Node, _Mask) -> ?NIF_STUB.
set_flag(_T, _Node, _Mask) -> ?NIF_STUB.
clr_flag(_T, _Node, _Mask) -> ?NIF_STUB.
get_type(_T, _Node) -> ?NIF_STUB.
get_attr_root(_T, _Node) -> ?NIF_STUB.
do_get_attr(_T, _Node, _Attr) -> ?NIF_STUB.
do_set_attr(_T, _Node, _Attr, _Bin) -> ?NIF_STUB.
get_val_raw(_T, _Node) -> ?NIF_STUB.
set_val(_T, _Node, _ValType, _Bin) -> ?NIF_STUB.
fprint_nif(_T, _Path) -> ?NIF_STUB.
cmp_keys_nif(_Key1, _Kind1, _Key2, _Kind2, _Mode) -> ?NIF_STUB.

%% ---- iterator stacks ---------------------------------------------
push_iter_node(_T, _Node) -> ?NIF_STUB.
pop_iter_node(_T) -> ?NIF_STUB.
get_iter_node(_T) -> ?NIF_STUB.

%% ---- persistence -------------------------------------------------
load_nif(_T, _Path, _Checkpoint, _Capture, _Pid) -> ?NIF_STUB.
save_nif(_T, _Path, _SkipMask) -> ?NIF_STUB.
