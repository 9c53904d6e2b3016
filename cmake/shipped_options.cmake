# How everything that ships is compiled and linked: hardened, and the same bytes from any folder.
add_library(vexa_shipped INTERFACE)

# For programs that need no shared library when VEXA_STATIC is on: position-independent where the C
# library has the start code of such a program.
add_library(vexa_statically INTERFACE)
if(VEXA_STATIC)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=rcrt1.o
                    OUTPUT_VARIABLE static_pie_start OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(EXISTS ${static_pie_start})
        target_link_options(vexa_statically INTERFACE -static-pie)
    else()
        target_link_options(vexa_statically INTERFACE -static)
    endif()
endif()

if(VEXA_FUZZ)
    return()  # the coverage of a fuzzer is told by real paths
endif()

# Paths in messages and in debug information are those of the sources, wherever they were built. A
# compiler cache passes them relative to the build folder, hence both forms.
file(RELATIVE_PATH sources_from_build ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
target_compile_options(vexa_shipped INTERFACE
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -ffile-prefix-map=${sources_from_build}=
    -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)

if(VEXA_SANITIZE)
    return()  # the sanitizers bring their own checks, and some of these hide errors from them
endif()

target_compile_options(vexa_shipped INTERFACE -fstack-protector-strong)
# Level 3 also checks areas whose size is known only at run time. It needs an optimizing build.
target_compile_options(vexa_shipped INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
# All of it resolved at start and read-only from then on.
target_link_options(vexa_shipped INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
