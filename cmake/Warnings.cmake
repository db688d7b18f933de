# Warnings are errors under both compilers; every target of ours gets them through add_compile_options.
add_compile_options(
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor -Wold-style-cast
    -Wcast-qual -Woverloaded-virtual -Wimplicit-fallthrough -Wformat=2 -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_compile_options(-Wthread-safety)
endif()
