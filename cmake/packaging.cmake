# Installation layout and Debian packages.
#
# Two packages come out of one build:
#   kiv        (component device)      the command for the device: binary, man page,
#                                      bash completion, plug-in header
#   kiv-tools  (component workstation) the integrator tools: flash simulator, sandbox,
#                                      image builder, with their man pages
# A cross build (armhf, arm64) produces the device package only.
include(GNUInstallDirs)

set(KIV_MAN_DIR ${PROJECT_SOURCE_DIR}/docs/man)
set(KIV_MAN_OUT ${PROJECT_BINARY_DIR}/man)

# Man pages are shipped compressed, as Debian's policy asks; man reads them either way.
function(kiv_install_man page component)
  if(NOT EXISTS ${KIV_MAN_DIR}/${page})
    return()
  endif()
  add_custom_command(OUTPUT ${KIV_MAN_OUT}/${page}.gz
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${KIV_MAN_OUT}
                     COMMAND gzip -9n -c ${KIV_MAN_DIR}/${page} > ${KIV_MAN_OUT}/${page}.gz
                     DEPENDS ${KIV_MAN_DIR}/${page} VERBATIM)
  add_custom_target(man_${page} ALL DEPENDS ${KIV_MAN_OUT}/${page}.gz)
  install(FILES ${KIV_MAN_OUT}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
          COMPONENT ${component})
endfunction()

# Each package carries its copyright and changelog in its own documentation directory.
function(kiv_install_package_docs package component)
  set(out ${PROJECT_BINARY_DIR}/pkgdoc/${package})
  add_custom_command(OUTPUT ${out}/changelog.gz
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
                     COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog > ${out}/changelog.gz
                     DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
  add_custom_target(pkgdoc_${package} ALL DEPENDS ${out}/changelog.gz)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${out}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endfunction()

if(TARGET kiv)
  install(TARGETS kiv RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT device)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/include/kiv_plugin.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT device)
kiv_install_man(kiv.1 device)
if(EXISTS ${PROJECT_SOURCE_DIR}/completion/kiv)
  install(FILES ${PROJECT_SOURCE_DIR}/completion/kiv
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT device)
endif()
kiv_install_package_docs(kiv device)
set(KIV_COMPONENTS device)

if(KIV_BUILD_TOOLS)
  install(TARGETS kiv-flashsim kiv-sandbox kiv-powercut mkzunf RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          COMPONENT workstation)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/sandbox/default.layout
          DESTINATION ${CMAKE_INSTALL_DATADIR}/kiv-tools COMPONENT workstation)
  foreach(page mkzunf.1 kiv-sandbox.1 kiv-flashsim.1 kiv-powercut.1)
    kiv_install_man(${page} workstation)
  endforeach()
  kiv_install_package_docs(kiv-tools workstation)
  list(APPEND KIV_COMPONENTS workstation)
endif()

# ---------------------------------------------------------------- Debian packages
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kiv)
set(CPACK_PACKAGE_VENDOR "The kiv developers")
set(CPACK_PACKAGE_CONTACT "The kiv developers <kiv@example.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_COMPONENTS_ALL ${KIV_COMPONENTS})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)

# The package architecture follows the compiler, not the build machine.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

set(CPACK_DEBIAN_DEVICE_PACKAGE_NAME kiv)
set(CPACK_DEBIAN_DEVICE_DESCRIPTION
    "software upgrade utility for A/B partitioned NOR flash
kiv installs release images into one of two partition sets of an embedded
device, keeps its state in a CRC-protected hostconfig with a backup copy,
drives the per-set upgrade state and verifies partitions by CRC-32.

This package holds the command, its man page, bash completion and the
header for site plug-ins.")
# kiv needs only libc; the C++ run-time is linked in.
set(CPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS "libc6 (>= 2.34)")

set(CPACK_DEBIAN_WORKSTATION_PACKAGE_NAME kiv-tools)
set(CPACK_DEBIAN_WORKSTATION_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_WORKSTATION_DESCRIPTION
    "simulated device for rehearsing kiv upgrades on a workstation
kiv-flashsim serves simulated NOR flash as MTD devices through FUSE,
kiv-sandbox runs a command on a simulated device with its own flash,
kernel command line and syslog, and mkzunf builds release images.")
set(CPACK_DEBIAN_WORKSTATION_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_WORKSTATION_PACKAGE_DEPENDS "fuse3")

include(CPack)
