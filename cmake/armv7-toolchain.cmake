# ARMv7 with Debian's cross compiler: a Cortex-A7-class core, hard-float, Thumb-2.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(CMAKE_CXX_FLAGS_INIT "-mcpu=cortex-a7 -mfpu=neon-vfpv4 -mfloat-abi=hard -mthumb")

# ARM programs run under qemu-user, with the loader and the C library of the cross compiler.
set(VEXA_ARM_SYSROOT /usr/arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm;-L;${VEXA_ARM_SYSROOT})

set(CMAKE_FIND_ROOT_PATH ${VEXA_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# What is linked from Debian's own packages of that architecture, unpacked somewhere (script/package).
set(place ONLY)
if(VEXA_ARMHF_ROOT)
    list(PREPEND CMAKE_FIND_ROOT_PATH ${VEXA_ARMHF_ROOT})
    set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
    # CLI11 is headers only, and this machine's.
    set(place BOTH)
endif()
foreach(kind LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ${place})
endforeach()
