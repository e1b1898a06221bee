vestra_tool(vestra-net ${CMAKE_CURRENT_SOURCE_DIR}/vestra-net.cpp)
