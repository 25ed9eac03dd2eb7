# One static library per subsystem folder. Every target gets the same
# precompiled header of the heavy third-party headers so that a one-file
# change recompiles in seconds.
set(VT_PCH_HEADERS
    <QtCore/QObject> <QtCore/QString> <QtCore/QByteArray> <QtCore/QUrl>
    <QtCore/QTimer> <QtCore/QCoreApplication>
    <nlohmann/json.hpp> <qcoro/qcorotask.h>
    <string> <vector> <map> <unordered_map> <optional> <functional> <memory>)

function(vt_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  target_precompile_headers(${name} PRIVATE ${VT_PCH_HEADERS})
endfunction()
