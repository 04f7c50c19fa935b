# SPDX-License-Identifier: Apache-2.0

# Cross build for the virtual device, with Debian's :arm64 library packages. Compiler and standard
# are those of an Android tree, which has no exceptions.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_STANDARD 20)
# Stack traces need the tables that else go with exceptions.
add_compile_options(-fno-exceptions -fasynchronous-unwind-tables)
# A library that is named and not used may need one that is only in the virtual device.
add_link_options(-Wl,--as-needed)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
