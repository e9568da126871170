# find_package(Tovik) gives the targets Tovik::Tovik, Tovik::Service and Kelvo::Kelvo.
#
# The library's headers include RapidJSON's, so an application needs those to compile.
if(NOT TARGET Tovik::RapidJSON)
  find_package(RapidJSON CONFIG QUIET)
  if(NOT RapidJSON_FOUND)
    set(Tovik_FOUND FALSE)
    set(Tovik_NOT_FOUND_MESSAGE "Tovik's headers include those of RapidJSON, which was not found. \
Install it (on Debian: rapidjson-dev), or set RapidJSON_DIR to the folder of its \
RapidJSONConfig.cmake.")
    return()
  endif()
  add_library(Tovik::RapidJSON INTERFACE IMPORTED)
  # The latter is what later versions of its package say.
  target_include_directories(Tovik::RapidJSON SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIRS}
                                                               ${RapidJSON_INCLUDE_DIRS})
endif()

include(${CMAKE_CURRENT_LIST_DIR}/KelvoTargets.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/TovikTargets.cmake)
