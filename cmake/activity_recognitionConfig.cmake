# SPDX-License-Identifier: Apache-2.0
# find_package(activity_recognition): activity_recognition::client for clients, and
# activity_recognition::native for native modules.
include(${CMAKE_CURRENT_LIST_DIR}/AndroidLibraries.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/activity_recognitionTargets.cmake)
# Debian's base libraries lie outside the loader's path.
set_property(TARGET activity_recognition::client APPEND PROPERTY
    INTERFACE_LINK_OPTIONS -Wl,-rpath,${ANDROID_LIBRARY_DIR})
