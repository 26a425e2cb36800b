# Installation and the Debian package.
#
#   cmake --install build --prefix /usr      # binary, manual page, examples,
#                                            # bash completion
#   (cd build && cpack -G DEB)               # ferrow_<version>-1_<arch>.deb
#
# The package's dependencies are computed by dpkg-shlibdeps from the
# libraries the binary links (libssh2, libxml2, libxslt, log4cpp, Boost
# Filesystem, OpenSSL's libcrypto and the C++ runtime), so they always name
# the packages of the distribution the package is built on.

include(GNUInstallDirs)

# Directories made by the installation are world-readable whatever umask
# the person building has.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE
  GROUP_READ GROUP_EXECUTE
  WORLD_READ WORLD_EXECUTE)

set(FERROW_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/ferrow)
set(FERROW_EXAMPLES_DIR ${FERROW_DOC_DIR}/examples)

if(TARGET ferrow)
  install(TARGETS ferrow RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# Debian keeps manual pages compressed; -n leaves the time stamp out so the
# same page always compresses to the same bytes.
find_program(FERROW_GZIP gzip REQUIRED)
set(FERROW_MAN_PAGE ${CMAKE_BINARY_DIR}/man/ferrow.1.gz)
add_custom_command(OUTPUT ${FERROW_MAN_PAGE}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
  COMMAND ${FERROW_GZIP} -9nc ${CMAKE_SOURCE_DIR}/man/ferrow.1 > ${FERROW_MAN_PAGE}
  DEPENDS ${CMAKE_SOURCE_DIR}/man/ferrow.1
  COMMENT "Compressing the manual page ferrow(1)"
  VERBATIM)
add_custom_target(ferrow_man ALL DEPENDS ${FERROW_MAN_PAGE})
install(FILES ${FERROW_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

install(FILES ${CMAKE_SOURCE_DIR}/share/completion/ferrow
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${FERROW_DOC_DIR})
# What an installation of the panel provides beside ferrow: its
# configuration, the logging set-up, the scout and the agent catalogue
# (with the reference agent), laid out as share/README.md describes.
install(FILES
    ${CMAKE_SOURCE_DIR}/examples/dyr.conf
    ${CMAKE_SOURCE_DIR}/examples/log4cpp.properties
    ${CMAKE_SOURCE_DIR}/share/scout.pl
  DESTINATION ${FERROW_EXAMPLES_DIR})
install(FILES ${CMAKE_SOURCE_DIR}/share/README.md
  DESTINATION ${FERROW_EXAMPLES_DIR} RENAME README.agents.md)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/share/agents
  DESTINATION ${FERROW_EXAMPLES_DIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ferrow)
set(CPACK_PACKAGE_VENDOR "ferrow")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ferrow maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "launch tool of a hosting control panel's migration manager")
set(CPACK_PACKAGE_DESCRIPTION
  "ferrow runs on the destination server of a migration, one short-lived
process per migration step, and drives one source server over SSH: it
probes the source with a scout script, deploys a migration agent there,
has the agent dump the selected hosting objects, fetches the dump and the
content archives back, and removes the agent.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The completion file is only read when bash-completion is there.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
