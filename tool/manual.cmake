# The manual page: what is written by hand, and what the command says about its verbs.
execute_process(COMMAND ${TOOL} help --man OUTPUT_VARIABLE VERBS COMMAND_ERROR_IS_FATAL ANY)
configure_file(${TEMPLATE} ${PAGE} @ONLY)
