# Debian packages through CPack: `cpack -G DEB` in a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr. Runtime dependencies come from dpkg-shlibdeps
# and, for the libraries opened at run time, from their packages' shlibs files,
# never from a hand-kept list.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME assetman)
set(CPACK_PACKAGE_VENDOR "assetman developers")
set(CPACK_PACKAGE_CONTACT "assetman developers <assetman@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "host asset inventory for Lua scripts")
set(CPACK_PACKAGE_DESCRIPTION "assetman is a Lua 5.1 / LuaJIT extension module through which scripts
inside a host agent take an inventory of the Linux machine they run on:
processes and their modules, network connections, server applications
and their web sites, users, packages, auto-start services, cron jobs,
kernel modules, system facts, third-party libraries and the container
engine.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libcurl, librpm and libsqlite3 are opened by soname when first needed, so dpkg-shlibdeps
# does not see them: their dependencies are what the packages that ship them
# declare in their shlibs files, as dpkg-shlibdeps would have used.
set(_lazy_deps "")
foreach(_so ASSETMAN_CURL_SONAME ASSETMAN_RPM_SONAME ASSETMAN_SQLITE_SONAME)
  set(_dep "")
  execute_process(COMMAND dpkg-query -S ${${_so}_FILE} OUTPUT_VARIABLE _owner RESULT_VARIABLE _rc ERROR_QUIET)
  if(_rc EQUAL 0 AND _owner MATCHES "^([^ ,]+): ")
    set(_pkg ${CMAKE_MATCH_1})                       # libcurl4:amd64
    string(REGEX REPLACE ":.*" "" _dep "${_pkg}")    # libcurl4
    execute_process(COMMAND dpkg-query --control-show ${_pkg} shlibs OUTPUT_VARIABLE _shlibs ERROR_QUIET)
    if("${${_so}}" MATCHES "^(.+)\\.so\\.(.+)$")
      string(REGEX MATCH "(^|\n)${CMAKE_MATCH_1} ${CMAKE_MATCH_2} ([^\n]+)" _line "${_shlibs}")
      if(_line)
        set(_dep "${CMAKE_MATCH_2}")                 # libcurl4 (>= 7.88.1)
      endif()
    endif()
  endif()
  if(_dep)
    list(APPEND _lazy_deps "${_dep}")
  else()
    message(WARNING "no Debian package found for ${${_so}}: the package will not depend on it")
  endif()
endforeach()
list(JOIN _lazy_deps ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
# The shared library's cache is refreshed by dpkg's ldconfig trigger, not by
# maintainer scripts.
configure_file(${CMAKE_CURRENT_LIST_DIR}/triggers ${CMAKE_BINARY_DIR}/packaging/triggers COPYONLY)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/triggers)
# The runner's examples print JSON through lua-cjson; scripts may use it too.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "lua-cjson")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)

# What lintian expects of every package: a copyright file and a changelog.
set(_doc ${CMAKE_BINARY_DIR}/packaging/doc)
file(MAKE_DIRECTORY ${_doc})
configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright ${_doc}/copyright COPYONLY)
file(WRITE ${_doc}/changelog "assetman (${PROJECT_VERSION}) unstable; urgency=medium

  * Release ${PROJECT_VERSION}.

 -- ${CPACK_PACKAGE_CONTACT}  Sun, 22 Nov 2026 12:00:00 +0000
")
add_custom_command(OUTPUT ${_doc}/changelog.gz
  COMMAND gzip -9nf -k ${_doc}/changelog
  DEPENDS ${_doc}/changelog)
add_custom_target(package_docs ALL DEPENDS ${_doc}/changelog.gz)
install(FILES ${_doc}/copyright ${_doc}/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_PACKAGE_NAME})
include(CPack)
