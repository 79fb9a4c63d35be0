# Installation and Debian packages.
#
# Four components, one package each:
#   runtime  the platform kit's shared libraries           liborvo-platform1
#   dev      its headers, link names, pkg-config files and
#            CMake package (find_package(OrvoPlatform))    liborvo-platform-dev
#   module   the Farlink web API module                     orvo-farlink
#   host     farlink-host, the emulated programs and the
#            emulated box                                   farlink-host
# docs/packaging.md explains the layout; scripts/package.sh builds the packages.
include(CMakePackageConfigHelpers)

set(FARLINK_MODULE_DIR "${CMAKE_INSTALL_LIBDIR}/orvo/webapi" CACHE STRING
    "Where web API modules are installed, relative to the prefix")
set(FARLINK_BOX_DIR "${CMAKE_INSTALL_LIBEXECDIR}/farlink-box" CACHE STRING
    "Where the emulated box's launcher, programs and data are installed, relative to the prefix")

# --- the platform kit ------------------------------------------------------

# Target, export name (orvo::<name>, as inside this tree) and the name the
# platform gives the library, which is also its pkg-config name.
set(orvo_kit_libraries
    webapi:webapi:webapi-OVM5
    orvocore:core:orvocore
    orvokivo:kivo:orvokivo
    orvosystemd:systemd:orvosystemd
    orvocloudservice:cloudservice:orvocloudservice
    orvorelayd:relayd:orvorelayd)

set_target_properties(orvo_headers PROPERTIES EXPORT_NAME headers)
set(orvo_kit_targets orvo_headers)
foreach(row IN LISTS orvo_kit_libraries)
  string(REPLACE ":" ";" entry ${row})
  list(GET entry 0 target)
  list(GET entry 1 export_name)
  list(GET entry 2 platform_name)
  set_target_properties(${target} PROPERTIES
      EXPORT_NAME ${export_name}
      VERSION ${PROJECT_VERSION}
      SOVERSION ${PROJECT_VERSION_MAJOR})
  list(APPEND orvo_kit_targets ${target})

  set(ORVO_PC_NAME ${platform_name})
  set(ORVO_PC_LIBRARY ${platform_name})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/orvo-library.pc.in
                 ${CMAKE_BINARY_DIR}/pkgconfig/${platform_name}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/pkgconfig/${platform_name}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

install(TARGETS ${orvo_kit_targets} EXPORT OrvoPlatformTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_SKIP)
install(TARGETS ${orvo_kit_targets}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev NAMELINK_ONLY)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/orvo
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

set(orvo_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OrvoPlatform)
install(EXPORT OrvoPlatformTargets NAMESPACE orvo:: DESTINATION ${orvo_cmake_dir}
        COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/OrvoPlatformConfig.cmake.in
    ${CMAKE_BINARY_DIR}/OrvoPlatformConfig.cmake INSTALL_DESTINATION ${orvo_cmake_dir}
    PATH_VARS FARLINK_MODULE_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/OrvoPlatformConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/OrvoPlatformConfig.cmake
              ${CMAKE_BINARY_DIR}/OrvoPlatformConfigVersion.cmake
        DESTINATION ${orvo_cmake_dir} COMPONENT dev)

# --- the module --------------------------------------------------------------

install(TARGETS farlink LIBRARY DESTINATION ${FARLINK_MODULE_DIR} COMPONENT module)

# --- the host, the emulated programs and the box ------------------------------

install(TARGETS farlink-host RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT host)
# The admin page and the API reference, for farlink-host --web-root.
set(FARLINK_WEB_ROOT "${CMAKE_INSTALL_DATADIR}/farlink-host/web" CACHE STRING
    "Where the admin page is installed, relative to the prefix")
install(FILES ${FARLINK_WEB_FILES} DESTINATION ${FARLINK_WEB_ROOT} COMPONENT host)
# The box is a tree of the shape the launcher expects of a build directory
# (bin/, lib/, deployment.env), so that one launcher serves both.
install(TARGETS farlink-box-listen farlink-box-forward farlink-syslogd farlink-controlserver
                orvorelayd-emu orvorelayd-daemon orvokivo-tool
        RUNTIME DESTINATION ${FARLINK_BOX_DIR}/bin COMPONENT host)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/box/farlink-box ${PROJECT_SOURCE_DIR}/box/box-init.sh
        DESTINATION ${FARLINK_BOX_DIR} COMPONENT host)
install(FILES ${CMAKE_BINARY_DIR}/deployment.env DESTINATION ${FARLINK_BOX_DIR} COMPONENT host)
set(FARLINK_BOX_FULL_DIR ${CMAKE_INSTALL_PREFIX}/${FARLINK_BOX_DIR})
file(RELATIVE_PATH box_host ${FARLINK_BOX_FULL_DIR}/bin ${CMAKE_INSTALL_FULL_SBINDIR}/farlink-host)
file(RELATIVE_PATH box_module ${FARLINK_BOX_FULL_DIR}/lib
     ${CMAKE_INSTALL_PREFIX}/${FARLINK_MODULE_DIR}/libwebapi-ORVO.Core.Farlink.so)
file(RELATIVE_PATH box_web ${FARLINK_BOX_FULL_DIR} ${CMAKE_INSTALL_PREFIX}/${FARLINK_WEB_ROOT})
install(CODE "
  set(box \"\$ENV{DESTDIR}${FARLINK_BOX_FULL_DIR}\")
  file(MAKE_DIRECTORY \"\${box}/lib\")
  file(CREATE_LINK ${box_host} \"\${box}/bin/farlink-host\" SYMBOLIC)
  file(CREATE_LINK ${box_module} \"\${box}/lib/libwebapi-ORVO.Core.Farlink.so\" SYMBOLIC)
  file(CREATE_LINK ${box_web} \"\${box}/web-root\" SYMBOLIC)"
  COMPONENT host)
configure_file(${CMAKE_CURRENT_LIST_DIR}/farlink-box.in ${CMAKE_BINARY_DIR}/farlink-box-installed
               @ONLY)
install(PROGRAMS ${CMAKE_BINARY_DIR}/farlink-box-installed DESTINATION ${CMAKE_INSTALL_SBINDIR}
        RENAME farlink-box COMPONENT host)

# --- Debian packages ----------------------------------------------------------

include(${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
