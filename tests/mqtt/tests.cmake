# The bridge, with a broker that each test starts and ends. Needs Python 3, mosquitto and its clients.
foreach(subject IN ITEMS access convention export import machines options)
  set_property(GLOBAL APPEND PROPERTY TOVIK_TEST_SOURCES mqtt/test_${subject}.py)
  if(NOT TARGET tovik_mqtt OR NOT TOVIK_MOSQUITTO OR NOT TOVIK_MOSQUITTO_SUB)
    tovik_missing_test(mqtt.${subject})
    continue()
  endif()
  add_test(NAME mqtt.${subject}
           COMMAND Python3::Interpreter -B -W error -m unittest test_${subject}
           WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/mqtt)
  set_tests_properties(
    mqtt.${subject}
    PROPERTIES
    TIMEOUT 300
    ENVIRONMENT
    "TOVIK_MQTT=$<TARGET_FILE:tovik_mqtt>;CONFORMANCE_PEER=$<TARGET_FILE:conformance_peer>;\
TOVIK=$<TARGET_FILE:tovik_tool>;TOVIK_TOOL=$<TARGET_FILE:tovik_tool>;TOVIK_SANITIZE=${TOVIK_SANITIZE}")
endforeach()

# The page takes a browser, and npm, which scripts/setup leaves to others.
set_property(GLOBAL APPEND PROPERTY TOVIK_TEST_SOURCES mqtt/test_web.py)
find_program(TOVIK_NPM npm)
find_program(TOVIK_CHROMIUM chromium)
if(TARGET tovik_mqtt AND TARGET hostmon AND TOVIK_MOSQUITTO AND TOVIK_NPM AND TOVIK_CHROMIUM)
  add_test(NAME mqtt.web COMMAND Python3::Interpreter -B -m unittest test_web
           WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/mqtt)
  set_tests_properties(mqtt.web PROPERTIES TIMEOUT 120 ENVIRONMENT
                                           TOVIK_BUILD=${PROJECT_BINARY_DIR})
else()
  message(STATUS "Not run: mqtt.web, which takes npm and chromium")
endif()
