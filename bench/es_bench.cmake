# The Elasticsearch benchmark runs the emulator program (tests/support) as a child process and the
# Python client through the test process runner.
if(TARGET es_emulator)
  add_dependencies(${name} es_emulator)
  target_sources(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support/Process.cpp)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_compile_definitions(${name} PRIVATE ES_EMULATOR="$<TARGET_FILE:es_emulator>")
else()
  set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
  message(STATUS "es_emulator is not built (tests off): es_bench is not built")
endif()
