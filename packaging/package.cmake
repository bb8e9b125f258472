# Makes one Debian package of a build, told by its environment:
#
#     PACKAGE=qm5osd ARCHITECTURE=armel VERSION=1.0.5 BUILD=build/arm \
#         cpack --config packaging/package.cmake -B FOLDER
#
# deb/stage.cmake says what lies where in it, deb/PACKAGE.* is what the package tells dpkg. The same
# files give the same bytes: SOURCE_DATE_EPOCH in the environment is the time of all of them.

foreach(name PACKAGE ARCHITECTURE VERSION BUILD)
    if(NOT DEFINED ENV{${name}})
        message(FATAL_ERROR "${name}: it is missing")
    endif()
    set(${name} $ENV{${name}})
endforeach()
set(folder ${CMAKE_CURRENT_LIST_DIR}/deb)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PACKAGE})
set(CPACK_PACKAGE_VERSION ${VERSION})
set(CPACK_PACKAGE_FILE_NAME ${PACKAGE}_${VERSION}_${ARCHITECTURE})
set(CPACK_PACKAGE_VENDOR "The qm5osd authors")
set(CPACK_INSTALL_SCRIPT ${folder}/stage.cmake)
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ARCHITECTURE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The qm5osd authors <qm5osd@localhost>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
file(GLOB CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${folder}/${PACKAGE}/*)

if(PACKAGE STREQUAL qm5osd)
    set(CPACK_DEBIAN_PACKAGE_SECTION video)
    # The codec library as the appliance provides it, or as the simulator does.
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libfreetype6 (>= 2.3.7), libqm5codec1.2")
    set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-dejavu-core")
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "on-screen display of a video codec appliance")
    set(CPACK_PACKAGE_DESCRIPTION
"It puts the date, the time, a label, a user string and filled rectangles on
the four outputs of the codec: the TV output, two streams and the storage.
.
The package has the command-line tool, which is the server too, its common
parameter file, and what makes a service of it.")
else()
    set(CPACK_DEBIAN_PACKAGE_SECTION devel)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    # In the place of the appliance's own.
    set(CPACK_DEBIAN_PACKAGE_PROVIDES "libqm5codec1.2")
    set(CPACK_DEBIAN_PACKAGE_CONFLICTS "libqm5codec1.2")
    set(CPACK_DEBIAN_PACKAGE_REPLACES "libqm5codec1.2")
    set(CPACK_DEBIAN_PACKAGE_SUGGESTS "qm5osd")
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "simulated codec for the on-screen display qm5osd")
    set(CPACK_PACKAGE_DESCRIPTION
"This has a library in the place of the appliance's codec library, with faults
by name, a record of every call and a check of the contract, and the tool that
shows the four outputs as pictures or as a page in a browser.
.
A recorder for the real library lies in /usr/lib/qm5sim.")
endif()
