%% A reader's gate word: Epoch * 2^24 + Closed * 2^23 + Writer * 2^22 + Count.
%% A node reference's stamp is the word shifted right by ARBO_SHIFT with no
%% writer, not closed: Epoch * 4.
-define(ARBO_SHIFT, 22).
-define(ARBO_WRITER, (1 bsl 22)).
-define(ARBO_CLOSED, (1 bsl 23)).
-define(ARBO_EPOCH, (1 bsl 24)).
-define(ARBO_COUNT, ((1 bsl 22) - 1)).

%% A node reference (opaque to callers: arbo_tree:tree_node()): its tree, the
%% stamp of the epoch it was made in, its address and its parent's (0 for
%% the root).
-record(arbo_node, {table, stamp, addr, parent}).
