# `make package`: the archive a Windows administrator takes to a desktop,
# zeph_eventlog-<version>-win64.zip, holding the provider DLL, the stand-in Agent.tlb,
# zeph-host with a sample configuration, README.txt and SHA256SUMS. The simulated
# event log stays out: it exists for the tests and the demo.
# Installing (and so cpack) builds nothing: `make package` builds what the archive
# holds, rather than every test and benchmark with it.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)
set(VERSION ${PROJECT_VERSION})
configure_file(${CMAKE_SOURCE_DIR}/package/README.txt ${CMAKE_BINARY_DIR}/package/README.txt @ONLY)
install(TARGETS zeph_eventlog zeph_host
        RUNTIME DESTINATION . COMPONENT release
        ARCHIVE DESTINATION lib COMPONENT import_libraries EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_BINARY_DIR}/bin/Agent.tlb
              ${CMAKE_SOURCE_DIR}/demo/zeph-host.xml
              ${CMAKE_BINARY_DIR}/package/README.txt
        DESTINATION . COMPONENT release)
# Last, once every file is in place (and stripped): their checksums, as sha256sum writes them.
install(CODE [[
  set(root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
  file(GLOB names RELATIVE "${root}" "${root}/*")
  list(REMOVE_ITEM names SHA256SUMS)
  list(SORT names)
  set(sums "")
  foreach(name IN LISTS names)
    file(SHA256 "${root}/${name}" hash)
    string(APPEND sums "${hash}  ${name}\n")
  endforeach()
  file(WRITE "${root}/SHA256SUMS" "${sums}")
]] COMPONENT release)

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME "zeph_eventlog-${PROJECT_VERSION}-win64")
set(CPACK_STRIP_FILES TRUE)
include(CPack)
