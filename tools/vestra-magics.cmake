vestra_tool(vestra-magics ${CMAKE_CURRENT_SOURCE_DIR}/vestra-magics.cpp)
