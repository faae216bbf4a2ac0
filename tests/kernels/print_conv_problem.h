#pragma once

// Lets a failed expectation name the geometry.

#include <ostream>

#include "engine/conv_problem.h"

namespace TavroRTC::FDModule {

inline std::ostream& operator<<(std::ostream& out, const ConvProblem& p) {
  return out << "input " << p.inputH << 'x' << p.inputW << 'x' << p.inputC << ", output "
             << p.outputH << 'x' << p.outputW << 'x' << p.outputC << ", kernel " << p.kernelH << 'x'
             << p.kernelW << ", strides " << p.strideH << ' ' << p.strideW << ", dilations "
             << p.dilationH << ' ' << p.dilationW << ", padding top " << p.padTop << " bottom "
             << p.padBottom << " left " << p.padLeft << " right " << p.padRight << ", groups "
             << p.group << ", activation " << p.activation.kind;
}

}  // namespace TavroRTC::FDModule
