# Compiler settings of every target here: the language, the warnings, the hardening, sanitizers.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(libusb REQUIRED IMPORTED_TARGET libusb-1.0>=1.0.24)

# The big headers of the programs and tests, read once for each of them.  The lint builds without
# (CMAKE_DISABLE_PRECOMPILE_HEADERS), so that a missing include is told of.
set(VEXA_COMMON_HEADERS <algorithm> <chrono> <functional> <map> <memory> <optional> <string> <vector>)

add_library(vexa-settings INTERFACE)
target_compile_options(vexa-settings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${VEXA_WERROR}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # What is guarded by which lock; an error in any build, since it is never a matter of taste.
    target_compile_options(vexa-settings INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
target_link_libraries(vexa-settings INTERFACE Threads::Threads)

if(VEXA_SANITIZE)
    add_compile_options(-fsanitize=${VEXA_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${VEXA_SANITIZE})
else()
    # The last two guard jumps and returns on x86 and on Arm; each processor has but one of them.
    include(CheckCXXCompilerFlag)
    foreach(flag -fstack-protector-strong -fstack-clash-protection
            -fcf-protection -mbranch-protection=standard)
        string(MAKE_C_IDENTIFIER "VEXA_TAKES${flag}" takesFlag)
        set(CMAKE_REQUIRED_FLAGS -Werror) # clang only warns of a flag for another processor
        check_cxx_compiler_flag(${flag} ${takesFlag})
        unset(CMAKE_REQUIRED_FLAGS)
        if(${takesFlag})
            add_compile_options(${flag})
        endif()
    endforeach()
    add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
    add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)
endif()
