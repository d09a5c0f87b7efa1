#include "tools/report/Assets.h"

// The assembler takes the files in as they are. CMakeLists.txt gives their paths.
#define EMBED(name, path)       \
  __asm__(                      \
      ".pushsection .rodata\n"  \
      "embedded_" #name         \
      ":\n"                     \
      ".incbin \"" path         \
      "\"\n"                    \
      "embedded_" #name         \
      "_end:\n"                 \
      ".popsection\n"           \
      ".globl embedded_" #name  \
      "\n"                      \
      ".hidden embedded_" #name \
      "\n"                      \
      ".globl embedded_" #name  \
      "_end\n"                  \
      ".hidden embedded_" #name "_end\n")

EMBED(template, BLOBRING_PAGE_TEMPLATE);
EMBED(style, BLOBRING_PAGE_STYLE);
EMBED(script, BLOBRING_PAGE_SCRIPT);
EMBED(library, BLOBRING_CHART_LIBRARY);  // an empty file if there is none

extern "C" {
extern const char embedded_template[], embedded_template_end[];
extern const char embedded_style[], embedded_style_end[];
extern const char embedded_script[], embedded_script_end[];
extern const char embedded_library[], embedded_library_end[];
}

namespace tool {

std::string_view PageTemplate() {
  return {embedded_template, embedded_template_end};
}
std::string_view PageStyle() {
  return {embedded_style, embedded_style_end};
}
std::string_view PageScript() {
  return {embedded_script, embedded_script_end};
}
std::string_view ChartLibrary() {
  return {embedded_library, embedded_library_end};
}

}  // namespace tool
