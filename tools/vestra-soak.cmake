vestra_tool(vestra-soak ${CMAKE_CURRENT_SOURCE_DIR}/vestra-soak.cpp)
