# Boost.URL is the second reference beside raw uriparser.
find_package(boost_url CONFIG QUIET)
if(TARGET Boost::url)
  target_link_libraries(url_bench PRIVATE Boost::url)
else()
  target_link_libraries(url_bench PRIVATE boost_url)
endif()
target_link_libraries(url_bench PRIVATE PkgConfig::URIPARSER)
