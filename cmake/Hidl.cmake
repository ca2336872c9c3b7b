# SPDX-License-Identifier: Apache-2.0
find_program(HIDL_GEN hidl-gen REQUIRED)

# hidl_interface(<target> FQNAME <package@version> ROOTS <prefix:path>... [DEPENDS <target>...])
#
# Compiles a HIDL package with the field's own interface compiler and builds its interface library.
# The .hal files are those of the package's folder; the generated code stays in the build folder.
function(hidl_interface target)
    cmake_parse_arguments(arg "STATIC" "FQNAME" "ROOTS;DEPENDS" ${ARGN})
    string(REGEX MATCH "^(.+)@([0-9.]+)$" _ ${arg_FQNAME})
    set(package ${CMAKE_MATCH_1})
    set(version ${CMAKE_MATCH_2})

    foreach(root ${arg_ROOTS})
        string(REGEX MATCH "^([^:]+):(.+)$" _ ${root})
        set(prefix ${CMAKE_MATCH_1})
        set(path ${CMAKE_MATCH_2})
        list(APPEND root_flags -r ${root})
        if(EXISTS ${path}/current.txt)
            list(APPEND frozen ${path}/current.txt) # goes into each interface's hash chain
        endif()
        string(FIND "${package}." "${prefix}." at)
        if(at EQUAL 0)
            string(LENGTH ${prefix} length)
            string(SUBSTRING ${package} ${length} -1 rest)
            string(REPLACE "." "/" rest "${rest}")
            set(package_dir ${path}${rest}/${version})
        endif()
    endforeach()

    file(GLOB hal_files CONFIGURE_DEPENDS ${package_dir}/*.hal)
    set(out ${PROJECT_BINARY_DIR}/gen)
    string(REPLACE "." "/" package_path ${package})
    set(gen ${out}/${package_path}/${version})
    foreach(hal ${hal_files})
        get_filename_component(name ${hal} NAME_WE)
        if(name STREQUAL "types")
            list(APPEND headers ${gen}/types.h ${gen}/hwtypes.h)
            list(APPEND sources ${gen}/types.cpp)
        else()
            string(REGEX REPLACE "^I" "" base ${name})
            list(APPEND headers ${gen}/${name}.h ${gen}/IHw${base}.h ${gen}/BpHw${base}.h
                ${gen}/BnHw${base}.h ${gen}/Bs${base}.h)
            list(APPEND sources ${gen}/${base}All.cpp)
        endif()
    endforeach()

    add_custom_command(
        OUTPUT ${headers} ${sources}
        COMMAND ${HIDL_GEN} -L c++-headers -o ${out} -R ${root_flags} ${arg_FQNAME}
        COMMAND ${HIDL_GEN} -L c++-sources -o ${out} -R ${root_flags} ${arg_FQNAME}
        DEPENDS ${hal_files} ${frozen} ${HIDL_GEN}
        COMMENT "hidl-gen ${arg_FQNAME}"
        VERBATIM)
    add_custom_target(${target}_gen DEPENDS ${headers} ${sources})

    if(arg_STATIC)
        add_library(${target} OBJECT ${sources})
    else()
        add_library(${target} SHARED ${sources})
        set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME ${arg_FQNAME})
    endif()
    add_dependencies(${target} ${target}_gen)
    # The compiler's output is not ours to keep free of warnings.
    target_compile_options(${target} PRIVATE -w)
    target_include_directories(${target} SYSTEM PUBLIC $<BUILD_INTERFACE:${out}>)
    foreach(dep ${arg_DEPENDS})
        add_dependencies(${target}_gen ${dep}_gen)
    endforeach()
    if(NOT arg_STATIC)
        target_link_libraries(${target} PUBLIC hidl ${arg_DEPENDS})
    endif()
endfunction()
