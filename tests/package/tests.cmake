# The built and installed files, seen from outside. The first test installs them for the others.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

function(tovik_package_test name script)
  set(name Package.${name})
  add_test(NAME ${name} COMMAND ${Python3_EXECUTABLE} -B
                                ${PROJECT_SOURCE_DIR}/tests/package/${script} ${ARGN})
  set_tests_properties(
    ${name}
    PROPERTIES TIMEOUT 300
               FIXTURES_REQUIRED package_prefix
               ENVIRONMENT
               "TOVIK_SOURCE_DIR=${PROJECT_SOURCE_DIR};TOVIK_BUILD_DIR=${PROJECT_BINARY_DIR};\
TOVIK_WORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/package;TOVIK_CXX=${CMAKE_CXX_COMPILER};\
TOVIK_LIBDIR=${CMAKE_INSTALL_LIBDIR};TOVIK_SHARED=$<BOOL:${BUILD_SHARED_LIBS}>;\
TOVIK_RUNPATH=$<$<NOT:$<BOOL:${CMAKE_SKIP_INSTALL_RPATH}>>:$ORIGIN>")
endfunction()

file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/package)
tovik_package_test(InstallsLibrariesPublicHeadersAndPkgConfigFiles installs.py)
set_tests_properties(Package.InstallsLibrariesPublicHeadersAndPkgConfigFiles
                     PROPERTIES FIXTURES_REQUIRED "" FIXTURES_SETUP package_prefix)
get_property(hosts GLOBAL PROPERTY TOVIK_HOSTS)
tovik_package_test(CompilesEachPublicHeaderAlone headers.py ${hosts})
set_tests_properties(Package.CompilesEachPublicHeaderAlone PROPERTIES PROCESSORS 2)

tovik_package_test(HasOneVersion versions.py)
tovik_package_test(IsReleasedWhenAllIsThere release.py)
set_tests_properties(Package.HasOneVersion Package.IsReleasedWhenAllIsThere PROPERTIES FIXTURES_REQUIRED "")
find_program(TOVIK_GIT git)
if(NOT TOVIK_GIT)
  set_tests_properties(Package.IsReleasedWhenAllIsThere PROPERTIES DISABLED TRUE)
endif()

# An ordinary application cannot load sanitized libraries, and those export and import more. The
# rest looks at shared libraries, and builds static ones beside them.
if(BUILD_SHARED_LIBS AND NOT TOVIK_SANITIZE)
  tovik_package_test(BuildsAndRunsApplicationsWithPkgConfigAlone applications.py)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU") # which the packages are built with; clang++ spares some tables
    tovik_package_test(ExportsItsInterfaceAndNothingElse exports.py)
  endif()
  tovik_package_test(IsNotLinkedWithAnApplicationThatWasBuiltOtherwise layout.py)
  tovik_package_test(HoldsItsAssertionsInAnApplicationWithoutAny assertions.py application)
  tovik_package_test(HoldsItsAssertionsInALibraryBuiltWithoutAny assertions.py library)
  tovik_package_test(HoldsItsAssertionsInAStaticLibrary assertions.py static)
  tovik_package_test(StartsNoThreadOpensNoFileAndReadsNoEnvironment promises.py)
  tovik_package_test(IsHardened hardening.py $<CONFIG> $<$<TARGET_EXISTS:tovik_tool>:tovik>)

  tovik_package_test(IsFoundByCMakeWhereItIsInstalled consumers.py installed)
  tovik_package_test(IsFoundByCMakeInAMovedTree consumers.py moved)
  tovik_package_test(IsFoundByCMakeInItsBuildFolder consumers.py build_tree)
  tovik_package_test(SaysThatRapidJsonIsMissing consumers.py without_rapidjson)
  tovik_package_test(TakesTheRapidJsonThatItIsGiven consumers.py another_rapidjson)
  tovik_package_test(BecomesPartOfAnApplicationThatFetchesIt consumers.py fetch)
  tovik_package_test(BecomesPartOfAnApplicationAsAStaticLibrary consumers.py subdirectory)
  tovik_package_test(IsFoundByCMakeAndPkgConfigAsAStaticLibrary consumers.py static)
  set_tests_properties(Package.IsFoundByCMakeWhereItIsInstalled
                       Package.BecomesPartOfAnApplicationThatFetchesIt
                       Package.BecomesPartOfAnApplicationAsAStaticLibrary PROPERTIES PROCESSORS 2)
  set_tests_properties(Package.BecomesPartOfAnApplicationAsAStaticLibrary
                       PROPERTIES FIXTURES_SETUP static_prefix)
  set_tests_properties(Package.BecomesPartOfAnApplicationThatFetchesIt
                       PROPERTIES FIXTURES_SETUP fetched)
  set_tests_properties(Package.HoldsItsAssertionsInALibraryBuiltWithoutAny
                       PROPERTIES FIXTURES_REQUIRED "package_prefix;fetched")
  set_tests_properties(
    Package.IsFoundByCMakeAndPkgConfigAsAStaticLibrary Package.HoldsItsAssertionsInAStaticLibrary
    PROPERTIES FIXTURES_REQUIRED "package_prefix;static_prefix")
endif()
