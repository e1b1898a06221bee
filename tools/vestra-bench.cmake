vestra_tool(vestra-bench ${CMAKE_CURRENT_SOURCE_DIR}/vestra-bench.cpp)
