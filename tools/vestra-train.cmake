vestra_tool(vestra-train ${CMAKE_CURRENT_SOURCE_DIR}/vestra-train.cpp)
# Float sums may be reordered so that the dot products vectorise.
target_compile_options(vestra-train PRIVATE -fno-trapping-math -fno-signed-zeros -fassociative-math -fno-math-errno)
