# The command, run as its users run it. Needs Python 3, bash, groff, iproute2 and strace.
find_package(Python3 COMPONENTS Interpreter REQUIRED)

function(tovik_tool_test name)
  add_test(NAME tool.${name} COMMAND ${Python3_EXECUTABLE} -B ${ARGN}
           WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/tool)
  set_tests_properties(tool.${name} PROPERTIES TIMEOUT 60 ENVIRONMENT
                                               TOVIK_TOOL_DIR=$<TARGET_FILE_DIR:tovik_tool>)
endfunction()

# Transcripts: what is typed and what is answered.
file(GLOB transcripts RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}/tool CONFIGURE_DEPENDS tool/*.transcript)
foreach(transcript IN LISTS transcripts)
  string(REPLACE .transcript "" name ${transcript})
  tovik_tool_test(${name} transcript.py ${transcript})
endforeach()

# Peers that are not the command itself.
tovik_test_classes(cases tool/live.py)
list(REMOVE_ITEM cases Zsh Fish)
list(APPEND cases InteractiveBash) # which is the case Zsh with another shell
foreach(case IN LISTS cases)
  tovik_tool_test(${case} -W error live.py ${case})
endforeach()

foreach(shell IN ITEMS Zsh Fish)
  string(TOLOWER ${shell} program)
  find_program(TOVIK_${program} ${program})
  if(TOVIK_${program})
    tovik_tool_test(${shell} -W error live.py ${shell})
  else()
    tovik_missing_test(tool.${shell})
  endif()
endforeach()
