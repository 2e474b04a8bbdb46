# What `cmake --install` puts where, and the Debian package made from the same
# rules (`cpack -G DEB`).
#
# Two layouts, chosen by the install prefix at install time:
# - the prefix TAV_SYSTEM_PREFIX (/usr, the Debian package's): the security
#   toolkit goes to /usr/lib/64 and the code-set tables and krvldap.conf to
#   /opt/KRV/ldap/V6.2, where the library looks for them when nothing in the
#   environment says otherwise;
# - any other prefix keeps everything below it: the toolkit in <prefix>/lib/64,
#   the tables and krvldap.conf in <prefix>/share/tav8ldap_64; the
#   environment points the library there (docs/guide.md, "Installing").
include(CMakePackageConfigHelpers)

set(TAV_SYSTEM_PREFIX "/usr" CACHE PATH "Install prefix at which files go where the library's defaults look")
set(TAV_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/libtav8ldap_64)

# The whole client as a static archive, from the same objects as the shared
# object.
add_library(tav8ldap_64_full STATIC $<TARGET_OBJECTS:tavldap_obj>)
set_target_properties(tav8ldap_64_full PROPERTIES OUTPUT_NAME tav8ldap_64_full)

install(TARGETS tav8ldap_64 tav8ldap_64_full tavsasl LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tavldap tavkeydb RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# "/usr/lib/64/" under the system prefix; the toolkit is never found by the
# loader's default path, so the lib/64 below any prefix is as good.
install(TARGETS tav7ssl_64 LIBRARY DESTINATION lib/64)
install(FILES include/tavldap.h include/tavldap_types.h include/tavldap_full.h include/tavldap_compat.h
  include/tavldap_plugin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# <ldap.h> and <lber.h> in a folder of their own, never beside the system's.
install(FILES include/compat/ldap.h include/compat/lber.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tav8ldap_64_compat)
install(FILES tools/tavldap.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES README.md DESTINATION ${TAV_DOC_DIR})
install(DIRECTORY docs/ DESTINATION ${TAV_DOC_DIR}/docs)
install(DIRECTORY examples/ DESTINATION ${TAV_DOC_DIR}/examples)

# pkg-config and find_package.
foreach(_pc tav8ldap_64 tav8ldap_64_full tav8ldap_64_compat)
  configure_file(cmake/${_pc}.pc.in ${CMAKE_BINARY_DIR}/packaging/${_pc}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${_pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
set(_tav_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Tav8Ldap)
file(RELATIVE_PATH TAV_CONFIG_TO_PREFIX /p/${_tav_cmake_dir} /p)
configure_file(cmake/Tav8LdapConfig.cmake.in ${CMAKE_BINARY_DIR}/packaging/Tav8LdapConfig.cmake @ONLY)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/Tav8LdapConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/Tav8LdapConfig.cmake
  ${CMAKE_BINARY_DIR}/packaging/Tav8LdapConfigVersion.cmake DESTINATION ${_tav_cmake_dir})

# The library's home: code-set tables and krvldap.conf, placed by the layout.
# krvldap.conf names the SASL plug-in by the path it is installed at.
install(CODE "
  if(CMAKE_INSTALL_PREFIX STREQUAL \"${TAV_SYSTEM_PREFIX}\")
    set(_tav_home /opt/KRV/ldap/V6.2)
  else()
    set(_tav_home \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATAROOTDIR}/tav8ldap_64\")
  endif()
  file(INSTALL DESTINATION \"\${_tav_home}/codeset\" TYPE FILE FILES ${TAV_CODESET_FILES})
  set(TAV_SASL_PLUGIN \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libtavsasl.so\")
  configure_file(\"${CMAKE_SOURCE_DIR}/tools/krvldap.conf.in\" \"${CMAKE_BINARY_DIR}/packaging/krvldap.conf\" @ONLY)
  file(INSTALL DESTINATION \"\${_tav_home}/etc\" TYPE FILE FILES \"${CMAKE_BINARY_DIR}/packaging/krvldap.conf\")
")

# The Debian package: the same rules with the system prefix.
set(CPACK_PACKAGE_NAME libtav8ldap-64)
set(CPACK_PACKAGE_VENDOR "libtav8ldap_64")
set(CPACK_PACKAGE_CONTACT "libtav8ldap_64 maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "LDAP client library with its client, security toolkit and SASL plug-in")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
# Absolute paths (/opt/KRV/...) need the install run with DESTDIR and the
# real prefix, which is also what makes the layout the system one.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${TAV_SYSTEM_PREFIX})
set(CPACK_PACKAGING_INSTALL_PREFIX ${TAV_SYSTEM_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Run-time dependencies from the binaries (dpkg-shlibdeps): OpenSSL, Cyrus SASL.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libsasl2-modules")
# krvldap.conf is the administrator's to edit: an upgrade keeps the changes.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/cmake/debian/conffiles)
set(CPACK_STRIP_FILES OFF)
include(CPack)
