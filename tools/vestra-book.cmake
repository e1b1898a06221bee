vestra_tool(vestra-book ${CMAKE_CURRENT_SOURCE_DIR}/vestra-book.cpp)
