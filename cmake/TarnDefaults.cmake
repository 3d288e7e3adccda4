# Compiler settings every target of the project shares.
add_library(tarn_defaults INTERFACE)
target_compile_definitions(tarn_defaults INTERFACE
    QT_DISABLE_DEPRECATED_BEFORE=0x050F00
    QT_NO_CAST_FROM_BYTEARRAY
    QT_NO_URL_CAST_FROM_STRING
    # The one place a program learns its version.
    TARN_VERSION="${PROJECT_VERSION}")
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(tarn_defaults INTERFACE -Wall -Wextra)
endif()

# AddressSanitizer and UndefinedBehaviorSanitizer for the whole build; any
# report fails the run.
option(TARN_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
if(TARN_SANITIZE)
    set(TARN_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined
                             -fno-omit-frame-pointer)
    target_compile_options(tarn_defaults INTERFACE ${TARN_SANITIZER_FLAGS})
    target_link_options(tarn_defaults INTERFACE ${TARN_SANITIZER_FLAGS})
endif()

# tarn_add_test(<name> SOURCES <files...> LIBS <targets...> [LABELS <labels...>])
# Builds one Qt Test executable and registers it with CTest. Widget code runs on
# the offscreen platform so the suite needs no display.
function(tarn_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE tarn_defaults Qt::Test ${ARG_LIBS})
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;XDG_DATA_HOME=${CMAKE_CURRENT_BINARY_DIR}/${name}.data"
        LABELS "${ARG_LABELS}")
endfunction()
