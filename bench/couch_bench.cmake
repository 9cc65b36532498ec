# The couch benchmark starts pouchdb-server through the test fixture, runs nano (npm, bench/nano)
# with node beside our client, and serves canned _bulk_docs answers with cpp-httplib.
pkg_check_modules(BENCH_CPPHTTPLIB QUIET IMPORTED_TARGET cpp-httplib)
if(BENCH_CPPHTTPLIB_FOUND)
  target_sources(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support/PouchDbFixture.cpp
                                 ${CMAKE_SOURCE_DIR}/tests/support/Process.cpp
                                 ${CMAKE_SOURCE_DIR}/tests/support/SourcePaths.cpp)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE PkgConfig::BENCH_CPPHTTPLIB)
  target_compile_definitions(${name} PRIVATE HTTPTOOLS_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
                                             HTTPTOOLS_BINARY_DIR="${CMAKE_BINARY_DIR}"
                                             HTTPTOOLS_CLI="$<TARGET_FILE:httptools>")
  add_dependencies(${name} httptools) # --backup runs the program
else()
  set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
  message(STATUS "cpp-httplib not found: couch_bench is not built")
endif()
