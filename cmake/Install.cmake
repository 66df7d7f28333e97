# Installation for a board's root file system and the Debian package of the build's target
# architecture: arm64 from the cross build, the host's otherwise.
#
# Components: whatever is installed without one (the programs, their manual pages, the systemd unit)
# goes to the board and into the package. `board` is for the board only: the busybox boot script.
# `debian` is for the package only, and left out of a plain `cmake --install`: the LSB init script,
# copyright and changelog. A new program needs `install(TARGETS ...)` and `s2e_install_man(...)`.
include(GNUInstallDirs)

# /etc is never below the prefix (the daemon lives in /usr/sbin, its boot script in /etc/init.d).
set(S2E_INSTALL_INITDIR /etc/init.d CACHE STRING "Directory of the SysV boot script")
set(S2E_INSTALL_UNITDIR lib/systemd/system CACHE STRING "Directory of the systemd unit")

set(_s2e_pkg_src ${PROJECT_SOURCE_DIR}/packaging)
set(_s2e_pkg_gen ${PROJECT_BINARY_DIR}/packaging)

# Installs packaging/man/NAME.N gzipped (as Debian wants manual pages) into manN.
function(s2e_install_man name)
    string(REGEX MATCH "[1-9]$" _section ${name})
    set(_gz ${_s2e_pkg_gen}/${name}.gz)
    add_custom_command(OUTPUT ${_gz}
                       COMMAND gzip -9nc ${_s2e_pkg_src}/man/${name} > ${_gz}
                       DEPENDS ${_s2e_pkg_src}/man/${name})
    add_custom_target(man_${name} ALL DEPENDS ${_gz})
    install(FILES ${_gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${_section})
endfunction()

install(TARGETS SerialToEth RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
s2e_install_man(SerialToEth.8)
# The line capture tool, a user's program, in the same package.
install(TARGETS serialtoeth-capture RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
s2e_install_man(serialtoeth-capture.1)
# ... and Wireshark's extcap of the daemon's line: a link where Debian's Wireshark looks for them,
# four levels below the prefix, to the program.
if(CMAKE_LIBRARY_ARCHITECTURE)
    file(MAKE_DIRECTORY ${_s2e_pkg_gen}/extcap)
    file(CREATE_LINK ../../../../${CMAKE_INSTALL_BINDIR}/serialtoeth-capture
         ${_s2e_pkg_gen}/extcap/serialtoeth-capture SYMBOLIC)
    install(FILES ${_s2e_pkg_gen}/extcap/serialtoeth-capture
            DESTINATION lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/extcap)
else()
    message(WARNING "No multiarch triplet known: the extcap link for Wireshark is left out")
endif()

# The scripts and the unit name the daemon's installed path, which is only known at install time
# (`cmake --install --prefix`, CPack's /usr), so they are generated then.
install(CODE "
    if(IS_ABSOLUTE \"${CMAKE_INSTALL_SBINDIR}\")
        set(S2E_DAEMON_PATH \"${CMAKE_INSTALL_SBINDIR}/SerialToEth\")
    else()
        set(S2E_DAEMON_PATH \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/SerialToEth\")
    endif()
    set(S2E_SUPERVISE_PATH \"\${CMAKE_INSTALL_PREFIX}/lib/serialtoeth/serialtoeth-supervise\")
    configure_file(\"${_s2e_pkg_src}/init.d/S80serialtoeth.in\" \"${_s2e_pkg_gen}/S80serialtoeth\" @ONLY)
    configure_file(\"${_s2e_pkg_src}/debian/serialtoeth.init.in\" \"${_s2e_pkg_gen}/serialtoeth\" @ONLY)
    configure_file(\"${_s2e_pkg_src}/systemd/serialtoeth.service.in\"
                   \"${_s2e_pkg_gen}/serialtoeth.service\" @ONLY)
" ALL_COMPONENTS)
install(FILES ${_s2e_pkg_gen}/serialtoeth.service DESTINATION ${S2E_INSTALL_UNITDIR})
# The supervisor that the init scripts wrap and the unit runs around the daemon (restarts, log,
# identity), the egress shaping it runs after every start, and the settings both read (run alone,
# it shows them checked); no user's commands.
install(PROGRAMS ${_s2e_pkg_src}/serialtoeth-supervise ${_s2e_pkg_src}/serialtoeth-shape
                 ${_s2e_pkg_src}/serialtoeth-settings DESTINATION lib/serialtoeth)
install(PROGRAMS ${_s2e_pkg_gen}/S80serialtoeth DESTINATION ${S2E_INSTALL_INITDIR} COMPONENT board)

# The Debian package's own files. The package is native (built from this tree, no separate
# upstream source), so its changelog is changelog.gz and its latest entry names the project's version.
file(STRINGS ${_s2e_pkg_src}/debian/changelog _s2e_changelog_top LIMIT_COUNT 1)
string(REGEX REPLACE "^[^ ]+ \\(([^)]+)\\).*" "\\1" _s2e_changelog_version "${_s2e_changelog_top}")
if(NOT _s2e_changelog_version STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "packaging/debian/changelog is at ${_s2e_changelog_version}, the project at "
                        "${PROJECT_VERSION}: add a changelog entry")
endif()
add_custom_command(OUTPUT ${_s2e_pkg_gen}/changelog.gz
                   COMMAND gzip -9nc ${_s2e_pkg_src}/debian/changelog > ${_s2e_pkg_gen}/changelog.gz
                   DEPENDS ${_s2e_pkg_src}/debian/changelog)
add_custom_target(debian_changelog ALL DEPENDS ${_s2e_pkg_gen}/changelog.gz)
set(_s2e_docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/serialtoeth)
install(FILES ${_s2e_pkg_src}/debian/copyright ${_s2e_pkg_gen}/changelog.gz
        DESTINATION ${_s2e_docdir} COMPONENT debian EXCLUDE_FROM_ALL)
# Giving uart2eth0 its address and a fixed hardware address: an ifupdown stanza, systemd-networkd's
# .network and .link files, or the defaults file.
install(DIRECTORY ${_s2e_pkg_src}/examples/ DESTINATION ${_s2e_docdir}/examples COMPONENT debian
        EXCLUDE_FROM_ALL)
install(PROGRAMS ${_s2e_pkg_gen}/serialtoeth DESTINATION /etc/init.d COMPONENT debian EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified debian)
set(CPACK_PACKAGE_NAME serialtoeth)
set(CPACK_PACKAGE_CONTACT "SerialToEth Maintainers <maintainers@serialtoeth.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Ethernet over a serial line (TAP to UART bridge daemon)")
set(CPACK_PACKAGE_DESCRIPTION [[SerialToEth carries Ethernet over the board's serial line. It creates the
TAP interface uart2eth0 and bridges it to the UART /dev/zynq_uart0, raw 8N1
at 576000 baud: each frame the kernel sends out of the interface is
byte-stuffed between flags and written to the line, and frames arriving on
the line are written back into the interface.

An external supervisor can watch the daemon through System V IPC: a shared
status record, a monitor queue ticked every 10 seconds and fault reports.

The serial frames carry no checksum: data that matters needs end-to-end
integrity (TLS, SSH).]])
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# Absolute destinations (/etc/init.d) need a DESTDIR-style staging install.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Written by hand: dpkg-shlibdeps knows no arm64 libraries on an amd64 build machine. The daemon
# runs "ifconfig" (net-tools) and "killall udhcpc" (psmisc) through the shell; the shaping needs
# tc (iproute2), without which the bridge runs unshaped.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), net-tools, psmisc")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "iproute2")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "ifupdown, tshark | wireshark")
if(CMAKE_CROSSCOMPILING)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
    else()
        message(WARNING "No Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}; the package "
                        "would carry the build machine's")
    endif()
endif()
# Without an architecture CPack asks dpkg for the build machine's, right for a native build.

# Maintainer scripts in the shape debhelper would write them (CPack builds the package, not dh):
# the init script is registered but neither enabled nor started, the daemon is stopped on removal.
# The integrator's edits to the init script survive upgrades.
file(WRITE ${_s2e_pkg_gen}/conffiles "/etc/init.d/serialtoeth\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${_s2e_pkg_gen}/conffiles ${_s2e_pkg_src}/debian/postinst
                                       ${_s2e_pkg_src}/debian/prerm ${_s2e_pkg_src}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
