# Turns files into a C++ source of byte arrays, so that a program carries them inside itself:
#   cmake -DOUTPUT=file.cpp -DNAMESPACE=fsu::sim -DFILES="a.html|b.js" -P EmbedFiles.cmake
# The source defines `const EmbeddedFile kEmbeddedFiles[]` (name, bytes, size) and its count,
# as declared in sim/panel_assets.h.
string(REPLACE "|" ";" FILES "${FILES}")
set(arrays "")
set(table "")
set(index 0)
foreach(path ${FILES})
  get_filename_component(name ${path} NAME)
  file(READ ${path} hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
  string(APPEND arrays "const unsigned char file${index}[${size} + 1] = {\n${bytes}0};\n")
  string(APPEND table "    {\"${name}\", file${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE ${OUTPUT}.new "// Made by cmake/EmbedFiles.cmake; do not edit.
#include \"sim/panel_assets.h\"

namespace ${NAMESPACE} {
namespace {
${arrays}}  // namespace

const EmbeddedFile kEmbeddedFiles[] = {
${table}};
const std::size_t kEmbeddedFileCount = ${index};

}  // namespace ${NAMESPACE}
")
file(COPY_FILE ${OUTPUT}.new ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.new)
