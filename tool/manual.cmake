# The manual page: what is written by hand, and what the command says about its verbs or options if
# it is called with MAN.
execute_process(COMMAND ${TOOL} ${MAN} OUTPUT_VARIABLE VERBS COMMAND_ERROR_IS_FATAL ANY)
configure_file(${TEMPLATE} ${PAGE} @ONLY)
