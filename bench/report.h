#pragma once

// What the report is made of. Sections append to it, report.cpp writes it as JSON, and
// render.py makes the table and the plot of it.

#include <string>
#include <vector>

#include "bench/peers/peers.h"
#include "bench/sampler.h"

namespace tavro::bench {

struct PeerTime {
  std::string name;
  Timing timing;
};

/// One line of the table.
struct Row {
  std::string group;  ///< "layer", "network", "image", "detection", "frame", "start"
  std::string name;
  std::string detail;
  Timing timing;
  double operations = 0;           ///< of one run; 0 if they aren't arithmetic
  double bytes = 0;                ///< of memory traffic
  double cycles = 0;               ///< that a run needs at least; 0 if nobody knows
  bool boundByArithmetic = false;  ///< and not by memory traffic
  std::vector<PeerTime> peers;     ///< the first is the one to be compared with
};

/// A number that isn't a time.
struct Quantity {
  std::string name;
  double value = 0;
  std::string unit;
};

enum class Goal { atMost, atLeast };

/// What the project wants to reach, and what this run has reached.
struct Target {
  std::string name;
  double value = 0;
  Goal goal = Goal::atMost;
  double limit = 0;
  std::string unit;

  bool isMet() const { return goal == Goal::atMost ? value <= limit : value >= limit; }
};

/// How far the result of a peer is from ours.
struct Check {
  std::string name;
  double difference = 0;
  double limit = 0;

  bool holds() const { return difference <= limit; }
};

struct Report {
  double peakGflops = 0;  ///< measured, median; 0 on a processor without AVX and FMA
  double bestPeakGflops = 0;
  double peak512Gflops = 0;  ///< with 512-bit registers; 0 without AVX-512
  std::vector<Row> rows;
  std::vector<Quantity> quantities;
  std::vector<Target> targets;
  std::vector<Check> checks;
  std::vector<std::string> notes;

  /// Cycles a nanosecond, from the measured peak.
  double gigahertz() const;
  /// True if 512-bit operations run whole and not in two halves.
  bool has512BitUnits() const { return peak512Gflops > 1.5 * peakGflops; }
  /// Gigaflops as a share of the peak.
  double shareOfPeak(double operations, const Timing& timing) const;
};

/// Where things are, and how long to measure.
struct ReportOptions {
  PeerSetup peers;
  std::string module;  ///< the detector as a file to load
  std::string probe;   ///< start_probe
  std::string output;  ///< the JSON file to write
  std::vector<int>
      cores;          ///< that may be used; everything but the pair of instances is on the last
  double effort = 1;  ///< factor on the number of rounds

  int rounds(int usual) const;
};

// Each measures its part and appends to the report. They throw std::runtime_error where nothing can
// be measured. The network comes first: it measures the peak that others refer to.
void measureNetwork(Report& report, const ReportOptions& options);
void measureImage(Report& report, const ReportOptions& options);
void measureFormats(Report& report, const ReportOptions& options);
void measureDetection(Report& report, const ReportOptions& options);
void measureFrames(Report& report, const ReportOptions& options);
void measureWindows(Report& report, const ReportOptions& options);
void measureTwoCores(Report& report, const ReportOptions& options);
void measureStart(Report& report, const ReportOptions& options);

}  // namespace tavro::bench
