# Installation and Debian packages.
#
# Five components, one package each:
#   runtime  the platform kit's shared libraries           liborvo-platform1
#   dev      its headers, link names, pkg-config files and
#            CMake package (find_package(OrvoPlatform))    liborvo-platform-dev
#   module   the Farlink web API module                     orvo-farlink
#   host     farlink-host, the admin page, the service
#            unit, log rotation, the manual page            farlink-host
#   box      the emulated box and its programs              farlink-box
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

# --- the manual pages -------------------------------------------------------

# Built from docs/man/NAME.SECTION.scd; dated by the changelog, so that the
# same source gives the same page.
find_program(FARLINK_SCDOC scdoc REQUIRED)
execute_process(COMMAND dpkg-parsechangelog -l ${PROJECT_SOURCE_DIR}/packaging/changelog
                        -S Timestamp
                OUTPUT_VARIABLE farlink_release_time OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
function(farlink_man_page name section component)
  set(source ${PROJECT_SOURCE_DIR}/docs/man/${name}.${section}.scd)
  set(page ${CMAKE_BINARY_DIR}/man/${name}.${section})
  add_custom_command(OUTPUT ${page} ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${farlink_release_time}
            sh -c "${FARLINK_SCDOC} < ${source} > ${page}"
    COMMAND gzip -9nf -k ${page}
    DEPENDS ${source} VERBATIM)
  add_custom_target(man-${name} ALL DEPENDS ${page} ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
          COMPONENT ${component})
endfunction()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
farlink_man_page(farlink-host 8 host)
farlink_man_page(farlink-box 1 box)

# --- the host ------------------------------------------------------------------

install(TARGETS farlink-host RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT host)
# The admin page and the API reference, for farlink-host --web-root.
set(FARLINK_WEB_ROOT "${CMAKE_INSTALL_DATADIR}/farlink-host/web" CACHE STRING
    "Where the admin page is installed, relative to the prefix")
install(FILES ${FARLINK_WEB_FILES} DESTINATION ${FARLINK_WEB_ROOT} COMPONENT host)

# The service unit, its options, its user and the rotation of its logs. The
# system's own unit and sysusers directories, as systemd names them, under
# the prefix /usr; below any other prefix otherwise.
pkg_get_variable(farlink_systemd_unit_dir systemd systemdsystemunitdir)
pkg_get_variable(farlink_systemd_sysusers_dir systemd sysusersdir)
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR NOT farlink_systemd_unit_dir)
  set(farlink_systemd_unit_dir ${CMAKE_INSTALL_FULL_LIBDIR}/systemd/system)
  set(farlink_systemd_sysusers_dir ${CMAKE_INSTALL_PREFIX}/lib/sysusers.d)
endif()
set(FARLINK_SYSTEMD_UNIT_DIR ${farlink_systemd_unit_dir} CACHE PATH
    "Where the service unit is installed")
set(FARLINK_SYSUSERS_DIR ${farlink_systemd_sysusers_dir} CACHE PATH
    "Where the service user's sysusers.d file is installed")
set(FARLINK_HOST_PROGRAM ${CMAKE_INSTALL_FULL_SBINDIR}/farlink-host)
set(FARLINK_HOST_MODULE
    ${CMAKE_INSTALL_PREFIX}/${FARLINK_MODULE_DIR}/libwebapi-ORVO.Core.Farlink.so)
set(FARLINK_HOST_WEB_ROOT ${CMAKE_INSTALL_PREFIX}/${FARLINK_WEB_ROOT})
configure_file(${PROJECT_SOURCE_DIR}/packaging/farlink-host.service.in
               ${CMAKE_BINARY_DIR}/packaging/farlink-host.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/farlink-host.service
        DESTINATION ${FARLINK_SYSTEMD_UNIT_DIR} COMPONENT host)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/farlink-host.sysusers
        DESTINATION ${FARLINK_SYSUSERS_DIR} RENAME farlink-host.conf COMPONENT host)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/farlink-host.default
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default RENAME farlink-host COMPONENT host)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/farlink-host.logrotate
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/logrotate.d RENAME farlink-host
        COMPONENT host)

# --- the emulated box ------------------------------------------------------------

# The box is a tree of the shape the launcher expects of a build directory
# (bin/, lib/, deployment.env), so that one launcher serves both. The host,
# the module and the page are links to the ones the other packages install.
install(TARGETS farlink-box-listen farlink-box-forward farlink-syslogd farlink-controlserver
                orvorelayd-emu orvorelayd-daemon orvokivo-tool
        RUNTIME DESTINATION ${FARLINK_BOX_DIR}/bin COMPONENT box)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/box/farlink-box ${PROJECT_SOURCE_DIR}/box/box-init.sh
        DESTINATION ${FARLINK_BOX_DIR} COMPONENT box)
install(FILES ${CMAKE_BINARY_DIR}/deployment.env DESTINATION ${FARLINK_BOX_DIR} COMPONENT box)
set(FARLINK_BOX_FULL_DIR ${CMAKE_INSTALL_PREFIX}/${FARLINK_BOX_DIR})
file(RELATIVE_PATH box_host ${FARLINK_BOX_FULL_DIR}/bin ${FARLINK_HOST_PROGRAM})
file(RELATIVE_PATH box_module ${FARLINK_BOX_FULL_DIR}/lib ${FARLINK_HOST_MODULE})
file(RELATIVE_PATH box_web ${FARLINK_BOX_FULL_DIR} ${FARLINK_HOST_WEB_ROOT})
install(CODE "
  set(box_tree \"\$ENV{DESTDIR}${FARLINK_BOX_FULL_DIR}\")
  file(MAKE_DIRECTORY \"\${box_tree}/lib\")
  file(CREATE_LINK ${box_host} \"\${box_tree}/bin/farlink-host\" SYMBOLIC)
  file(CREATE_LINK ${box_module} \"\${box_tree}/lib/libwebapi-ORVO.Core.Farlink.so\" SYMBOLIC)
  file(CREATE_LINK ${box_web} \"\${box_tree}/web-root\" SYMBOLIC)"
  COMPONENT box)
configure_file(${CMAKE_CURRENT_LIST_DIR}/farlink-box.in ${CMAKE_BINARY_DIR}/farlink-box-installed
               @ONLY)
install(PROGRAMS ${CMAKE_BINARY_DIR}/farlink-box-installed DESTINATION ${CMAKE_INSTALL_BINDIR}
        RENAME farlink-box COMPONENT box)

# --- Debian packages ----------------------------------------------------------

include(${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
