vestra_tool(vestra-makenet ${CMAKE_CURRENT_SOURCE_DIR}/vestra-makenet.cpp)
