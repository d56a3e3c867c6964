# 32-bit ARM Linux with hardware floating point, cross-compiled with Debian's compiler. Its own C and
# C++ libraries come with it; the rest is unpacked by scripts/armhf-sysroot, at once if it is not there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_STRIP arm-linux-gnueabihf-strip)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(TARN_ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/armhf-sysroot ${TARN_ARMHF_SYSROOT}
  RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "scripts/armhf-sysroot failed")
endif()
set(CMAKE_FIND_ROOT_PATH ${TARN_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The programs run here through QEMU, with the compiler's libraries beside them.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=ld-linux-armhf.so.3
  OUTPUT_VARIABLE loader OUTPUT_STRIP_TRAILING_WHITESPACE)
get_filename_component(TARN_ARMHF_LIBRARIES ${loader}/../.. ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${TARN_ARMHF_LIBRARIES})
