# Debian packages from the install components (cpack -G DEB in the build
# directory): update-verifier-tools (the tools component) and
# update-verifier-dev (dev). dpkg-shlibdeps works out the shared libraries
# the programs need; what they run or load by name is listed by hand.

set(VERIFIER_DEB_TOOLS update-verifier-tools)
set(VERIFIER_DEB_DEV update-verifier-dev)

# Each package carries the copyright file and the changelog in its doc folder.
configure_file(${CMAKE_CURRENT_LIST_DIR}/deb/changelog.in ${PROJECT_BINARY_DIR}/deb/changelog @ONLY)
execute_process(COMMAND gzip -9nc INPUT_FILE ${PROJECT_BINARY_DIR}/deb/changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/deb/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN ITEMS tools dev)
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/deb/copyright ${PROJECT_BINARY_DIR}/deb/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${VERIFIER_DEB_${upper}} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME update-verifier)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Update verifier maintainers <update-verifier@example.org>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL tools dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${VERIFIER_DEB_TOOLS})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# The scripts run the openssl command; they and signature-verifier load the
# GOST engine.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "openssl, libengine-gost-openssl")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "update-package verifier: host programs and signing tools
The Verifier entity checks that an update package is authentic: it hashes
the update archive with GOST R 34.11-2012 and has its detached signatures
checked. This package runs it on Linux: the entity and its host peers (log
storage, signature verifier, update registry) in /usr/libexec/update-verifier,
and on the PATH registry-cli, verifier-cli, gost-hash, sign-package and
make-test-pki.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${VERIFIER_DEB_DEV})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libfmt-dev, libspdlog-dev, libssl-dev, libgcrypt20-dev, pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION "update-package verifier: libraries and headers for firmware builds
Static libraries and public headers of the update-package verifier: the
platform API headers, result codes and exceptions, the loggers, the component
IPC server, the update registry and verifier interfaces, the signature
verifier client and the GOST R 34.11-2012 hash library. A CMake build finds
them with find_package(update_verifier) and links update_verifier::<name>.")

include(CPack)
