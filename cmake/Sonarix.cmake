# sonarix_library(NAME FOLDER LINKS public... [PRIVATE private...])
#
# One static library of all sources directly in FOLDER (a header-only folder
# becomes an INTERFACE library) with its .proto files compiled in. FOLDER
# itself is the include directory, so that an #include names its file alone.
set(SONARIX_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
set_property(GLOBAL PROPERTY SONARIX_FOLDERS "")

# What must exist before a source can be read alone, by clang-tidy for instance.
add_custom_target(generated-sources)

function(sonarix_library NAME FOLDER)
    cmake_parse_arguments(ARG "" "" "LINKS;PRIVATE" ${ARGN})
    set(DIR ${CMAKE_SOURCE_DIR}/${FOLDER})
    file(GLOB SOURCES CONFIGURE_DEPENDS ${DIR}/*.cpp)
    list(FILTER SOURCES EXCLUDE REGEX "/Main\\.cpp$")
    file(GLOB PROTOS CONFIGURE_DEPENDS RELATIVE ${DIR} ${DIR}/*.proto ${DIR}/*/*.proto)
    foreach(PROTO IN LISTS PROTOS) # a subfolder with sources is a library of its own
        get_filename_component(SUBFOLDER ${PROTO} DIRECTORY)
        file(GLOB THEIRS ${DIR}/${SUBFOLDER}/*.cpp)
        if(SUBFOLDER AND THEIRS)
            list(REMOVE_ITEM PROTOS ${PROTO})
        endif()
    endforeach()
    set_property(GLOBAL APPEND PROPERTY SONARIX_FOLDERS ${FOLDER})

    if(NOT SOURCES AND NOT PROTOS)
        add_library(${NAME} INTERFACE)
        target_include_directories(${NAME} INTERFACE ${DIR})
        target_link_libraries(${NAME} INTERFACE ${ARG_LINKS})
        return()
    endif()

    set(GENERATED)
    foreach(PROTO IN LISTS PROTOS)
        string(REGEX REPLACE "\\.proto$" "" STEM ${PROTO})
        set(OUT ${CMAKE_BINARY_DIR}/generated/${NAME})
        file(MAKE_DIRECTORY ${OUT})
        add_custom_command(
            OUTPUT ${OUT}/${STEM}.pb.cc ${OUT}/${STEM}.pb.h
            COMMAND protobuf::protoc "-I$<JOIN:$<TARGET_PROPERTY:${NAME},INCLUDE_DIRECTORIES>,;-I>"
                --cpp_out=${OUT} ${DIR}/${PROTO}
            DEPENDS ${DIR}/${PROTO}
            COMMENT "protoc ${PROTO}"
            COMMAND_EXPAND_LISTS)
        list(APPEND GENERATED ${OUT}/${STEM}.pb.cc)
    endforeach()

    add_library(${NAME} STATIC ${SOURCES} ${GENERATED})
    target_include_directories(${NAME} PUBLIC ${DIR})
    target_link_libraries(${NAME} PUBLIC ${ARG_LINKS} PRIVATE ${ARG_PRIVATE})
    set_source_files_properties(${SOURCES} PROPERTIES COMPILE_OPTIONS "${SONARIX_WARNINGS}")
    if(GENERATED)
        target_include_directories(${NAME} SYSTEM PUBLIC ${CMAKE_BINARY_DIR}/generated/${NAME})
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

# sonarix_test(NAME FOLDER [PREFIX text] [SOURCES files...] LINKS libraries...): one
# GoogleTest program of these sources of FOLDER, or all; each of its cases is a test of
# its own for CTest, named with PREFIX. The target `unit-tests` builds all of these
# programs and what they run.
add_custom_target(unit-tests)
function(sonarix_test NAME FOLDER)
    cmake_parse_arguments(ARG "" "PREFIX" "SOURCES;LINKS" ${ARGN})
    file(GLOB SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${FOLDER}/*.cpp)
    if(ARG_SOURCES)
        list(TRANSFORM ARG_SOURCES PREPEND ${CMAKE_SOURCE_DIR}/${FOLDER}/ OUTPUT_VARIABLE SOURCES)
    endif()
    if(NOT SOURCES)
        return()
    endif()
    add_executable(${NAME} ${SOURCES})
    target_compile_options(${NAME} PRIVATE ${SONARIX_WARNINGS})
    target_include_directories(${NAME} PRIVATE ${CMAKE_SOURCE_DIR}/${FOLDER} ${CMAKE_SOURCE_DIR}/tests/support)
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
    target_link_libraries(check-headers PRIVATE sonarix_service sonarix_websocket sonarix_http sonarix_backoff sonarix_ipc_server)
endfunction()
