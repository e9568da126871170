# The documents' examples, compiled and run as they stand.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(TOVIK_SANITIZE_FLAG)
if(TOVIK_SANITIZE)
  set(TOVIK_SANITIZE_FLAG -fsanitize=${TOVIK_SANITIZE})
endif()

if(TARGET hostmon AND TARGET tovik_tool)
  find_program(TOVIK_SOCAT socat)
  add_test(NAME docs.WireIsAsWritten
           COMMAND Python3::Interpreter -B -W error ${CMAKE_CURRENT_LIST_DIR}/wire.py
                   --source ${PROJECT_SOURCE_DIR} --hostmon $<TARGET_FILE:hostmon>
                   --tovik $<TARGET_FILE:tovik_tool> --client $<TARGET_FILE:conformance_peer>
                   $<$<BOOL:${TOVIK_SOCAT}>:--socat>)
  set_tests_properties(docs.WireIsAsWritten PROPERTIES TIMEOUT 120)
endif()

find_program(TOVIK_MOSQUITTO mosquitto PATHS /usr/sbin)
find_program(TOVIK_MOSQUITTO_SUB mosquitto_sub)
# The guides: what a reader would type, and the recipes' C++ in a program of tests.
set(snippets ${CMAKE_CURRENT_LIST_DIR}/snippets.py)
if(TARGET tovik_tool)
  set(guides README docs/tutorial docs/service docs/recipes docs/why python/README)
  if(TARGET tovik_mqtt AND TOVIK_MOSQUITTO AND TOVIK_MOSQUITTO_SUB)
    list(APPEND guides docs/beyond)
  else()
    tovik_missing_test(docs.GuideWorks_docs_beyond)
  endif()
  foreach(guide IN LISTS guides)
    string(REPLACE "/" "_" name ${guide})
    add_test(NAME docs.GuideWorks_${name}
             COMMAND Python3::Interpreter -B -W error ${snippets}
                     run ${PROJECT_SOURCE_DIR}/${guide}.md --build ${PROJECT_BINARY_DIR}
                     --compiler ${CMAKE_CXX_COMPILER} "--flags=${TOVIK_SANITIZE_FLAG}")
    set_tests_properties(docs.GuideWorks_${name} PROPERTIES TIMEOUT 180)
  endforeach()
  add_test(NAME docs.DiagnosticsAreTheSources
           COMMAND Python3::Interpreter -B -W error ${CMAKE_CURRENT_LIST_DIR}/diagnostics.py
                   ${PROJECT_SOURCE_DIR}/docs/diagnostics.md --build ${PROJECT_BINARY_DIR}
                   --compiler ${CMAKE_CXX_COMPILER} "--flags=${TOVIK_SANITIZE_FLAG}")
  set_tests_properties(docs.DiagnosticsAreTheSources PROPERTIES TIMEOUT 180)
  add_test(NAME docs.BrokenGuidesFail
           COMMAND Python3::Interpreter -B -W error ${CMAKE_CURRENT_LIST_DIR}/broken.py)
  set_tests_properties(docs.BrokenGuidesFail PROPERTIES TIMEOUT 180)
else()
  tovik_missing_test(docs.GuideWorks)
  tovik_missing_test(docs.DiagnosticsAreTheSources)
endif()

set(recipes ${CMAKE_CURRENT_BINARY_DIR}/docs/recipes.h)
add_custom_command(
  OUTPUT ${recipes}
  COMMAND Python3::Interpreter -B ${snippets} extract ${PROJECT_SOURCE_DIR}/docs/recipes.md ${recipes}
  DEPENDS ${snippets} ${PROJECT_SOURCE_DIR}/docs/recipes.md
  VERBATIM)
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/docs)
tovik_test(recipes_test docs/RecipesTest.cpp ${recipes})
target_include_directories(recipes_test PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/docs)
