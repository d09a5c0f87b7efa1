// A report as a page of HTML that needs no other file and no network.
#pragma once

#include <string>

#include "tools/report/Document.h"

namespace tool {

// Texts of the document are data only: none of them becomes markup. The tables hold everything; the
// page's script draws its pictures from them.
std::string PageOf(const Document& document);

}  // namespace tool
