# Installation for a board's root file system (daemon, boot script, systemd unit) and the Debian
# package of the build's target architecture: arm64 from the cross build, the host's otherwise.
include(GNUInstallDirs)

# /etc is never below the prefix (the daemon lives in /usr/sbin, its boot script in /etc/init.d).
set(S2E_INSTALL_INITDIR /etc/init.d CACHE STRING "Directory of the SysV boot script")
set(S2E_INSTALL_UNITDIR lib/systemd/system CACHE STRING "Directory of the systemd unit")

install(TARGETS SerialToEth RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# The boot script and the unit name the daemon's installed path, which is only known at install
# time (`cmake --install --prefix`, CPack's /usr), so they are generated then.
set(_s2e_pkg_src ${PROJECT_SOURCE_DIR}/packaging)
set(_s2e_pkg_gen ${PROJECT_BINARY_DIR}/packaging)
install(CODE "
    if(IS_ABSOLUTE \"${CMAKE_INSTALL_SBINDIR}\")
        set(S2E_DAEMON_PATH \"${CMAKE_INSTALL_SBINDIR}/SerialToEth\")
    else()
        set(S2E_DAEMON_PATH \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/SerialToEth\")
    endif()
    configure_file(\"${_s2e_pkg_src}/init.d/S80serialtoeth.in\" \"${_s2e_pkg_gen}/S80serialtoeth\" @ONLY)
    configure_file(\"${_s2e_pkg_src}/systemd/serialtoeth.service.in\"
                   \"${_s2e_pkg_gen}/serialtoeth.service\" @ONLY)
")
install(PROGRAMS ${_s2e_pkg_gen}/S80serialtoeth DESTINATION ${S2E_INSTALL_INITDIR})
install(FILES ${_s2e_pkg_gen}/serialtoeth.service DESTINATION ${S2E_INSTALL_UNITDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME serialtoeth)
set(CPACK_PACKAGE_CONTACT "SerialToEth maintainers <serialtoeth@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Ethernet over a serial line: TAP uart2eth0 bridged to /dev/zynq_uart0 at 576000 baud")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# Absolute destinations (/etc/init.d) need a DESTDIR-style staging install.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Written by hand: dpkg-shlibdeps knows no arm64 libraries on an amd64 build machine.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12)")
if(CMAKE_CROSSCOMPILING)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
    else()
        message(WARNING "No Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}; the package "
                        "would carry the build machine's")
    endif()
endif()
# Without an architecture CPack asks dpkg for the build machine's, right for a native build.
if(IS_ABSOLUTE "${S2E_INSTALL_INITDIR}")
    # The integrator's edits to the boot script survive package upgrades.
    file(WRITE ${_s2e_pkg_gen}/conffiles "${S2E_INSTALL_INITDIR}/S80serialtoeth\n")
    set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${_s2e_pkg_gen}/conffiles)
endif()
include(CPack)
