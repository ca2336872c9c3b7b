# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` and the Debian package put in place. Everything finds the rest by its own
# place, so a prefix can be moved.
#
#   bin/                               service, activityctl, modulecheck, lshal
#   lib/activity_recognition/          interface and runtime libraries
#   lib/activity_recognition/hw/       implementation library, simulator, also as the default module
#   include/activity_recognition/      host headers, generated headers, the native module ABI
#   lib/cmake/, lib/pkgconfig/         for CMake and others
#   share/activity_recognition/        scenarios, templates
#
# Plain lib/, not the multiarch folder: bin/ looks for ../lib.
set(ar_lib lib/activity_recognition)
set(ar_include include/activity_recognition)

set(programs ar_service activityctl modulecheck lshal)
set(libraries hidl hardware ar_interface_1_0 ar_interface_1_1)
set_target_properties(${programs} PROPERTIES
    INSTALL_RPATH "$ORIGIN/../${ar_lib};${ANDROID_LIBRARY_DIR}")
set_target_properties(${libraries} PROPERTIES INSTALL_RPATH "$ORIGIN;${ANDROID_LIBRARY_DIR}")
set_target_properties(ar_impl ar_simulator PROPERTIES
    INSTALL_RPATH "$ORIGIN/..;${ANDROID_LIBRARY_DIR}")
install(TARGETS ${programs} RUNTIME DESTINATION bin)
install(TARGETS ar_impl ar_simulator LIBRARY DESTINATION ${ar_lib}/hw)
install(CODE "
    set(hw \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${ar_lib}/hw\")
    file(CREATE_LINK activity_recognition.simulator.so \"\${hw}/activity_recognition.default.so\" SYMBOLIC)
    file(CREATE_LINK ../../../share/activity_recognition/scenarios/commuter.scn
        \"\${hw}/activity_recognition.scn\" SYMBOLIC)")

# Programs built against an installed prefix start without an environment variable.
target_link_options(ar_client INTERFACE
    "$<INSTALL_INTERFACE:-Wl,--disable-new-dtags,-rpath,$<INSTALL_PREFIX>/${ar_lib}>")
set_target_properties(ar_client PROPERTIES EXPORT_NAME client)
set_target_properties(ar_native_headers PROPERTIES EXPORT_NAME native)
install(TARGETS ${libraries} ar_client ar_native_headers hardware_headers
    EXPORT activity_recognition
    LIBRARY DESTINATION ${ar_lib}
    INCLUDES DESTINATION ${ar_include})
install(EXPORT activity_recognition
    NAMESPACE activity_recognition:: FILE activity_recognitionTargets.cmake
    DESTINATION lib/cmake/activity_recognition)
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/activity_recognitionConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    cmake/activity_recognitionConfig.cmake cmake/AndroidLibraries.cmake
    ${PROJECT_BINARY_DIR}/activity_recognitionConfigVersion.cmake
    DESTINATION lib/cmake/activity_recognition)
foreach(name client native)
    configure_file(cmake/activity_recognition-${name}.pc.in
        ${PROJECT_BINARY_DIR}/activity_recognition-${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/activity_recognition-${name}.pc DESTINATION lib/pkgconfig)
endforeach()

install(DIRECTORY host/include/ activity_recognition/native/include/
    ${PROJECT_BINARY_DIR}/gen/android ${PROJECT_BINARY_DIR}/gen/vendor
    DESTINATION ${ar_include} FILES_MATCHING PATTERN "*.h")

install(DIRECTORY scenarios templates DESTINATION share/activity_recognition)
install(FILES LICENSE NOTICE DESTINATION share/doc/activity-recognition)
install(DIRECTORY docs/schemas DESTINATION share/doc/activity-recognition)
install(FILES docs/man/activityctl.1 docs/man/lshal.1 docs/man/modulecheck.1
    DESTINATION share/man/man1)
install(FILES docs/man/vendor.zaltho.hardware.activity_recognition@1.1-service.8
    DESTINATION share/man/man8)
install(FILES activity_recognition/tools/activityctl/completion.bash
    DESTINATION share/bash-completion/completions RENAME activityctl)
# It names the prefix, which is known when it is installed.
install(CODE "
    configure_file(\"${PROJECT_SOURCE_DIR}/cmake/activity_recognition.service.in\"
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/user/activity_recognition.service\" @ONLY)")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME activity-recognition)
set(CPACK_PACKAGE_CONTACT "the maintainers of this repository")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Activity recognition HAL service, its tools and what clients build with")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/lib ${ANDROID_LIBRARY_DIR})
# To build clients and modules.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS
    "android-libutils-dev, android-liblog-dev, android-libcutils-dev")
include(CPack)
