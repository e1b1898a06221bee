# The 3- and 4-man endgame tables, compiled into one read-only region.
#
# Every file of data/syzygy starts on a 64-byte boundary, in byte order of the names;
# a directory of rows (name[32], size, pointer) follows in its own section. The region's
# bounds tell a compiled-in table from a mapped one at run time.
file(GLOB vestra_tb_files CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/data/syzygy/*.rtbw" "${CMAKE_SOURCE_DIR}/data/syzygy/*.rtbz")
list(SORT vestra_tb_files COMPARE STRING)
list(LENGTH vestra_tb_files vestra_tb_count)

set(vestra_tb_out "${CMAKE_BINARY_DIR}/embed/syzygy_tables.S")
set(vestra_tb_blob "    ${VESTRA_ASM_RODATA}\n    .balign 64\n    .global tb_embedded_region\ntb_embedded_region:\n")
set(vestra_tb_rows "    ${VESTRA_ASM_RELRO}\n    .balign 64\n    .global tb_embedded_files\ntb_embedded_files:\n")
set(vestra_tb_index 0)
foreach(vestra_tb_file ${vestra_tb_files})
  get_filename_component(vestra_tb_name "${vestra_tb_file}" NAME)
  file(SIZE "${vestra_tb_file}" vestra_tb_size)
  string(LENGTH "${vestra_tb_name}" vestra_tb_len)
  math(EXPR vestra_tb_pad "32 - ${vestra_tb_len}")
  string(APPEND vestra_tb_blob "    .balign 64\n.Ltb_file_${vestra_tb_index}:\n    .incbin \"${vestra_tb_file}\"\n")
  string(APPEND vestra_tb_rows "    .ascii \"${vestra_tb_name}\"\n    .zero ${vestra_tb_pad}\n    .quad ${vestra_tb_size}\n    .quad .Ltb_file_${vestra_tb_index}\n")
  math(EXPR vestra_tb_index "${vestra_tb_index} + 1")
endforeach()
string(APPEND vestra_tb_blob "    .balign 64\n    .global tb_embedded_region_end\ntb_embedded_region_end:\n")
string(APPEND vestra_tb_rows "    .global tb_embedded_file_count\n    .balign 8\ntb_embedded_file_count:\n    .quad ${vestra_tb_count}\n")

file(WRITE "${vestra_tb_out}.in" "${vestra_tb_blob}${vestra_tb_rows}${VESTRA_ASM_NOTE}")
configure_file("${vestra_tb_out}.in" "${vestra_tb_out}" COPYONLY)
set_property(SOURCE "${vestra_tb_out}" APPEND PROPERTY OBJECT_DEPENDS ${vestra_tb_files})
list(APPEND VESTRA_EMBEDDED_SOURCES "${vestra_tb_out}")
