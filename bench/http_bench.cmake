# The HTTP benchmark starts its own nginx through the test fixture (which reads nginx's status
# page with cpp-httplib).
pkg_check_modules(BENCH_CPPHTTPLIB QUIET IMPORTED_TARGET cpp-httplib)
if(BENCH_CPPHTTPLIB_FOUND)
  target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/NginxFixture.cpp)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE PkgConfig::BENCH_CPPHTTPLIB)
else()
  set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
  message(STATUS "cpp-httplib not found: http_bench is not built")
endif()
