# Debian packages, built with `cpack -G DEB` in the build directory:
#   kbadbtunneld_<version>-<release>_<arch>.deb    the program, its manual page and bash completion
#   kbplatform-sim_<version>-<release>_<arch>.deb  the platform simulator (when KB_BUILD_TOOLS is on)
# Include this file after every install() rule has been declared.

set(CPACK_PACKAGE_NAME kbadbtunneld)
set(CPACK_PACKAGE_VENDOR Tarnwright)
set(CPACK_PACKAGE_CONTACT "Tarnwright <support@tarnwright.com>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: CPack would put it in front of every package's own
# synopsis, the simulator's included, and lintian rejects a synopsis repeated in the description.
set(CPACK_PACKAGE_HOMEPAGE_URL "https://www.tarnwright.com")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Tarnwright <support@tarnwright.com>")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# One package per component.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL kbadbtunneld)
if(TARGET kbplatform-sim)
    list(APPEND CPACK_COMPONENTS_ALL kbplatform-sim)
endif()

# dpkg-shlibdeps turns the linked libraries into Debian package names and versions
# (libqt6core6, libqt6network6, libqt6websockets6, libc6, libstdc++6, ...). The TLS libraries
# are opened at run time, not linked, so libssl3 is named by hand.
find_program(KB_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(KB_DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(_kb_runtime_depends "libssl3")
else()
    # Debian 12 names, for a build host without dpkg-dev.
    set(_kb_runtime_depends
        "libc6, libstdc++6, libgcc-s1, libqt6core6 (>= 6.4), libqt6network6 (>= 6.4), libqt6websockets6 (>= 6.4), libssl3")
endif()

set(CPACK_DEBIAN_KBADBTUNNELD_PACKAGE_NAME kbadbtunneld)
set(CPACK_DEBIAN_KBADBTUNNELD_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_KBADBTUNNELD_PACKAGE_DEPENDS "${_kb_runtime_depends}")
set(CPACK_DEBIAN_KBADBTUNNELD_PACKAGE_RECOMMENDS adb)
set(CPACK_DEBIAN_KBADBTUNNELD_PACKAGE_SUGGESTS bash-completion)
# First line: the synopsis; then the extended description, in lines of at most 79 characters
# (lintian counts the leading blank that dpkg adds).
set(CPACK_DEBIAN_KBADBTUNNELD_DESCRIPTION
    "Connects the local ADB server to Kestrelbox cloud Android instances
kbadbtunneld is a command-line program and background daemon. For each cloud
instance it authenticates against the platform, opens a WebSocket to the
instance's ADB endpoint, listens on a local TCP port and attaches the local
ADB server to it, so that adb and every ADB tool see the instance as a local
device.")

set(CPACK_DEBIAN_KBPLATFORM-SIM_PACKAGE_NAME kbplatform-sim)
set(CPACK_DEBIAN_KBPLATFORM-SIM_FILE_NAME DEB-DEFAULT)
if(NOT KB_DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_KBPLATFORM-SIM_PACKAGE_DEPENDS
        "libc6, libstdc++6, libgcc-s1, libqt6core6 (>= 6.4), libqt6network6 (>= 6.4), libqt6websockets6 (>= 6.4), libqt6httpserver6 (>= 6.4), libssl3")
endif()
set(CPACK_DEBIAN_KBPLATFORM-SIM_PACKAGE_SUGGESTS kbadbtunneld)
set(CPACK_DEBIAN_KBPLATFORM-SIM_DESCRIPTION
    "Local simulator of the Kestrelbox platform for kbadbtunneld
kbplatform-sim serves the platform's REST API and instance WebSockets on the
local machine, with emulated Android devices behind them, for trying out and
testing kbadbtunneld without a cloud account.")

include(CPack)

cpack_add_component(kbadbtunneld
    DISPLAY_NAME "kbadbtunneld"
    DESCRIPTION "The kbadbtunneld program, its manual page and bash completion"
    REQUIRED)
if(TARGET kbplatform-sim)
    cpack_add_component(kbplatform-sim
        DISPLAY_NAME "kbplatform-sim"
        DESCRIPTION "Local simulator of the Kestrelbox platform")
endif()
