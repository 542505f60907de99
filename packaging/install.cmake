# Where a distribution would put everything, and the Debian package.

include(GNUInstallDirs)

# What the client's manual page says of subcommands comes from its own description of them.
set(GENERATED ${CMAKE_CURRENT_BINARY_DIR}/generated)
file(MAKE_DIRECTORY ${GENERATED})
add_custom_command(
    OUTPUT ${GENERATED}/ruxctl.1
    COMMAND ruxctl manual > ${GENERATED}/commands
    COMMAND sed -e "/@COMMANDS@/r ${GENERATED}/commands" -e "/@COMMANDS@/d"
            ${CMAKE_CURRENT_SOURCE_DIR}/packaging/ruxctl.1.in > ${GENERATED}/ruxctl.1
    DEPENDS ruxctl packaging/ruxctl.1.in VERBATIM)
add_custom_target(pages ALL DEPENDS ${GENERATED}/ruxctl.1)

set(RUX_STATE_ROOT ${RUX_DEFAULT_ROOT})
if(NOT RUX_STATE_ROOT)
    set(RUX_STATE_ROOT /var/lib/rux)
endif()
foreach(unit rux.service rux-dedupe@.service)
    configure_file(packaging/${unit}.in ${GENERATED}/${unit} @ONLY)
    list(APPEND units ${GENERATED}/${unit})
endforeach()

install(TARGETS rux ruxctl)
install(FILES ${GENERATED}/ruxctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/rux.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/ruxctl.bash RENAME ruxctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/_ruxctl DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES ${units} packaging/rux-dedupe@.timer DESTINATION lib/systemd/system)
install(FILES packaging/rux.sysusers RENAME rux.conf DESTINATION lib/sysusers.d)
install(FILES README.md LICENSE docs/safety.md docs/decisions.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES packaging/exceptions.rules DESTINATION ${CMAKE_INSTALL_DATADIR}/rux)
if(RUX_DEFAULT_ROOT)
    install(FILES packaging/sample.conf DESTINATION /etc/rux)
    # The directory that the service never makes itself, and the way to the sockets in /run.
    install(CODE "
        file(MAKE_DIRECTORY \"\$ENV{DESTDIR}${RUX_DEFAULT_ROOT}/data/local/zel\")
        file(CREATE_LINK /run \"\$ENV{DESTDIR}${RUX_DEFAULT_ROOT}/run\" SYMBOLIC)")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME rux)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The rux developers <rux@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "links files of identical content, and takes that back")
set(CPACK_PACKAGE_DESCRIPTION
    "A service that keeps digests of files in small databases, replaces duplicates by
hard links after comparing them byte for byte, and gives linked files data of their
own again. ruxctl is its client.")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/conffiles
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/postrm)
include(CPack)
