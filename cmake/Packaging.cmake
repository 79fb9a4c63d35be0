# Debian packages with CPack, one per install component. Built by
# scripts/package.sh, which configures with the prefix /usr.
set(farlink_package_runtime liborvo-platform1)
set(farlink_package_dev liborvo-platform-dev)
set(farlink_package_module orvo-farlink)
set(farlink_package_host farlink-host)
set(farlink_package_box farlink-box)

# Every package carries its copyright file and a compressed changelog where
# Debian's policy puts them.
set(changelog ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/packaging)
execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog
                OUTPUT_FILE ${changelog} COMMAND_ERROR_IS_FATAL ANY)
foreach(component runtime dev module host box)
  set(package ${farlink_package_${component}})
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${changelog}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME farlink)
set(CPACK_PACKAGE_VENDOR "Farlink developers")
set(CPACK_PACKAGE_CONTACT "Farlink developers <farlink@example.test>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev module host box)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# Dependencies on Debian's libraries come from dpkg-shlibdeps; the kit's own
# libraries are found in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)

set(kit_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "ORVO platform kit: runtime libraries
The shared libraries a web API module of the ORVO operating system links:
libwebapi-OVM5 (request and response objects), liborvocore (programs,
key-value files), liborvokivo (account), liborvosystemd (service manager),
liborvocloudservice and liborvorelayd (relay client).")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${farlink_package_runtime} (= ${kit_version}), libjsoncpp-dev, pkg-config")
set(CPACK_DEBIAN_DEV_DESCRIPTION "ORVO platform kit: development files
Headers (orvo/*.h), pkg-config files named after the platform's libraries
and the CMake package OrvoPlatform, for building web API modules out of
tree.")
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_MODULE_PACKAGE_DEPENDS "${farlink_package_runtime} (= ${kit_version})")
set(CPACK_DEBIAN_MODULE_DESCRIPTION "Farlink web API module for the remote-access relay
The administrative face of the relay daemon orvorelayd: status, settings,
server alias, register site and availability, loaded by the host's web API
server.")
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS
    "${farlink_package_runtime} (= ${kit_version}), ${farlink_package_module} (= ${kit_version})")
# /etc files are the administrator's; the postinst makes the service user.
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/host/conffiles
                                            ${PROJECT_SOURCE_DIR}/packaging/host/postinst)
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_HOST_DESCRIPTION "Web API server for ORVO modules
farlink-host loads web API modules and serves them over HTTPS with
privilege separation: a root supervisor, root workers that run the module,
and an unprivileged front that faces the network. A sandboxed systemd unit
serves the Farlink module and the admin page; logrotate rotates its logs.")
set(CPACK_DEBIAN_BOX_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_BOX_PACKAGE_DEPENDS
    "${farlink_package_host} (= ${kit_version}), dnsmasq-base, openssl, iproute2, procps")
set(CPACK_DEBIAN_BOX_DESCRIPTION "Emulated ORVO box for trying and testing the Farlink module
farlink-box starts an emulated box (private mount, network and PID
namespaces, name server, HTTPS control server, system log, relay daemon and
account service) with farlink-host and the Farlink module, for development
and tests. Not for a production host.")

include(CPack)
