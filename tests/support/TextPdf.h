// Real PDFs with known text on known pages, drawn with cairo's PDF surface
// (its text is searchable: cairo embeds the fonts with their Unicode map).
#pragma once

#include <cairo-pdf.h>
#include <cairo.h>

#include <string>
#include <vector>

namespace orvane {

// One page per entry, each line of a page drawn below the one before.
inline bool WriteTextPdf(const std::string& path,
                         const std::vector<std::vector<std::string>>& pages) {
  cairo_surface_t* surface = cairo_pdf_surface_create(path.c_str(), 612, 792);
  cairo_t* cr = cairo_create(surface);
  cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr, 10);
  for (const auto& lines : pages) {
    double y = 72;
    for (const std::string& line : lines) {
      cairo_move_to(cr, 36, y);
      cairo_show_text(cr, line.c_str());
      y += 14;
    }
    cairo_show_page(cr);
  }
  cairo_destroy(cr);
  cairo_surface_finish(surface);
  bool ok = cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS;
  cairo_surface_destroy(surface);
  return ok;
}

} // namespace orvane
