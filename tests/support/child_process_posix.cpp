#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include "tests/support/child_process.h"

namespace tavro::test {

const char* const nullDevice = "/dev/null";

int runProgram(const std::string& file, const std::vector<std::string>& arguments,
               const StandardStreams& streams) {
  std::vector<std::string> words = {file};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words)
    pointers.push_back(word.data());
  pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, streams.input.c_str(), O_RDONLY, 0);
  for (const auto& [descriptor, path] :
       {std::pair{STDOUT_FILENO, &streams.output}, {STDERR_FILENO, &streams.errors}})
    posix_spawn_file_actions_addopen(&actions, descriptor, path->c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY, 0600);
  pid_t process = 0;
  const int failure =
      posix_spawn(&process, file.c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0)
    return -1;
  int status = 0;
  waitpid(process, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tavro::test
