# The image compiled into the program; a build directory of its own may take another
# one (the training tools build engines with candidate images this way).
set(VESTRA_NETWORK "${CMAKE_SOURCE_DIR}/data/vestra.nnue" CACHE FILEPATH "network image compiled into the program")
vestra_embed(vestra_network_image ${VESTRA_NETWORK})
