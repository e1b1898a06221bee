vestra_tool(vestra-openings ${CMAKE_CURRENT_SOURCE_DIR}/vestra-openings.cpp)
