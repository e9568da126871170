# The bridge, with a broker that each test starts and ends. Needs Python 3, mosquitto and its clients.
find_program(TOVIK_MOSQUITTO mosquitto PATHS /usr/sbin)
find_program(TOVIK_MOSQUITTO_SUB mosquitto_sub)
function(tovik_mqtt_test name tests)
  string(REGEX REPLACE "\\..*" "" module ${tests})
  set_property(GLOBAL APPEND PROPERTY TOVIK_TEST_SOURCES mqtt/${module}.py)
  if(NOT TARGET tovik_mqtt OR NOT TOVIK_MOSQUITTO OR NOT TOVIK_MOSQUITTO_SUB)
    tovik_missing_test(mqtt.${name})
    return()
  endif()
  add_test(NAME mqtt.${name} COMMAND Python3::Interpreter -B -W error -m unittest ${tests}
           WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/mqtt)
  set_tests_properties(mqtt.${name} PROPERTIES TIMEOUT 180 ENVIRONMENT
                       "TOVIK_MQTT=$<TARGET_FILE:tovik_mqtt>;TOVIK_TOOL=$<TARGET_FILE:tovik_tool>")
endfunction()

foreach(module IN ITEMS access export import machines options)
  tovik_test_classes(classes mqtt/test_${module}.py)
  foreach(class IN LISTS classes)
    tovik_mqtt_test(${module}.${class} test_${module}.${class})
  endforeach()
endforeach()
