# The one place that finds Qt. TARN_QT_MAJOR picks Qt 5 (the default) or Qt 6;
# the targets link the versionless Qt:: names, which both provide.
set(TARN_QT_MAJOR 5 CACHE STRING "Qt major version to build with: 5 or 6")
set_property(CACHE TARN_QT_MAJOR PROPERTY STRINGS 5 6)
if(NOT TARN_QT_MAJOR MATCHES "^[56]$")
    message(FATAL_ERROR "TARN_QT_MAJOR must be 5 or 6, not '${TARN_QT_MAJOR}'")
endif()

set(tarn_qt_components Core Network WebSockets)
if(TARN_GUI)
    list(APPEND tarn_qt_components Widgets)
endif()
if(WIN32)
    # The Windows toolchain is Qt 5 without its test library (scripts/windows-toolchain.sh).
    if(NOT TARN_QT_MAJOR EQUAL 5)
        message(FATAL_ERROR "The Windows build uses Qt 5")
    endif()
else()
    list(APPEND tarn_qt_components Test)
endif()

if(TARN_QT_MAJOR EQUAL 6)
    find_package(Qt6 6.4 REQUIRED COMPONENTS ${tarn_qt_components})
else()
    find_package(Qt5 5.15 REQUIRED COMPONENTS ${tarn_qt_components})
endif()
