#pragma once

// The network a second time, as a plain and slow reading in double precision. It shares nothing
// with the engine but the file of weights: the layers are written down here once more, from the
// drawing of the network and not from the engine's table, and the places of the tensors in the file
// follow from that description.
//
// It is evaluated in floats as well, with every sum in one plain order. How far that strays from
// the doubles tells what rounding does to this picture with these weights, and so how far the
// engine, which takes its sums in other orders, may stray.

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace tavro::test {

struct Reading {
  double value = 0;
  double deviation = 0;  ///< typical error of a float evaluation
};

class ReferenceNetwork {
 public:
  static constexpr int32_t side = 192;
  static constexpr size_t priorCount = 2088;

  /// Throws std::runtime_error if the file doesn't hold exactly the tensors of this network: raw
  /// floats ordered by the tensors' names, each tensor at the next multiple of 128 bytes.
  explicit ReferenceNetwork(const std::string& weightsPath);

  struct Output {
    std::vector<Reading> scores;  ///< two probabilities for each prior
    std::vector<Reading> boxes;   ///< four offsets for each prior
  };

  /// `picture`: side * side pixels of three bytes B, G, R.
  Output run(std::span<const uint8_t> picture);

 private:
  std::map<std::string, std::vector<float>> weights_;
};

}  // namespace tavro::test
