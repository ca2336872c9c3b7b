# SPDX-License-Identifier: Apache-2.0
# Android's base libraries as Debian packages them: android::log, android::utils, android::cutils, and
# ANDROID_INCLUDE_DIR and ANDROID_LIBRARY_DIR. Used by the build and by the installed package.

find_package(Threads REQUIRED)
find_path(ANDROID_INCLUDE_DIR utils/RefBase.h PATH_SUFFIXES android REQUIRED)
foreach(lib log utils cutils)
    # Debian keeps these in the multiarch folder's android/, outside the loader's path.
    find_library(ANDROID_${lib}_LIBRARY ${lib} PATH_SUFFIXES android REQUIRED NO_CACHE)
    get_filename_component(ANDROID_LIBRARY_DIR ${ANDROID_${lib}_LIBRARY} DIRECTORY)
    if(NOT TARGET android::${lib})
        add_library(android::${lib} SHARED IMPORTED GLOBAL)
        set_target_properties(android::${lib} PROPERTIES
            IMPORTED_LOCATION ${ANDROID_${lib}_LIBRARY}
            INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR})
    endif()
endforeach()
