# find_package(Tovik) gives the targets Tovik::Tovik, Tovik::Service and Kelvo::Kelvo.
#
# The library's headers include RapidJSON's, so an application needs those to compile.
include(${CMAKE_CURRENT_LIST_DIR}/TovikRapidJSON.cmake)
if(NOT TARGET Tovik::RapidJSON)
  set(Tovik_FOUND FALSE)
  set(Tovik_NOT_FOUND_MESSAGE "Tovik's headers include those of RapidJSON, which was not found. \
Install it (on Debian: rapidjson-dev), or set RapidJSON_DIR to the folder of its \
RapidJSONConfig.cmake.")
  return()
endif()

include(${CMAKE_CURRENT_LIST_DIR}/KelvoTargets.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/TovikTargets.cmake)
