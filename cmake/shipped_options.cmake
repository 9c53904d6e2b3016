# How everything that ships is compiled and linked: hardened, and the same bytes from any folder.
add_library(vexa_shipped INTERFACE)
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
