# What a system installation adds beside the programs and libraries (the man
# page, bash completion, the systemd unit of gpumon --serve, the recorded
# machines), and the Debian package: in a build folder, `cpack -G DEB` makes
# zev-gpumon_<version>_amd64.deb of everything `cmake --install` puts under
# /usr.
#   share/man/man1/gpumon.1.gz
#   share/bash-completion/completions/gpumon
#   lib/systemd/system/gpumon.service
#   share/zev-gpumon/machines/<name>     (the NVIDIA ones assembled with their fakes)
#   share/doc/zev-gpumon/                (copyright, changelog)

set(zev_dist ${PROJECT_SOURCE_DIR}/dist)
set(zev_dist_build ${PROJECT_BINARY_DIR}/dist)
# Debian wants manual pages and changelogs compressed, without time stamps.
foreach(file man/gpumon.1 debian/changelog)
  get_filename_component(name ${file} NAME)
  add_custom_command(OUTPUT ${zev_dist_build}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${zev_dist_build}
    COMMAND gzip -9n -c ${zev_dist}/${file} > ${zev_dist_build}/${name}.gz
    DEPENDS ${zev_dist}/${file} VERBATIM)
  list(APPEND zev_dist_outputs ${zev_dist_build}/${name}.gz)
endforeach()
add_custom_target(zev_dist ALL DEPENDS ${zev_dist_outputs})

install(FILES ${zev_dist_build}/gpumon.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${zev_dist}/bash-completion/gpumon
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
install(FILES ${zev_dist}/systemd/gpumon.service DESTINATION lib/systemd/system)
set(zev_doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/zev-gpumon)
install(FILES ${zev_dist}/debian/copyright ${zev_dist_build}/changelog.gz DESTINATION ${zev_doc_dir})
install(FILES ${zev_dist}/debian/lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME zev-gpumon)

# The recorded machines, so that an installed gpumon can try them
# (gpumon --machine /usr/share/zev-gpumon/machines/<name>): those that need
# fake NVIDIA software as the build assembled them, the others as recorded.
set(zev_machines_dest ${CMAKE_INSTALL_DATAROOTDIR}/zev-gpumon/machines)
install(FILES ${PROJECT_SOURCE_DIR}/machines/README.md DESTINATION ${zev_machines_dest})
file(GLOB zev_machine_dirs LIST_DIRECTORIES true ${PROJECT_SOURCE_DIR}/machines/*)
foreach(dir ${zev_machine_dirs})
  get_filename_component(name ${dir} NAME)
  if(NOT EXISTS ${dir}/README.md OR name STREQUAL "fakes")
    continue()
  endif()
  set(from ${dir})
  if(EXISTS ${dir}/fakes)
    set(from ${PROJECT_BINARY_DIR}/machines/${name})
  endif()
  install(DIRECTORY ${from}/ DESTINATION ${zev_machines_dest}/${name} USE_SOURCE_PERMISSIONS)
endforeach()

set(CPACK_PACKAGE_NAME zev-gpumon)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "zev gpumon developers <gpumon@zev.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "GPU monitor plug-in for the zev framework, and gpumon")
set(CPACK_PACKAGE_DESCRIPTION
  "The zev GPU monitor plug-in finds a machine's graphics adapters (NVIDIA\n\
through NVML or nvidia-smi, AMD, Intel and others through DRM, Raspberry\n\
Pi V3D) and reads their sensors. gpumon shows them as a table, a live\n\
view, JSON, nvidia-smi style CSV or Prometheus metrics (gpumon.service).\n\
The package also holds the reference host library with its headers and\n\
CMake package, and recorded machines to try gpumon on.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The packages of the libraries gpumon, the plug-in and the host library
# link, as dpkg-shlibdeps names them (tools/package-test.sh checks that the
# list still covers them; CPack's own pass would also run over every file of
# the recorded machines, half a minute). OpenGL through Mesa's EGL and the
# DejaVu fonts serve --overlay and --gl-info alone.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libmicrohttpd12 (>= 0.9.75), \
libegl1, libfreetype6 (>= 2.2.1), libgcc-s1 (>= 3.0), libncurses6 (>= 6), libopengl0, \
libpng16-16 (>= 1.6.2-1), libstdc++6 (>= 11), libtinfo6 (>= 6)")
# The host library lies in the library folder: ldconfig runs by trigger.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${zev_dist}/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libegl-mesa0, libgl1-mesa-dri, fonts-dejavu-core")
include(CPack)
