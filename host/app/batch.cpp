// --output-dir: several inputs, each a run with files of its own in one folder. All is planned and
// checked before anything is written, so that a wrong name doesn't come to light hours later.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include "host/app/output/text_format.h"
#include "host/app/platform/media.h"
#include "host/app/platform/process.h"
#include "host/app/run.h"
#include "host/core/utf8_path.h"

namespace tavro::host {

namespace {

namespace fs = std::filesystem;

struct Source {
  std::string input;
  std::string name;  ///< what stands for it in the names of files
};

bool isVideo(const fs::path& file) {
  const std::vector<std::string> known = videoExtensions();
  return std::ranges::any_of(known, [name = utf8FromPath(file)](const std::string& extension) {
    return hasExtension(name, extension);
  });
}

/// The videos in and below a folder, by name. Hidden files and what is in `excluded` don't count.
std::vector<Source> videosIn(const std::string& folder, const fs::path& excluded) {
  std::vector<Source> videos;
  std::error_code failure;
  const fs::path top = pathFromUtf8(folder);
  fs::recursive_directory_iterator entry(top, fs::directory_options::skip_permission_denied,
                                         failure);
  for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
    const fs::path& path = entry->path();
    const bool isHidden = utf8FromPath(path.filename()).starts_with('.');
    std::error_code ignored;
    if (entry->is_directory(ignored)) {
      if (isHidden || placeOf(utf8FromPath(path)) == excluded)
        entry.disable_recursion_pending();
    } else if (!isHidden && isVideo(path)) {
      videos.push_back(
          {utf8FromPath(path), utf8FromPath(path.lexically_relative(top).replace_extension())});
    }
  }
  std::ranges::sort(videos, {}, &Source::input);
  return videos;
}

/// For a file its name without folder and ending, for an address the same of its path.
std::string nameOf(const std::string& input) {
  std::string path = input;
  if (path.find("://") != std::string::npos) {
    path.resize(std::min(path.find_first_of("?#"), path.size()));
    while (path.ends_with('/'))
      path.pop_back();
  }
  std::string name = utf8FromPath(pathFromUtf8(path).stem());
  return name.empty() ? "input" : name;
}

/// Each input once.
std::vector<Source> sourcesOf(const Batch& batch) {
  std::vector<Source> sources;
  std::set<fs::path> known;
  for (const std::string& input : batch.inputs) {
    std::error_code ignored;
    std::vector<Source> found = {{input, nameOf(input)}};
    if (fs::is_directory(pathFromUtf8(input), ignored))
      if (auto videos = videosIn(input, placeOf(batch.folder)); !videos.empty())
        found = std::move(videos);
    for (Source& source : found)
      if (known.insert(placeOf(source.input)).second)
        sources.push_back(std::move(source));
  }
  return sources;
}

std::string resultsEnding(const std::string& format) {
  const std::string name = format.empty() ? textFormats().front().name : format;
  return name.ends_with("-filter") ? "{}." + name + ".txt" : "{}." + name;
}

/// The name while the file isn't complete. The ending stays, which says what the file is.
fs::path unfinished(const fs::path& target) {
  fs::path name = target.stem();
  name += ".part";
  name += target.extension();
  return target.parent_path() / name;
}

/// True if all of the run's files are there, and none is older than its input.
bool isComplete(const Options& options) {
  std::error_code noTime;
  const auto changed = fs::last_write_time(pathFromUtf8(options.input.path), noTime);
  return std::ranges::all_of(writtenNames, [&](const auto& target) {
    const std::string& name = options.output.*target.second;
    std::error_code missing;
    const auto written =
        name.empty() ? fs::file_time_type() : fs::last_write_time(pathFromUtf8(name), missing);
    return name.empty() || (!missing && (noTime || written >= changed));
  });
}

/// The same run, writing to names that tell that it isn't complete. Makes their folders.
Options withUnfinishedNames(Options options) {
  for (const auto& [option, target] : writtenNames) {
    std::string& name = options.output.*target;
    if (name.empty())
      continue;
    const fs::path path = unfinished(pathFromUtf8(name));
    std::error_code failure;  // what is written there tells of it
    fs::create_directories(path.parent_path(), failure);
    name = utf8FromPath(path);
  }
  for (std::string left; !(left = earlierFacePicture(options.output.cropFaces)).empty();) {
    std::error_code failure;
    if (!fs::remove(pathFromUtf8(left), failure))
      break;
  }
  return options;
}

/// Gives the files of a complete run their names. False if that fails, with a line for the user.
bool renameFinished(const Options& options) {
  for (const auto& [option, target] : writtenNames) {
    const std::string& name = options.output.*target;
    std::error_code failure;
    const fs::path path = pathFromUtf8(name);
    if (!name.empty())
      fs::rename(unfinished(path), path, failure);
    if (failure) {
      std::fprintf(stderr, "tavro-fd: %s: %s\n", name.c_str(), failure.message().c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

std::string planBatch(const Options& common, Batch& batch) {
  Options pattern = common;
  OutputOptions& output = pattern.output;
  output.isOneOfSeveral = true;
  if (!output.serve.empty())
    return "--serve shows a single input, without --output-dir";
  if (output.results.empty() && (!output.format.empty() || !writesOrShows(output)))
    output.results = resultsEnding(output.format);
  for (const auto& [option, target] : writtenNames)
    if (const std::string& name = output.*target;
        !name.empty() && name.find("{}") == std::string::npos)
      return std::string(option) + " needs {} for the input's name, with --output-dir: " + name;

  const std::vector<Source> sources = sourcesOf(batch);
  std::map<fs::path, std::string> inputs;  // by what is written
  std::map<fs::path, std::string> sourcesAt;
  for (const Source& source : sources)
    sourcesAt.emplace(placeOf(source.input), source.input);
  for (const Source& source : sources) {
    if (source.input == "-")
      return "the standard input has no name for its results: it can't be one of several inputs";
    Options options = pattern;
    options.input.path = source.input;
    std::vector<std::string> words = batch.words;
    for (const auto& [option, target] : writtenNames) {
      std::string& name = options.output.*target;
      if (name.empty())
        continue;
      for (size_t at = 0; (at = name.find("{}", at)) != std::string::npos; at += source.name.size())
        name.replace(at, 2, source.name);
      name = utf8FromPath(pathFromUtf8(batch.folder) / pathFromUtf8(name));
      if (const auto [other, isNew] = inputs.emplace(placeOf(name), source.input); !isNew)
        return other->second + " and " + source.input + " would both be written to " + name;
      if (sourcesAt.contains(placeOf(name)))
        return "an input would be overwritten: " + name;
      words.insert(words.end(), {option, name});
    }
    words.push_back(source.input);
    options.output.command = commandOf(words);
    if (batch.resumes && isComplete(options)) {
      ++batch.alreadyComplete;
      continue;
    }
    if (std::string fault = contradiction(options); !fault.empty())
      return fault;
    batch.runs.push_back(std::move(options));
  }
  return {};
}

int runBatch(const Batch& batch) {
  std::map<int, std::vector<std::string>> inputs;  // by exit code
  ProgressLine progress;
  for (size_t i = 0; i < batch.runs.size() && !isStopRequested(); ++i) {
    const Options& options = batch.runs[i];
    progress.beginInput(i + 1, batch.runs.size());
    if (options.stats)
      std::fprintf(stderr, "%s\n", options.input.path.c_str());
    int code = run(withUnfinishedNames(options), progress);
    if (code == exitSuccess && !renameFinished(options))
      code = exitBadInput;
    inputs[code].push_back(options.input.path);
  }
  progress.erase();

  const auto list = [&inputs](int code, const char* what) {
    for (const std::string& input : inputs[code])
      std::fprintf(stderr, "tavro-fd: %s: %s\n", what, input.c_str());
    return inputs[code].size();
  };
  const size_t incomplete = list(exitIncomplete, "incomplete");
  const size_t failed = list(exitBadInput, "failed");
  const size_t complete = inputs[exitSuccess].size();
  std::fprintf(stderr, "tavro-fd: %zu complete, %zu incomplete, %zu failed", complete, incomplete,
               failed);
  if (batch.resumes)
    std::fprintf(stderr, ", %lld complete before", static_cast<long long>(batch.alreadyComplete));
  if (isStopRequested())
    std::fprintf(stderr, ", %zu not begun or stopped",
                 batch.runs.size() - complete - incomplete - failed);
  std::fputc('\n', stderr);
  if (isStopRequested())
    return exitStopped + stopSignal();
  return incomplete + failed != 0 ? exitIncomplete : exitSuccess;
}

}  // namespace tavro::host
