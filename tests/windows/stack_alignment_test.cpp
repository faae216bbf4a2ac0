// The system promises a stack at multiples of 16 bytes only, so the module must work both where it
// happens to be a multiple of 32 and where it isn't. Its vectors have 32 bytes.

#include <gtest/gtest.h>

#include <vector>

#include "host/core/face_rects.h"
#include "host/core/i420_frame.h"
#include "host/core/module_host.h"
#include "modules/face_detection/fd_wrapper.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/portrait.h"

/// Calls function(first, second) with the stack pointer at `offset` modulo 32 just before the call,
/// and stores there what it was.
extern "C" bool callWithStackAt(const void* function, void* first, const void* second, void* third,
                                uint64_t offset, uint64_t* stackPointer);
asm(R"(
	.text
	.globl callWithStackAt
	.def callWithStackAt; .scl 2; .type 32; .endef
	.seh_proc callWithStackAt
callWithStackAt:
	pushq %rbp
	.seh_pushreg %rbp
	movq %rsp, %rbp
	.seh_setframe %rbp, 0
	.seh_endprologue
	movq 48(%rbp), %r10
	movq 56(%rbp), %r11
	andq $-32, %rsp
	subq $64, %rsp
	addq %r10, %rsp
	movq %rsp, (%r11)
	movq %rcx, %rax
	movq %rdx, %rcx
	movq %r8, %rdx
	movq %r9, %r8
	call *%rax
	movq %rbp, %rsp
	popq %rbp
	ret
	.seh_endproc
)");

namespace tavro::host {
namespace {

using TavroRTC::FDModule::FaceRect;
using TavroRTC::FDModule::FDWrapper;

/// The places of an instance's virtual table, as hosts count them.
enum TablePlace { initPlace = 1, executePlace = 2 };

const void* operationOf(const FDWrapper* instance, TablePlace place) {
  return (*reinterpret_cast<const void* const* const*>(instance))[place];
}

std::vector<std::vector<FaceRect>> rectanglesWithStackAt(uint64_t offset) {
  const I420Frame frame = test::Portrait().frame();
  FDWrapper* instance = nullptr;
  EXPECT_EQ(createInstance(TavroRTC::FDModule::moduleName, &instance).error, "");
  std::vector<std::vector<FaceRect>> rectangles;
  if (instance == nullptr)
    return rectangles;

  uint64_t stackPointer = 0;
  EXPECT_TRUE(callWithStackAt(operationOf(instance, initPlace), instance, nullptr, nullptr, offset,
                              &stackPointer));
  EXPECT_EQ(stackPointer % 32, offset);
  FaceRects faces;
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(callWithStackAt(operationOf(instance, executePlace), instance, &frame,
                                faces.sequence(), offset, &stackPointer));
    EXPECT_EQ(stackPointer % 32, offset);
    rectangles.emplace_back(faces.view().begin(), faces.view().end());
  }
  EXPECT_EQ(destroyInstance(instance).error, "");
  return rectangles;
}

TEST(StackAlignment, TheModuleWorksAtEveryMultipleOf16) {
  ASSERT_EQ(loadModule(TAVRO_MODULE_PATH).error, "");
  test::CapturedStdout quiet;
  const auto aligned = rectanglesWithStackAt(0);
  const auto shifted = rectanglesWithStackAt(16);
  quiet.stop();
  EXPECT_EQ(aligned.size(), 3U);
  EXPECT_EQ(aligned, shifted);
  EXPECT_EQ(unloadModule(TavroRTC::FDModule::moduleName).error, "");
}

}  // namespace
}  // namespace tavro::host
