// A host as it is on Windows: made by a compiler with Microsoft's C++ ABI, linked with another C
// runtime than the module, with a core library and a heap of its own. It includes the boundary's
// headers as they are, so the places in the virtual tables are those that such a compiler
// chooses.
//
//   foreign_host MODULE PICTURE    the picture is I420, 160x120
//
// Prints what it found of the module; exit code 1 if anything wasn't as it should be.

#include "modules/face_detection/fd_wrapper.h"
#include "tests/windows/foreign.h"

using namespace TavroRTC::FDModule;

// What the compiler's code asks of its runtime.
extern "C" int _fltused = 0;
extern "C" [[noreturn]] void _purecall() {
  exit(3);
}

namespace {

constexpr int32_t pictureWidth = 160;
constexpr int32_t pictureHeight = 120;
constexpr int32_t pictureBytes = pictureWidth * pictureHeight * 3 / 2;
uint8_t picture[pictureBytes];

int failures = 0;

void expect(bool holds, const char* what) {
  if (holds)
    return;
  ++failures;
  printf("FAILED: %s\n", what);
}

/// The heap that holds nothing but the result sequence's elements.
Handle ownHeap = nullptr;
int growCalls = 0;

bool growInOwnHeap(FaceRectSequence* sequence, int32_t capacity) {
  ++growCalls;
  const size_t bytes = static_cast<size_t>(capacity) * sizeof(FaceRect);
  void* elements = sequence->elements == nullptr
                       ? HeapAlloc(ownHeap, 0, bytes)
                       : HeapReAlloc(ownHeap, 0, sequence->elements, bytes);
  if (elements == nullptr)
    return false;
  sequence->elements = static_cast<FaceRect*>(elements);
  sequence->capacity = capacity;
  return true;
}

/// Blocks in use in all heaps of the process but the host's own.
int64_t foreignBlocks() {
  Handle heaps[64];
  const uint32_t count = GetProcessHeaps(64, heaps);
  int64_t blocks = 0;
  for (uint32_t i = 0; i < count && i < 64; ++i) {
    HeapEntry entry = {};
    while (heaps[i] != ownHeap && HeapWalk(heaps[i], &entry) != 0)
      blocks += (entry.flags & heapEntryBusy) != 0 ? 1 : 0;
  }
  return blocks;
}

/// The upper `rows` rows of the picture. It remembers what was asked, in order.
class LoggedFrame final : public HostFrame {
 public:
  explicit LoggedFrame(int32_t rows) : rows_(rows) {}

  const uint8_t* planeData(int32_t plane) const override {
    log('d', plane);
    constexpr int32_t luma = pictureWidth * pictureHeight;
    return picture + (plane == 0 ? 0 : plane == 1 ? luma : luma * 5 / 4);
  }
  int32_t planeStride(int32_t plane) const override {
    log('s', plane);
    return plane == 0 ? pictureWidth : pictureWidth / 2;
  }
  int32_t width() const override {
    log('w', 0);
    return pictureWidth;
  }
  int32_t height() const override {
    log('h', 0);
    return rows_;
  }

  bool wasAsked(const char* expected) const { return strcmp(asked_, expected) == 0; }

 private:
  void log(char what, int32_t plane) const {
    if (count_ + 2 < static_cast<int>(sizeof asked_)) {
      asked_[count_++] = what;
      asked_[count_++] = static_cast<char>('0' + plane);
    }
  }

  int32_t rows_;
  mutable char asked_[32] = {};
  mutable int count_ = 0;
};

FDWrapper* newInstance() {
  FDWrapper* instance = nullptr;
  ModuleCommand command;
  command.code = createInstanceCommand;
  command.object = &instance;
  expect(foreignNotes()->callback(nullptr, &command) == 0 && instance != nullptr, "an instance");
  return instance;
}

/// One life of an instance. It ends either through the module's callback or, which must be the
/// same, through the destructor's place in the virtual table.
void runInstance(bool deleteIt) {
  FDWrapper* instance = newInstance();
  if (instance == nullptr)
    return;
  FaceRectSequence faces;
  faces.grow = &growInOwnHeap;
  expect(instance->init(), "init() by its place in the table");
  for (int32_t frame = 0; frame < 6; ++frame) {
    const LoggedFrame view(pictureHeight - frame % 3 * 2);
    expect(instance->execute(&view, &faces), "execute() by its place in the table");
    expect(view.wasAsked("d0d1d2w0h0s0s1"), "the seven calls on the frame, in their order");
    expect(faces.size <= faces.capacity, "a size within the capacity");
  }
  expect(!instance->execute(nullptr, &faces), "a null frame is refused");
  if (faces.elements != nullptr) {
    expect(HeapValidate(ownHeap, 0, faces.elements) != 0, "elements still of the host's heap");
    expect(HeapFree(ownHeap, 0, faces.elements) != 0, "elements that the host can free");
  }
  if (deleteIt) {
    delete instance;
  } else {
    ModuleCommand command;
    command.code = destroyInstanceCommand;
    command.object = instance;
    expect(foreignNotes()->callback(nullptr, &command) == 0, "destroying an instance");
  }
}

}  // namespace

extern "C" int main(int argumentCount, char** arguments) {
  FILE* file = argumentCount == 3 ? fopen(arguments[2], "rb") : nullptr;
  if (file == nullptr || fread(picture, 1, pictureBytes, file) != pictureBytes)
    return 2;
  fclose(file);
  ownHeap = HeapCreate(0, 0, 0);

  Handle module = LoadLibraryA(arguments[1]);
  if (module == nullptr) {
    printf("FAILED: the module can't be loaded\n");
    return 1;
  }
  const ForeignNotes* notes = foreignNotes();
  expect(strcmp(notes->calls, "sm") == 0, "so_register, then module_register, with its name");
  Handle holder = nullptr;
  constexpr uint32_t byAddressUncounted = 4 | 2;
  GetModuleHandleExA(byAddressUncounted, static_cast<const char*>(notes->codeAddress), &holder);
  expect(holder == module, "an address of the module's own code");

  runInstance(false);  // what the runtime keeps for good is there from now on
  const int64_t before = foreignBlocks();
  for (int round = 0; round < 4; ++round)
    runInstance(round % 2 == 0);
  expect(before > 0, "heaps that can be walked");
  expect(foreignBlocks() == before, "every block given back to the heap that it came from");
  expect(HeapValidate(ownHeap, 0, nullptr) != 0, "the host's heap as it should be");

  FDWrapper* unprepared = newInstance();
  delete unprepared;
  expect(FreeLibrary(module) != 0, "unloading");
  expect(strcmp(notes->calls, "smu") == 0, "module_unregister at unload");
  printf("the sequence has grown %d times, %d failures\n", growCalls, failures);
  return failures == 0 && growCalls > 0 ? 0 : 1;
}
