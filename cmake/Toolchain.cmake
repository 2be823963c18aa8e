# Compiler settings for everything that we build.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g1")

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE_PROGRAM})
endif()

set(SONARIX_SANITIZE "" CACHE STRING "Comma-separated sanitizers, such as address,undefined or thread")
if(SONARIX_SANITIZE)
    # -O1 keeps the sanitized unit tests quick enough for every run of CI.
    set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g1")
    add_compile_options(-fsanitize=${SONARIX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${SONARIX_SANITIZE})
    if(SONARIX_SANITIZE MATCHES thread)
        add_compile_options(-Wno-tsan) # Asio has fences; what they order is under its mutexes as well
    endif()
endif()

# Boost.Asio: no deprecated names; Boost 1.81 in Debian is header-only for what we use.
add_compile_definitions(BOOST_ASIO_NO_DEPRECATED BOOST_ERROR_CODE_HEADER_ONLY)
