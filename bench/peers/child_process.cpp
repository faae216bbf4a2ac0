#include "bench/peers/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace tavro::bench {
namespace {

struct Pipe {
  int readEnd = -1;
  int writeEnd = -1;

  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
      throw std::runtime_error("no pipe for a child process");
    readEnd = ends[0];
    writeEnd = ends[1];
  }
};

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command) {
  std::signal(SIGPIPE, SIG_IGN);  // a child that has died is an error of `ask`
  const Pipe input;
  const Pipe output;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.readEnd, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.writeEnd, STDOUT_FILENO);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const int error =
      posix_spawnp(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(input.readEnd);
  close(output.writeEnd);
  toChild_ = fdopen(input.writeEnd, "w");
  fromChild_ = fdopen(output.readEnd, "r");
  if (error != 0)
    process_ = -1;
}

ChildProcess::~ChildProcess() {
  if (toChild_ != nullptr)
    static_cast<void>(std::fclose(toChild_));
  if (fromChild_ != nullptr)
    static_cast<void>(std::fclose(fromChild_));
  if (process_ != -1)
    waitpid(process_, nullptr, 0);
}

std::string ChildProcess::ask(const std::string& line) {
  char* answer = nullptr;
  size_t capacity = 0;
  ssize_t length = -1;
  if (process_ != -1 && std::fprintf(toChild_, "%s\n", line.c_str()) > 0 &&
      std::fflush(toChild_) == 0)
    length = getline(&answer, &capacity, fromChild_);
  std::string text =
      length > 0 ? std::string(answer, static_cast<size_t>(length - 1)) : std::string();
  std::free(answer);
  if (length <= 0)
    throw std::runtime_error("a child process doesn't answer '" + line + "'");
  return text;
}

}  // namespace tavro::bench
