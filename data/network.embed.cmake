vestra_embed(vestra_network_image ${CMAKE_SOURCE_DIR}/data/vestra.nnue)
