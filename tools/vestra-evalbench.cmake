vestra_tool(vestra-evalbench ${CMAKE_CURRENT_SOURCE_DIR}/vestra-evalbench.cpp)
