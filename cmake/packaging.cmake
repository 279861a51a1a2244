# Installation by Debian's conventions, the message catalogues, and the .deb package.
#
#   <prefix>/lib/<multiarch>/trovhwiprv/libtrovhwiprv.so      the module
#   <prefix>/lib/<multiarch>/trovhwiprv/locale/<lang>/LC_MESSAGES/vdsprovider.mo
#   <prefix>/bin/trovctl, <prefix>/bin/trovproxy-sim
#   <prefix>/share/man/man1/{trovctl,trovproxy-sim}.1.gz, man5/trovhwiprv-settings.5.gz
#   <prefix>/share/doc/trovhwiprv/{settings.reg,kelvane.conf}.example
#   <prefix>/share/bash-completion/completions/trovctl
#   <prefix>/lib/<multiarch>/pkgconfig/trovhwiprv.pc, <prefix>/include/trovhwiprv/platform/*.h
#   <prefix>/lib/systemd/system/trovproxy-sim.service
#
# The module's folder is the service folder: the catalogues sit in its locale/, where the
# provider looks for them (the settings' PATH names the module's file).

set(TROV_SERVICE_DIR ${CMAKE_INSTALL_LIBDIR}/trovhwiprv)
set(TROV_FULL_SERVICE_DIR ${CMAKE_INSTALL_FULL_LIBDIR}/trovhwiprv)
set(TROV_FULL_MODULE ${TROV_FULL_SERVICE_DIR}/libtrovhwiprv.so)
set(TROV_PROVIDER_VERSION 2.8.5.45)
set(TROV_PACKAGING_DIR ${CMAKE_SOURCE_DIR}/packaging)
set(TROV_GEN_DIR ${CMAKE_BINARY_DIR}/packaging)

# --- Message catalogues: compiled at build time into locale/ beside the built module ---
find_program(TROV_MSGFMT msgfmt REQUIRED)
file(GLOB TROV_PO_FILES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/po/*.po)
set(TROV_MO_FILES "")
foreach(po ${TROV_PO_FILES})
  get_filename_component(lang ${po} NAME_WE)
  set(mo_dir ${CMAKE_BINARY_DIR}/locale/${lang}/LC_MESSAGES)
  add_custom_command(OUTPUT ${mo_dir}/vdsprovider.mo
    COMMAND ${CMAKE_COMMAND} -E make_directory ${mo_dir}
    COMMAND ${TROV_MSGFMT} --check -o ${mo_dir}/vdsprovider.mo ${po}
    DEPENDS ${po} COMMENT "Compiling the ${lang} message catalogue" VERBATIM)
  list(APPEND TROV_MO_FILES ${mo_dir}/vdsprovider.mo)
  install(FILES ${mo_dir}/vdsprovider.mo DESTINATION ${TROV_SERVICE_DIR}/locale/${lang}/LC_MESSAGES)
endforeach()
add_custom_target(trov_catalogues ALL DEPENDS ${TROV_MO_FILES})

# --- Programs and the module ---
install(TARGETS trovhwiprv LIBRARY DESTINATION ${TROV_SERVICE_DIR})
install(TARGETS trovctl trovproxy-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# --- Manual pages, gzipped as Debian ships them ---
find_program(TROV_GZIP gzip REQUIRED)
set(TROV_MAN_PAGES trovctl.1 trovproxy-sim.1 trovhwiprv-settings.5)
set(TROV_MAN_OUTPUTS "")
foreach(page ${TROV_MAN_PAGES})
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
  set(out ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND sh -c "${TROV_GZIP} -9n -c '${CMAKE_SOURCE_DIR}/doc/${page}' > '${out}'"
    DEPENDS ${CMAKE_SOURCE_DIR}/doc/${page} VERBATIM)
  list(APPEND TROV_MAN_OUTPUTS ${out})
  install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
add_custom_target(trov_man_pages ALL DEPENDS ${TROV_MAN_OUTPUTS})

# --- Examples, completion, pkg-config, interface headers, the emulator's unit ---
configure_file(${TROV_PACKAGING_DIR}/settings.reg.in ${TROV_GEN_DIR}/settings.reg.example @ONLY)
install(FILES ${TROV_GEN_DIR}/settings.reg.example ${TROV_PACKAGING_DIR}/kelvane.conf.example
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${TROV_PACKAGING_DIR}/trovctl.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME trovctl)
configure_file(${TROV_PACKAGING_DIR}/trovhwiprv.pc.in ${TROV_GEN_DIR}/trovhwiprv.pc @ONLY)
install(FILES ${TROV_GEN_DIR}/trovhwiprv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# What a host program needs to load the module: the object model, the published interfaces and
# records, the provider's identities and the host hooks. They are declarations only.
install(FILES
        ${CMAKE_SOURCE_DIR}/src/platform/wintypes.h ${CMAKE_SOURCE_DIR}/src/platform/hresult.h
        ${CMAKE_SOURCE_DIR}/src/platform/vds_errors.h ${CMAKE_SOURCE_DIR}/src/platform/com.h
        ${CMAKE_SOURCE_DIR}/src/platform/vds.h ${CMAKE_SOURCE_DIR}/src/platform/vds_interfaces.h
        ${CMAKE_SOURCE_DIR}/src/platform/provider_ids.h ${CMAKE_SOURCE_DIR}/src/platform/host_sink.h
        ${CMAKE_SOURCE_DIR}/src/platform/host_services.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/trovhwiprv/platform)
configure_file(${TROV_PACKAGING_DIR}/trovproxy-sim.service.in ${TROV_GEN_DIR}/trovproxy-sim.service @ONLY)
install(FILES ${TROV_GEN_DIR}/trovproxy-sim.service DESTINATION lib/systemd/system)

# --- The Debian package: cpack -G DEB in a tree configured with -DCMAKE_INSTALL_PREFIX=/usr ---
configure_file(${TROV_PACKAGING_DIR}/postinst.in ${TROV_GEN_DIR}/deb/postinst @ONLY)
configure_file(${TROV_PACKAGING_DIR}/prerm.in ${TROV_GEN_DIR}/deb/prerm @ONLY)
file(CHMOD ${TROV_GEN_DIR}/deb/postinst ${TROV_GEN_DIR}/deb/prerm
     PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME trovhwiprv)
set(CPACK_PACKAGE_VERSION ${TROV_PROVIDER_VERSION})
set(CPACK_PACKAGE_CONTACT "trovhwiprv maintainers <trovhwiprv@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "iSCSI RAID array hardware provider, its host program and an array emulator")
set(CPACK_PACKAGE_DESCRIPTION "The trovhwiprv provider module presents a dual-controller iSCSI RAID array as a \
tree of management objects. trovctl loads registered providers and drives them; trovproxy-sim emulates the \
proxy service and the array behind it.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${TROV_GEN_DIR}/deb/postinst ${TROV_GEN_DIR}/deb/prerm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_STRIP_FILES TRUE)
include(CPack)
