# The river benchmark uses the test support (pouchdb-server fixture, Elasticsearch emulator) and runs
# the river as `httptools river`, a process of its own, so that its peak RSS is its own.
if(TARGET httptools_test_support AND TARGET httptools)
  target_link_libraries(${name} PRIVATE httptools_test_support)
  target_compile_definitions(${name} PRIVATE HTTPTOOLS_CLI="$<TARGET_FILE:httptools>")
  add_dependencies(${name} httptools)
else()
  set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
  message(STATUS "test support or the httptools program missing: river_bench is not built")
endif()
