# What `cmake --install` puts under the prefix: the command, the static libraries, the public
# headers, a CMake package (find_package(brix CONFIG) -> brix::brix), a pkg-config file and the
# man pages, and the description of the JSON model beside the other documents.
include(CMakePackageConfigHelpers)

install(TARGETS brixcmd brix_cmd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS brix zel farm EXPORT brixTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Public headers are the ones directly in brix/; they include only the standard library and
# each other.
file(GLOB BRIX_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/brix/*.h)
install(FILES ${BRIX_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/brix)

install(EXPORT brixTargets NAMESPACE brix:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/brix)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/brixConfig.cmake.in
  ${PROJECT_BINARY_DIR}/brixConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/brix)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/brixConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/brixConfig.cmake ${PROJECT_BINARY_DIR}/brixConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/brix)

configure_file(${PROJECT_SOURCE_DIR}/cmake/brix.pc.in ${PROJECT_BINARY_DIR}/brix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/brix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

file(GLOB BRIX_MAN_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.1)
install(FILES ${BRIX_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

install(FILES ${PROJECT_SOURCE_DIR}/docs/json-model.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
