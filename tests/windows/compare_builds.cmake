# Fails unless two builds of frame_digest see and find the same in every frame.
#   cmake -D FIRST=COMMAND -D SECOND=COMMAND -D PICTURE=FILE -P compare_builds.cmake
foreach(build FIRST SECOND)
  execute_process(COMMAND ${${build}} "${PICTURE}" OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "frame [^\r\n]*" ${build}_FRAMES "${text}")  # not the lines of the engine
endforeach()
list(LENGTH FIRST_FRAMES count)
if(count EQUAL 0 OR NOT FIRST_FRAMES STREQUAL SECOND_FRAMES)
  list(JOIN FIRST_FRAMES "\n" FIRST_FRAMES)
  list(JOIN SECOND_FRAMES "\n" SECOND_FRAMES)
  message(FATAL_ERROR "The builds differ.\n${FIRST_FRAMES}\n\n${SECOND_FRAMES}")
endif()
message(STATUS "${count} frames: the same network input and the same rectangles")
