# Each peer as a program of its own, if it is installed.
pkg_check_modules(SYSTEMD IMPORTED_TARGET libsystemd)
if(SYSTEMD_FOUND)
  bench_program(sdbus peers/SdBus.cpp)
  target_link_libraries(bench_sdbus PRIVATE PkgConfig::SYSTEMD)
endif()

pkg_check_modules(ZMQ IMPORTED_TARGET libzmq)
find_path(CPPZMQ_INCLUDE zmq.hpp)
if(ZMQ_FOUND AND CPPZMQ_INCLUDE)
  bench_program(zmq peers/Zmq.cpp)
  target_link_libraries(bench_zmq PRIVATE PkgConfig::ZMQ)
endif()

find_package(nng CONFIG QUIET)
if(nng_FOUND)
  bench_program(nng peers/Nng.cpp)
  target_link_libraries(bench_nng PRIVATE nng::nng)
endif()

# Generated code is not held to this project's warnings.
set(GENERATED ${CMAKE_CURRENT_BINARY_DIR}/generated)
file(MAKE_DIRECTORY ${GENERATED})

pkg_check_modules(CAPNP IMPORTED_TARGET capnp-rpc)
find_program(CAPNP_COMPILER capnp)
if(CAPNP_FOUND AND CAPNP_COMPILER)
  add_custom_command(
    OUTPUT ${GENERATED}/bench.capnp.c++
    COMMAND ${CAPNP_COMPILER} compile --output=c++:${GENERATED}
            --src-prefix=${CMAKE_CURRENT_SOURCE_DIR}/peers
            ${CMAKE_CURRENT_SOURCE_DIR}/peers/bench.capnp
    DEPENDS peers/bench.capnp
    VERBATIM)
  add_library(bench_capnp_generated STATIC ${GENERATED}/bench.capnp.c++)
  target_include_directories(bench_capnp_generated SYSTEM PUBLIC ${GENERATED})
  target_link_libraries(bench_capnp_generated PUBLIC PkgConfig::CAPNP)
  bench_program(capnp peers/Capnp.cpp)
  target_link_libraries(bench_capnp PRIVATE bench_capnp_generated)
endif()

if(TOVIK_BENCH_GRPC)
  pkg_check_modules(GRPC IMPORTED_TARGET grpc++ protobuf)
  find_program(PROTOC protoc)
  find_program(GRPC_PLUGIN grpc_cpp_plugin)
  if(GRPC_FOUND AND PROTOC AND GRPC_PLUGIN)
    set(GRPC_SOURCES ${GENERATED}/bench.pb.cc ${GENERATED}/bench.grpc.pb.cc)
    add_custom_command(
      OUTPUT ${GRPC_SOURCES}
      COMMAND ${PROTOC} --cpp_out=${GENERATED} --grpc_out=${GENERATED}
              --plugin=protoc-gen-grpc=${GRPC_PLUGIN} -I ${CMAKE_CURRENT_SOURCE_DIR}/peers
              ${CMAKE_CURRENT_SOURCE_DIR}/peers/bench.proto
      DEPENDS peers/bench.proto
      VERBATIM)
    add_library(bench_grpc_generated STATIC ${GRPC_SOURCES})
    target_include_directories(bench_grpc_generated SYSTEM PUBLIC ${GENERATED})
    target_link_libraries(bench_grpc_generated PUBLIC PkgConfig::GRPC)
    bench_program(grpc peers/Grpc.cpp)
    target_link_libraries(bench_grpc PRIVATE bench_grpc_generated)
  endif()
endif()

if(TOVIK_WITH_MQTT)
  bench_program(mqtt peers/Mqtt.cpp)
  target_link_libraries(bench_mqtt PRIVATE PkgConfig::mosquitto)
  add_dependencies(bench tovik_mqtt tovik_tool)
endif()
