# The bridge, with a broker that each test starts and ends. Needs Python 3, mosquitto and its clients.
foreach(subject IN ITEMS access conformance export import machines options)
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
    PROPERTIES TIMEOUT 300 ENVIRONMENT
               "TOVIK_MQTT=$<TARGET_FILE:tovik_mqtt>;TOVIK_TOOL=$<TARGET_FILE:tovik_tool>")
endforeach()
