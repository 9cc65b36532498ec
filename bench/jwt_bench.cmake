# libjwt (Debian's libjwt-dev) is the reference implementation the JWT benchmark compares with.
pkg_check_modules(LIBJWT QUIET IMPORTED_TARGET libjwt)
if(LIBJWT_FOUND)
  target_link_libraries(${name} PRIVATE PkgConfig::LIBJWT)
  target_compile_definitions(${name} PRIVATE HTTPTOOLS_HAVE_LIBJWT)
else()
  message(STATUS "libjwt not found: jwt_bench runs without the libjwt comparison")
endif()
target_link_libraries(${name} PRIVATE OpenSSL::Crypto)
