# SPDX-License-Identifier: Apache-2.0
# Debian's cross compiler against the arm64 packages that scripts/arm64 unpacks below build/arm64.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

get_filename_component(arm64_dir ${CMAKE_CURRENT_LIST_DIR}/../build/arm64 ABSOLUTE)
set(CMAKE_SYSROOT ${arm64_dir}/sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${arm64_dir}/emulate)
