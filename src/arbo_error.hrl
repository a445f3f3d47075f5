%% Included after a module's exports: every error/1 of the module raises
%% through this helper, which adds the shell's explanation of the safe
%% API's exceptions (arbo_error:format_error/2). Inlined, so the function
%% that failed stays the one on top of the stack.
-compile({no_auto_import, [error/1]}).
-compile({inline, [error/1]}).
error(Reason) -> erlang:error(Reason, none, [{error_info, #{module => arbo_error}}]).
