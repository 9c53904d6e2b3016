# The Debian packages: `script/package` builds them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE vexa-at-client)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER
    "The vexa_at_client developers <vexa-at-client@packages.example.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION comm)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The platform libraries are a module's own and belong to no package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "armv7l")
    # dpkg-shlibdeps would name the cross compiler's packages: what it finds for amd64, by hand.
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    set(VEXA_NEEDS_C ", libc6 (>= 2.36)")
    set(VEXA_NEEDS_BENCH ", libedit2, libgcc-s1, libstdc++6 (>= 12), libuv1 (>= 1.34.2)")
else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

# vexa_package(COMPONENT NAME SUMMARY TEXT [DEPENDS list] [SUGGESTS list] [RECOMMENDS list])
macro(vexa_package component name summary text)
    cmake_parse_arguments(vexa_package "" "DEPENDS;SUGGESTS;RECOMMENDS" "" ${ARGN})
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    string(TOUPPER ${component} vexa_upper)
    set(CPACK_DEBIAN_${vexa_upper}_PACKAGE_NAME ${name})
    set(CPACK_COMPONENT_${vexa_upper}_DESCRIPTION "${summary}\n${text}")
    foreach(relation DEPENDS SUGGESTS RECOMMENDS)
        string(REGEX REPLACE "^, " "" related "${vexa_package_${relation}}")
        set(CPACK_DEBIAN_${vexa_upper}_PACKAGE_${relation} "${related}")
    endforeach()
endmacro()

set(CPACK_COMPONENTS_ALL "")
vexa_package(daemon vexa-at-client
    "AT-command daemon of a cellular module"
    "Owns every AT port that the host computer sees, sends each command line to\nthe modem processor, to the app platform daemon or to both, and writes the\nanswers back to the port that asked.\n.\nThe platform libraries that it calls are those of the module. The service is\ninstalled and not enabled."
    DEPENDS "${VEXA_NEEDS_C}"
    RECOMMENDS nftables
    SUGGESTS vexa-at-bench)
set(debian_files ${CMAKE_CURRENT_SOURCE_DIR}/debian/daemon)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
    "${debian_files}/conffiles;${debian_files}/postinst;${debian_files}/prerm;${debian_files}/postrm")

if(NOT VEXA_PLATFORM_LIB_DIR)
    vexa_package(standins vexa-platform-standins
        "stand-ins for a module's platform libraries"
        "Let vexa-at-client run on a machine that is no cellular module. They lie in\na folder of their own, which no program searches by itself; the bench of\nvexa-at-bench does."
        DEPENDS "${VEXA_NEEDS_C}")
endif()
if(TARGET vexa-qmi-host)
    vexa_package(qmi_host vexa-qmi-host
        "host of the QMI AT service beside vexa-at-client"
        "Carries the QMI service through which clients of the module send AT commands\nto vexa-at-client, in a process of its own.\n.\nThe platform libraries that it calls are those of the module."
        DEPENDS "vexa-at-client (= ${PROJECT_VERSION})${VEXA_NEEDS_C}")
endif()
if(VEXA_BENCH AND NOT VEXA_PLATFORM_LIB_DIR)
    set(same "(= ${PROJECT_VERSION})")
    vexa_package(bench vexa-at-bench
        "simulated cellular module for vexa-at-client"
        "Runs the installed daemon, unchanged, on ptys and sockets that pose as the\nmodule's devices, with a modem and an app platform that play text files, and\ngives an AT console. Recordings of what passed are shown as text, picture or\npacket capture, and replayed."
        DEPENDS "vexa-at-client ${same}, vexa-platform-standins ${same}, vexa-qmi-host ${same}, python3${VEXA_NEEDS_C}${VEXA_NEEDS_BENCH}")
endif()
include(CPack)
