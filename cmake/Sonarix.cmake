# An #include is a path from the root of src/, or for tools, bench and tests from the root of the tree. Only the
# headers of the replaceable libraries are included by their name alone, in angle brackets.
set(SONARIX_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)

# What must exist before a source can be read alone, by clang-tidy for instance.
add_custom_target(generated-sources)

# sonarix_library(NAME FOLDER... [REPLACEABLE] [EXCEPT files...] LINKS public... [PRIVATE private...])
#
# One static library of all sources directly in the folders, Main.cpp and the files of EXCEPT left out, with their
# .proto files compiled in. Folders without sources become an INTERFACE library. REPLACEABLE: the first folder is an
# include directory of its users, and its .proto files are imported by their name alone.
function(sonarix_library NAME)
    cmake_parse_arguments(ARG "REPLACEABLE" "" "EXCEPT;LINKS;PRIVATE" ${ARGN})
    set(SOURCES)
    set(PROTOS)
    foreach(FOLDER IN LISTS ARG_UNPARSED_ARGUMENTS)
        file(GLOB FOUND CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${FOLDER}/*.cpp)
        list(APPEND SOURCES ${FOUND})
        file(GLOB FOUND CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${FOLDER}/*.proto)
        if(ARG_REPLACEABLE)
            file(GLOB_RECURSE FOUND CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${FOLDER}/*.proto)
        endif()
        list(APPEND PROTOS ${FOUND})
    endforeach()
    list(FILTER SOURCES EXCLUDE REGEX "/Main\\.cpp$")
    foreach(FILE IN LISTS ARG_EXCEPT)
        list(FILTER SOURCES EXCLUDE REGEX "/${FILE}$")
    endforeach()

    set(PROTO_ROOT ${CMAKE_SOURCE_DIR}/src)
    set(INCLUDES)
    if(ARG_REPLACEABLE)
        list(GET ARG_UNPARSED_ARGUMENTS 0 FOLDER)
        set(PROTO_ROOT ${CMAKE_SOURCE_DIR}/${FOLDER})
        set(INCLUDES ${PROTO_ROOT})
    endif()

    if(NOT SOURCES AND NOT PROTOS)
        add_library(${NAME} INTERFACE)
        target_include_directories(${NAME} INTERFACE ${INCLUDES})
        target_link_libraries(${NAME} INTERFACE ${ARG_LINKS})
        return()
    endif()

    set(GENERATED)
    set(OUT ${CMAKE_BINARY_DIR}/generated/${NAME})
    foreach(PROTO IN LISTS PROTOS)
        file(RELATIVE_PATH STEM ${PROTO_ROOT} ${PROTO})
        string(REGEX REPLACE "\\.proto$" "" STEM ${STEM})
        file(MAKE_DIRECTORY ${OUT})
        add_custom_command(
            OUTPUT ${OUT}/${STEM}.pb.cc ${OUT}/${STEM}.pb.h
            COMMAND protobuf::protoc -I${PROTO_ROOT} "-I$<JOIN:$<TARGET_PROPERTY:${NAME},INCLUDE_DIRECTORIES>,;-I>"
                --cpp_out=${OUT} ${PROTO}
            DEPENDS ${PROTO}
            COMMENT "protoc ${STEM}.proto"
            COMMAND_EXPAND_LISTS)
        list(APPEND GENERATED ${OUT}/${STEM}.pb.cc)
    endforeach()

    add_library(${NAME} STATIC ${SOURCES} ${GENERATED})
    target_include_directories(${NAME} PUBLIC ${INCLUDES})
    target_link_libraries(${NAME} PUBLIC ${ARG_LINKS} PRIVATE ${ARG_PRIVATE})
    set_source_files_properties(${SOURCES} PROPERTIES COMPILE_OPTIONS "${SONARIX_WARNINGS}")
    if(GENERATED)
        target_include_directories(${NAME} SYSTEM PUBLIC ${OUT})
        add_custom_target(${NAME}_protos DEPENDS ${GENERATED})
        add_dependencies(generated-sources ${NAME}_protos)
    endif()
endfunction()

# sonarix_program(NAME SOURCES... LINKS libraries...): a program in bin/.
function(sonarix_program NAME)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${NAME} ${ARG_SOURCES})
    target_compile_options(${NAME} PRIVATE ${SONARIX_WARNINGS})
    target_compile_definitions(${NAME} PRIVATE SONARIX_VERSION="${PROJECT_VERSION}")
    target_link_libraries(${NAME} PRIVATE ${ARG_LINKS})
endfunction()

# sonarix_test(NAME FOLDER... [PREFIX text] LINKS libraries...): one GoogleTest program of all sources of the folders;
# each of its cases is a test of its own for CTest, named with PREFIX. The target `unit-tests` builds all of these
# programs and what they run.
add_custom_target(unit-tests)
function(sonarix_test NAME)
    cmake_parse_arguments(ARG "" "PREFIX" "LINKS" ${ARGN})
    set(SOURCES)
    foreach(FOLDER IN LISTS ARG_UNPARSED_ARGUMENTS)
        file(GLOB FOUND CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${FOLDER}/*.cpp)
        list(APPEND SOURCES ${FOUND})
    endforeach()
    add_executable(${NAME} ${SOURCES})
    target_compile_options(${NAME} PRIVATE ${SONARIX_WARNINGS})
    target_link_libraries(${NAME} PRIVATE ${ARG_LINKS} GTest::gmock GTest::gtest_main)
    set_target_properties(${NAME} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    add_dependencies(unit-tests ${NAME})
    gtest_discover_tests(${NAME} TEST_PREFIX "${ARG_PREFIX}" PROPERTIES TIMEOUT 120 LABELS unit DISCOVERY_TIMEOUT 60)
endfunction()

# A target `check-headers` that compiles every header of src/ alone.
function(sonarix_check_headers)
    file(GLOB_RECURSE HEADERS CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/src/*.h)
    set(STUBS)
    foreach(HEADER IN LISTS HEADERS)
        string(REPLACE "/" "_" STUB ${HEADER})
        set(STUB ${CMAKE_BINARY_DIR}/headers/${STUB}.cpp)
        file(CONFIGURE OUTPUT ${STUB} CONTENT "#include \"${CMAKE_SOURCE_DIR}/src/${HEADER}\"\n#include \"${CMAKE_SOURCE_DIR}/src/${HEADER}\"\n")
        list(APPEND STUBS ${STUB})
    endforeach()
    add_library(check-headers OBJECT EXCLUDE_FROM_ALL ${STUBS})
    target_compile_options(check-headers PRIVATE ${SONARIX_WARNINGS} -fsyntax-only)
    target_link_libraries(check-headers PRIVATE sonarix_service sonarix_websocket)
endfunction()
