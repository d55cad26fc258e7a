# Compile options of all our own targets, which link to project_options.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_AUTOMOC ON)

set(SDCARDD_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
option(SDCARDD_COVERAGE "Instrument for gcov" OFF)
option(SDCARDD_FUZZ "Build the fuzz targets with libFuzzer (needs clang)" OFF)

add_library(project_options INTERFACE)
target_compile_options(project_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    # Without this a crash's backtrace ends at the first function that cannot throw.
    target_compile_options(project_options INTERFACE -funwind-tables)
    # ABI changes of GCC 7 do not matter: nothing here was built with an older compiler.
    target_compile_options(project_options INTERFACE -Wno-psabi)
endif()
# The target is a 32-bit machine, but cards are larger than 2 GiB and files may be newer than 2038. The
# libraries know only the short time_t, so none is passed to them.
target_compile_definitions(project_options INTERFACE
    _FILE_OFFSET_BITS=64 _TIME_BITS=64 QT_NO_KEYWORDS QT_DEPRECATED_WARNINGS)

if(SDCARDD_SANITIZE)
    target_compile_options(project_options INTERFACE
        -fsanitize=${SDCARDD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(project_options INTERFACE -fsanitize=${SDCARDD_SANITIZE})
endif()
if(SDCARDD_COVERAGE)
    # Several threads count at the same time.
    target_compile_options(project_options INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(project_options INTERFACE --coverage)
    add_library(coverage_counts STATIC ${CMAKE_CURRENT_LIST_DIR}/coverage_counts.cpp)
    target_link_libraries(project_options INTERFACE coverage_counts)
    # In every program, even in one that calls none of its functions.
    target_link_options(project_options INTERFACE LINKER:--undefined=_exit)
endif()
if(SDCARDD_FUZZ)
    target_compile_options(project_options INTERFACE -fsanitize=fuzzer-no-link)
    target_link_options(project_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# asan_default_options(target options): the default options of AddressSanitizer in a program that is built
# with it.
function(asan_default_options target options)
    if(SDCARDD_SANITIZE MATCHES address)
        set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}_asan_options.cpp)
        file(CONFIGURE OUTPUT ${source} CONTENT [[
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "@options@"; }
]] @ONLY)
        target_sources(${target} PRIVATE ${source})
    endif()
endfunction()
