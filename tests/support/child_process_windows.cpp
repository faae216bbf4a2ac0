#include <windows.h>

#include "host/core/utf8_path.h"
#include "tests/support/child_process.h"

namespace tavro::test {

const char* const nullDevice = "NUL";

namespace {

/// A handle that the child inherits; closed at the end of the scope.
class InheritedFile {
 public:
  InheritedFile(const std::string& name, bool forReading) {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    handle_ =
        CreateFileW(host::pathFromUtf8(name).c_str(), forReading ? GENERIC_READ : GENERIC_WRITE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                    forReading ? OPEN_EXISTING : CREATE_ALWAYS, 0, nullptr);
  }
  ~InheritedFile() { CloseHandle(handle_); }
  InheritedFile(const InheritedFile&) = delete;
  InheritedFile& operator=(const InheritedFile&) = delete;

  HANDLE handle() const { return handle_; }

 private:
  HANDLE handle_;
};

/// An argument as the C runtime will read it back: in quotes, with the quotes and the backslashes
/// in front of them doubled up.
std::wstring quoted(const std::string& argument) {
  std::wstring text = L"\"";
  size_t backslashes = 0;
  const std::filesystem::path letters = host::pathFromUtf8(argument);
  for (const wchar_t letter : letters.native()) {
    if (letter == L'"')
      text.append(backslashes + 1, L'\\');
    backslashes = letter == L'\\' ? backslashes + 1 : 0;
    text += letter;
  }
  text.append(backslashes, L'\\');
  return text + L'"';
}

}  // namespace

int runProgram(const std::string& file, const std::vector<std::string>& arguments,
               const StandardStreams& streams) {
  const InheritedFile input(streams.input, true);
  const InheritedFile output(streams.output, false);
  const InheritedFile errors(streams.errors, false);
  std::wstring line = quoted(file);
  for (const std::string& argument : arguments)
    line += L' ' + quoted(argument);

  STARTUPINFOW start = {};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = input.handle();
  start.hStdOutput = output.handle();
  start.hStdError = errors.handle();
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                      &process))
    return -1;
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(process.hProcess, &code);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code < 0x80000000U ? static_cast<int>(code) : -1;  // above are exceptions
}

}  // namespace tavro::test
