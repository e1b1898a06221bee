vestra_tool(vestra-perft ${CMAKE_CURRENT_SOURCE_DIR}/vestra-perft.cpp)
