# Manual pages, and Debian packages: "orx", the server as a service, "orx-tools", and "orx-companions", the programs
# that run beside it. scripts/package.sh builds them.
# Their files are components that an ordinary installation leaves out.

set(ORX_TOOLS orxpush orxload orxrec orxzmf orxzupo orxrelay)
if(TARGET orxctl)
  list(APPEND ORX_TOOLS orxctl)
endif()
set(ORX_COMPANIONS orxpull)
if(TARGET orxweb)
  list(APPEND ORX_COMPANIONS orxweb)
endif()
set(title_orx "streaming media server for cameras and recorders")
set(title_orxpush "push a program to an RTSP server as a camera does")
set(title_orxload "open many RTSP players and say what reached them")
set(title_orxrec "start, stop and list recordings of orx")
set(title_orxzmf "look into, check, repair and export recordings of orx")
set(title_orxzupo "rendezvous server for boxes behind NAT")
set(title_orxrelay "reach a box behind NAT on a local TCP port")
set(title_orxctl "show and steer a running orx")
set(title_orxpull "pull cameras that are RTSP servers into orx")
set(title_orxweb "show live and recorded pictures of orx in browsers")

# --- Manual pages: from what each program says with --help ---

set(pages)
foreach(program orx ${ORX_TOOLS} ${ORX_COMPANIONS})
  set(section_${program} 1)
  if(program STREQUAL orx)
    set(section_${program} 8)
  endif()
  set(page ${PROJECT_BINARY_DIR}/man/${program}.${section_${program}}.gz)
  # the emulator of a cross build stands in front, or nothing does
  add_custom_command(OUTPUT ${page}
    COMMAND ${PROJECT_SOURCE_DIR}/cmake/manpage.sh ${page} ${program} ${section_${program}} ${PROJECT_VERSION}
            ${title_${program}} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${program}>
    DEPENDS ${program} ${PROJECT_SOURCE_DIR}/cmake/manpage.sh VERBATIM)
  list(APPEND pages ${page})
  install(FILES ${page} DESTINATION share/man/man${section_${program}} OPTIONAL)
endforeach()
add_custom_target(manpages DEPENDS ${pages})

# --- What lies where ---

set(made ${PROJECT_BINARY_DIR}/packaging)
set(from ${PROJECT_SOURCE_DIR}/packaging)
file(MAKE_DIRECTORY ${made}/empty)
file(READ ${PROJECT_SOURCE_DIR}/cfg/orx.cfg shipped)
string(REPLACE "\nRecordPath=./rec\n" "\nRecordPath=/var/lib/orx\n" shipped "${shipped}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/cfg/orx.cfg)
file(CONFIGURE OUTPUT ${made}/orx.cfg CONTENT "${shipped}" @ONLY)

# package_link(tools /usr/lib/orx/bin/orxpush usr/bin orxpush)
function(package_link component target folder name)
  file(MAKE_DIRECTORY ${made}/links/${component}/${folder})
  file(CREATE_LINK ${target} ${made}/links/${component}/${folder}/${name} SYMBOLIC)
  install(FILES ${made}/links/${component}/${folder}/${name} DESTINATION ${folder} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
endfunction()

function(package_file component folder file)
  cmake_parse_arguments(F "" "RENAME" "PERMISSIONS" ${ARGN})
  if(NOT F_PERMISSIONS)
    set(F_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()
  if(NOT F_RENAME)
    get_filename_component(F_RENAME ${file} NAME)
  endif()
  install(FILES ${file} DESTINATION ${folder} RENAME ${F_RENAME} PERMISSIONS ${F_PERMISSIONS} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
endfunction()

# A program finds configuration, log and tools beside its own bin/, so that all lie in one place; the links lead to
# where the system keeps such things.
function(package_program component program)
  install(TARGETS ${program} RUNTIME DESTINATION usr/lib/orx/bin COMPONENT ${component} EXCLUDE_FROM_ALL)
  package_link(${component} ../lib/orx/bin/${program} usr/bin ${program})
  package_file(${component} usr/share/man/man${section_${program}}
               ${PROJECT_BINARY_DIR}/man/${program}.${section_${program}}.gz)
endfunction()

package_program(server orx)
package_link(server /etc/orx usr/lib/orx cfg)
package_link(server /var/log/orx usr/lib/orx log)
package_link(server /run/orx usr/lib/orx run)
package_file(server etc/orx ${made}/orx.cfg PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)
package_file(server etc/logrotate.d ${from}/orx.logrotate RENAME orx)
package_file(server lib/systemd/system ${from}/orx.service)
package_file(server usr/share/lintian/overrides ${from}/debian/orx.lintian-overrides RENAME orx)
foreach(folder var/lib/orx var/log/orx)
  install(DIRECTORY ${made}/empty/ DESTINATION ${folder} COMPONENT server EXCLUDE_FROM_ALL)
endforeach()
file(GLOB docs CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
foreach(file IN LISTS docs)
  package_file(server usr/share/doc/orx ${file})
endforeach()
foreach(file stunnel.conf orx-tls.service)
  package_file(server usr/share/doc/orx/examples ${from}/tls/${file})
endforeach()

foreach(program IN LISTS ORX_TOOLS)
  package_program(tools ${program})
endforeach()
package_file(tools usr/share/orx ${PROJECT_SOURCE_DIR}/tests/data/clip.h264)

foreach(program IN LISTS ORX_COMPANIONS)
  package_program(companions ${program})
  package_file(companions lib/systemd/system ${from}/${program}.service)
endforeach()
package_link(companions /var/cache/orx usr/lib/orx cache)

# the date of the commit, so that the same commit makes the same package
execute_process(COMMAND git -C ${PROJECT_SOURCE_DIR} log -1 --format=%cD OUTPUT_VARIABLE ORX_DATE
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT ORX_DATE)
  set(ORX_DATE "Thu, 01 Jan 2026 00:00:00 +0000")
endif()
find_program(ORX_GZIP gzip)
foreach(component server tools companions)
  set(package orx)
  if(NOT component STREQUAL server)
    set(package orx-${component})
  endif()
  configure_file(${from}/debian/changelog.in ${made}/${component}/changelog @ONLY)
  execute_process(COMMAND ${ORX_GZIP} -9nf ${made}/${component}/changelog)
  package_file(${component} usr/share/doc/${package} ${made}/${component}/changelog.gz)
  package_file(${component} usr/share/doc/${package} ${from}/debian/copyright)
endforeach()

# --- The packages ---

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orx)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The Orx maintainers <maintainers@orx.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL server tools companions)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_LIBRARY_ARCHITECTURE MATCHES "^arm-")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
elseif(CMAKE_LIBRARY_ARCHITECTURE MATCHES "^aarch64-")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(ORX_SYSROOT)
  # dpkg knows nothing of the libraries there: the same packages as at home
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_COMPANIONS_PACKAGE_SHLIBDEPS OFF)
  set(ORX_TOOLS_NEED "libavcodec59, libavformat59, libavutil57, libc6, libenet7, libstdc++6")
  set(ORX_COMPANIONS_NEED ", libavcodec59, libavutil57, libc6, libmicrohttpd12, libssl3, libstdc++6, libswscale6")
endif()

set(CPACK_DEBIAN_SERVER_PACKAGE_NAME orx)
set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVER_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "adduser, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_SERVER_PACKAGE_RECOMMENDS "logrotate, orx-tools")
set(CPACK_DEBIAN_SERVER_DESCRIPTION "streaming media server for cameras and recorders
Encoders announce live programs over RTSP, players watch them over TCP, UDP or
an HTTP tunnel. Programs are recorded and played back, and players behind NAT
come in through a relay over reliable UDP. Made for small boxes that run for
years; this package runs it as a service of its own user.")
file(WRITE ${made}/control/conffiles "/etc/orx/orx.cfg\n/etc/logrotate.d/orx\n")
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${from}/debian/postinst ${from}/debian/prerm ${from}/debian/postrm
    ${made}/control/conffiles)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orx-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ORX_TOOLS_NEED}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS orx)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "tools for the Orx streaming media server
A pusher with a demo clip, a load and latency measure, the control of
recordings, their check, repair and export, and the two ends of the way to
boxes behind NAT.")

set(CPACK_DEBIAN_COMPANIONS_PACKAGE_NAME orx-companions)
set(CPACK_DEBIAN_COMPANIONS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_COMPANIONS_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPANIONS_PACKAGE_DEPENDS
    "orx (>= ${PROJECT_VERSION}), init-system-helpers (>= 1.52)${ORX_COMPANIONS_NEED}")
set(CPACK_DEBIAN_COMPANIONS_DESCRIPTION "cameras and browsers for the Orx streaming media server
Two services beside the server: one pulls cameras that are RTSP servers, the
other shows live and recorded pictures to people with a browser.")
set(CPACK_DEBIAN_COMPANIONS_PACKAGE_CONTROL_EXTRA ${from}/debian/companions/postinst
    ${from}/debian/companions/prerm ${from}/debian/companions/postrm)
include(CPack)
