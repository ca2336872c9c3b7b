# SPDX-License-Identifier: Apache-2.0
# What every target shares: language, warnings, sanitizers, output folders, and the platform's base
# libraries as Debian packages them.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON) # Android compiles gnu++
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# bin/ next to hw/ is the host's picture of /vendor: hw/ holds what is loaded by name.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(HW_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/hw)

# Without a PLT a call between libraries touches a page less, in each process that comes back to cold
# caches.
add_compile_options(-Wall -Wextra -Werror -fvisibility-inlines-hidden -fno-plt)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

option(FUZZ "Build the fuzz targets for libFuzzer, which is clang's; with SANITIZE=address" OFF)
set(SANITIZE "" CACHE STRING "Sanitizer to build with: address (with undefined), thread, or none")
set_property(CACHE SANITIZE PROPERTY STRINGS "" address thread)
if(FUZZ)
    set(SANITIZE address)
endif()
if(SANITIZE STREQUAL "address")
    set(sanitize_flags -fsanitize=address,undefined -fno-sanitize-recover=all)
    # The implementation library has no RTTI, which the vptr check needs.
    list(APPEND sanitize_flags -fno-sanitize=vptr)
    if(FUZZ)
        list(APPEND sanitize_flags -fsanitize=fuzzer-no-link)
    endif()
elseif(SANITIZE STREQUAL "thread")
    set(sanitize_flags -fsanitize=thread)
elseif(NOT SANITIZE STREQUAL "")
    message(FATAL_ERROR "SANITIZE is '${SANITIZE}', not address, thread or empty")
endif()
if(SANITIZE)
    add_compile_options(${sanitize_flags} -fno-omit-frame-pointer)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # With the sanitizers' code in between, g++ warns of the standard library's own; the builds
        # without them keep the warning.
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
    add_link_options(${sanitize_flags})
endif()

include(AndroidLibraries)
# Debian's own libraries there find each other through their rpath only when ours is an RPATH.
add_link_options(-Wl,--disable-new-dtags)
list(APPEND CMAKE_BUILD_RPATH ${ANDROID_LIBRARY_DIR})
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # The interface compiler defines each enum's list of values in a header, which under clang is a
    # definition per object file. g++ builds still find true duplicates.
    add_link_options(-Wl,-z,muldefs)
endif()
