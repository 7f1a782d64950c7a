# The backtrace test looks for its own function names, which the dynamic
# symbol table holds only when the executable exports them.
set_target_properties(velk_logger_test PROPERTIES ENABLE_EXPORTS ON)
