# A command's manual page: what is written by hand, and what its help says.
execute_process(COMMAND ${HELP_OF} OUTPUT_VARIABLE HELP COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "\n'tovik help[^\n]*\n" "" HELP "${HELP}")
string(REPLACE "\\" "\\e" HELP "${HELP}")
string(REPLACE "-" "\\-" HELP "${HELP}")
string(REPLACE "'" "\\(aq" HELP "${HELP}")
string(REGEX REPLACE "Usage: tovik ([a-z]+)([^\n]*)\n" ".fi\n.SS \"\\1\\2\"\n.nf" HELP "${HELP}")
configure_file(${TEMPLATE} ${PAGE} @ONLY)
