# What `cmake --install` puts where. Two components:
#   tools  the host programs and scripts, with their man pages
#   dev    the libraries and public headers that a firmware build links, and
#          the CMake package `update_verifier` with namespaced targets
# Headers go under include/update_verifier and archives under
# lib/update_verifier, so that their short names (eka, nglog, nos/...) do not
# meet other packages' in a shared prefix.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VERIFIER_INSTALL_LIBEXECDIR ${CMAKE_INSTALL_LIBEXECDIR}/update-verifier)
set(VERIFIER_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/update_verifier)
set(VERIFIER_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR}/update_verifier)
set(VERIFIER_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/update_verifier)

# --- Programs ---------------------------------------------------------------

# The entity and the peers are started by a runtime (scripts/demo, a test, a
# service manager), not typed: libexec. The tools go on the PATH.
set(VERIFIER_LIBEXEC_PROGRAMS verifier log-storage signature-verifier update-registry)
set(VERIFIER_BIN_PROGRAMS registry-cli verifier-cli gost-hash)
set(VERIFIER_BIN_SCRIPTS sign-package make-test-pki)

# The text of --version: "<program> VERIFIER_VERSION".
foreach(program IN LISTS VERIFIER_LIBEXEC_PROGRAMS VERIFIER_BIN_PROGRAMS)
  target_compile_definitions(${program} PRIVATE VERIFIER_VERSION="${PROJECT_VERSION}")
endforeach()
install(TARGETS ${VERIFIER_LIBEXEC_PROGRAMS} RUNTIME DESTINATION ${VERIFIER_INSTALL_LIBEXECDIR} COMPONENT tools)
install(TARGETS ${VERIFIER_BIN_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# The scripts answer --version with the project version, written into the
# copy that is installed.
foreach(script IN LISTS VERIFIER_BIN_SCRIPTS)
  configure_file(${PROJECT_SOURCE_DIR}/scripts/${script} ${PROJECT_BINARY_DIR}/scripts/${script} @ONLY)
  install(PROGRAMS ${PROJECT_BINARY_DIR}/scripts/${script} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endforeach()

# Man pages, made from each program's --help and --version when it is built,
# so that they say what the program does. The entity has no command line and
# therefore no page; its README describes it.
find_program(HELP2MAN help2man REQUIRED)
set(verifier_man_pages)
# verifier_man_page(PROGRAM NAME): PROGRAM is a target or one of the scripts;
# NAME is the page's one-line description.
function(verifier_man_page program name)
  if(TARGET ${program})
    set(command $<TARGET_FILE:${program}>)
    set(depends ${program})
  else()
    set(command ${PROJECT_BINARY_DIR}/scripts/${program})
    set(depends ${command})
  endif()
  set(page ${PROJECT_BINARY_DIR}/man/man1/${program}.1)
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${HELP2MAN} --no-info --section=1 --name=${name} --output=${page} ${command}
    COMMAND gzip -9nf ${page}
    DEPENDS ${depends}
    COMMENT "Man page of ${program}"
    VERBATIM)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  set(verifier_man_pages ${verifier_man_pages} ${page}.gz PARENT_SCOPE)
endfunction()

verifier_man_page(log-storage "host log-storage entity: writes the log records it is sent")
verifier_man_page(signature-verifier "host signature-verifier entity: checks GOST CMS signatures")
verifier_man_page(update-registry "host update registry entity: keeps the sessions of update packages")
verifier_man_page(registry-cli "call the update registry")
verifier_man_page(verifier-cli "send one Verify request to the Verifier entity")
verifier_man_page(gost-hash "GOST R 34.11-2012 digests of files")
verifier_man_page(sign-package "sign the files of an update package folder")
verifier_man_page(make-test-pki "make a throw-away GOST test PKI")
add_custom_target(man_pages ALL DEPENDS ${verifier_man_pages})

# --- Libraries, headers and the CMake package -------------------------------

# Target name, then the name it is exported under (update_verifier::<name>).
set(VERIFIER_EXPORTED_LIBRARIES
  nos_platform_api platform_api
  eka eka
  nglog nglog
  nos_logger logger
  nvlog_record nvlog_record
  nvlog_sink nvlog_sink
  entity_logger entity_logger
  common_utils common_utils
  fdn_ipc ipc_server
  registry_api registry_api
  verifier_api verifier_api
  signature_verifier_idl signature_verifier_idl
  signature_verifier_client signature_verifier_client
  nds_hash nds
)
set(verifier_installed_targets)
while(VERIFIER_EXPORTED_LIBRARIES)
  list(POP_FRONT VERIFIER_EXPORTED_LIBRARIES target export_name)
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${export_name})
  list(APPEND verifier_installed_targets ${target})
endwhile()

install(TARGETS ${verifier_installed_targets} EXPORT update_verifier_targets
  ARCHIVE DESTINATION ${VERIFIER_INSTALL_LIBDIR} COMPONENT dev
  INCLUDES DESTINATION ${VERIFIER_INSTALL_INCLUDEDIR})

# As Debian's packaging does, a stripped install (cpack's) keeps the archives'
# symbols and drops their debug information.
foreach(target IN LISTS verifier_installed_targets)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "STATIC_LIBRARY")
    set(archive "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${VERIFIER_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:${target}>")
    install(CODE "if(CMAKE_INSTALL_DO_STRIP)
      execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug --remove-section=.comment --enable-deterministic-archives
      \"${archive}\" COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT dev)
  endif()
endforeach()

# A library's public headers are the contents of its include folder; the
# headers beside its sources stay private.
install(DIRECTORY
    platform/include/nos
    eka/include/
    components/logger/src/nglog/include/
    components/logger/src/source/include/
    shared/vantor_logger/src/include/
    shared/common/shared_log_function_for_entity/include/
    shared/common/utils/include/
    component/fdn/ipc/include/
    shared/updater_pdk/registry_api/src/include/
    shared/updater_pdk/verifier_api/src/include/
    security/crypto/signature_verifier/src/libraries/idl/include/
    security/crypto/signature_verifier/src/libraries/client_cpp/src/include/
    security/crypto/signature_verifier/src/libraries/nds/include/
  DESTINATION ${VERIFIER_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")

install(EXPORT update_verifier_targets NAMESPACE update_verifier::
  FILE update_verifier-targets.cmake DESTINATION ${VERIFIER_INSTALL_CMAKEDIR} COMPONENT dev)
configure_package_config_file(cmake/update_verifier-config.cmake.in
  ${PROJECT_BINARY_DIR}/update_verifier-config.cmake
  INSTALL_DESTINATION ${VERIFIER_INSTALL_CMAKEDIR})
# Before 1.0 a minor release may change the interfaces.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/update_verifier-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/update_verifier-config.cmake
    ${PROJECT_BINARY_DIR}/update_verifier-config-version.cmake
  DESTINATION ${VERIFIER_INSTALL_CMAKEDIR} COMPONENT dev)
