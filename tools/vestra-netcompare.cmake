vestra_tool(vestra-netcompare ${CMAKE_CURRENT_SOURCE_DIR}/vestra-netcompare.cpp)
