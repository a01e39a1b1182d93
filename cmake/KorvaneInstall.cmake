# Install rules: the shared libraries with versioned names, the headers a host
# compiles against, the two programs, the CMake package, the pkg-config file
# and the manual pages. The installed tree finds its own libraries through
# $ORIGIN, so it works wherever it is unpacked.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(KORVANE_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/Korvane)
set(KORVANE_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Korvane)
list(JOIN KORVANE_FFMPEG_MODULES " " KORVANE_FFMPEG_MODULES_TEXT)

# Every shared library of the units is installed and exported (the engine
# libraries too: the worker links them). Named here: the name under
# Korvane:: where it is not the target's own, and the headers of its folder a
# host needs (the records, the task and operator interfaces, the exported
# functions and the platform interfaces).
set(KORVANE_LIBRARY_INTERFACES
    "KorvaneBase|Base|BasicObject.h KorvaneBase.h KorvaneBaseExport.h Logger.h Record.h Settings.h"
    "KvAVGlue|KvAVGlue|KvAVGlue.h KvAVGlueExport.h FFmpegLog.h"
    "KorvaneDec|Dec|"
    "KvMediaInfo|KvMediaInfo|KvMediaInfo.h KvMediaInfoExport.h"
    "KorvaneGPUHardwareAcceleration|GPUHardwareAcceleration|KorvaneGPUHardwareAcceleration.h KorvaneGPUHardwareAccelerationExport.h GpuDetection.h"
    "KorvaneRecords|Records|AVTaskOutputParam.h ConvertSource.h JsonForms.h RecordsExport.h"
    "KorvaneTask|Task|AVFFmpegTask.h IAVTask.h IAVTaskOperator.h TaskExport.h TaskSignalBus.h TaskTypes.h"
    "KorvaneTimeline|Timeline|"
    "KorvaneSupport|Support|"
    "KvTaskIPC|KvTaskIPC|KvTaskIPC.h KvTaskIPCExport.h"
    "KvExportHost|KvExportHost|KvExportHost.h KvExportHostExport.h"
    "TranscoderFFmpeg|TranscoderFFmpeg|TranscoderFFmpeg.h TranscoderFFmpegExport.h"
    "KorvaneAdapter|Adapter|"
    "KorvaneFilters|Filters|"
    "KorvaneNLEditor|NLEditor|"
)
set(KORVANE_INSTALLED_PROGRAMS korvane-convert korvane-worker)

# A 0.x release may break the interface with every minor version, so the
# SONAME carries both numbers (libX.so.0.1).
set(KORVANE_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
file(RELATIVE_PATH KORVANE_BIN_TO_LIB
    ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})

# Prepares one library for installing: versioned name, $ORIGIN run path, the
# name under Korvane::, include folders that point into the source tree only
# while building, and the host's headers.
function(korvane_install_library target)
    set(exportName ${target})
    set(headers "")
    foreach(entry IN LISTS KORVANE_LIBRARY_INTERFACES)
        if(entry MATCHES "^${target}\\|([^|]*)\\|(.*)$")
            set(exportName ${CMAKE_MATCH_1})
            string(REPLACE " " ";" headers "${CMAKE_MATCH_2}")
        endif()
    endforeach()
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${KORVANE_SOVERSION}
        EXPORT_NAME ${exportName}
        INSTALL_RPATH "$ORIGIN")
    get_target_property(includes ${target} INTERFACE_INCLUDE_DIRECTORIES)
    if(includes)
        set(interfaceIncludes "")
        foreach(folder IN LISTS includes)
            string(FIND "${folder}/" "${PROJECT_SOURCE_DIR}/" at)
            if(at EQUAL 0)
                set(folder "$<BUILD_INTERFACE:${folder}>")
            endif()
            list(APPEND interfaceIncludes "${folder}")
        endforeach()
        set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${interfaceIncludes}")
    endif()
    # The tool chain links --as-needed, which drops libc from a library that
    # reaches it only through Qt; a shared library must still name it.
    if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
        target_link_options(${target} PRIVATE "LINKER:--push-state,--no-as-needed,-lc,--pop-state")
    endif()
    # Installed headers keep their path under the unit's include root, so
    # their own includes ("Common/Records/ConvertSource.h") resolve as in
    # the source tree.
    if(headers)
        get_target_property(folder ${target} SOURCE_DIR)
        list(GET includes 0 root)
        get_filename_component(root "${root}" REALPATH)
        file(RELATIVE_PATH unit ${root} ${folder})
        list(TRANSFORM headers PREPEND ${folder}/)
        install(FILES ${headers} DESTINATION ${KORVANE_INSTALL_INCLUDEDIR}/${unit})
    endif()
endfunction()

set(KORVANE_EXPORTED_TARGETS)
foreach(unit IN LISTS KORVANE_UNITS)
    if(NOT EXISTS ${PROJECT_SOURCE_DIR}/${unit}/CMakeLists.txt)
        continue()
    endif()
    get_property(targets DIRECTORY ${unit} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
        get_target_property(type ${target} TYPE)
        if(type STREQUAL "SHARED_LIBRARY")
            korvane_install_library(${target})
            list(APPEND KORVANE_EXPORTED_TARGETS ${target})
        endif()
    endforeach()
endforeach()

install(TARGETS ${KORVANE_EXPORTED_TARGETS} EXPORT KorvaneTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${KORVANE_INSTALL_INCLUDEDIR})
install(EXPORT KorvaneTargets NAMESPACE Korvane:: DESTINATION ${KORVANE_INSTALL_CMAKEDIR})

# The plug-in looks for the worker next to the application, so both programs
# go to one folder.
foreach(program IN LISTS KORVANE_INSTALLED_PROGRAMS)
    if(TARGET ${program})
        set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${KORVANE_BIN_TO_LIB}")
        install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
endforeach()

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KorvaneConfig.cmake.in
    ${CMAKE_BINARY_DIR}/cmake/KorvaneConfig.cmake
    INSTALL_DESTINATION ${KORVANE_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/KorvaneConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_BINARY_DIR}/cmake/KorvaneConfig.cmake
    ${CMAKE_BINARY_DIR}/cmake/KorvaneConfigVersion.cmake
    DESTINATION ${KORVANE_INSTALL_CMAKEDIR})

# The .pc file locates the prefix from its own folder, so it stays right in
# a temporary prefix and in the package alike.
file(RELATIVE_PATH KORVANE_PC_TO_PREFIX
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KORVANE_PC_TO_PREFIX "${KORVANE_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/korvane.pc.in ${CMAKE_BINARY_DIR}/korvane.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/korvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Manual pages and the package's changelog are installed compressed, the way
# man and dpkg expect them; -n keeps the result the same on every build.
function(korvane_gzip input output)
    add_custom_command(OUTPUT ${output}
        COMMAND sh -c "gzip -9nc < \"$0\" > \"$1\"" ${input} ${output}
        DEPENDS ${input}
        VERBATIM)
endfunction()
set(KORVANE_MAN_PAGES)

# The worker has no --help of its own: its page is written by hand.
if(TARGET korvane-worker)
    korvane_gzip(${CMAKE_CURRENT_LIST_DIR}/korvane-worker.1 ${CMAKE_BINARY_DIR}/man/korvane-worker.1.gz)
    list(APPEND KORVANE_MAN_PAGES ${CMAKE_BINARY_DIR}/man/korvane-worker.1.gz)
endif()

# korvane-convert's page is the program's own --help, formatted by help2man.
# Sanitizer builds skip it: running the instrumented program at build time
# adds nothing.
find_program(HELP2MAN_PROGRAM help2man)
if(TARGET korvane-convert AND HELP2MAN_PROGRAM AND NOT KORVANE_SANITIZE)
    set(manPage ${CMAKE_BINARY_DIR}/man/korvane-convert.1)
    add_custom_command(OUTPUT ${manPage}
        COMMAND ${HELP2MAN_PROGRAM} --no-info --section=1
                "--name=convert a video with the ffmpeg conversion plug-in"
                --include=${CMAKE_CURRENT_LIST_DIR}/korvane-convert.h2m
                --output=${manPage} $<TARGET_FILE:korvane-convert>
        DEPENDS korvane-convert ${CMAKE_CURRENT_LIST_DIR}/korvane-convert.h2m
        VERBATIM)
    korvane_gzip(${manPage} ${manPage}.gz)
    list(APPEND KORVANE_MAN_PAGES ${manPage}.gz)
elseif(NOT HELP2MAN_PROGRAM)
    message(STATUS "help2man not found: korvane-convert.1 is not built (scripts/install-deps installs it)")
endif()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
add_custom_target(korvane-man ALL DEPENDS ${KORVANE_MAN_PAGES})
install(FILES ${KORVANE_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
