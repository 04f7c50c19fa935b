# SPDX-License-Identifier: Apache-2.0

# What Debian packages of the Android platform: headers, libbase, liblog, libutils, libcutils.
set(ANDROID_INCLUDE_DIR /usr/include/android)
set(ANDROID_LIB_DIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)

add_library(android_platform INTERFACE)
target_include_directories(android_platform SYSTEM INTERFACE ${ANDROID_INCLUDE_DIR})
# Debian's binder/Parcel.h uses <memory> and <limits> without including them, and wants every
# interface that is not written in AIDL to be on a list of its own.
target_compile_options(android_platform INTERFACE "SHELL:-include memory" "SHELL:-include limits")
target_compile_definitions(android_platform INTERFACE DO_NOT_CHECK_MANUAL_BINDER_INTERFACES)
target_link_directories(android_platform INTERFACE ${ANDROID_LIB_DIR})
target_link_options(android_platform INTERFACE
  -Wl,-rpath,${ANDROID_LIB_DIR} -Wl,-rpath-link,${ANDROID_LIB_DIR})
target_link_libraries(android_platform INTERFACE base log utils cutils)

find_program(AIDL aidl REQUIRED)

# Compiles AIDL files, given relative to `root`, into `target` as C++.
function(target_aidl_sources target root)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${target}-aidl)
  list(TRANSFORM ARGN PREPEND ${root}/ OUTPUT_VARIABLE sources)
  set(gen)
  foreach(aidl ${ARGN})
    string(REGEX REPLACE "\\.aidl$" ".cpp" cpp ${aidl})
    add_custom_command(
      OUTPUT ${out}/${cpp}
      COMMAND ${AIDL} --lang=cpp --structured -I ${root} -o ${out} -h ${out} ${aidl}
      WORKING_DIRECTORY ${root}
      # An interface's code depends on the parcelables that it imports.
      DEPENDS ${sources}
      VERBATIM)
    list(APPEND gen ${out}/${cpp})
  endforeach()
  target_sources(${target} PRIVATE ${gen})
  target_include_directories(${target} PUBLIC ${out})
endfunction()
