vestra_tool(vestra-tb ${CMAKE_CURRENT_SOURCE_DIR}/vestra-tb.cpp)
