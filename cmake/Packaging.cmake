# What packages hold beyond an installation, and how CPack makes them. A package is
# made by scripts/package, which names the Debian release it is for.
set(TZREGISTER_DEBIAN_REVISION "1" CACHE STRING "Revision of the Debian packages, such as 1~deb12")
set(TZREGISTER_UNIT_DIR "lib/systemd/system" CACHE STRING "Where systemd's units are installed")
set(TZREGISTER_RESTART_STEPS "" CACHE STRING "Steps in which systemd 254 or later lengthens its waits")

# Whoever publishes packages puts a name, an address and a licence here. Until then they
# claim none: nobody can have an address that ends in .invalid.
set(TZREGISTER_MAINTAINER "tzregister maintainers <maintainers@tzregister.invalid>" CACHE STRING
    "Who answers for the packages")
set(TZREGISTER_LICENSE "LicenseRef-not-stated" CACHE STRING "Licence of the packages, as SPDX writes it")

set(UNIT_GROWING_WAIT "")
if(TZREGISTER_RESTART_STEPS)
  set(UNIT_GROWING_WAIT "RestartSteps=${TZREGISTER_RESTART_STEPS}\nRestartMaxDelaySec=1h\n")
endif()
configure_file(packaging/tzregister-enroll.service.in ${PROJECT_BINARY_DIR}/tzregister-enroll.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tzregister-enroll.service packaging/tzregister-enroll.timer
        DESTINATION ${TZREGISTER_UNIT_DIR})
install(FILES packaging/cloud-init.yaml deploy/prometheus/tzregister-enroll.rules.yml
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The authority for trying, as its own component.
set(AUTHORITY_DIR ${CMAKE_INSTALL_DATADIR}/tzregister-authority)
set(AUTHORITY_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/tzregister-authority)
install(DIRECTORY authority/ DESTINATION ${AUTHORITY_DIR} COMPONENT authority EXCLUDE_FROM_ALL
        USE_SOURCE_PERMISSIONS PATTERN data EXCLUDE PATTERN README.md EXCLUDE PATTERN .gitignore EXCLUDE)
install(PROGRAMS packaging/tzregister-authority DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT authority EXCLUDE_FROM_ALL)
install(FILES authority/README.md DESTINATION ${AUTHORITY_DOCDIR} COMPONENT authority EXCLUDE_FROM_ALL)

# Only packages make directories outside their prefix.
install(DIRECTORY DESTINATION /etc/quorvex/certs COMPONENT tzregister EXCLUDE_FROM_ALL
        DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                              WORLD_READ WORLD_EXECUTE)
add_custom_target(package-docs
  COMMAND python3 ${PROJECT_SOURCE_DIR}/packaging/package_docs.py ${PROJECT_SOURCE_DIR}/CHANGELOG.md
          ${TZREGISTER_DEBIAN_REVISION} ${TZREGISTER_MAINTAINER} ${TZREGISTER_LICENSE}
          ${PROJECT_BINARY_DIR}/package-docs
  VERBATIM)
foreach(COMPONENT tzregister authority)
  set(DOCDIR ${CMAKE_INSTALL_DOCDIR})
  if(COMPONENT STREQUAL authority)
    set(DOCDIR ${AUTHORITY_DOCDIR})
  endif()
  foreach(FILE changelog.gz changelog.Debian.gz copyright)
    install(FILES ${PROJECT_BINARY_DIR}/package-docs/${COMPONENT}/${FILE} DESTINATION ${DOCDIR}
            COMPONENT ${COMPONENT} EXCLUDE_FROM_ALL)
  endforeach()
endforeach()

set(CPACK_PACKAGE_NAME tzregister)
set(CPACK_PACKAGE_VENDOR "unknown")
set(CPACK_PACKAGE_CONTACT "${TZREGISTER_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "registration and provisioning tool of the Quorvex storage system")
set(CPACK_COMPONENTS_ALL tzregister authority)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(TZREGISTER_SUMMARY "${CPACK_PACKAGE_DESCRIPTION_SUMMARY}")
set(TZREGISTER_TEXT
"tzregister makes a host a member of a Quorvex storage pool. It asks the
pool's Storage Pool Authority over HTTP, HTTPS or the vrmo channel and turns
the answer into local files.

tzregister-enroll puts checks, retries and an atomic replacement around a
registration, for people, for first boots and for roll-outs.")
set(AUTHORITY_SUMMARY "small storage pool authority for trying tzregister")
set(AUTHORITY_TEXT
"tzregister-authority starts an authority on loopback, with TLS, that
tzregister can register with. It is for trying and testing, not for running
a pool.")
foreach(COMPONENT TZREGISTER AUTHORITY)
  set(CPACK_DEBIAN_${COMPONENT}_DESCRIPTION "${${COMPONENT}_SUMMARY}\n${${COMPONENT}_TEXT}")
  string(SUBSTRING "${${COMPONENT}_SUMMARY}" 0 1 INITIAL)
  string(TOUPPER "${INITIAL}" INITIAL)
  string(SUBSTRING "${${COMPONENT}_SUMMARY}" 1 -1 SUMMARY)
  set(CPACK_RPM_${COMPONENT}_PACKAGE_SUMMARY "${INITIAL}${SUMMARY}")
  set(CPACK_RPM_${COMPONENT}_PACKAGE_DESCRIPTION "${${COMPONENT}_TEXT}")
endforeach()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TZREGISTER_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_TZREGISTER_PACKAGE_NAME tzregister)
set(CPACK_DEBIAN_TZREGISTER_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TZREGISTER_PACKAGE_DEPENDS "python3:any (>= 3.11)")
set(CPACK_DEBIAN_TZREGISTER_PACKAGE_SUGGESTS "tzregister-authority")
set(CPACK_DEBIAN_TZREGISTER_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/packaging/debian/postinst;${PROJECT_SOURCE_DIR}/packaging/debian/postrm;${PROJECT_SOURCE_DIR}/packaging/debian/prerm")
set(CPACK_DEBIAN_AUTHORITY_PACKAGE_NAME tzregister-authority)
set(CPACK_DEBIAN_AUTHORITY_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_AUTHORITY_PACKAGE_DEPENDS "php-cli (>= 2:8.2), php-sqlite3 (>= 2:8.2), nginx, openssl")
set(CPACK_DEBIAN_AUTHORITY_PACKAGE_ENHANCES "tzregister")

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_RPM_PACKAGE_LICENSE "${TZREGISTER_LICENSE}")
set(CPACK_RPM_MAIN_COMPONENT tzregister)
set(CPACK_RPM_TZREGISTER_PACKAGE_NAME tzregister)
set(CPACK_RPM_TZREGISTER_PACKAGE_REQUIRES "python3 >= 3.11")
set(CPACK_RPM_TZREGISTER_POST_INSTALL_SCRIPT_FILE ${PROJECT_SOURCE_DIR}/packaging/rpm/post)
set(CPACK_RPM_TZREGISTER_PRE_UNINSTALL_SCRIPT_FILE ${PROJECT_SOURCE_DIR}/packaging/rpm/preun)
set(CPACK_RPM_TZREGISTER_POST_UNINSTALL_SCRIPT_FILE ${PROJECT_SOURCE_DIR}/packaging/rpm/postun)
set(CPACK_RPM_CHANGELOG_FILE ${PROJECT_BINARY_DIR}/package-docs/changelog.rpm)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/share/man /usr/share/man/man5 /usr/share/man/man8 /usr/lib/systemd /usr/lib/systemd/system
    /usr/share/bash-completion /usr/share/bash-completion/completions /usr/share/fish
    /usr/share/fish/vendor_completions.d /usr/share/zsh /usr/share/zsh/vendor-completions)
set(CPACK_RPM_SPEC_MORE_DEFINE
"%define _buildhost reproducible
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define _build_id_links none")

set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/PackagingByGenerator.cmake)
include(CPack)
