# What a host outside this tree builds against: the library, the headers of the border, a CMake
# package and a pkg-config file. zel-host is installed by host/CMakeLists.txt.
include(CMakePackageConfigHelpers)

set(ZEL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ffmpegplugins)
set(ZEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/FFMpegPlugins)

install(TARGETS FFMpegPlugins LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# Headers keep their folders, since they include each other from the root. All are header-only.
install(DIRECTORY plugin DESTINATION ${ZEL_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h" PATTERN "Vocabulary.h" EXCLUDE)
install(FILES common/utils/StdString.h DESTINATION ${ZEL_INSTALL_INCLUDEDIR}/common/utils)
install(DIRECTORY common/dax DESTINATION ${ZEL_INSTALL_INCLUDEDIR}/common
    FILES_MATCHING PATTERN "*.h")

set(ZEL_LIBRARY_FILE
    ${CMAKE_SHARED_LIBRARY_PREFIX}FFMpegPlugins${CMAKE_SHARED_LIBRARY_SUFFIX})
configure_package_config_file(cmake/FFMpegPluginsConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/FFMpegPluginsConfig.cmake
    INSTALL_DESTINATION ${ZEL_INSTALL_CMAKEDIR}
    PATH_VARS ZEL_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR
    NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/FFMpegPluginsConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/package/FFMpegPluginsConfig.cmake
    ${PROJECT_BINARY_DIR}/package/FFMpegPluginsConfigVersion.cmake
    DESTINATION ${ZEL_INSTALL_CMAKEDIR})

# The prefix is found from the place of the .pc file, so that the folder can be moved.
set(ZEL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH ZEL_PREFIX_FROM_PC /${ZEL_PKGCONFIG_DIR} /)
configure_file(cmake/ffmpegplugins.pc.in ${PROJECT_BINARY_DIR}/package/ffmpegplugins.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/ffmpegplugins.pc DESTINATION ${ZEL_PKGCONFIG_DIR})
