# RapidJSON's headers as Tovik::RapidJSON, unless they cannot be found. RapidJSON_DIR says where its
# RapidJSONConfig.cmake is; versions of it name the folder of the headers by a target or either
# variable.
if(TARGET Tovik::RapidJSON)
  return()
endif()
find_package(RapidJSON CONFIG QUIET)
if(NOT RapidJSON_FOUND)
  return()
endif()
set(folders ${RapidJSON_INCLUDE_DIRS} ${RAPIDJSON_INCLUDE_DIRS})
if(TARGET RapidJSON)
  get_target_property(folders RapidJSON INTERFACE_INCLUDE_DIRECTORIES)
endif()
message(STATUS "RapidJSON is in ${folders}")
add_library(Tovik::RapidJSON INTERFACE IMPORTED GLOBAL)
target_include_directories(Tovik::RapidJSON SYSTEM INTERFACE ${folders})
