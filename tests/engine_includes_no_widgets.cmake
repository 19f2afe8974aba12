# cmake -DSOURCE_DIR=<top> -DWIDGETS_DIR=<Qt's QtWidgets include folder>
#       -DENGINE=<a.cpp,a.h,...> -DWINDOWS=<b.cpp,b.h,...> -P engine_includes_no_widgets.cmake
# Fails, naming each file and line, when an engine source includes a header of
# QtWidgets (<QWidget>, <QtWidgets/QLabel>, <qmessagebox.h>, <QtWidgets>), the
# header of a window or dialog, or a form generated for one (ui_*.h).
cmake_minimum_required(VERSION 3.16)

string(REPLACE "," ";" engine "${ENGINE}")
string(REPLACE "," ";" windows "${WINDOWS}")

file(GLOB widget_headers RELATIVE "${WIDGETS_DIR}" "${WIDGETS_DIR}/*")
if(NOT widget_headers)
  message(FATAL_ERROR "No QtWidgets headers in '${WIDGETS_DIR}'")
endif()
set(window_headers "")
foreach(source IN LISTS windows)
  if(source MATCHES "\\.h$")
    get_filename_component(name "${source}" NAME)
    list(APPEND window_headers "${name}")
  endif()
endforeach()

set(include_line "^[ \t]*#[ \t]*include[ \t]*[<\"]([^>\"]+)[>\"]")
set(found "")
foreach(source IN LISTS engine)
  file(STRINGS "${SOURCE_DIR}/${source}" lines REGEX "${include_line}")
  foreach(line IN LISTS lines)
    string(REGEX MATCH "${include_line}" match "${line}")
    set(header "${CMAKE_MATCH_1}")
    get_filename_component(name "${header}" NAME)
    if(header MATCHES "^QtWidgets(/|$)"
       OR (NOT header MATCHES "/" AND name IN_LIST widget_headers)
       OR name IN_LIST window_headers
       OR name MATCHES "^ui_.*\\.h$")
      list(APPEND found "${source}: ${line}")
    endif()
  endforeach()
endforeach()

list(LENGTH engine count)
if(found)
  list(JOIN found "\n  " report)
  message(FATAL_ERROR "Engine sources that include a widget or window header:\n  ${report}")
endif()
message(STATUS "${count} engine sources, none includes a widget or window header")
