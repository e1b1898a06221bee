# vestra_embed(SYMBOL FILE): generates an assembler source that places FILE in
# read-only data, 64-byte aligned, as SYMBOL with SYMBOL_end behind it, and appends
# it to VESTRA_EMBEDDED_SOURCES.
set(VESTRA_EMBEDDED_SOURCES "")

# Section directives by object format. PE calls read-only data .rdata, and has neither
# ELF's relocated read-only data (tables of pointers go to .data there) nor its note
# that the stack needs no execute right.
if(WIN32)
  set(VESTRA_ASM_RODATA ".section .rdata,\"dr\"")
  set(VESTRA_ASM_RELRO ".data")
  set(VESTRA_ASM_NOTE "")
else()
  set(VESTRA_ASM_RODATA ".section .rodata")
  set(VESTRA_ASM_RELRO ".section .data.rel.ro,\"aw\",@progbits")
  set(VESTRA_ASM_NOTE "    .section .note.GNU-stack,\"\",@progbits\n")
endif()

function(vestra_embed symbol file)
  set(out "${CMAKE_BINARY_DIR}/embed/${symbol}.S")
  file(WRITE "${out}.in"
"    ${VESTRA_ASM_RODATA}
    .balign 64
    .global ${symbol}
${symbol}:
    .incbin \"${file}\"
    .global ${symbol}_end
${symbol}_end:
    .byte 0
${VESTRA_ASM_NOTE}")
  configure_file("${out}.in" "${out}" COPYONLY)
  set_property(SOURCE "${out}" APPEND PROPERTY OBJECT_DEPENDS "${file}")
  set(VESTRA_EMBEDDED_SOURCES ${VESTRA_EMBEDDED_SOURCES} "${out}" PARENT_SCOPE)
endfunction()

# Every data/*.cmake fragment registers its own files.
file(GLOB VESTRA_DATA_FRAGMENTS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/data/*.embed.cmake)
foreach(fragment ${VESTRA_DATA_FRAGMENTS})
  include(${fragment})
endforeach()
