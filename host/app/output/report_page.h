#pragma once

// The page of --report: one HTML file that needs nothing beside it, neither network nor script.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/app/best_faces.h"

namespace tavro::host {

struct Span {
  double from = 0.0;  ///< seconds
  double to = 0.0;
};

struct ReportData {
  std::string input;
  int32_t width = 0;
  int32_t height = 0;
  double endTime = 0.0;              ///< seconds
  std::vector<double> milliseconds;  ///< of each analysed frame
  std::map<int64_t, FaceStory> faces;
  std::map<int64_t, std::vector<Span>> presence;  ///< of each face, in the order of time
};

std::string reportPage(const ReportData& data);

/// Text as it stands in HTML, in attributes too.
std::string escapedForHtml(const std::string& text);

std::string base64(const std::vector<uint8_t>& bytes);

}  // namespace tavro::host
