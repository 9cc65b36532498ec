# The multi-request benchmark starts nginx through the test fixture and serves its delayed answers
# with cpp-httplib.
pkg_check_modules(BENCH_CPPHTTPLIB QUIET IMPORTED_TARGET cpp-httplib)
if(BENCH_CPPHTTPLIB_FOUND)
  target_sources(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support/NginxFixture.cpp)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE PkgConfig::BENCH_CPPHTTPLIB)
else()
  set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
  message(STATUS "cpp-httplib not found: multi_bench is not built")
endif()
