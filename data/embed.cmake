# vestra_embed(SYMBOL FILE): generates an assembler source that places FILE in
# read-only data, 64-byte aligned, as SYMBOL with SYMBOL_end behind it, and appends
# it to VESTRA_EMBEDDED_SOURCES.
set(VESTRA_EMBEDDED_SOURCES "")
function(vestra_embed symbol file)
  set(out "${CMAKE_BINARY_DIR}/embed/${symbol}.S")
  file(WRITE "${out}.in"
"    .section .rodata
    .balign 64
    .global ${symbol}
${symbol}:
    .incbin \"${file}\"
    .global ${symbol}_end
${symbol}_end:
    .byte 0
    .section .note.GNU-stack,\"\",@progbits
")
  configure_file("${out}.in" "${out}" COPYONLY)
  set_property(SOURCE "${out}" APPEND PROPERTY OBJECT_DEPENDS "${file}")
  set(VESTRA_EMBEDDED_SOURCES ${VESTRA_EMBEDDED_SOURCES} "${out}" PARENT_SCOPE)
endfunction()

# Every data/*.cmake fragment registers its own files.
file(GLOB VESTRA_DATA_FRAGMENTS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/data/*.embed.cmake)
foreach(fragment ${VESTRA_DATA_FRAGMENTS})
  include(${fragment})
endforeach()
