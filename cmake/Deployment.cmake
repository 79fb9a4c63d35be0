# Values that depend on where the relay service is deployed. They are compiled
# into the module and the platform kit; the defaults live under the reserved
# .test domain so that nothing built from this tree can reach a real service.
set(FARLINK_PRIMARY_CONTROL_HOST "global.farlink.test" CACHE STRING
    "Host name of the primary global control server")
set(FARLINK_SECONDARY_CONTROL_HOST "global.farlink-cn.test" CACHE STRING
    "Host name of the secondary (fail-over) global control server")
set(FARLINK_DEFAULT_RELAYINFO_URL "https://relayinfo.farlink.test" CACHE STRING
    "Relay-information URL used when the portal domain cannot be had")
set(FARLINK_DEFAULT_DIRECT_DOMAIN "direct.farlink.test" CACHE STRING
    "The relay service's default direct-connection (DDNS) domain")
set(FARLINK_DEFAULT_PORTAL_DOMAIN "farlink.test" CACHE STRING
    "Portal domain a fresh relay configuration starts with")

# Every target that needs them gets them as preprocessor definitions.
add_library(farlink_deployment INTERFACE)
target_compile_definitions(farlink_deployment INTERFACE
    FARLINK_PRIMARY_CONTROL_HOST="${FARLINK_PRIMARY_CONTROL_HOST}"
    FARLINK_SECONDARY_CONTROL_HOST="${FARLINK_SECONDARY_CONTROL_HOST}"
    FARLINK_DEFAULT_RELAYINFO_URL="${FARLINK_DEFAULT_RELAYINFO_URL}"
    FARLINK_DEFAULT_DIRECT_DOMAIN="${FARLINK_DEFAULT_DIRECT_DOMAIN}"
    FARLINK_DEFAULT_PORTAL_DOMAIN="${FARLINK_DEFAULT_PORTAL_DOMAIN}")

# The box serves these names from its own name server and certificate; it
# reads them from the build it runs.
file(WRITE ${CMAKE_BINARY_DIR}/deployment.env
    "FARLINK_PRIMARY_CONTROL_HOST='${FARLINK_PRIMARY_CONTROL_HOST}'\n"
    "FARLINK_SECONDARY_CONTROL_HOST='${FARLINK_SECONDARY_CONTROL_HOST}'\n"
    "FARLINK_DEFAULT_RELAYINFO_URL='${FARLINK_DEFAULT_RELAYINFO_URL}'\n"
    "FARLINK_DEFAULT_DIRECT_DOMAIN='${FARLINK_DEFAULT_DIRECT_DOMAIN}'\n"
    "FARLINK_DEFAULT_PORTAL_DOMAIN='${FARLINK_DEFAULT_PORTAL_DOMAIN}'\n")
