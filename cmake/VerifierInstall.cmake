# What `cmake --install` puts where. The component tools: the host programs
# and scripts, with their man pages.

include(GNUInstallDirs)

set(VERIFIER_INSTALL_LIBEXECDIR ${CMAKE_INSTALL_LIBEXECDIR}/update-verifier)

# --- Programs ---------------------------------------------------------------

# The entity and the peers are started by a runtime (scripts/demo, a test, a
# service manager), not typed: libexec. The tools go on the PATH.
set(VERIFIER_LIBEXEC_PROGRAMS verifier log-storage signature-verifier update-registry)
set(VERIFIER_BIN_PROGRAMS registry-cli verifier-cli gost-hash)
set(VERIFIER_BIN_SCRIPTS sign-package make-test-pki)

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
# verifier_man_page(PROGRAM NAME [VERSION_STRING]): PROGRAM is a target or one
# of the scripts; NAME is the page's one-line description. VERSION_STRING
# stands in for a program that does not answer --version.
function(verifier_man_page program name)
  if(TARGET ${program})
    set(command $<TARGET_FILE:${program}>)
    set(depends ${program})
  else()
    set(command ${PROJECT_BINARY_DIR}/scripts/${program})
    set(depends ${command})
  endif()
  set(version_option)
  if(ARGC GREATER 2)
    set(version_option --version-string=${ARGV2})
  endif()
  set(page ${PROJECT_BINARY_DIR}/man/man1/${program}.1)
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${HELP2MAN} --no-info --section=1 --name=${name} ${version_option} --output=${page} ${command}
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
verifier_man_page(gost-hash "GOST R 34.11-2012 digests of files" ${PROJECT_VERSION})
verifier_man_page(sign-package "sign the files of an update package folder")
verifier_man_page(make-test-pki "make a throw-away GOST test PKI")
add_custom_target(man_pages ALL DEPENDS ${verifier_man_pages})
