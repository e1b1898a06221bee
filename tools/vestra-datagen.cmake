vestra_tool(vestra-datagen ${CMAKE_CURRENT_SOURCE_DIR}/vestra-datagen.cpp)
